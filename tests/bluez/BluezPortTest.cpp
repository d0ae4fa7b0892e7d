// The bluez backend's port contract where the kit does not reach it: a
// cancelled attempt is silent, a read is one event, a value is delivered once
// per notification on every link, a central may be released inside its events.
#include <PlenkKit/Context.h>

#include <mutex>

#include "backends/bluez/BluezGatt.h"
#include "bluez/BluezRig.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using fakebluez::FakeBluez;

// Records the port's events as text; runs on the central's queue.
class PortRecorder final : public bt::CentralDelegate, public bt::PeripheralDelegate {
public:
    void centralManagerDidUpdateState(bt::Central& c) override {
        if (c.state() == bt::ManagerState::PoweredOn) add("on");
    }
    void centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(bt::Central&, const bt::PeripheralPtr& p,
                                                                  const bt::AdvertisementData&,
                                                                  int) override {
        std::lock_guard lock(mutex_);
        found = p;
    }
    void centralManagerDidConnectPeripheral(bt::Central&, const bt::PeripheralPtr&) override {
        add("connected");
        std::shared_ptr<bt::Central> last;
        {
            std::lock_guard lock(mutex_);
            last = std::move(releaseOnConnect);
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
    void peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral&, const bt::ServicePtr& service,
                                                             const ErrorPtr&) override {
        for (const auto& c : service->characteristics()) {
            if (c->uuid() == wire::kBatteryLevel) {
                std::lock_guard lock(mutex_);
                battery = c;
            }
        }
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
        auto all = events();
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), event));
    }
    void hold(std::shared_ptr<bt::Central> c) {
        std::lock_guard lock(mutex_);
        releaseOnConnect = std::move(c);
    }
    // Forgets the events (and, for a new link, the characteristic).
    void clear(bool link = false) {
        std::lock_guard lock(mutex_);
        events_.clear();
        if (link) battery = nullptr;
    }
    template <typename T>
    T get(T PortRecorder::*member) {
        std::lock_guard lock(mutex_);
        return this->*member;
    }

    bt::PeripheralPtr found;
    bt::CharacteristicPtr battery;
    std::shared_ptr<bt::Central> releaseOnConnect;

private:
    std::mutex mutex_;
    std::vector<std::string> events_;
};

bool wait(const std::function<bool()>& done, fakebluez::Duration timeout = 5s) {
    return FakeBluez::waitUntil(done, timeout);
}

// One central of the bluez backend on the fake (a D-Bus client of its own),
// having found the scale.
struct PortClient {
    PortClient(bluez::NotifyMode mode, const std::shared_ptr<CapturedLog>& log) : log(log) {
        Context context;
        context.log = log;
        bluez::BluezBackend::Options options;
        options.notifyMode = mode;
        central = bluez::BluezBackend(options).makeCentral(recorder, "Corebluetooth", context);
        EXPECT_TRUE(wait([&] { return recorder->count("on") == 1; }));
        // A scale held by another client does not advertise: it is retrieved.
        const auto held = central->retrieveConnectedPeripheralsWithServices({wire::kScaleService});
        if (held.empty()) {
            central->scanForPeripheralsWithServices(std::vector{wire::kScaleService}, {});
            EXPECT_TRUE(wait([&] { return recorder->get(&PortRecorder::found) != nullptr; }));
            central->stopScan();
        }
        peripheral = held.empty() ? bt::portPeripheral(recorder->get(&PortRecorder::found)) : held.front();
        if (peripheral) peripheral->setDelegate(recorder);
        recorder->clear();
    }
    // Connects, discovers and subscribes to the battery level.
    void link() {
        recorder->clear(true);
        central->connectPeripheral(peripheral, {});
        ASSERT_TRUE(wait([&] { return recorder->count("connected") == 1; })) << log->text;
        peripheral->discoverServices(std::nullopt);
        ASSERT_TRUE(wait([&] { return recorder->get(&PortRecorder::battery) != nullptr; })) << log->text;
        peripheral->setNotifyValue(true, recorder->get(&PortRecorder::battery));
        ASSERT_TRUE(wait([&] { return recorder->count("notifying") == 1; })) << log->text;
    }

    std::shared_ptr<CapturedLog> log;
    std::shared_ptr<PortRecorder> recorder = std::make_shared<PortRecorder>();
    std::shared_ptr<bt::Central> central;
    bt::PeripheralPtr peripheral;
};

// The fake with one scale that sends notifications only when told to; a
// client by property (a read's echo and remembered sessions matter there).
class BluezPort : public ::testing::Test {
protected:
    bool addScale() {
        fake.addAdapter({});
        fakebluez::ScaleSetup setup;
        setup.address = kScaleAddress;
        setup.streamWeights = false;
        fake.addScale(setup);
        return true;
    }
    std::size_t fakeCalls(const std::string& member) {
        const auto calls = fake.calls();
        return static_cast<std::size_t>(
            std::count_if(calls.begin(), calls.end(), [&](const auto& c) { return c.member == member; }));
    }

    fakebluez::PrivateBus bus;
    fakebluez::ScopedSystemBus systemBus{bus.address()};
    FakeBluez fake{bus.address()};
    const bool scaleAdded_ = addScale();  // before the client looks
    std::shared_ptr<CapturedLog> log = std::make_shared<CapturedLog>();
    PortClient client{bluez::NotifyMode::Property, log};
    std::shared_ptr<PortRecorder>& recorder = client.recorder;
    std::shared_ptr<bt::Central>& central = client.central;
    bt::PeripheralPtr& peripheral = client.peripheral;
};

TEST_F(BluezPort, CancellingAnAttemptIsSilentAndTheNextAttemptLinks) {
    fake.hangConnect(kScaleAddress, 3s);
    central->connectPeripheral(peripheral, {});
    ASSERT_TRUE(wait([&] { return fakeCalls("Connect") == 1; }));
    central->cancelPeripheralConnection(peripheral);
    fake.clearConnectFaults(kScaleAddress);
    central->connectPeripheral(peripheral, {});
    ASSERT_TRUE(wait([&] { return recorder->count("connected") == 1; })) << log->text;
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"connected"});
    EXPECT_EQ(peripheral->state(), bt::PeripheralState::Connected);
}

TEST_F(BluezPort, AnAttemptAnsweredInProgressIsTriedAgainUntilItLinks) {
    // Another client's attempt hangs in bluetoothd; ours is answered InProgress
    // until it clears what is pending, then links.
    fake.hangConnect(kScaleAddress, 20s);
    PortClient other(bluez::NotifyMode::Socket, log);
    other.central->connectPeripheral(other.peripheral, {});
    ASSERT_TRUE(wait([&] { return fakeCalls("Connect") == 1; }));
    central->connectPeripheral(peripheral, {});
    ASSERT_TRUE(wait([&] { return recorder->count("connected") == 1; })) << log->text;
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"connected"});
    EXPECT_GE(fakeCalls("Connect"), 3u);
}

TEST_F(BluezPort, AReadIsOneEventAndEachNotificationOneOnEveryLink) {
    for (int times = 1; times <= 2; ++times) {
        client.link();
        recorder->clear();
        // bluetoothd announces the value it read as a change too.
        peripheral->readValueForCharacteristic(recorder->get(&PortRecorder::battery));
        ASSERT_TRUE(wait([&] { return recorder->count("value 85") == 1; }));
        fake.notify(kScaleAddress, wire::kBatteryLevel, {42});
        fake.notify(kScaleAddress, wire::kBatteryLevel, {43});
        ASSERT_TRUE(wait([&] { return recorder->count("value 43") == 1; }));
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(recorder->events(), (std::vector<std::string>{"value 85", "value 42", "value 43"}))
            << times;
        // The next link: bluetoothd still holds this link's subscription.
        fake.dropLink(kScaleAddress);
        ASSERT_TRUE(wait([&] { return recorder->count("disconnected") == 1; }));
    }
}

TEST_F(BluezPort, ACentralReleasedInsideItsOwnEventEndsItsLink) {
    bt::Central& handle = *central;
    recorder->hold(std::exchange(central, nullptr));  // its only owner from now on
    handle.connectPeripheral(peripheral, {});
    ASSERT_TRUE(wait([&] { return recorder->count("connected") == 1; }));
    EXPECT_TRUE(wait([&] { return fakeCalls("Disconnect") == 1 && !fake.isConnected(kScaleAddress); }));
}

TEST_F(BluezPort, ASocketRefusedForAnExistingSessionFallsBackToTheProperty) {
    client.link();
    PortClient second(bluez::NotifyMode::Socket, log);
    second.link();
    EXPECT_EQ(fakeCalls("AcquireNotify"), 1u);
    EXPECT_EQ(fakeCalls("StartNotify"), 2u);
    second.recorder->clear();
    fake.notify(kScaleAddress, wire::kBatteryLevel, {42});
    // bluetoothd sends one signal per subscribed client, and every client
    // hears all of them: by property, a value arrives once per session.
    EXPECT_TRUE(wait([&] { return second.recorder->count("value 42") == 2; })) << log->text;
}

}  // namespace
}  // namespace plenk::test
