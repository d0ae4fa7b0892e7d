// plenk watch: connects to the first scale found, through PKPlenk alone, and
// shows its live weight until Ctrl-C or --duration.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include <PlenkKit/PlenkKit.h>
#include <CLI/CLI.hpp>

#include "Commands.h"
#include "JsonWriter.h"

namespace plenk::cli {
namespace {

struct WatchOptions {
    bool sim = false;
    std::string backend;
    double duration = 0;  // seconds; 0 = until Ctrl-C
    bool verbose = false;
};

// Prints what the host hears: one updating line on a terminal, one line per
// event otherwise, or one JSON object per event.
class WatchPrinter {
public:
    WatchPrinter(bool json, bool tty) : json_(json), tty_(tty) {}

    void connected() { event("connected", "connected"); }
    void disconnected() { event("disconnected", "disconnected"); }
    void weight(float grams) {
        weight_ = grams;
        haveWeight_ = true;
        if (json_) return emit(JsonObject().string("event", "weight").number("value", grams).str());
        status();
    }
    void battery(std::int64_t level) {
        battery_ = level;
        if (json_) return emit(JsonObject().string("event", "battery").integer("value", level).str());
        status();
    }
    void button(std::uint64_t number) {
        if (json_) return emit(JsonObject().string("event", "button").unsignedInteger("value", number).str());
        note("button " + std::to_string(number));
    }
    void error(const Error& e) {
        if (json_) {
            return emit(JsonObject()
                            .string("event", "error")
                            .string("domain", e.domain())
                            .integer("code", e.code())
                            .string("description", e.localizedDescription())
                            .str());
        }
        note("error " + e.domain() + " " + std::to_string(e.code()) + ": " + e.localizedDescription());
    }
    void finish() {
        if (!json_ && tty_ && drawn_) std::fputc('\n', stdout);
        std::fflush(stdout);
    }

private:
    void event(const char* name, const char* state) {
        state_ = state;
        if (json_) return emit(JsonObject().string("event", name).str());
        status();
    }
    void emit(const std::string& line) {
        std::fputs(line.c_str(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    }
    void note(const std::string& text) {
        if (tty_ && drawn_) std::fputs("\r\x1b[K", stdout);
        emit(text);
        drawn_ = false;
        status();
    }
    void status() {
        char line[128];
        const std::string grams = haveWeight_ ? formatGrams(weight_) : std::string("    --.- g");
        const std::string battery = battery_ >= 0 ? std::to_string(battery_) + "%" : std::string("--");
        std::snprintf(line, sizeof line, "%s  %-12s battery %s", grams.c_str(), state_.c_str(),
                      battery.c_str());
        if (tty_) {
            std::fputs("\r\x1b[K", stdout);
            std::fputs(line, stdout);
            std::fflush(stdout);
            drawn_ = true;
        } else {
            emit(line);
        }
    }
    static std::string formatGrams(float grams) {
        char text[32];
        std::snprintf(text, sizeof text, "%8.1f g", static_cast<double>(grams));
        return text;
    }

    bool json_;
    bool tty_;
    bool drawn_ = false;
    bool haveWeight_ = false;
    float weight_ = 0;
    std::int64_t battery_ = -1;
    std::string state_ = "scanning";
};

class WatchDelegate final : public PKPlenkDelegate {
public:
    WatchDelegate(WatchPrinter& printer, std::function<void()> onConnected,
                  std::function<void()> onDisconnected)
        : printer_(printer),
          onConnected_(std::move(onConnected)),
          onDisconnected_(std::move(onDisconnected)) {}

    void plenkDidConnected(PKPlenk& /*plenk*/) override {
        printer_.connected();
        onConnected_();
    }
    void plenkDidDisconnected(PKPlenk& /*plenk*/) override {
        printer_.disconnected();
        onDisconnected_();
    }
    void plenkDidErrorOccur(PKPlenk& /*plenk*/, const ErrorPtr& error) override {
        if (error) printer_.error(*error);
    }
    void plenkWeightDidUpdate(float weight) override { printer_.weight(weight); }
    void plenkDeviceDidClickButton(std::uint64_t button) override { printer_.button(button); }

private:
    WatchPrinter& printer_;
    std::function<void()> onConnected_;
    std::function<void()> onDisconnected_;
};

// Ctrl-C and SIGTERM are taken by a thread of their own (sigwait) and turned
// into a task on the main loop; no work happens in a signal handler.
class SignalWatcher {
public:
    explicit SignalWatcher(std::function<void()> onSignal) {
        thread_ = std::thread([this, onSignal = std::move(onSignal)] {
            sigset_t set = signals();
            int received = 0;
            while (sigwait(&set, &received) == 0) {
                if (received == SIGUSR2 && stopping_) return;
                if (received != SIGUSR2) onSignal();
            }
        });
    }
    ~SignalWatcher() {
        stopping_ = true;
        pthread_kill(thread_.native_handle(), SIGUSR2);
        thread_.join();
    }
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

    // Blocks the signals in the calling thread and every thread it starts later.
    static void blockInThisProcess() {
        sigset_t set = signals();
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }

private:
    static sigset_t signals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGUSR2);
        return set;
    }

    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

void runWatch(const WatchOptions& options, const GlobalOptions& global) {
    SignalWatcher::blockInThisProcess();  // before any library thread starts

    auto loop = std::make_shared<RunLoop>();
    Context context;
    context.mainQueue = loop;
    context.log = options.verbose ? LogSink::standardError() : LogSink::discard();
    context.backendName = options.sim ? "sim" : options.backend;
    std::shared_ptr<PKPlenk> plenk;
    try {
        plenk = PKPlenk::create(context);
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }

    WatchPrinter printer(global.json, !global.json && isatty(STDOUT_FILENO) == 1);
    bool finishing = false;
    auto readBattery = [&] {
        plenk->readPlenkBatteryLifeWithCompletion([&printer](std::int64_t level) { printer.battery(level); });
    };
    auto finish = [&] {
        if (finishing) return;
        finishing = true;
        if (!plenk->isConnected()) return loop->stop();
        plenk->disconnect();
        loop->postAfter(std::chrono::seconds(2), [&] { loop->stop(); });  // the link may already be gone
    };
    auto delegate = std::make_shared<WatchDelegate>(printer, readBattery, [&] {
        if (finishing) loop->stop();
    });
    plenk->setDelegate(delegate);
    plenk->setIsAutoConnectEnabled(true);

    SignalWatcher signals([&loop, &finish] { loop->post([&finish] { finish(); }); });
    if (options.duration > 0) {
        loop->postAfter(std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::duration<double>(options.duration)),
                        [&finish] { finish(); });
    }
    loop->run();
    printer.finish();
    plenk.reset();
    loop->runUntilIdle();
}

}  // namespace

void addWatchCommand(CLI::App& app, const GlobalOptions& options) {
    auto watchOptions = std::make_shared<WatchOptions>();
    auto* watch = app.add_subcommand("watch", "Connect to the first scale found and show its live weight");
    watch->add_flag("--sim", watchOptions->sim, "Use the simulated scale (the embedded 'sim' backend)");
    watch->add_option("--backend", watchOptions->backend,
                      "Bluetooth backend by name (PLENK_BACKEND overrides)");
    watch
        ->add_option("--duration", watchOptions->duration,
                     "Stop after this many seconds (default: until Ctrl-C)")
        ->check(CLI::PositiveNumber);
    watch->add_flag("--verbose", watchOptions->verbose, "Show the library's diagnostic lines on stderr");
    watch->footer(
        "Shows grams with one decimal, the connection state and the battery level on one line;\n"
        "with --json one object per event: {\"event\":\"weight\",\"value\":12.5}, connected,\n"
        "disconnected, button, battery, error (domain, code, description).\n"
        "Ctrl-C disconnects cleanly.\n"
        "Example: plenk watch --sim --duration 12");
    watch->callback([watchOptions, &options] { runWatch(*watchOptions, options); });
}

}  // namespace plenk::cli
