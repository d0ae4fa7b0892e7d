#pragma once

// One recorder for every layer's delegate: what the device, the kit or the
// facade reported, as text lines in order ("connected", "error 108",
// "weight 12.5", "button 1", "battery 85", "discovered"), so a scenario is
// checked with one comparison of the whole log.

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <PlenkKit/PKPlenk.h>
#include <PlenkKit/RKDevice.h>
#include <PlenkKit/RKRostaKit.h>
#include <PlenkKit/RunLoop.h>

namespace plenk::test {

// Thread-safe. Given a main loop, it counts the reports that arrive off it
// (the kit and the facade promise the main queue; a device reports on the
// Bluetooth queue, so it is recorded without one).
class RecordingDelegate final : public PKPlenkDelegate, public RKRostaDelegate, public RKDeviceDelegate {
public:
    explicit RecordingDelegate(std::shared_ptr<RunLoop> main = nullptr) : main_(std::move(main)) {}

    void plenkDidConnected(PKPlenk&) override { add("connected"); }
    void plenkDidDisconnected(PKPlenk&) override { add("disconnected"); }
    void plenkDidErrorOccur(PKPlenk&, const ErrorPtr& error) override { addError(error); }
    void plenkWeightDidUpdate(float weight) override { addWeight(weight); }
    void plenkDeviceDidClickButton(std::uint64_t button) override { add("button " + std::to_string(button)); }

    void rostaDidConnected(RKRostaKit&) override { add("connected"); }
    void rostaDidDisconnected(RKRostaKit&) override { add("disconnected"); }
    void rostaDidErrorOccur(RKRostaKit&, const ErrorPtr& error) override { addError(error); }
    void rostaWeightDidUpdate(float weight) override { addWeight(weight); }
    void rostaDeviceDidClickButton(std::uint64_t button) override { add("button " + std::to_string(button)); }

    void batteryLifeOnDevice(std::int64_t level, CSRDevice&) override {
        add("battery " + std::to_string(level));
    }
    void deviceDidDiscoverAllCharacteristic(RKDevice&) override { add("discovered"); }
    void deviceDidUpdateWeight(RKDevice&, float weight) override { addWeight(weight); }
    void deviceDidClickButton(RKDevice&, std::uint64_t button) override {
        add("button " + std::to_string(button));
    }
    void deviceDidFailConfigureWithError(RKDevice&, const ErrorPtr& error) override { addError(error); }

    void add(std::string event) {
        if (main_ && !main_->isCurrent()) ++offMainThread;
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
    }
    // A command completion that logs "<name> ok" or "<name> failed", and " with error".
    std::function<void(bool, const ErrorPtr&)> result(std::string name) {
        return [this, name](bool ok, const ErrorPtr& error) {
            add(name + (ok ? " ok" : " failed") + (error ? " with error" : ""));
        };
    }
    std::vector<std::string> snapshot() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::size_t count(const std::string& event) const {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event));
    }
    std::vector<ErrorPtr> errors() const {
        std::lock_guard lock(mutex_);
        return errors_;
    }
    std::vector<float> weights() const {
        std::lock_guard lock(mutex_);
        return weights_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
        errors_.clear();
        weights_.clear();
    }

    std::atomic<int> offMainThread{0};

private:
    void addError(const ErrorPtr& error) {
        {
            std::lock_guard lock(mutex_);
            errors_.push_back(error);
        }
        add("error " + std::to_string(error ? error->code() : -1));
    }
    void addWeight(float weight) {
        {
            std::lock_guard lock(mutex_);
            weights_.push_back(weight);
        }
        char text[32];  // the shortest text that reads back as the same float
        add("weight " + std::string(text, std::to_chars(text, text + sizeof text, weight).ptr));
    }

    std::shared_ptr<RunLoop> main_;
    mutable std::mutex mutex_;
    std::vector<std::string> events_;
    std::vector<ErrorPtr> errors_;
    std::vector<float> weights_;
};

}  // namespace plenk::test
