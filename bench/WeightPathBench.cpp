// The weight path, end to end: from the emulated scale emitting a notification
// to the host delegate receiving plenkWeightDidUpdate on the main queue.
//
//   build/release/bench/weight_path_bench            # prints the table of BENCHMARKS.md
//
// Weights are sequence-tagged (binary packets whose mantissa is the sequence
// number, exact in a float below 2^24), so the host side checks that none is
// lost, duplicated or reordered. Heap allocations are counted by replacing the
// global operator new of this program.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include <PlenkKit/PlenkKit.h>

#include "backends/sim/SimBackend.h"
#include "backends/sim/VirtualPeripheral.h"
#include "backends/sim/World.h"
#include "dispatch/SerialQueue.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace {
std::atomic<std::uint64_t> gAllocations{0};
}

void* operator new(std::size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Receiver final : plenk::PKPlenkDelegate {
    std::atomic<bool> connected{false};
    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> errors{0};  // lost, duplicated or reordered
    std::uint64_t expected = 0;            // main-loop thread only
    std::vector<Clock::time_point>* arrivals = nullptr;

    void plenkDidConnected(plenk::PKPlenk&) override { connected = true; }
    void plenkWeightDidUpdate(float weight) override {
        const auto seq = static_cast<std::uint64_t>(weight);
        if (seq != expected) errors.fetch_add(1, std::memory_order_relaxed);
        expected = seq + 1;
        if (arrivals != nullptr && seq < arrivals->size()) (*arrivals)[seq] = Clock::now();
        received.fetch_add(1, std::memory_order_release);
    }
};

struct Rig {
    std::shared_ptr<plenk::RunLoop> loop = std::make_shared<plenk::RunLoop>();
    std::shared_ptr<plenk::sim::World> world;
    std::shared_ptr<plenk::sim::VirtualPeripheral> scale;
    std::shared_ptr<plenk::PKPlenk> plenk;
    std::shared_ptr<Receiver> receiver = std::make_shared<Receiver>();
    std::thread host;

    Rig() {
        plenk::sim::World::Options options;
        options.timings = plenk::sim::Timings::zero();
        options.streamByDefault = false;  // the benchmark emits by hand
        world = plenk::sim::World::make(plenk::Clock::steady(), options);
        world->setRadioState(plenk::bt::ManagerState::PoweredOn);
        scale = world->addScale();
        plenk::Context context;
        context.mainQueue = loop;
        context.log = plenk::LogSink::discard();
        context.backend = std::make_shared<plenk::sim::SimBackend>(world);
        plenk = plenk::PKPlenk::create(context);
        plenk->setDelegate(receiver);
        plenk->setIsAutoConnectEnabled(true);
        host = std::thread([this] { loop->run(); });
        while (!receiver->connected || scale->subscriberCount(plenk::wire::kDataCharacteristic) == 0) {
            std::this_thread::sleep_for(1ms);
        }
    }
    ~Rig() {
        loop->stop();
        host.join();
        plenk.reset();
        loop->runUntilIdle();
    }

    void emit(std::uint64_t seq) {
        const auto packet = plenk::wire::encodeBinaryWeight(static_cast<std::int32_t>(seq), 0);
        scale->notify(plenk::wire::kDataCharacteristic,
                      plenk::bt::Bytes(std::span<const std::uint8_t>(packet)));
    }
    void waitFor(std::uint64_t count) {
        while (receiver->received.load(std::memory_order_acquire) < count) std::this_thread::yield();
    }
};

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(index, v.size() - 1)];
}

struct LatencyResult {
    double p50, p99, max;
    std::uint64_t errors;
};

// Emits `count` weights at `hertz` (0 = flat out) and returns latencies in µs.
LatencyResult latencyRun(double hertz, std::uint64_t count) {
    Rig rig;
    std::vector<Clock::time_point> emitted(count);
    std::vector<Clock::time_point> arrived(count);
    rig.receiver->arrivals = &arrived;
    const auto period =
        hertz > 0 ? std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / hertz))
                  : Clock::duration::zero();
    auto next = Clock::now();
    for (std::uint64_t i = 0; i < count; ++i) {
        if (hertz > 0) {
            std::this_thread::sleep_until(next);
            next += period;
        }
        emitted[i] = Clock::now();
        rig.emit(i);
    }
    rig.waitFor(count);
    std::vector<double> micros(count);
    for (std::uint64_t i = 0; i < count; ++i) {
        micros[i] = std::chrono::duration<double, std::micro>(arrived[i] - emitted[i]).count();
    }
    return {percentile(micros, 0.50), percentile(micros, 0.99),
            *std::max_element(micros.begin(), micros.end()), rig.receiver->errors.load()};
}

// The floor under the 1 kHz row: the same two thread hops (a serial queue,
// then a run loop on its own thread) carrying a bare number, no library layer.
LatencyResult baselineRun(double hertz, std::uint64_t count) {
    auto loop = std::make_shared<plenk::RunLoop>();
    plenk::dispatch::SerialQueue queue("Corebluetooth");
    std::thread host([&] { loop->run(); });
    std::vector<Clock::time_point> emitted(count);
    std::vector<Clock::time_point> arrived(count);
    std::atomic<std::uint64_t> received{0};
    const auto period =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / hertz));
    auto next = Clock::now();
    for (std::uint64_t i = 0; i < count; ++i) {
        std::this_thread::sleep_until(next);
        next += period;
        emitted[i] = Clock::now();
        queue.post([&, i] {
            loop->post([&, i] {
                arrived[i] = Clock::now();
                received.fetch_add(1, std::memory_order_release);
            });
        });
    }
    while (received.load(std::memory_order_acquire) < count) std::this_thread::yield();
    loop->stop();
    host.join();
    std::vector<double> micros(count);
    for (std::uint64_t i = 0; i < count; ++i) {
        micros[i] = std::chrono::duration<double, std::micro>(arrived[i] - emitted[i]).count();
    }
    return {percentile(micros, 0.50), percentile(micros, 0.99),
            *std::max_element(micros.begin(), micros.end()), 0};
}

struct ThroughputResult {
    double perSecond;
    double allocationsPerWeight;
    std::uint64_t errors;
};

ThroughputResult throughputRun(std::uint64_t count) {
    Rig rig;
    const std::uint64_t warmup = 20000;
    for (std::uint64_t i = 0; i < warmup; ++i) rig.emit(i);
    rig.waitFor(warmup);
    const auto allocationsBefore = gAllocations.load();
    const auto start = Clock::now();
    for (std::uint64_t i = warmup; i < warmup + count; ++i) rig.emit(i);
    rig.waitFor(warmup + count);
    const auto seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const auto allocations = gAllocations.load() - allocationsBefore;
    return {static_cast<double>(count) / seconds,
            static_cast<double>(allocations) / static_cast<double>(count), rig.receiver->errors.load()};
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc > 1 && std::string_view(argv[1]) == "--quick";
    const std::uint64_t scale = quick ? 10 : 1;
    std::printf(
        "| run | weights | p50 µs | p99 µs | max µs | lost/dup/reordered |\n|---|---|---|---|---|---|\n");
    struct Rate {
        const char* name;
        double hertz;
        std::uint64_t count;
    };
    for (const Rate& rate :
         {Rate{"50 Hz", 50, 250}, Rate{"1 kHz", 1000, 5000}, Rate{"flat out", 0, 200000}}) {
        const auto count = std::max<std::uint64_t>(rate.count / scale, 50);
        const auto r = latencyRun(rate.hertz, count);
        std::printf("| latency %s | %llu | %.1f | %.1f | %.1f | %llu |\n", rate.name,
                    static_cast<unsigned long long>(count), r.p50, r.p99, r.max,
                    static_cast<unsigned long long>(r.errors));
    }
    {
        const auto count = std::max<std::uint64_t>(5000 / scale, 50);
        const auto r = baselineRun(1000, count);
        std::printf("| floor: two bare thread hops, 1 kHz | %llu | %.1f | %.1f | %.1f | - |\n",
                    static_cast<unsigned long long>(count), r.p50, r.p99, r.max);
    }
    const std::uint64_t count = 1000000 / scale;
    const auto t = throughputRun(count);
    std::printf(
        "\n| throughput flat out | weights | weights/s | heap allocations per weight | lost/dup/reordered |\n"
        "|---|---|---|---|---|\n| sustained | %llu | %.0f | %.3f | %llu |\n",
        static_cast<unsigned long long>(count), t.perSecond, t.allocationsPerWeight,
        static_cast<unsigned long long>(t.errors));
    return t.errors == 0 ? 0 : 1;
}
