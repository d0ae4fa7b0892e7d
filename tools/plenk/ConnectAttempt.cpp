#include "ConnectAttempt.h"

namespace plenk::cli {

namespace {
constexpr auto kAttemptStart = std::chrono::milliseconds(300);
}  // namespace

void ConnectAttempt::begin(PeripheralPtr peripheral) {
    peripheral_ = std::move(peripheral);
    seen_ = false;
    started_ = std::chrono::steady_clock::now();
}

bool ConnectAttempt::endedWithoutLink(const RKRostaKit& kit) {
    if (!peripheral_) return false;
    if (peripheral_->state() != PeripheralState::Disconnected) {
        seen_ = true;
        return false;
    }
    return (seen_ || std::chrono::steady_clock::now() - started_ >= kAttemptStart) && !kit.currentDevice();
}

}  // namespace plenk::cli
