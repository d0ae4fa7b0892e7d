// The simulated Bluetooth backend driven through the port, as the layers above
// use it: a central with a recording delegate, a virtual clock, scripted devices.
// The scripted failures the layers above map to their own errors are checked
// there; here is what the simulator must do like the platform does.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "backends/sim/SimBackend.h"
#include "dispatch/SerialQueue.h"
#include "support/SimHarness.h"
#include "wire/Frames.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace plenk {
namespace {

using namespace std::chrono_literals;
using bt::ManagerState;
using bt::PeripheralState;
using Log = std::vector<std::string>;
namespace em = emulator;

// " att3", " link7": an error's domain and code, as the log shows them.
std::string describe(const ErrorPtr& e) {
    if (!e) return "";
    std::string domain = e->domain();
    if (domain == kAttErrorDomain) domain = "att";
    if (domain == kPlatformErrorDomain) domain = "link";
    return " " + domain + std::to_string(e->code());
}

std::string hex(const bt::Bytes& value) {
    std::string out = value.size() == 0 ? "" : " ";
    for (std::uint8_t b : value.span()) out += {"0123456789ABCDEF"[b >> 4], "0123456789ABCDEF"[b & 15]};
    return out;
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
    void peripheralDidUpdateName(bt::Peripheral& p) override { add("name " + p.name().value_or("-")); }
    void peripheralDidDiscoverServices(bt::Peripheral&, const ErrorPtr& e) override {
        add("services" + describe(e));
    }
    void peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral&, const bt::ServicePtr& s,
                                                             const ErrorPtr& e) override {
        add("characteristics " + s->uuid().toString() + describe(e));
    }
    void peripheralDidUpdateValueForCharacteristicError(bt::Peripheral&, const bt::CharacteristicPtr& c,
                                                        const ErrorPtr& e) override {
        add("value " + c->uuid().toString() + hex(c->value()) + describe(e), c->value());
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

    Log log() const {
        std::lock_guard lock(mutex_);
        return log_;
    }
    // Lines starting with `prefix`.
    std::size_t count(std::string_view prefix) const {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count_if(
            log_.begin(), log_.end(), [&](const std::string& l) { return l.starts_with(prefix); }));
    }
    std::vector<bt::Bytes> values() const {
        std::lock_guard lock(mutex_);
        return values_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        log_.clear();
        values_.clear();
    }
    bool allOnQueue() const { return offQueue_ == 0 && nested_ == 0; }

private:
    void add(std::string line, const std::optional<bt::Bytes>& value = std::nullopt) {
        if (depth_.fetch_add(1) != 0) ++nested_;
        const auto* queue = dispatch::SerialQueue::current();
        if (queue == nullptr || queue->label() != "Corebluetooth") ++offQueue_;
        {
            std::lock_guard lock(mutex_);
            log_.push_back(std::move(line));
            if (value) values_.push_back(*value);
        }
        depth_.fetch_sub(1);
    }

    mutable std::mutex mutex_;
    Log log_;
    std::vector<bt::Bytes> values_;
    std::atomic<int> depth_{0};
    std::atomic<int> offQueue_{0};
    std::atomic<int> nested_{0};
};

bt::CharacteristicPtr characteristicOf(const bt::PeripheralPtr& p, const bt::Uuid& uuid) {
    for (const auto& s : p->services()) {
        for (const auto& c : s->characteristics()) {
            if (c->uuid() == uuid) return c;
        }
    }
    return nullptr;
}

sim::PeripheralOptions device(std::optional<std::string> name, bool advertising, bool heldBySystem = false,
                              std::vector<bt::Uuid> services = {}) {
    sim::PeripheralOptions options;
    options.name = std::move(name);
    options.advertising = advertising;
    options.connectedToSystem = heldBySystem;
    options.advertisedServices = std::move(services);
    return options;
}

struct Rig {
    explicit Rig(test::SimHarnessOptions options = {}) : h(options) {
        central = attach(rec);
        h.settle();
    }
    explicit Rig(sim::Timings timings) : Rig(test::SimHarnessOptions{.timings = timings}) {}
    ~Rig() { EXPECT_TRUE(rec->allOnQueue()); }

    std::shared_ptr<bt::Central> attach(const std::shared_ptr<Recorder>& recorder) {
        return h.backend->makeCentral(recorder, "Corebluetooth", h.context);
    }
    bt::PeripheralPtr peripheral(const std::shared_ptr<sim::VirtualPeripheral>& device) {
        return central->retrievePeripheralsWithIdentifiers({device->identifier()}).at(0);
    }
    bt::PeripheralPtr connect(const std::shared_ptr<sim::VirtualPeripheral>& device, bool discover = false) {
        auto p = peripheral(device);
        central->connectPeripheral(p, {});
        h.settle();
        EXPECT_EQ(p->state(), PeripheralState::Connected);
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
    static void write(const bt::PeripheralPtr& p, const bt::Uuid& uuid, const bt::Bytes& value,
                      bt::WriteType type = bt::WriteType::WithResponse) {
        p->writeValue(value, characteristicOf(p, uuid), type);
    }

    test::SimHarness h;
    std::shared_ptr<Recorder> rec = std::make_shared<Recorder>();
    std::shared_ptr<bt::Central> central;
};

TEST(SimRadio, NothingBeforeTheWorldHasAStateThenEveryChangeReachesEveryCentralInOrder) {
    Rig r(test::SimHarnessOptions{.radio = std::nullopt});
    auto second = std::make_shared<Recorder>();
    auto other = r.attach(second);
    r.h.advance(5s);
    EXPECT_EQ(r.central->state(), ManagerState::Unknown);
    using enum RadioState;
    for (auto s : {PoweredOn, PoweredOff, PoweredOff, Unauthorized, Resetting, PoweredOn}) {
        r.h.world->setRadioState(s);
    }
    r.h.settle();
    const Log expected = {"state PoweredOn", "state PoweredOff", "state Unauthorized", "state Resetting",
                          "state PoweredOn"};  // a repeat is no change
    EXPECT_EQ(r.rec->log(), expected);
    EXPECT_EQ(second->log(), expected);
    EXPECT_TRUE(second->allOnQueue());
}

TEST(SimRadio, PowerOffDropsLinksAndScansBeforeTheStateIsReportedAndLaterCommandsAreIgnored) {
    for (bool report : {true, false}) {
        Rig r(test::SimHarnessOptions{.disconnectOnPowerOff = report});
        auto scale = r.h.addScale();
        auto p = r.connect(scale);
        r.scan();
        r.rec->clear();
        r.h.world->setRadioState(ManagerState::PoweredOff);
        r.h.settle();
        EXPECT_EQ(r.rec->log(), (report ? Log{"disconnect", "state PoweredOff"} : Log{"state PoweredOff"}));
        EXPECT_EQ(scale->linkCount(), 0u);
        r.scan();
        r.central->connectPeripheral(p, {});
        r.h.advance(1s);
        EXPECT_FALSE(r.central->isScanning());
        EXPECT_EQ(p->state(), PeripheralState::Disconnected);
    }
}

TEST(SimScan, EachAdvertiserOncePerScanOrEveryIntervalWithDuplicatesAndFiltersAnyOfTheirServices) {
    Rig r(sim::Timings{100ms, 0ms, 0ms});
    r.h.addScale();
    r.h.world->addPeripheral(device("DfuTarg", true, false, {wire::kDfuService}));
    auto late = r.h.world->addPeripheral(device(std::nullopt, false));
    r.rec->clear();
    r.scan();
    r.h.advance(2s);
    late->setAdvertising(true);  // switched on while scanning: reported once
    r.h.settle();
    late->setAdvertising(false);
    late->setAdvertising(true);
    r.scan(std::vector{wire::kDfuService});
    r.scan(std::vector{wire::kScaleService, bt::Uuid::from16(0x180D)});
    const std::string dfu = "discover DfuTarg 00001530-1212-EFDE-1523-785FEABCD123";
    EXPECT_EQ(r.rec->log(),
              (Log{"discover Plenk Scale FF08", dfu, "discover -", dfu, "discover Plenk Scale FF08"}));

    r.rec->clear();
    r.scan(std::nullopt, true);
    r.h.advance(1s);
    EXPECT_EQ(r.rec->count("discover"), 3u * 11);  // at once, then every 100 ms
    r.central->stopScan();
    r.h.advance(1s);
    EXPECT_EQ(r.rec->count("discover"), 3u * 11);
    EXPECT_EQ(r.h.clock->pendingTimers(), 0u);
}

TEST(SimConnect, AnswersAfterTheirLatenciesAndCancelEndsALinkAtOnceAndAHangingAttemptSilently) {
    Rig r(sim::Timings{100ms, 30ms, 2ms});
    auto scale = r.h.addScale();
    auto p = r.peripheral(scale);
    r.rec->clear();
    r.central->connectPeripheral(p, {});
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    r.h.advance(29ms);
    EXPECT_EQ(r.rec->log(), Log{});
    r.h.advance(1ms);
    p->discoverServices(std::nullopt);
    r.h.advance(1ms);
    EXPECT_EQ(r.rec->log(), Log{"connect"});
    r.h.advance(1ms);
    EXPECT_EQ(r.rec->log(), (Log{"connect", "services"}));

    r.central->cancelPeripheralConnection(p);
    EXPECT_EQ(p->state(), PeripheralState::Disconnected);  // at once
    r.central->cancelPeripheralConnection(p);              // already disconnected: nothing more
    scale->queueConnectResult(sim::ConnectResult::hang());
    r.central->connectPeripheral(p, {});
    r.h.advance(60s);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    r.central->cancelPeripheralConnection(p);
    r.h.advance(1s);
    EXPECT_EQ(r.rec->log(), (Log{"connect", "services", "disconnect"}));
    r.central->connectPeripheral(p, {});  // the script is used up: the default succeeds
    r.h.advance(1s);
    EXPECT_EQ(p->state(), PeripheralState::Connected);
}

TEST(SimConnect, AConnectWaitsUntilTheDeviceCanBeReachedOrIsReleasedByAnotherCentral) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.peripheral(scale);
    scale->setInRange(false);
    r.central->connectPeripheral(p, {});
    r.h.advance(10s);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    scale->setInRange(true);
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Connected);
    r.connect(r.h.world->addPeripheral(device("Held", false, true)));  // held by the system: no advertising
    r.h.world->removePeripheral(scale);
    r.h.settle();
    EXPECT_EQ(r.rec->log(), (Log{"state PoweredOn", "connect", "connect", "disconnect link6"}));
    EXPECT_TRUE(r.central->retrievePeripheralsWithIdentifiers({scale->identifier()}).empty());

    auto other = r.h.addScale();
    auto holder = r.attach(std::make_shared<Recorder>());
    holder->connectPeripheral(holder->retrievePeripheralsWithIdentifiers({other->identifier()}).at(0), {});
    r.h.settle();
    r.rec->clear();
    r.scan();
    auto q = r.peripheral(other);
    r.central->connectPeripheral(q, {});
    r.h.settle();
    EXPECT_EQ(q->state(), PeripheralState::Connecting);
    holder.reset();  // releasing a central frees its devices
    r.h.settle();
    EXPECT_EQ(r.rec->log(), (Log{"discover Plenk Scale FF08", "connect"}));
}

TEST(SimLink, ADropEndsTheLinkLaterOperationsGoNowhereAndAReconnectHasFreshObjects) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale, true);
    auto command = characteristicOf(p, wire::kCommandCharacteristic);
    auto data = characteristicOf(p, wire::kDataCharacteristic);
    p->setNotifyValue(true, data);
    r.h.settle();
    r.rec->clear();
    scale->dropLink(platformError(kPlatformPeripheralDisconnected));
    r.h.settle();
    EXPECT_TRUE(p->services().empty());
    EXPECT_FALSE(data->isNotifying());
    p->writeValue(bt::Bytes{0x10}, command, bt::WriteType::WithResponse);
    r.h.settle();
    EXPECT_EQ(r.rec->log(), Log{"disconnect link7"});
    EXPECT_TRUE(scale->writes().empty());

    r.connect(scale, true);
    EXPECT_NE(characteristicOf(p, wire::kDataCharacteristic), data);
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 0u);
    p->setNotifyValue(true, data);  // an object of the old link
    r.h.settle();
    scale->notify(wire::kDataCharacteristic, bt::Bytes{1, 2, 3});
    r.h.settle();
    EXPECT_EQ(r.rec->count("value"), 0u);
}

TEST(SimDiscovery, FindsTheTableInOrderHonoursFiltersAndKeepsItsObjects) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale);
    p->discoverServices(std::vector{wire::kScaleService});
    r.h.settle();
    ASSERT_EQ(p->services().size(), 1u);
    auto service = p->services()[0];
    EXPECT_EQ(service->uuid(), wire::kScaleService);
    p->discoverCharacteristics(std::vector{wire::kInfoCharacteristic, wire::kCommandCharacteristic}, service);
    r.h.settle();
    ASSERT_EQ(service->characteristics().size(), 2u);
    auto keep = service->characteristics()[0];
    EXPECT_EQ(keep->uuid(), wire::kCommandCharacteristic);  // table order
    EXPECT_EQ(keep->service(), service);
    EXPECT_EQ(service->peripheral(), p);
    r.rec->clear();
    r.discoverAll(p);
    EXPECT_EQ(r.rec->log(),
              (Log{"services", "characteristics 180F", "characteristics 180A", "characteristics FF08"}));
    EXPECT_EQ(service->characteristics().size(), 4u);
    EXPECT_EQ(service->characteristics()[0], keep);  // same objects within one link
}

TEST(SimGatt, WritesAndReadsThePeerDoesNotPermitAreRefused) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale, true);
    r.rec->clear();
    // Not writable: refused by the peer with a response, dropped without one (as the platform does).
    Rig::write(p, wire::kBatteryLevel, bt::Bytes{0x01}, bt::WriteType::WithoutResponse);
    Rig::write(p, wire::kDataCharacteristic, bt::Bytes{0x02});
    p->readValueForCharacteristic(characteristicOf(p, wire::kCommandCharacteristic));
    Rig::write(p, wire::kCommandCharacteristic, bt::Bytes(wire::tareFrame().span()),
               bt::WriteType::WithoutResponse);
    r.h.settle();
    EXPECT_EQ(r.rec->log(), (Log{"write EF81 att3", "value EF80 att2"}));
    scale->withScale([&](em::ScaleEmulator& s) { EXPECT_EQ(s.counters().tares, 1u); });
    EXPECT_EQ(scale->writes().size(), 2u);  // the refused one reached the peer, not the firmware
}

TEST(SimNotify, WeightsStreamAtTheSampleRateOnlyWhileNotifying) {
    Rig r(test::SimHarnessOptions{.streaming = true});
    auto scale = r.h.addScale();
    auto p = r.connect(scale, true);
    auto data = characteristicOf(p, wire::kDataCharacteristic);
    r.h.advance(1s);
    p->setNotifyValue(true, data);
    r.h.settle();
    r.h.advance(1s);
    EXPECT_EQ(r.rec->count("value EF81"), 10u);
    p->setNotifyValue(false, data);
    r.h.settle();
    r.h.advance(2s);
    EXPECT_EQ(r.rec->count("value"), 10u);
    EXPECT_FALSE(scale->isStreaming());
}

TEST(SimNotify, SwitchErrorsButtonsAndErroneousUpdates) {
    Rig r;
    auto scale = r.h.addScale();
    const auto error = attError(kAttUnlikelyError);
    scale->failNotifyState(wire::kDataCharacteristic, error);
    auto p = r.connect(scale, true);
    r.rec->clear();
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    p->setNotifyValue(true, characteristicOf(p, wire::kInfoCharacteristic));  // read-only
    r.h.settle();
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 0u);
    scale->failNotifyState(wire::kDataCharacteristic, nullptr);
    p->setNotifyValue(true, characteristicOf(p, wire::kControlCharacteristic));
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    r.h.settle();
    scale->pressButton(1);
    scale->notify(wire::kDataCharacteristic, bt::Bytes{1, 2, 3});
    scale->notify(wire::kDataCharacteristic, bt::Bytes{9, 9}, error);  // keeps the old value
    scale->notify(wire::kInfoCharacteristic, bt::Bytes{7});            // nobody listens there
    r.h.settle();
    EXPECT_EQ(r.rec->log(), (Log{"notify EF81 att14", "notify EF83 att6", "notify EF82", "notify EF81",
                                 "value EF82 02", "value EF81 010203", "value EF81 010203 att14"}));
}

TEST(SimNotify, FlatOutFromManyThreadsKeepsEachThreadsOrder) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale, true);
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    r.h.settle();
    constexpr int kThreads = 4;
    constexpr int kEach = 2000;
    em::ScaleEmulator encoder;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                scale->notify(wire::kDataCharacteristic, encoder.encodeWeightPacket(float(t * 100000 + i)));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    r.h.settle();
    const auto values = r.rec->values();
    ASSERT_EQ(values.size(), std::size_t{kThreads * kEach});
    std::vector<int> next(kThreads, 0);
    for (const auto& v : values) {
        const auto tag = static_cast<int>(wire::decodeWeight("Plenk", v.span()));
        ASSERT_EQ(tag % 100000, next[tag / 100000]++);
    }
}

TEST(SimRetrieve, OwnLinksCountAsHeldByTheSystemAndThereIsOneObjectPerDevice) {
    Rig r;
    auto held = r.h.world->addScale({}, device(std::nullopt, false, true));
    auto free = r.h.addScale("Plenk Two");
    auto connected = r.central->retrieveConnectedPeripheralsWithServices({wire::kScaleService});
    ASSERT_EQ(connected.size(), 1u);
    EXPECT_EQ(connected[0]->state(), PeripheralState::Disconnected);  // held by the system, not by us
    auto p = r.connect(free);
    EXPECT_EQ(r.central->retrieveConnectedPeripheralsWithServices({wire::kScaleService}),
              (std::vector{connected[0], p}));
    EXPECT_EQ(r.central->retrievePeripheralsWithIdentifiers(
                  {free->identifier(), bt::Uuid::random(), held->identifier()}),
              (std::vector{p, connected[0]}));
}

TEST(SimThreads, CallsFromInsideAnEventAreNotReenteredAndDelegatesAreHeldWeakly) {
    Rig r;
    r.rec->discoverOnConnect = true;
    auto scale = r.h.addScale();
    auto p = r.connect(scale);
    EXPECT_EQ(r.rec->log(), (Log{"state PoweredOn", "connect", "services"}));
    r.discoverAll(p);
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    r.h.settle();
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
    EXPECT_EQ(r.rec->log(), Log{"state PoweredOff"});  // a new delegate hears later events only
}

}  // namespace
}  // namespace plenk
