// The simulated backend through the port: what the kit tests do not reach of
// what the simulator must do like the platform does.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dispatch/SerialQueue.h"
#include "support/SimHarness.h"
#include "wire/Frames.h"
#include "wire/GattUuids.h"

namespace plenk {
namespace {

using namespace std::chrono_literals;
using bt::ManagerState;
using bt::PeripheralState;
using Log = std::vector<std::string>;

// " att3", " link7": an error's domain and code, as the log shows them.
std::string describe(const ErrorPtr& e) {
    if (!e) return "";
    return (e->domain() == kAttErrorDomain ? " att" : " link") + std::to_string(e->code());
}

// Logs every event as a line ("value EF81 0102 att14"), and checks that each ran
// on the central's queue and inside no other.
class Recorder final : public bt::CentralDelegate,
                       public bt::PeripheralDelegate,
                       public std::enable_shared_from_this<Recorder> {
public:
    bool discoverOnConnect = false;  // call back into the simulator from inside an event

    void centralManagerDidUpdateState(bt::Central& c) override {
        static const char* const names[] = {"Unknown",      "Resetting",  "Unsupported",
                                            "Unauthorized", "PoweredOff", "PoweredOn"};
        add("state " + std::string(names[static_cast<int>(c.state())]));
    }
    void centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(bt::Central&, const bt::PeripheralPtr&,
                                                                  const bt::AdvertisementData& ad,
                                                                  int) override {
        std::string line = "discover " + ad.localName.value_or("-");
        for (const auto& s : ad.serviceUUIDs) line += " " + s.toString();
        add(std::move(line));
    }
    void centralManagerDidConnectPeripheral(bt::Central&, const bt::PeripheralPtr& p) override {
        p->setDelegate(weak_from_this());
        if (discoverOnConnect) p->discoverServices(std::nullopt);
        add("connect");
    }
    void centralManagerDidDisconnectPeripheralError(bt::Central&, const bt::PeripheralPtr&,
                                                    const ErrorPtr& e) override {
        add("disconnect" + describe(e));
    }
    void centralManagerDidFailToConnectPeripheralError(bt::Central&, const bt::PeripheralPtr&,
                                                       const ErrorPtr& e) override {
        add("fail" + describe(e));
    }
    void peripheralDidDiscoverServices(bt::Peripheral&, const ErrorPtr& e) override {
        add("services" + describe(e));
    }
    void peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral&, const bt::ServicePtr& s,
                                                             const ErrorPtr& e) override {
        add("characteristics " + s->uuid().toString() + describe(e));
    }
    void peripheralDidUpdateValueForCharacteristicError(bt::Peripheral&, const bt::CharacteristicPtr& c,
                                                        const ErrorPtr& e) override {
        const auto value = c->value();
        std::string hex = value.size() == 0 ? "" : " ";
        for (std::uint8_t b : value.span()) hex += {"0123456789ABCDEF"[b >> 4], "0123456789ABCDEF"[b & 15]};
        add("value " + c->uuid().toString() + hex + describe(e));
    }
    void peripheralDidWriteValueForCharacteristicError(bt::Peripheral&, const bt::CharacteristicPtr& c,
                                                       const ErrorPtr& e) override {
        add("write " + c->uuid().toString() + describe(e));
    }
    void peripheralDidUpdateNotificationStateForCharacteristicError(bt::Peripheral&,
                                                                    const bt::CharacteristicPtr& c,
                                                                    const ErrorPtr& e) override {
        add("notify " + c->uuid().toString() + describe(e));
    }

    // The events since the last take.
    Log take() {
        std::lock_guard lock(mutex_);
        return std::exchange(log_, {});
    }
    bool allOnQueue() const { return offQueue_ == 0 && nested_ == 0; }

private:
    void add(std::string line) {
        if (depth_.fetch_add(1) != 0) ++nested_;
        const auto* queue = dispatch::SerialQueue::current();
        if (queue == nullptr || queue->label() != "Corebluetooth") ++offQueue_;
        {
            std::lock_guard lock(mutex_);
            log_.push_back(std::move(line));
        }
        depth_.fetch_sub(1);
    }

    mutable std::mutex mutex_;
    Log log_;
    std::atomic<int> depth_{0};
    std::atomic<int> offQueue_{0};
    std::atomic<int> nested_{0};
};

bt::CharacteristicPtr characteristicOf(const bt::PeripheralPtr& p, const bt::Uuid& uuid) {
    for (const auto& s : p->services())
        for (const auto& c : s->characteristics())
            if (c->uuid() == uuid) return c;
    return nullptr;
}

struct Rig {
    explicit Rig(test::SimHarnessOptions options = {}) : h(options) {
        central = attach(rec);
        h.settle();
    }
    ~Rig() { EXPECT_TRUE(rec->allOnQueue()); }

    std::shared_ptr<bt::Central> attach(const std::shared_ptr<Recorder>& recorder) {
        return h.backend->makeCentral(recorder, "Corebluetooth", h.context);
    }
    bt::PeripheralPtr connect(const std::shared_ptr<sim::VirtualPeripheral>& device, bool discover = false) {
        auto p = central->retrievePeripheralsWithIdentifiers({device->identifier()}).at(0);
        central->connectPeripheral(p, {});
        h.settle();
        if (discover) discoverAll(p);
        return p;
    }
    void discoverAll(const bt::PeripheralPtr& p) {
        p->discoverServices(std::nullopt);
        h.settle();
        for (const auto& s : p->services()) p->discoverCharacteristics(std::nullopt, s);
        h.settle();
    }
    void scan(std::optional<std::vector<bt::Uuid>> filter = std::nullopt, bool duplicates = false) {
        central->scanForPeripheralsWithServices(filter, bt::ScanOptions{duplicates});
        h.settle();
    }
    void subscribe(const bt::PeripheralPtr& p, const bt::Uuid& uuid) {
        p->setNotifyValue(true, characteristicOf(p, uuid));
        h.settle();
    }

    test::SimHarness h;
    std::shared_ptr<Recorder> rec = std::make_shared<Recorder>();
    std::shared_ptr<bt::Central> central;
};

TEST(SimRadio, NothingBeforeTheWorldHasAStateThenEveryChangeReachesEveryCentralInOrder) {
    Rig r(test::SimHarnessOptions{.radio = std::nullopt, .disconnectOnPowerOff = false});
    auto second = std::make_shared<Recorder>();
    auto other = r.attach(second);
    r.h.advance(5s);
    EXPECT_EQ(r.central->state(), ManagerState::Unknown);
    using enum RadioState;
    for (auto s : {PoweredOn, PoweredOff, PoweredOff, Unauthorized, PoweredOn}) r.h.world->setRadioState(s);
    r.h.settle();
    const Log expected = {"state PoweredOn", "state PoweredOff", "state Unauthorized", "state PoweredOn"};
    EXPECT_EQ(r.rec->take(), expected);
    EXPECT_EQ(second->take(), expected);

    // A platform that reports no disconnect on power-off still drops the links.
    auto scale = r.h.addScale();
    r.connect(scale);
    r.h.world->setRadioState(ManagerState::PoweredOff);
    r.h.settle();
    EXPECT_EQ(r.rec->take(), (Log{"connect", "state PoweredOff"}));
    EXPECT_EQ(scale->linkCount(), 0u);
}

TEST(SimScan, EachAdvertiserOncePerScanOrEveryIntervalWithDuplicatesAndFiltersAnyOfTheirServices) {
    Rig r(test::SimHarnessOptions{.timings = sim::Timings{100ms, 0ms, 0ms}});
    r.h.addScale();
    sim::PeripheralOptions options;
    options.name = "DfuTarg";
    options.advertisedServices = {wire::kDfuService};
    r.h.world->addPeripheral(options);
    auto late = r.h.world->addPeripheral(sim::PeripheralOptions{});
    late->setAdvertising(false);
    r.rec->take();
    r.scan();
    r.h.advance(2s);
    late->setAdvertising(true);  // switched on while scanning: reported once
    r.h.settle();
    late->setAdvertising(false);
    late->setAdvertising(true);
    r.scan(std::vector{wire::kDfuService});
    r.scan(std::vector{wire::kScaleService, bt::Uuid::from16(0x180D)});
    const std::string d = "discover DfuTarg 00001530-1212-EFDE-1523-785FEABCD123";
    EXPECT_EQ(r.rec->take(),
              (Log{"discover Plenk Scale FF08", d, "discover -", d, "discover Plenk Scale FF08"}));
    r.rec->take();
    r.scan(std::nullopt, true);
    r.h.advance(1s);
    r.central->stopScan();
    r.h.advance(1s);
    EXPECT_EQ(r.rec->take().size(), 3u * 11);  // at once, then every 100 ms until stopped
    EXPECT_EQ(r.h.clock->pendingTimers(), 0u);
}

TEST(SimGatt, WritesAndReadsThePeerDoesNotPermitAreRefused) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale, true);
    r.rec->take();
    const auto write = [&](const bt::Uuid& uuid, const bt::Bytes& value, bt::WriteType type) {
        p->writeValue(value, characteristicOf(p, uuid), type);
    };
    // Not writable: refused by the peer with a response, dropped without one (as the platform does).
    write(wire::kBatteryLevel, bt::Bytes{0x01}, bt::WriteType::WithoutResponse);
    write(wire::kDataCharacteristic, bt::Bytes{0x02}, bt::WriteType::WithResponse);
    p->readValueForCharacteristic(characteristicOf(p, wire::kCommandCharacteristic));
    write(wire::kCommandCharacteristic, bt::Bytes(wire::tareFrame().span()), bt::WriteType::WithoutResponse);
    r.h.settle();
    EXPECT_EQ(r.rec->take(), (Log{"write EF81 att3", "value EF80 att2"}));
    scale->withScale([&](emulator::ScaleEmulator& s) { EXPECT_EQ(s.counters().tares, 1u); });
    EXPECT_EQ(scale->writes().size(), 2u);  // the refused one reached the peer, not the firmware
}

TEST(SimNotify, SwitchErrorsButtonsAndErroneousUpdates) {
    Rig r;
    auto scale = r.h.addScale();
    const auto error = attError(kAttUnlikelyError);
    scale->failNotifyState(wire::kDataCharacteristic, error);
    auto p = r.connect(scale, true);
    r.rec->take();
    r.subscribe(p, wire::kDataCharacteristic);
    r.subscribe(p, wire::kInfoCharacteristic);  // read-only
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 0u);
    scale->failNotifyState(wire::kDataCharacteristic, nullptr);
    r.subscribe(p, wire::kControlCharacteristic);
    r.subscribe(p, wire::kDataCharacteristic);
    scale->pressButton(1);
    scale->notify(wire::kDataCharacteristic, bt::Bytes{1, 2, 3});
    scale->notify(wire::kDataCharacteristic, bt::Bytes{9, 9}, error);  // keeps the old value
    scale->notify(wire::kInfoCharacteristic, bt::Bytes{7});            // nobody listens there
    r.h.settle();
    EXPECT_EQ(r.rec->take(), (Log{"notify EF81 att14", "notify EF83 att6", "notify EF82", "notify EF81",
                                  "value EF82 02", "value EF81 010203", "value EF81 010203 att14"}));
}

TEST(SimThreads, CallsFromInsideAnEventAreNotReenteredAndDelegatesAreHeldWeakly) {
    Rig r;
    r.rec->discoverOnConnect = true;
    auto scale = r.h.addScale();
    auto p = r.connect(scale);
    EXPECT_EQ(r.rec->take(), (Log{"state PoweredOn", "connect", "services"}));
    r.discoverAll(p);
    r.subscribe(p, wire::kDataCharacteristic);
    std::weak_ptr<Recorder> weak = r.rec;
    for (int i = 0; i < 100; ++i) scale->notify(wire::kDataCharacteristic, bt::Bytes{1});
    scale->dropLink();
    r.rec.reset();  // released while its events are still on their way
    r.h.settle();
    EXPECT_TRUE(weak.expired());
    r.rec = std::make_shared<Recorder>();
    r.central->setDelegate(r.rec);
    r.h.world->setRadioState(ManagerState::PoweredOff);
    r.h.settle();
    EXPECT_EQ(r.rec->take(), Log{"state PoweredOff"});  // a new delegate hears later events only
}

}  // namespace
}  // namespace plenk
