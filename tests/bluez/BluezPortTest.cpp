// The bluez backend's port contract where the kit does not reach it: a
// cancelled attempt is silent, a read is one event, a value is delivered once
// per notification on every link, a central may be released inside its events.
#include <PlenkKit/Context.h>

#include <algorithm>
#include <mutex>

#include "backends/bluez/PeripheralIdentifier.h"
#include "bluez/BluezRig.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

// Records the port's events as text; runs on the central's queue.
class PortRecorder final : public bt::CentralDelegate, public bt::PeripheralDelegate {
public:
    void centralManagerDidConnectPeripheral(bt::Central&, const bt::PeripheralPtr&) override {
        add("connected");
        std::shared_ptr<bt::Central> last;
        {
            std::lock_guard lock(mutex_);
            last = std::move(releaseOnConnect_);
        }
        last.reset();  // the central's last owner lets go inside its own event
    }
    void centralManagerDidDisconnectPeripheralError(bt::Central&, const bt::PeripheralPtr&,
                                                    const ErrorPtr&) override {
        add("disconnected");
    }
    void centralManagerDidFailToConnectPeripheralError(bt::Central&, const bt::PeripheralPtr&,
                                                       const ErrorPtr&) override {
        add("failed");
    }
    void peripheralDidDiscoverServices(bt::Peripheral& p, const ErrorPtr&) override {
        for (const auto& service : p.services()) p.discoverCharacteristics(std::nullopt, service);
    }
    void peripheralDidUpdateNotificationStateForCharacteristicError(bt::Peripheral&,
                                                                    const bt::CharacteristicPtr&,
                                                                    const ErrorPtr& error) override {
        add(error ? "notify failed" : "notifying");
    }
    void peripheralDidUpdateValueForCharacteristicError(bt::Peripheral&, const bt::CharacteristicPtr& c,
                                                        const ErrorPtr&) override {
        // The value this event reports is the characteristic's value now.
        const auto value = c->value();
        add("value " + (value.empty() ? std::string("-") : std::to_string(value[0])));
    }

    void add(std::string event) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
    }
    std::vector<std::string> events() {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::size_t count(const std::string& event) {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), event));
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
    }
    void hold(std::shared_ptr<bt::Central> c) {
        std::lock_guard lock(mutex_);
        releaseOnConnect_ = std::move(c);
    }

private:
    std::mutex mutex_;
    std::vector<std::string> events_;
    std::shared_ptr<bt::Central> releaseOnConnect_;
};

// One central of the bluez backend on the fake (a D-Bus client of its own),
// holding the scale known from an earlier scan.
struct PortClient {
    PortClient(bluez::NotifyMode mode, BluezRig& rig) : rig(rig) {
        Context context;
        context.log = rig.captured;
        bluez::BluezBackend::Options options;
        options.notifyMode = mode;
        central = bluez::BluezBackend(options).makeCentral(recorder, "Corebluetooth", context);
        EXPECT_TRUE(rig.waitFor([&] { return central->state() == bt::ManagerState::PoweredOn; }));
        const auto known = central->retrievePeripheralsWithIdentifiers(
            {bluez::peripheralIdentifier(fakebluez::AdapterSetup{}.address, kScaleAddress)});
        EXPECT_EQ(known.size(), 1u);
        if (!known.empty()) (peripheral = known.front())->setDelegate(recorder);
    }
    // Connects, discovers and subscribes to the battery level.
    void link() {
        recorder->clear();
        central->connectPeripheral(peripheral, {});
        ASSERT_TRUE(rig.waitFor([&] { return recorder->count("connected") == 1; })) << rig.log();
        peripheral->discoverServices(std::nullopt);
        ASSERT_TRUE(rig.waitFor([&] { return battery() != nullptr; })) << rig.log();
        peripheral->setNotifyValue(true, battery());
        ASSERT_TRUE(rig.waitFor([&] { return recorder->count("notifying") == 1; })) << rig.log();
        recorder->clear();
    }
    // The battery level of the current link, once discovered.
    bt::CharacteristicPtr battery() const {
        for (const auto& service : peripheral->services()) {
            for (const auto& c : service->characteristics())
                if (c->uuid() == wire::kBatteryLevel) return c;
        }
        return nullptr;
    }

    BluezRig& rig;
    std::shared_ptr<PortRecorder> recorder = std::make_shared<PortRecorder>();
    std::shared_ptr<bt::Central> central;
    bt::PeripheralPtr peripheral;
};

// The fake with one scale that sends notifications only when told to; a
// client by property (a read's echo and remembered sessions matter there).
class BluezPort : public ::testing::Test {
protected:
    BluezRig rig;
    const bool scaleAdded_ = (rig.addScale({.cached = true, .streamWeights = false}), true);
    PortClient client{bluez::NotifyMode::Property, rig};
    std::shared_ptr<PortRecorder>& recorder = client.recorder;
    std::shared_ptr<bt::Central>& central = client.central;
    bt::PeripheralPtr& peripheral = client.peripheral;
};

TEST_F(BluezPort, CancellingAnAttemptIsSilentAndTheNextAttemptLinks) {
    rig.fake.hangConnect(kScaleAddress, 3s);
    central->connectPeripheral(peripheral, {});
    ASSERT_TRUE(rig.waitFor([&] { return rig.callCount("Connect") == 1; }));
    central->cancelPeripheralConnection(peripheral);
    rig.fake.clearConnectFaults(kScaleAddress);
    central->connectPeripheral(peripheral, {});
    ASSERT_TRUE(rig.waitFor([&] { return recorder->count("connected") == 1; })) << rig.log();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"connected"});
    EXPECT_EQ(peripheral->state(), bt::PeripheralState::Connected);
}

TEST_F(BluezPort, AnAttemptAnsweredInProgressIsTriedAgainUntilItLinks) {
    // Another client's attempt hangs in bluetoothd; ours is answered InProgress
    // until it clears what is pending, then links.
    rig.fake.hangConnect(kScaleAddress, 20s);
    PortClient other(bluez::NotifyMode::Socket, rig);
    other.central->connectPeripheral(other.peripheral, {});
    ASSERT_TRUE(rig.waitFor([&] { return rig.callCount("Connect") == 1; }));
    central->connectPeripheral(peripheral, {});
    ASSERT_TRUE(rig.waitFor([&] { return recorder->count("connected") == 1; })) << rig.log();
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"connected"});
    EXPECT_GE(rig.callCount("Connect"), 3u);
}

TEST_F(BluezPort, AReadIsOneEventAndEachNotificationOneOnEveryLink) {
    for (int times = 1; times <= 2; ++times) {
        SCOPED_TRACE(times);
        client.link();
        // bluetoothd announces the value it read as a change too.
        peripheral->readValueForCharacteristic(client.battery());
        ASSERT_TRUE(rig.waitFor([&] { return recorder->count("value 85") == 1; }));
        rig.fake.notify(kScaleAddress, wire::kBatteryLevel, {42});
        rig.fake.notify(kScaleAddress, wire::kBatteryLevel, {43});
        ASSERT_TRUE(rig.waitFor([&] { return recorder->count("value 43") == 1; }));
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(recorder->events(), (std::vector<std::string>{"value 85", "value 42", "value 43"}));
        // The next link: bluetoothd still holds this link's subscription.
        rig.fake.dropLink(kScaleAddress);
        ASSERT_TRUE(rig.waitFor([&] { return recorder->count("disconnected") == 1; }));
    }
}

TEST_F(BluezPort, ACentralReleasedInsideItsOwnEventEndsItsLink) {
    bt::Central& handle = *central;
    recorder->hold(std::exchange(central, nullptr));  // its only owner from now on
    handle.connectPeripheral(peripheral, {});
    ASSERT_TRUE(rig.waitFor([&] { return recorder->count("connected") == 1; }));
    EXPECT_TRUE(rig.waitFor(
        [&] { return rig.callCount("Disconnect") == 1 && !rig.fake.isConnected(kScaleAddress); }));
}

TEST_F(BluezPort, ASocketRefusedForAnExistingSessionFallsBackToTheProperty) {
    client.link();
    PortClient second(bluez::NotifyMode::Socket, rig);
    second.link();
    EXPECT_EQ(rig.callCount("AcquireNotify"), 1u);
    EXPECT_EQ(rig.callCount("StartNotify"), 2u);
    rig.fake.notify(kScaleAddress, wire::kBatteryLevel, {42});
    // bluetoothd sends one signal per subscribed client, and every client
    // hears all of them: by property, a value arrives once per session.
    EXPECT_TRUE(rig.waitFor([&] { return second.recorder->count("value 42") == 2; })) << rig.log();
}

}  // namespace
}  // namespace plenk::test
