#include "SignalWatcher.h"

#include <pthread.h>

#include <csignal>

namespace plenk::cli {

namespace {
sigset_t watchedSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR2);  // the destructor's wake-up
    return set;
}
}  // namespace

SignalWatcher::SignalWatcher(std::function<void()> onSignal) {
    thread_ = std::thread([this, onSignal = std::move(onSignal)] {
        sigset_t set = watchedSignals();
        int received = 0;
        while (sigwait(&set, &received) == 0) {
            if (received == SIGUSR2 && stopping_) return;
            if (received != SIGUSR2) onSignal();
        }
    });
}

SignalWatcher::~SignalWatcher() {
    stopping_ = true;
    pthread_kill(thread_.native_handle(), SIGUSR2);
    thread_.join();
}

void SignalWatcher::blockInThisProcess() {
    sigset_t set = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace plenk::cli
