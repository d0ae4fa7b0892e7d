#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace plenk::cli {

// Ctrl-C and SIGTERM are taken by a thread of their own (sigwait) and handed to
// `onSignal` there; no work happens in a signal handler. Call
// blockInThisProcess() before any other thread starts.
class SignalWatcher {
public:
    explicit SignalWatcher(std::function<void()> onSignal);
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

    // Blocks the signals in the calling thread and every thread it starts later.
    static void blockInThisProcess();

private:
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace plenk::cli
