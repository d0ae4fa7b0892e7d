// plenk watch: connects to the first scale found, through PKPlenk alone, and
// shows its live weight and the link's state until Ctrl-C or --duration.

#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <PlenkKit/PlenkKit.h>
#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "LinkMonitor.h"
#include "SignalWatcher.h"
#include "WatchPrinter.h"

namespace plenk::cli {
namespace {

// How long a real backend may go without a usable radio before the tool gives
// up: bluetoothd answers within milliseconds when it runs.
constexpr auto kRadioGrace = std::chrono::seconds(3);

struct WatchOptions {
    bool sim = false;
    std::string backend;
    std::string adapter;
    std::optional<std::string> duration;  // seconds; none = until Ctrl-C
    bool verbose = false;
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

// The library's diagnostics, through the printer.
class PrinterLogSink final : public LogSink {
public:
    explicit PrinterLogSink(std::shared_ptr<WatchPrinter> printer) : printer_(std::move(printer)) {}
    void write(std::string_view text) override { printer_->diagnostic(text); }

private:
    std::shared_ptr<WatchPrinter> printer_;
};

// Why a real radio cannot be used, as a user can act on it.
std::string radioProblem(LinkMonitor::State state, const Context& context) {
    const std::string adapter = context.adapter.empty() ? "" : " '" + context.adapter + "'";
    const std::string suggestion = "; use --sim for the simulated scale";
    switch (state) {
        case LinkMonitor::State::NoAdapter:
            return "no Bluetooth adapter" + adapter + " found through " + context.backendName +
                   " (check that bluetoothd runs and the adapter is present)" + suggestion;
        case LinkMonitor::State::NotAllowed:
            return "not allowed to use Bluetooth through " + context.backendName +
                   " (the system bus denied access)" + suggestion;
        default:
            return "Bluetooth is not available through " + context.backendName + " (is bluetoothd running?)" +
                   suggestion;
    }
}

// The context to run on: the public simulator for --sim (its explicit backend
// wins over PLENK_BACKEND), else the named or default backend on the adapter.
Context makeContext(const WatchOptions& options, const std::shared_ptr<LogSink>& log,
                    std::unique_ptr<Simulator>& simulator) {
    Context context;
    if (options.sim) {
        // One scale as the demo has it ("Plenk Scale", binary weights at 10 Hz,
        // a 36 g shot after the tare), on real time.
        Simulator::Options simulatorOptions;
        simulatorOptions.clock = Clock::steady();
        simulatorOptions.log = log;
        simulator = std::make_unique<Simulator>(simulatorOptions);
        simulator->addScale();
        context = simulator->context();
    } else {
        context.mainQueue = std::make_shared<RunLoop>();
        context.backendName = options.backend;
        context.adapter = options.adapter;
    }
    context.log = log;
    context.notifications = std::make_shared<NotificationCenter>();
    try {
        return context.resolved();
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
}

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

    std::unique_ptr<Simulator> simulator;
    const Context context = makeContext(options, log, simulator);
    const auto loop =
        simulator ? simulator->mainLoop() : std::static_pointer_cast<RunLoop>(context.mainQueue);
    auto plenk = PKPlenk::create(context);

    bool finishing = false;
    std::optional<std::string> failure;
    auto finish = [&] {
        if (finishing) return;
        finishing = true;
        if (!plenk->isConnected()) return loop->stop();
        plenk->disconnect();
        loop->postAfter(std::chrono::seconds(2), [&] { loop->stop(); });  // the link may already be gone
    };
    auto monitor = std::make_shared<LinkMonitor>(
        plenk, loop, [&](LinkMonitor::State state) { printer.linkState(LinkMonitor::describe(state)); });
    auto delegate = std::make_shared<WatchDelegate>(
        printer,
        [&] {
            monitor->connected();
            plenk->readPlenkBatteryLifeWithCompletion(
                [&printer](std::int64_t level) { printer.battery(level); });
        },
        [&] {
            monitor->disconnected(finishing);
            if (finishing) loop->stop();
        });
    plenk->setDelegate(delegate);
    monitor->start(context.notifications);
    plenk->setIsAutoConnectEnabled(true);

    // A real radio that stays unusable ends the watch with advice; a radio
    // that is merely off is waited for (the kit resumes when it comes on).
    std::function<void()> checkRadio = [&] {
        if (finishing) return;
        if (monitor->unavailableFor() >= kRadioGrace) {
            failure = radioProblem(monitor->state(), context);
            return finish();
        }
        loop->postAfter(std::chrono::milliseconds(250), checkRadio);
    };
    if (!simulator) loop->post(checkRadio);

    SignalWatcher signals([&loop, &finish] { loop->post([&finish] { finish(); }); });
    if (seconds > 0) {
        loop->postAfter(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)),
            [&finish] { finish(); });
    }
    loop->run();
    printer.finish();
    monitor.reset();
    plenk.reset();
    loop->runUntilIdle();
    if (failure) throw RunError(kExitNoBluetooth, *failure);
}

}  // namespace

void addWatchCommand(CLI::App& app, const GlobalOptions& options) {
    auto watchOptions = std::make_shared<WatchOptions>();
    auto* watch = app.add_subcommand("watch", "Connect to the first scale found and show its live weight");
    watch->add_flag("--sim", watchOptions->sim, "Use the simulated scale (the embedded 'sim' backend)");
    watch->add_option("--backend", watchOptions->backend,
                      "Bluetooth backend: bluez (real Bluetooth, the default when built in) or sim;\n"
                      "PLENK_BACKEND overrides it");
    watch->add_option("--adapter", watchOptions->adapter,
                      "The Bluetooth adapter, by name (hci1) or object path (/org/bluez/hci1);\n"
                      "default: PLENK_ADAPTER, else the first powered adapter");
    watch->add_option("--duration", watchOptions->duration,
                      "Stop after this many seconds, e.g. 40 or 2.5 (default: until Ctrl-C)");
    watch->add_flag("--verbose", watchOptions->verbose, "Show the library's diagnostic lines on stderr");
    watch->footer(
        "Shows grams with one decimal, the link's state and the battery level on one line.\n"
        "States: waiting for Bluetooth, Bluetooth off, scanning, connecting, connected,\n"
        "reconnecting (a dropped link is being brought back), disconnected.\n"
        "With --json one object per event: {\"event\":\"weight\",\"value\":12.5}, state (value),\n"
        "connected, disconnected, button, battery, error (domain, code, description).\n"
        "Ctrl-C disconnects cleanly. Exit status 3: no usable Bluetooth adapter or no bluetoothd.\n"
        "The simulated scale pours a 36 g espresso shot: first drops after about 4 s,\n"
        "about 36 g by 35 s.\n"
        "Examples: plenk watch --sim --duration 40\n"
        "          plenk watch --adapter hci0");
    watch->callback([watchOptions, &options] { runWatch(*watchOptions, options); });
}

}  // namespace plenk::cli
