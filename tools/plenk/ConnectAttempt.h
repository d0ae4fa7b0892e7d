#pragma once

#include <chrono>

#include <PlenkKit/PlenkKit.h>

namespace plenk::cli {

// One connection attempt the tool asked the kit for, followed by looking at
// the peripheral: the kit names an error only for some of the platform's
// failure codes, and reports the others not at all.
class ConnectAttempt {
public:
    // The kit has just been asked to connect `peripheral`.
    void begin(PeripheralPtr peripheral);
    void clear() { peripheral_ = nullptr; }
    const PeripheralPtr& peripheral() const { return peripheral_; }
    // True once the attempt is over without a link: the peripheral is
    // disconnected again and the kit holds no device. A fast failure can come
    // and go between two looks, so a peripheral still disconnected a while
    // after the request counts too (the request reaches the radio within
    // milliseconds).
    bool endedWithoutLink(const RKRostaKit& kit);

private:
    PeripheralPtr peripheral_;
    bool seen_ = false;  // it left the disconnected state once
    std::chrono::steady_clock::time_point started_;
};

}  // namespace plenk::cli
