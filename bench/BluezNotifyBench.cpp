// The host side of the notification benchmark on a Bluetooth backend (BlueZ
// against the fake bluetoothd, see bluez_notify.sh): connects to the first
// scale through the public API and records, for every weight the delegate
// hears, the weight (the sequence number the fake put in it) and the
// CLOCK_MONOTONIC time of the host callback. After the warm-up it measures the
// process's CPU time and the bus daemon's (BENCH_BUS_PID) over the window and
// writes "# cpu_seconds weights bus_cpu_seconds" last.
//
//   bluez_notify_bench OUT [SECONDS] [WARMUP_SECONDS]

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <PlenkKit/PlenkKit.h>

namespace {

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// CPU seconds of the bus daemon named by BENCH_BUS_PID; 0 without one.
double busCpuSeconds() {
    const char* pid =
        std::getenv("BENCH_BUS_PID");  // NOLINT(concurrency-mt-unsafe): read before threads matter
    if (pid == nullptr) return 0;
    std::FILE* stat = std::fopen((std::string("/proc/") + pid + "/stat").c_str(), "r");
    if (stat == nullptr) return 0;
    char text[1024] = {};
    const std::size_t length = std::fread(text, 1, sizeof text - 1, stat);
    std::fclose(stat);
    // Fields after the command's closing parenthesis: utime and stime are the 12th and 13th.
    const char* rest = std::strrchr(text, ')');
    unsigned long long user = 0;
    unsigned long long system = 0;
    if (length == 0 || rest == nullptr ||
        std::sscanf(rest + 1, " %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu %llu", &user, &system) !=
            2) {
        return 0;
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::int64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

class Recorder final : public plenk::PKPlenkDelegate {
public:
    explicit Recorder(std::size_t expected) { received.reserve(expected); }
    void plenkDidConnected(plenk::PKPlenk& /*plenk*/) override { connected = true; }
    void plenkWeightDidUpdate(float weight) override {
        if (measuring) received.emplace_back(static_cast<std::int64_t>(weight), monotonicNanoseconds());
    }
    bool connected = false;
    bool measuring = false;
    std::vector<std::pair<std::int64_t, std::int64_t>> received;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: bluez_notify_bench OUT [SECONDS] [WARMUP_SECONDS]\n", stderr);
        return 2;
    }
    const double seconds = argc > 2 ? std::atof(argv[2]) : 10.0;
    const double warmup = argc > 3 ? std::atof(argv[3]) : 1.0;
    auto loop = plenk::RunLoop::main();
    plenk::Context context;
    context.log = plenk::LogSink::discard();
    auto plenk = plenk::PKPlenk::create(context);
    auto recorder = std::make_shared<Recorder>(static_cast<std::size_t>(seconds * 2000));
    plenk->setDelegate(recorder);
    plenk->setIsAutoConnectEnabled(true);

    if (!loop->runUntil([&] { return recorder->connected; }, std::chrono::seconds(20))) {
        std::fputs("bluez_notify_bench: no scale connected\n", stderr);
        return 1;
    }
    loop->runFor(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(warmup)));
    recorder->measuring = true;
    const double start = cpuSeconds();
    const double busStart = busCpuSeconds();
    loop->runFor(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)));
    recorder->measuring = false;
    const double used = cpuSeconds() - start;
    const double busUsed = busCpuSeconds() - busStart;

    std::FILE* out = std::fopen(argv[1], "w");
    if (out == nullptr) return 1;
    for (const auto& [sequence, at] : recorder->received) {
        std::fprintf(out, "%lld %lld\n", static_cast<long long>(sequence), static_cast<long long>(at));
    }
    std::fprintf(out, "# %.6f %zu %.6f\n", used, recorder->received.size(), busUsed);
    std::fclose(out);
    plenk->disconnect();
    loop->runFor(std::chrono::milliseconds(300));
    return 0;
}
