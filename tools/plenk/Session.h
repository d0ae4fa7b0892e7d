#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <PlenkKit/PlenkKit.h>

#include "Commands.h"

namespace plenk::cli {

// The misbehaviours --sim-fault can give the simulated scales, "none" first.
const std::vector<std::string>& simulatorFaults();

// Where the library's diagnostic texts go (from any thread).
using DiagnosticSink = std::function<void(std::string_view text)>;

// One run of a verb that talks to a scale: the simulated scales or the real
// backend, the main loop, the facade and its delegate, Ctrl-C, the radio watch
// and the deadline. The constructor, run() and the destructor belong to the
// calling thread; everything else runs on the loop, inside run().
class Session {
public:
    // The facade's delegate calls, on the loop. Empty members are not called.
    struct Events {
        std::function<void()> connected;
        std::function<void()> disconnected;
        std::function<void(const ErrorPtr&)> error;
        std::function<void(float grams)> weight;
        std::function<void(std::uint64_t button)> button;
    };

    // `diagnostics` receives the library's log and notifications with
    // --verbose; default: standard error, one line each. Throws UsageError for
    // an unknown backend or simulator fault.
    explicit Session(const GlobalOptions& global, DiagnosticSink diagnostics = {});
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    RunLoop& loop() { return *loop_; }
    const std::shared_ptr<RunLoop>& sharedLoop() const { return loop_; }
    const std::shared_ptr<PKPlenk>& plenk() const { return plenk_; }
    std::shared_ptr<RKRostaKit> kit() const { return plenk_->rosta(); }
    const Context& context() const { return context_; }
    const GlobalOptions& global() const { return global_; }
    bool simulated() const { return simulator_ != nullptr; }
    Events& events() { return events_; }

    // Ends the run with `status` (0: done) and, for a failure, the one line
    // to print. The first call wins; the scale is disconnected before run()
    // returns.
    void finish(int status, std::string message = {});
    bool finishing() const { return finishing_; }
    // At `delay` after run() starts, `onDeadline` runs (unless finished):
    // it decides how the verb ends.
    void setDeadline(std::chrono::nanoseconds delay, std::function<void()> onDeadline);
    // The status Ctrl-C and SIGTERM end the run with (default kExitInterrupted).
    void setInterruptStatus(int status) { interruptStatus_ = status; }
    // Drops a link the kit holds or is making that the verb did not ask for
    // (a fresh kit connects by itself until auto-connect is off, which a real
    // radio's first report can beat): any but `wanted`. True if there was one.
    bool releaseUnwantedLink(const PeripheralPtr& wanted = nullptr);
    // Why the radio cannot be used right now, as a user can act on it; empty
    // when it is powered on.
    std::string radioProblem() const;

    // Runs the loop until finish(), then disconnects and stops scanning. Throws
    // RunError with the status and message of a failed run.
    void run();

private:
    class Delegate;
    struct SimulatedScale {
        std::string name;
        Simulator::Scale handle;
    };

    void buildSimulator(const std::shared_ptr<LogSink>& log);
    void watchRadio();
    void close();
    void observeNotifications();
    void reportSimulatorFrames();

    const GlobalOptions global_;
    DiagnosticSink diagnostics_;
    std::unique_ptr<Simulator> simulator_;
    std::vector<SimulatedScale> simulatedScales_;
    Context context_;
    std::shared_ptr<RunLoop> loop_;
    std::shared_ptr<PKPlenk> plenk_;
    std::shared_ptr<Delegate> delegate_;
    std::vector<NotificationCenter::Token> observers_;
    Events events_;

    bool finishing_ = false;
    bool closed_ = false;
    int status_ = 0;
    std::string message_;
    int interruptStatus_ = kExitInterrupted;
    std::chrono::nanoseconds deadline_{0};
    std::function<void()> onDeadline_;
    std::chrono::steady_clock::time_point unusableSince_ = std::chrono::steady_clock::now();
};

}  // namespace plenk::cli
