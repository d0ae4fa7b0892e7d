// plenk pick: the kit's device picker on the terminal. The person chooses a
// scale; the tool then watches it, or prints its identifier for a script.

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <PlenkKit/PlenkKit.h>
#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "ConnectAttempt.h"
#include "ErrorText.h"
#include "JsonWriter.h"
#include "LiveWatch.h"
#include "Session.h"
#include "TerminalPicker.h"

namespace plenk::cli {
namespace {

// The radio state is a property: look often, a person is waiting.
constexpr auto kRadioPoll = std::chrono::milliseconds(20);
// The chosen scale's attempt is followed as the peripheral's state.
constexpr auto kAttemptPoll = std::chrono::milliseconds(20);
// How long an attempt that ended without a link may wait for the kit's error
// before the picker says it failed without one.
constexpr auto kErrorGrace = std::chrono::milliseconds(200);

struct PickOptions {
    bool printId = false;
    std::string timeout;  // seconds; empty: none, a person is choosing
};

// The library's diagnostics (--verbose) would be drawn over while the picker
// covers the terminal: they are held back and written once it has closed.
class HeldDiagnostics {
public:
    explicit HeldDiagnostics(std::shared_ptr<WatchPrinter> printer) : printer_(std::move(printer)) {}

    // From any thread.
    void write(std::string_view text) {
        std::lock_guard lock(mutex_);
        if (holding_) {
            held_.emplace_back(text);
        } else {
            printer_->diagnostic(text);
        }
    }
    void hold() {
        std::lock_guard lock(mutex_);
        holding_ = isatty(STDERR_FILENO) == 1;
    }
    void release() {
        std::lock_guard lock(mutex_);  // keeps the order with writes on other threads
        holding_ = false;
        for (const auto& text : held_) printer_->diagnostic(text);
        held_.clear();
    }

private:
    const std::shared_ptr<WatchPrinter> printer_;
    std::mutex mutex_;
    bool holding_ = false;
    std::vector<std::string> held_;
};

// One pick, on the session's loop: waits for the radio, opens the kit's
// picker on the terminal, follows the chosen scale's connection, and ends
// with the outcome the kit reports through the picker completion.
class PickRun : public std::enable_shared_from_this<PickRun> {
public:
    PickRun(Session& session, std::shared_ptr<TerminalMode> terminal, std::shared_ptr<WatchPrinter> printer,
            std::shared_ptr<HeldDiagnostics> diagnostics, const PickOptions& options)
        : session_(session),
          terminal_(std::move(terminal)),
          diagnostics_(std::move(diagnostics)),
          options_(options),
          timeout_(options.timeout.empty() ? std::chrono::nanoseconds(0)
                                           : toDuration(parseDurationArgument(options.timeout, "--timeout"))),
          watch_(session, std::move(printer)) {}

    // The terminal is given back whichever way the verb ends.
    ~PickRun() {
        if (picker_) picker_->close();
        if (const auto kit = session_.kit()) kit->setPickerCompletion(nullptr);
        diagnostics_->release();
    }

    void start() {
        // A fresh kit connects the first scale it finds: not here.
        session_.plenk()->setIsAutoConnectEnabled(false);
        const std::weak_ptr<PickRun> weak = weak_from_this();
        TerminalPicker::Hooks hooks;
        hooks.chosen = [weak](std::int64_t row) {
            if (auto self = weak.lock()) self->chosen(row);
        };
        hooks.interrupted = [weak] {
            if (auto self = weak.lock()) self->end(kExitInterrupted, "interrupted");
        };
        hooks.failed = [weak](const std::string& why) {
            if (auto self = weak.lock()) self->end(1, "cannot draw the picker: " + why);
        };
        picker_ = std::make_shared<TerminalPicker>(terminal_, session_.sharedLoop(), std::move(hooks));
        if (timeout_.count() > 0) {
            session_.setDeadline(timeout_, [weak] {
                if (auto self = weak.lock()) self->deadline();
            });
        }
        later(std::chrono::nanoseconds(0), &PickRun::waitForRadio);
    }

private:
    void later(std::chrono::nanoseconds delay, void (PickRun::*step)()) {
        session_.loop().postAfter(delay, [weak = weak_from_this(), step] {
            if (auto self = weak.lock(); self && !self->session_.finishing()) ((*self).*step)();
        });
    }

    // The kit answers a picker request only once the radio has reported; an
    // unknown state is waited out (the session gives up on a radio that
    // stays unusable).
    void waitForRadio() {
        const auto kit = session_.kit();
        const auto state = kit->leState();
        if (state == 0 || state == RKRostaKit::kLEStateUnknown)
            return later(kRadioPoll, &PickRun::waitForRadio);
        // The kit may have heard the radio, and auto-connected a scale, before
        // auto-connect was switched off: the person chooses, so let it go.
        if (session_.releaseUnwantedLink()) return later(kRadioPoll, &PickRun::waitForRadio);
        diagnostics_->hold();
        session_.plenk()->showDevicePickerOnViewContoller(
            picker_, [weak = weak_from_this(), loop = session_.sharedLoop()](const ErrorPtr& error) {
                // At once on this thread, on the loop, or on the Bluetooth queue.
                loop->post([weak, error] {
                    if (auto self = weak.lock(); self && !self->session_.finishing()) self->outcome(error);
                });
            });
    }

    void outcome(const ErrorPtr& error) {
        if (!error) {
            if (!picked_) picked();
            return;
        }
        if (picked_) {  // the watched scale's link failed to come back
            if (const auto& report = session_.events().error) report(error);
            return;
        }
        if (isKind<RKErrorLECancelC>(error))
            return end(kExitCancelled, "cancelled: " + describeError(*error));
        if (isKind<RKErrorLENotAvailableC>(error)) {
            const std::string problem = session_.radioProblem();
            return end(kExitNoBluetooth, (problem.empty() ? "Bluetooth is not available" : problem) + ": " +
                                             describeError(*error));
        }
        if (isKind<RKErrorLEDeviceAllreadyConnectedC>(error)) {
            return end(kExitConnectionFailed, "cannot open the picker: " + describeError(*error));
        }
        // The picker stays open; the person can only cancel now.
        failure_ = "connecting to '" + targetName() + "' failed: " + describeError(*error);
        picker_->showMessage(failure_);
    }

    void chosen(std::int64_t /*row*/) {
        attempt_.begin(session_.kit()->connectingPeripheral());
        failure_.clear();
        later(kAttemptPoll, &PickRun::followAttempt);
    }

    // Some failed attempts reach the kit with a code it names no error for:
    // the picker would spin on. The peripheral's state tells.
    void followAttempt() {
        if (picked_ || !attempt_.peripheral() || !picker_->isShown()) return;
        if (attempt_.endedWithoutLink(*session_.kit()))
            return later(kErrorGrace, &PickRun::attemptEndedSilently);
        later(kAttemptPoll, &PickRun::followAttempt);
    }

    void attemptEndedSilently() {
        if (picked_ || !failure_.empty()) return;  // the kit's error came first
        failure_ = "connecting to '" + targetName() + "' failed (no error was reported)";
        picker_->showMessage(failure_);
    }

    void picked() {
        picked_ = true;
        diagnostics_->release();
        const auto device = session_.kit()->currentDevice();
        const auto peripheral = device ? device->peripheral() : nullptr;
        if (!peripheral) return end(kExitConnectionFailed, "the link to the chosen scale was lost");
        const std::string name = peripheral->name().value_or("");
        const std::string identifier = peripheral->identifier().toString();
        if (session_.global().json) {
            std::cout << JsonObject()
                             .string("event", "picked")
                             .string("name", name)
                             .string("identifier", identifier)
                             .str()
                      << std::endl;
        } else {
            std::cout << (options_.printId ? identifier : "picked '" + name + "' (" + identifier + ")")
                      << std::endl;
        }
        if (options_.printId) return session_.finish(0);
        // From here on it is a watch: Ctrl-C is how it ends.
        session_.setInterruptStatus(0);
        watch_.connected();  // first: the link's state starts as connected
        watch_.start();
    }

    void deadline() {
        if (picked_) return;  // the time-out bounds the choice and the connection
        if (!failure_.empty()) return end(kExitConnectionFailed, failure_);
        const std::string after = " after " + formatSeconds(timeout_) + " s";
        if (attempt_.peripheral())
            return end(kExitTimedOut, "timed out connecting to '" + targetName() + "'" + after);
        const auto scales = session_.kit()->discoveredResults().size();
        if (scales == 0) return end(kExitNoScale, "no scale found" + after);
        end(kExitTimedOut, "timed out: no scale was chosen" + after);
    }

    // Gives the terminal back before the session winds down.
    void end(int status, std::string message) {
        picker_->close();
        diagnostics_->release();
        session_.finish(status, std::move(message));
    }

    std::string targetName() const {
        const auto name = attempt_.peripheral() ? attempt_.peripheral()->name() : std::nullopt;
        return name.value_or("the scale");
    }

    Session& session_;
    const std::shared_ptr<TerminalMode> terminal_;
    const std::shared_ptr<HeldDiagnostics> diagnostics_;
    const PickOptions options_;
    const std::chrono::nanoseconds timeout_;
    LiveWatch watch_;
    std::shared_ptr<TerminalPicker> picker_;
    ConnectAttempt attempt_;  // the chosen scale's connection
    std::string failure_;     // why its connection failed, once known
    bool picked_ = false;
};

void runPick(const PickOptions& options, const GlobalOptions& global) {
    if (!options.timeout.empty()) parseDurationArgument(options.timeout, "--timeout");
    // Refused before anything connects: there is nobody to choose.
    const auto terminal = TerminalMode::open("pick");
    const auto printer = LiveWatch::makePrinter(global);
    const auto diagnostics = std::make_shared<HeldDiagnostics>(printer);
    Session session(global, [diagnostics](std::string_view text) { diagnostics->write(text); });
    const auto pick = std::make_shared<PickRun>(session, terminal, printer, diagnostics, options);
    pick->start();
    session.run();
}

}  // namespace

void addPickCommand(CLI::App& app, const GlobalOptions& options) {
    auto pickOptions = std::make_shared<PickOptions>();
    auto* pick = app.add_subcommand("pick", "Choose a scale from a list on the terminal, then watch it");
    pick->add_flag("--print-id", pickOptions->printId,
                   "Print the chosen scale's identifier once it is connected and exit (for scripts:\n"
                   "id=$(plenk pick --print-id); the list is drawn on the terminal, not stdout)");
    pick->add_option("--timeout", pickOptions->timeout,
                     "Give up when no scale has been chosen and connected after this many seconds\n"
                     "(default: wait)")
        ->type_name("SECONDS");
    pick->footer(
        "Shows the scales found as they appear, on the terminal (/dev/tty). Keys: Up/Down or\n"
        "k/j move, Enter connects the scale under the cursor (one choice per list: the row's\n"
        "spinner turns until it is connected), Esc or q cancels, Ctrl-C interrupts. If the\n"
        "connection fails the list stays open and says why; only Esc or q is left then.\n"
        "After the choice the scale is watched as 'plenk watch' does (Ctrl-C ends it, status 0);\n"
        "with --print-id its identifier is printed instead ({\"event\":\"picked\",\"name\":...,\n"
        "\"identifier\":...} with --json) and the tool exits.\n"
        "Exit status: 0 picked; 2 no terminal; 3 no usable Bluetooth; 4 no scale found before\n"
        "--timeout; 5 the connection failed; 6 timed out; 8 cancelled (RKErrorLECancelC,\n"
        "RKErrorDomain 100); 130 Ctrl-C or SIGTERM before the choice was connected.\n"
        "Examples: plenk --sim pick\n"
        "          id=$(plenk pick --print-id) && plenk battery --id \"$id\"");
    pick->callback([pickOptions, &options] { runPick(*pickOptions, options); });
}

}  // namespace plenk::cli
