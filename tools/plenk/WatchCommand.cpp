// plenk watch: connects to the first scale found, through PKPlenk alone, and
// shows its live weight until Ctrl-C or --duration.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include <PlenkKit/PlenkKit.h>
#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "JsonWriter.h"

namespace plenk::cli {
namespace {

struct WatchOptions {
    bool sim = false;
    std::string backend;
    std::optional<std::string> duration;  // seconds; none = until Ctrl-C
    bool verbose = false;
};

// Prints what the host hears: one updating line on a terminal, one line per
// event otherwise, or one JSON object per event. Events come from the main
// loop; the library's diagnostics (with --verbose) from any thread, so every
// entry takes the printer's lock.
class WatchPrinter {
public:
    WatchPrinter(bool json, bool tty) : json_(json), tty_(tty) {}

    void connected() { event("connected", "connected"); }
    void disconnected() { event("disconnected", "disconnected"); }
    void weight(float grams) {
        std::lock_guard lock(mutex_);
        weight_ = grams;
        haveWeight_ = true;
        if (json_) return emit(JsonObject().string("event", "weight").number("value", grams).str());
        status();
    }
    void battery(std::int64_t level) {
        std::lock_guard lock(mutex_);
        battery_ = level;
        if (json_) return emit(JsonObject().string("event", "battery").integer("value", level).str());
        status();
    }
    void button(std::uint64_t number) {
        std::lock_guard lock(mutex_);
        if (json_) return emit(JsonObject().string("event", "button").unsignedInteger("value", number).str());
        note("button " + std::to_string(number));
    }
    void error(const Error& e) {
        std::lock_guard lock(mutex_);
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
        std::lock_guard lock(mutex_);
        if (!json_ && tty_ && drawn_) std::fputc('\n', stdout);
        drawn_ = false;
        std::fflush(stdout);
    }
    // A diagnostic text of the library: its lines go to standard error, each
    // on a line of its own, with the live line cleared first and drawn again
    // after, so the two never run together on a terminal.
    void diagnostic(std::string_view text) {
        std::lock_guard lock(mutex_);
        const bool redraw = tty_ && drawn_;
        if (redraw) {
            std::fputs("\r\x1b[K", stdout);
            std::fflush(stdout);
            drawn_ = false;
        }
        while (!text.empty()) {
            const auto end = text.find('\n');
            auto line = text.substr(0, end);
            const auto first = line.find_first_not_of(" \t\r");
            if (first != std::string_view::npos) {
                line = line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
                std::fprintf(stderr, "plenk: library: %.*s\n", static_cast<int>(line.size()), line.data());
            }
            text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        }
        std::fflush(stderr);
        if (redraw) status();
    }

private:
    void event(const char* name, const char* state) {
        std::lock_guard lock(mutex_);
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

    std::mutex mutex_;
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

// The library's diagnostics, through the printer.
class PrinterLogSink final : public LogSink {
public:
    explicit PrinterLogSink(std::shared_ptr<WatchPrinter> printer) : printer_(std::move(printer)) {}
    void write(std::string_view text) override { printer_->diagnostic(text); }

private:
    std::shared_ptr<WatchPrinter> printer_;
};

void runWatch(const WatchOptions& options, const GlobalOptions& global) {
    if (options.sim && !options.backend.empty() && options.backend != "sim") {
        throw UsageError("--sim uses the simulator; it cannot be combined with --backend '" +
                         options.backend + "'");
    }
    const double seconds = options.duration ? parseDurationArgument(*options.duration, "--duration") : 0;
    SignalWatcher::blockInThisProcess();  // before any library thread starts

    auto printerOwner =
        std::make_shared<WatchPrinter>(global.json, !global.json && isatty(STDOUT_FILENO) == 1);
    WatchPrinter& printer = *printerOwner;
    const std::shared_ptr<LogSink> log =
        options.verbose ? std::make_shared<PrinterLogSink>(printerOwner) : LogSink::discard();

    // --sim: the public simulator on real time, with one scale as the demo has
    // it ("Plenk Scale", binary weights at 10 Hz, a 36 g shot after the tare).
    // Its explicit backend wins over PLENK_BACKEND.
    std::unique_ptr<Simulator> simulator;
    std::shared_ptr<RunLoop> loop;
    Context context;
    if (options.sim) {
        Simulator::Options simulatorOptions;
        simulatorOptions.clock = Clock::steady();
        simulatorOptions.log = log;
        simulator = std::make_unique<Simulator>(simulatorOptions);
        simulator->addScale();
        context = simulator->context();
        loop = simulator->mainLoop();
    } else {
        loop = std::make_shared<RunLoop>();
        context.mainQueue = loop;
        context.log = log;
        context.backendName = options.backend;
    }
    std::shared_ptr<PKPlenk> plenk;
    try {
        plenk = PKPlenk::create(context);
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }

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
    if (seconds > 0) {
        loop->postAfter(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)),
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
                      "Bluetooth backend by name (PLENK_BACKEND overrides; 'sim' is --sim)");
    watch->add_option("--duration", watchOptions->duration,
                      "Stop after this many seconds, e.g. 40 or 2.5 (default: until Ctrl-C)");
    watch->add_flag("--verbose", watchOptions->verbose, "Show the library's diagnostic lines on stderr");
    watch->footer(
        "Shows grams with one decimal, the connection state and the battery level on one line;\n"
        "with --json one object per event: {\"event\":\"weight\",\"value\":12.5}, connected,\n"
        "disconnected, button, battery, error (domain, code, description).\n"
        "Ctrl-C disconnects cleanly.\n"
        "The simulated scale pours a 36 g espresso shot: first drops after about 4 s,\n"
        "about 36 g by 35 s.\n"
        "Example: plenk watch --sim --duration 40");
    watch->callback([watchOptions, &options] { runWatch(*watchOptions, options); });
}

}  // namespace plenk::cli
