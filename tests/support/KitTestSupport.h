#pragma once

// Shared pieces of the kit and facade tests: a headless picker presenter,
// scale helpers and fixtures with a simulated world.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <PlenkKit/RKRostaKit.h>

#include "RostaKit/RKRostaKitCore.h"
#include "emulator/GattProfile.h"
#include "support/DeviceTestSupport.h"
#include "support/RecordingDelegate.h"
#include "support/SimHarness.h"
#include "wire/GattUuids.h"

namespace plenk::test {

// A picker view with nothing to draw: it counts reloads and dismisses at once.
class HeadlessPickerView final : public PickerView {
public:
    void reloadData() override { ++reloads; }
    void dismiss(bool, std::function<void()> completion) override {
        ++dismissals;
        if (completion) completion();
    }
    std::atomic<int> reloads{0};
    std::atomic<int> dismissals{0};
};

// Presents pickers headlessly and records the order of its calls.
class RecordingPresenter final : public PickerPresenter {
public:
    void beginIgnoringInteractionEvents() override { record("begin ignoring"); }
    void endIgnoringInteractionEvents() override { record("end ignoring"); }
    void presentViewController(const std::shared_ptr<CSRSelectDeviceViewController>& picker, bool animated,
                               std::function<void()> completion) override {
        record(animated ? "present animated" : "present");
        picker->setView(view);
        presented = picker;
        if (completion) completion();
    }
    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

    std::shared_ptr<HeadlessPickerView> view = std::make_shared<HeadlessPickerView>();
    std::shared_ptr<CSRSelectDeviceViewController> presented;

private:
    void record(std::string call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
};

// A picker completion that records what it was called with and where.
struct PickerOutcome {
    std::mutex mutex;
    std::vector<ErrorPtr> results;
    std::vector<bool> onMainThread;

    RKRostaKit::PickerCompletion completion(std::shared_ptr<RunLoop> main) {
        return [this, main](const ErrorPtr& error) {
            std::lock_guard lock(mutex);
            results.push_back(error);
            onMainThread.push_back(main->isCurrent());
        };
    }
    std::size_t calls() {
        std::lock_guard lock(mutex);
        return results.size();
    }
};

// Frames written to the scale's command characteristic.
inline std::vector<std::vector<std::uint8_t>> commandFrames(
    const std::shared_ptr<sim::VirtualPeripheral>& scale) {
    std::vector<std::vector<std::uint8_t>> frames;
    for (const auto& write : scale->writes()) {
        if (write.characteristic == wire::kCommandCharacteristic) frames.push_back(write.value.toVector());
    }
    return frames;
}

// Tares the scale's firmware has accepted.
inline std::uint32_t tares(const std::shared_ptr<sim::VirtualPeripheral>& scale) {
    std::uint32_t n = 0;
    scale->withScale([&](emulator::ScaleEmulator& e) { n = e.counters().tares; });
    return n;
}

// A weight packet in the scale's own format.
inline bt::Bytes weightPacket(const std::shared_ptr<sim::VirtualPeripheral>& scale, float grams) {
    bt::Bytes packet;
    scale->withScale([&](emulator::ScaleEmulator& e) { packet = e.encodeWeightPacket(grams); });
    return packet;
}

// A kit or facade on the harness, reporting to `delegate`. With auto-connect
// off the radio reports nothing until the flag is off, so it never starts a
// scan of its own.
template <typename Object, typename Delegate>
std::shared_ptr<Object> createOn(SimHarness& h, const std::shared_ptr<Delegate>& delegate, bool autoConnect) {
    const auto radio = h.world->radioState();
    if (!autoConnect) h.world->setRadioState(std::nullopt);
    auto object = Object::create(h.context);
    object->setDelegate(delegate);
    if (!autoConnect) {
        object->setIsAutoConnectEnabled(false);
        h.world->setRadioState(radio);
    }
    return object;
}

// A simulated world, one kit on it and a recording delegate.
class KitFixture : public ::testing::Test {
public:
    explicit KitFixture(SimHarnessOptions options = {}) : h(options) {}

    ~KitFixture() override {
        kit.reset();
        h.settle();
    }

    void makeKit(bool autoConnect = true) { kit = createOn<RKRostaKit>(h, delegate, autoConnect); }

    RKRostaKitCore& core() { return RKRostaKitCore::of(*kit); }
    bool scanning() { return BLEConnecterCore::of(*kit->connecter()).cbManager()->isScanning(); }

    // Connects one scale in picker-held (continuous) mode: auto-connect off,
    // found by a plain scan with no picker on screen.
    void connectHeld() {
        makeKit(false);
        kit->scanDeivces();
        h.settle();
        ASSERT_TRUE(kit->isConnected());
        ASSERT_TRUE(kit->isContinuousConnectionEnabled());
    }

    SimHarness h;
    // Every notification posted on the harness's centre, as "name" or "name: object".
    std::shared_ptr<CapturingLogSink> notes = std::make_shared<CapturingLogSink>();
    NotificationCenter::Token notesToken =
        h.notifications->addObserver("", [notes = notes](const Notification& n) {
            notes->write(n.object ? n.name + ": " + *n.object : n.name);
        });
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>(h.mainLoop);
    std::shared_ptr<RKRostaKit> kit;
};

// A simulated world and the public facade on it, reporting to a recording host.
class FacadeFixture : public ::testing::Test {
public:
    ~FacadeFixture() override {
        plenk.reset();
        h.settle();
    }

    void makeFacade(bool autoConnect = true) { plenk = createOn<PKPlenk>(h, host, autoConnect); }

    SimHarness h;
    std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>(h.mainLoop);
    std::shared_ptr<PKPlenk> plenk;
};

}  // namespace plenk::test
