// The simulated Bluetooth backend driven through the port, as the layers above
// use it: a central with a recording delegate, a virtual clock, scripted devices.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "backends/sim/SimBackend.h"
#include "composition/BackendRegistry.h"
#include "dispatch/SerialQueue.h"
#include "support/SimHarness.h"
#include "wire/ConfigurationRecord.h"
#include "wire/Frames.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace plenk {
namespace {

using namespace std::chrono_literals;
using bt::ManagerState;
using bt::PeripheralState;
using Kinds = std::vector<std::string>;
namespace em = emulator;

struct Event {
    std::string what{};
    bt::PeripheralPtr peripheral{};
    ErrorPtr error{};
    bt::Uuid uuid{};  // service or characteristic
    bt::Bytes value{};
    std::optional<std::string> name{};
    std::vector<bt::Uuid> services{};
    ManagerState state = ManagerState::Unknown;
};

// Records every event, and whether each ran on the central's queue and outside any other.
class Recorder final : public bt::CentralDelegate,
                       public bt::PeripheralDelegate,
                       public std::enable_shared_from_this<Recorder> {
public:
    bool discoverOnConnect = false;  // call back into the simulator from inside an event

    void centralManagerDidUpdateState(bt::Central& c) override {
        record({.what = "state", .state = c.state()});
    }
    void centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(bt::Central&, const bt::PeripheralPtr& p,
                                                                  const bt::AdvertisementData& ad,
                                                                  int) override {
        record({.what = "discover", .peripheral = p, .name = ad.localName, .services = ad.serviceUUIDs});
    }
    void centralManagerDidConnectPeripheral(bt::Central&, const bt::PeripheralPtr& p) override {
        p->setDelegate(weak_from_this());
        if (discoverOnConnect) p->discoverServices(std::nullopt);
        record({.what = "connect", .peripheral = p});
    }
    void centralManagerDidDisconnectPeripheralError(bt::Central&, const bt::PeripheralPtr& p,
                                                    const ErrorPtr& e) override {
        record({.what = "disconnect", .peripheral = p, .error = e});
    }
    void centralManagerDidFailToConnectPeripheralError(bt::Central&, const bt::PeripheralPtr& p,
                                                       const ErrorPtr& e) override {
        record({.what = "fail", .peripheral = p, .error = e});
    }
    void peripheralDidUpdateName(bt::Peripheral& p) override { record({.what = "name", .name = p.name()}); }
    void peripheralDidDiscoverServices(bt::Peripheral&, const ErrorPtr& e) override {
        record({.what = "services", .error = e});
    }
    void peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral&, const bt::ServicePtr& s,
                                                             const ErrorPtr& e) override {
        record({.what = "characteristics", .error = e, .uuid = s->uuid()});
    }
    void peripheralDidUpdateValueForCharacteristicError(bt::Peripheral&, const bt::CharacteristicPtr& c,
                                                        const ErrorPtr& e) override {
        record({.what = "value", .error = e, .uuid = c->uuid(), .value = c->value()});
    }
    void peripheralDidWriteValueForCharacteristicError(bt::Peripheral&, const bt::CharacteristicPtr& c,
                                                       const ErrorPtr& e) override {
        record({.what = "write", .error = e, .uuid = c->uuid()});
    }
    void peripheralDidUpdateNotificationStateForCharacteristicError(bt::Peripheral&,
                                                                    const bt::CharacteristicPtr& c,
                                                                    const ErrorPtr& e) override {
        record({.what = "notifyState", .error = e, .uuid = c->uuid()});
    }

    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::vector<Event> of(const std::string& what) const {
        std::vector<Event> out;
        for (auto& e : events()) {
            if (e.what == what) out.push_back(e);
        }
        return out;
    }
    std::size_t count(const std::string& what) const { return of(what).size(); }
    Kinds kinds() const {
        Kinds out;
        for (auto& e : events()) out.push_back(e.what);
        return out;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
    }
    bool allOnQueue() const { return offQueue_ == 0 && nested_ == 0; }

private:
    void record(Event e) {
        if (depth_.fetch_add(1) != 0) ++nested_;
        const auto* queue = dispatch::SerialQueue::current();
        if (queue == nullptr || queue->label() != "Corebluetooth") ++offQueue_;
        {
            std::lock_guard lock(mutex_);
            events_.push_back(std::move(e));
        }
        depth_.fetch_sub(1);
    }

    mutable std::mutex mutex_;
    std::vector<Event> events_;
    std::atomic<int> depth_{0};
    std::atomic<int> offQueue_{0};
    std::atomic<int> nested_{0};
};

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
        auto found = central->retrievePeripheralsWithIdentifiers({device->identifier()});
        return found.empty() ? nullptr : found.front();
    }
    bt::PeripheralPtr connect(const std::shared_ptr<sim::VirtualPeripheral>& device) {
        auto p = peripheral(device);
        central->connectPeripheral(p, {});
        h.settle();
        EXPECT_EQ(p->state(), PeripheralState::Connected);
        return p;
    }
    void discoverAll(const bt::PeripheralPtr& p) {
        p->discoverServices(std::nullopt);
        h.settle();
        for (const auto& s : p->services()) p->discoverCharacteristics(std::nullopt, s);
        h.settle();
    }
    bt::PeripheralPtr connectAndDiscover(const std::shared_ptr<sim::VirtualPeripheral>& device) {
        auto p = connect(device);
        discoverAll(p);
        return p;
    }
    void scan(std::optional<std::vector<bt::Uuid>> filter = std::nullopt, bool duplicates = false) {
        central->scanForPeripheralsWithServices(filter, bt::ScanOptions{duplicates});
        h.settle();
    }
    void write(const bt::PeripheralPtr& p, const bt::Uuid& uuid, const bt::Bytes& value,
               bt::WriteType type = bt::WriteType::WithResponse);

    test::SimHarness h;
    std::shared_ptr<Recorder> rec = std::make_shared<Recorder>();
    std::shared_ptr<bt::Central> central;
};

std::vector<bt::Uuid> uuids(const std::vector<bt::ServicePtr>& services) {
    std::vector<bt::Uuid> out;
    for (const auto& s : services) out.push_back(s->uuid());
    return out;
}

bt::ServicePtr serviceOf(const bt::PeripheralPtr& p, const bt::Uuid& uuid) {
    for (const auto& s : p->services()) {
        if (s->uuid() == uuid) return s;
    }
    return nullptr;
}

bt::CharacteristicPtr characteristicOf(const bt::PeripheralPtr& p, const bt::Uuid& uuid) {
    for (const auto& s : p->services()) {
        for (const auto& c : s->characteristics()) {
            if (c->uuid() == uuid) return c;
        }
    }
    return nullptr;
}

void Rig::write(const bt::PeripheralPtr& p, const bt::Uuid& uuid, const bt::Bytes& value,
                bt::WriteType type) {
    p->writeValue(value, characteristicOf(p, uuid), type);
}

bt::Bytes bytes(const wire::Frame& frame) {
    return bt::Bytes(frame.span());
}

std::string text(const bt::Bytes& value) {
    auto v = value.toVector();
    return {v.begin(), v.end()};
}

sim::PeripheralOptions device(std::optional<std::string> name, bool advertising = true,
                              bool connectedToSystem = false, bool knownToSystem = true,
                              std::vector<bt::Uuid> services = {}) {
    sim::PeripheralOptions options;
    options.name = std::move(name);
    options.advertising = advertising;
    options.connectedToSystem = connectedToSystem;
    options.knownToSystem = knownToSystem;
    options.advertisedServices = std::move(services);
    return options;
}

// --- radio state ----------------------------------------------------------------------------

TEST(SimRadio, NothingIsReportedBeforeTheWorldHasAState) {
    Rig r(test::SimHarnessOptions{.radio = std::nullopt});
    r.h.advance(5s);
    EXPECT_EQ(r.rec->count("state"), 0u);
    EXPECT_EQ(r.central->state(), ManagerState::Unknown);
    r.h.world->setRadioState(ManagerState::PoweredOn);
    r.h.settle();
    ASSERT_EQ(r.rec->count("state"), 1u);
    EXPECT_EQ(r.rec->of("state")[0].state, ManagerState::PoweredOn);
    EXPECT_EQ(r.central->state(), ManagerState::PoweredOn);
}

TEST(SimRadio, EveryChangeReachesEveryCentralInOrder) {
    Rig r;
    auto second = std::make_shared<Recorder>();
    auto other = r.attach(second);
    using enum ManagerState;
    for (auto s : {PoweredOff, PoweredOff, Unauthorized, Unsupported, Resetting, Unknown, PoweredOn}) {
        r.h.world->setRadioState(s);
    }
    r.h.settle();
    // The repeat is not a change.
    const std::vector expected = {PoweredOn, PoweredOff, Unauthorized, Unsupported,
                                  Resetting, Unknown,    PoweredOn};
    for (const auto& rec : {r.rec, second}) {
        std::vector<ManagerState> seen;
        for (const auto& e : rec->of("state")) seen.push_back(e.state);
        EXPECT_EQ(seen, expected);
    }
    EXPECT_TRUE(second->allOnQueue());
}

TEST(SimRadio, PowerOffDropsLinksAndScansBeforeTheStateIsReported) {
    for (bool report : {true, false}) {
        Rig r(test::SimHarnessOptions{.disconnectOnPowerOff = report});
        auto scale = r.h.addScale();
        auto p = r.connect(scale);
        r.scan();
        r.rec->clear();
        r.h.world->setRadioState(ManagerState::PoweredOff);
        r.h.settle();
        EXPECT_EQ(r.rec->kinds(), (report ? Kinds{"disconnect", "state"} : Kinds{"state"}));
        EXPECT_EQ(p->state(), PeripheralState::Disconnected);
        EXPECT_FALSE(r.central->isScanning());
        EXPECT_EQ(scale->linkCount(), 0u);

        // Commands while the radio is off are ignored, as the platform does.
        r.scan();
        r.central->connectPeripheral(p, {});
        r.h.advance(1s);
        EXPECT_FALSE(r.central->isScanning());
        EXPECT_EQ(p->state(), PeripheralState::Disconnected);
        EXPECT_TRUE(r.h.simLog->contains("[sim] scan"));
        EXPECT_TRUE(r.h.simLog->contains("[sim] connect"));
    }
}

// --- scanning -------------------------------------------------------------------------------

TEST(SimScan, EachAdvertiserOnceWithItsNameOrRepeatedWhenDuplicatesAreAllowed) {
    Rig r(sim::Timings{100ms, 0ms, 0ms});
    const std::vector<std::optional<std::string>> names = {"Coffee Scale", "Plenk Coffee", std::nullopt,
                                                           "DfuTarg"};
    for (const auto& n : names) r.h.world->addPeripheral(device(n));
    r.scan();
    r.h.advance(2s);
    const auto found = r.rec->of("discover");
    ASSERT_EQ(found.size(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(found[i].name, names[i]);
        EXPECT_EQ(found[i].peripheral->name(), names[i]);
        EXPECT_EQ(found[i].peripheral->state(), PeripheralState::Disconnected);
    }
    r.rec->clear();
    r.scan(std::nullopt, true);
    r.h.advance(1s);
    EXPECT_EQ(r.rec->count("discover"), 11u * names.size());  // at once, then every 100 ms
    r.central->stopScan();
    r.h.advance(1s);
    EXPECT_EQ(r.rec->count("discover"), 11u * names.size());
    EXPECT_EQ(r.h.clock->pendingTimers(), 0u);
}

TEST(SimScan, ServiceFilterReportsOnlyAdvertisersListingAService) {
    Rig r;
    auto scale = r.h.addScale();
    r.h.world->addPeripheral(device("DfuTarg", true, false, true, {wire::kDfuService}));
    r.h.world->addPeripheral(device(std::nullopt));
    r.scan(std::vector{wire::kDfuService});
    ASSERT_EQ(r.rec->count("discover"), 1u);
    EXPECT_EQ(r.rec->of("discover")[0].name, "DfuTarg");
    EXPECT_EQ(r.rec->of("discover")[0].services, std::vector{wire::kDfuService});
    r.rec->clear();
    r.scan(std::vector{wire::kScaleService, bt::Uuid::from16(0x180D)});
    ASSERT_EQ(r.rec->count("discover"), 1u);
    EXPECT_EQ(r.rec->of("discover")[0].peripheral->identifier(), scale->identifier());
}

TEST(SimScan, LateAdvertisersAreReportedOncePerScan) {
    Rig r;
    auto late = r.h.world->addPeripheral(device("Plenk", false));
    r.scan();
    EXPECT_EQ(r.rec->count("discover"), 0u);
    late->setAdvertising(true);  // the scale is switched on
    r.h.settle();
    late->setAdvertising(false);
    late->setAdvertising(true);
    r.h.settle();
    EXPECT_EQ(r.rec->count("discover"), 1u);
    r.scan();  // a new scan reports it again
    EXPECT_EQ(r.rec->count("discover"), 2u);
}

// --- connecting -----------------------------------------------------------------------------

TEST(SimConnect, ConnectsAndAnswersAfterTheirLatencies) {
    Rig r(sim::Timings{100ms, 30ms, 2ms});
    auto p = r.peripheral(r.h.addScale());
    r.central->connectPeripheral(p, {});
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    r.h.advance(29ms);
    EXPECT_EQ(r.rec->count("connect"), 0u);
    r.h.advance(1ms);
    EXPECT_EQ(r.rec->count("connect"), 1u);
    EXPECT_EQ(p->state(), PeripheralState::Connected);
    p->discoverServices(std::nullopt);
    r.h.advance(1ms);
    EXPECT_EQ(r.rec->count("services"), 0u);
    r.h.advance(1ms);
    EXPECT_EQ(r.rec->count("services"), 1u);
}

TEST(SimConnect, FailuresCarryTheScriptedPlatformErrorInOrder) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.peripheral(scale);
    const std::vector<ErrorPtr> errors = {platformError(kPlatformConnectionFailed),
                                          platformError(kPlatformEncryptionTimedOut), nullptr};
    for (const auto& error : errors) scale->queueConnectResult(sim::ConnectResult::fail(error));
    for (const auto& error : errors) {
        r.rec->clear();
        r.central->connectPeripheral(p, {});
        r.h.settle();
        ASSERT_EQ(r.rec->kinds(), Kinds{"fail"});
        EXPECT_EQ(r.rec->of("fail")[0].error, error);
        EXPECT_EQ(p->state(), PeripheralState::Disconnected);
    }
    r.central->connectPeripheral(p, {});  // the script is used up: the default succeeds
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Connected);
}

TEST(SimConnect, CancelReportsACleanDisconnectOnlyForALink) {
    Rig r;
    auto scale = r.h.addScale();
    scale->setConnectResult(sim::ConnectResult::hang());
    auto p = r.peripheral(scale);
    r.central->connectPeripheral(p, {});
    r.h.advance(60s);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    r.rec->clear();
    r.central->cancelPeripheralConnection(p);  // a pending attempt ends silently
    r.h.advance(1s);
    EXPECT_EQ(p->state(), PeripheralState::Disconnected);
    EXPECT_TRUE(r.rec->events().empty());

    scale->setConnectResult(sim::ConnectResult::succeed());
    r.connect(scale);
    r.rec->clear();
    r.central->cancelPeripheralConnection(p);
    EXPECT_EQ(p->state(), PeripheralState::Disconnected);  // at once
    r.central->cancelPeripheralConnection(p);              // already disconnected: nothing more
    r.h.settle();
    ASSERT_EQ(r.rec->kinds(), Kinds{"disconnect"});
    EXPECT_EQ(r.rec->of("disconnect")[0].error, nullptr);
}

TEST(SimConnect, AConnectWaitsUntilTheDeviceCanBeReached) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.peripheral(scale);
    scale->setAdvertising(false);
    r.central->connectPeripheral(p, {});
    r.h.advance(10s);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    scale->setAdvertising(true);
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Connected);

    scale->setInRange(false);
    r.h.settle();
    ASSERT_EQ(r.rec->count("disconnect"), 1u);
    EXPECT_EQ(r.rec->of("disconnect")[0].error->code(), kPlatformConnectionTimeout);  // supervision timeout
    r.central->connectPeripheral(p, {});
    r.h.advance(5s);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    scale->setInRange(true);
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Connected);
    EXPECT_EQ(r.rec->count("connect"), 2u);

    r.connect(
        r.h.world->addPeripheral(device("Held", false, true)));  // held by the system: no advertising needed
    r.h.world->removePeripheral(scale);
    r.h.settle();
    EXPECT_EQ(r.rec->count("disconnect"), 2u);
    EXPECT_TRUE(r.central->retrievePeripheralsWithIdentifiers({scale->identifier()}).empty());
}

TEST(SimConnect, ADeviceHeldByAnotherCentralIsSilentUntilReleased) {
    Rig r;
    auto scale = r.h.addScale();
    auto first = std::make_shared<Recorder>();
    auto holder = r.attach(first);
    auto held = holder->retrievePeripheralsWithIdentifiers({scale->identifier()}).at(0);
    holder->connectPeripheral(held, {});
    r.h.settle();
    ASSERT_EQ(scale->linkCount(), 1u);

    r.scan();
    auto p = r.peripheral(scale);
    r.central->connectPeripheral(p, {});
    r.h.settle();
    EXPECT_EQ(r.rec->count("discover"), 0u);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    holder.reset();  // releasing a central frees its devices
    r.h.settle();
    EXPECT_EQ(held->state(), PeripheralState::Disconnected);
    EXPECT_EQ(r.rec->count("discover"), 1u);
    EXPECT_EQ(p->state(), PeripheralState::Connected);
    EXPECT_EQ(r.h.world->centralCount(), 1u);
}

// --- link loss ------------------------------------------------------------------------------

TEST(SimLink, DropsWithAndWithoutErrorAndLaterOperationsAreDropped) {
    for (const ErrorPtr& error : {ErrorPtr{}, platformError(kPlatformPeripheralDisconnected)}) {
        Rig r;
        auto scale = r.h.addScale();
        auto p = r.connectAndDiscover(scale);
        auto command = characteristicOf(p, wire::kCommandCharacteristic);
        r.rec->clear();
        scale->dropLink(error);
        r.h.settle();
        ASSERT_EQ(r.rec->kinds(), Kinds{"disconnect"});
        EXPECT_EQ(r.rec->of("disconnect")[0].error, error);
        EXPECT_EQ(p->state(), PeripheralState::Disconnected);
        EXPECT_TRUE(p->services().empty());

        p->writeValue(bt::Bytes{0x10}, command, bt::WriteType::WithResponse);
        p->discoverServices(std::nullopt);
        r.h.settle();
        EXPECT_EQ(r.rec->events().size(), 1u);
        EXPECT_TRUE(r.h.simLog->contains("[sim] write"));
        EXPECT_TRUE(r.h.simLog->contains("[sim] discoverServices"));
        EXPECT_TRUE(scale->writes().empty());
    }
}

TEST(SimLink, AReconnectHandsOutFreshObjectsWithNotificationsOff) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    auto data = characteristicOf(p, wire::kDataCharacteristic);
    p->setNotifyValue(true, data);
    r.h.settle();
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 1u);
    scale->dropLink();
    r.h.settle();
    EXPECT_FALSE(data->isNotifying());

    r.connectAndDiscover(scale);
    auto again = characteristicOf(p, wire::kDataCharacteristic);
    ASSERT_NE(again, nullptr);
    EXPECT_NE(again, data);
    EXPECT_FALSE(again->isNotifying());
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 0u);
    // Operations on objects of the old link go nowhere.
    p->setNotifyValue(true, data);
    r.h.settle();
    r.rec->clear();
    scale->notify(wire::kDataCharacteristic, bt::Bytes{1, 2, 3});
    r.h.settle();
    EXPECT_EQ(r.rec->count("value"), 0u);
}

// --- discovery ------------------------------------------------------------------------------

TEST(SimDiscovery, FindsTheScaleTableAndHonoursFilters) {
    Rig r;
    auto p = r.connect(r.h.addScale());
    p->discoverServices(std::vector{wire::kScaleService});
    r.h.settle();
    EXPECT_EQ(uuids(p->services()), std::vector{wire::kScaleService});
    auto service = serviceOf(p, wire::kScaleService);
    p->discoverCharacteristics(std::vector{wire::kInfoCharacteristic, wire::kCommandCharacteristic}, service);
    r.h.settle();
    ASSERT_EQ(service->characteristics().size(), 2u);
    EXPECT_EQ(service->characteristics()[0]->uuid(), wire::kCommandCharacteristic);  // table order
    EXPECT_EQ(service->characteristics()[0]->service(), service);
    EXPECT_EQ(service->peripheral(), p);

    auto keep = service->characteristics()[0];
    r.discoverAll(p);
    EXPECT_EQ(uuids(p->services()),
              (std::vector{wire::kBatteryService, wire::kDeviceInformationService, wire::kScaleService}));
    EXPECT_EQ(service->characteristics().size(), 4u);
    EXPECT_EQ(service->characteristics()[0], keep);  // same objects within one link
    EXPECT_EQ(serviceOf(p, wire::kDeviceInformationService)->characteristics().size(), 5u);
    EXPECT_EQ(r.rec->count("characteristics"), 4u);
}

TEST(SimDiscovery, MissingServicesAndCharacteristicsAreAbsentWithoutError) {
    struct Case {
        const char* what;
        std::function<void(sim::VirtualPeripheral&)> edit;
        std::vector<bt::Uuid> absent;
    };
    const std::vector<Case> cases = {
        {"no scale service", [](auto& d) { d.removeService(wire::kScaleService); }, {wire::kScaleService}},
        {"no command and info",
         [](auto& d) {
             d.removeCharacteristic(wire::kScaleService, wire::kCommandCharacteristic);
             d.removeCharacteristic(wire::kScaleService, wire::kInfoCharacteristic);
         },
         {wire::kCommandCharacteristic, wire::kInfoCharacteristic}},
        {"no battery service",
         [](auto& d) { d.removeService(wire::kBatteryService); },
         {wire::kBatteryService, wire::kBatteryLevel}},
    };
    for (const auto& c : cases) {
        Rig r;
        auto scale = r.h.addScale();
        c.edit(*scale);
        auto p = r.connectAndDiscover(scale);
        for (const auto& uuid : c.absent) {
            EXPECT_EQ(serviceOf(p, uuid), nullptr) << c.what;
            EXPECT_EQ(characteristicOf(p, uuid), nullptr) << c.what;
        }
        EXPECT_NE(characteristicOf(p, wire::kFirmwareRevision), nullptr) << c.what;
        EXPECT_EQ(r.rec->count("services"), 1u) << c.what;
        for (const auto& e : r.rec->events()) EXPECT_EQ(e.error, nullptr) << c.what;
    }
}

TEST(SimDiscovery, ReadsAnswerFromTheEmulatorAndTextsAreCachedOnlyOnRequest) {
    for (bool cached : {false, true}) {
        Rig r;
        em::ScaleOptions options;
        options.cacheDeviceInformation = cached;
        auto scale = r.h.world->addScale(options);
        scale->setBatteryLevel(42);
        auto p = r.connectAndDiscover(scale);
        EXPECT_EQ(text(characteristicOf(p, wire::kFirmwareRevision)->value()), cached ? "1.2.3" : "");
        EXPECT_TRUE(characteristicOf(p, wire::kBatteryLevel)->value().empty());  // never cached
        for (const auto& uuid : {wire::kBatteryLevel, wire::kInfoCharacteristic, wire::kFirmwareRevision}) {
            p->readValueForCharacteristic(characteristicOf(p, uuid));
        }
        r.h.settle();
        const auto values = r.rec->of("value");
        ASSERT_EQ(values.size(), 3u);
        EXPECT_EQ(values[0].value, (bt::Bytes{42}));
        EXPECT_TRUE(wire::isUnconfigured(wire::recordFromBytes(values[1].value)));
        EXPECT_EQ(text(values[2].value), "1.2.3");
        EXPECT_EQ(characteristicOf(p, wire::kBatteryLevel)->value(), (bt::Bytes{42}));
    }
    // A script can put any value there, bad text included; reads serve it too.
    Rig r;
    auto scale = r.h.addScale();
    const bt::Bytes odd{'9', '.', '1', 0x00, 0xFF};
    scale->setCharacteristicValue(wire::kFirmwareRevision, odd, true);
    auto p = r.connectAndDiscover(scale);
    EXPECT_EQ(characteristicOf(p, wire::kFirmwareRevision)->value(), odd);
    EXPECT_TRUE(characteristicOf(p, wire::kModelNumber)->value().empty());
    p->readValueForCharacteristic(characteristicOf(p, wire::kFirmwareRevision));
    r.h.settle();
    EXPECT_EQ(r.rec->of("value").at(0).value, odd);
}

TEST(SimDiscovery, DiscoveryErrorsAreReportedAndClearable) {
    Rig r;
    auto scale = r.h.addScale();
    const auto error = attError(kAttUnlikelyError);
    scale->failServiceDiscovery(error);
    auto p = r.connect(scale);
    p->discoverServices(std::nullopt);
    r.h.settle();
    ASSERT_EQ(r.rec->count("services"), 1u);
    EXPECT_EQ(r.rec->of("services")[0].error, error);
    EXPECT_TRUE(p->services().empty());

    scale->failServiceDiscovery(nullptr);
    scale->failCharacteristicDiscovery(wire::kScaleService, error);
    r.rec->clear();
    r.discoverAll(p);
    for (const auto& e : r.rec->of("characteristics")) {
        EXPECT_EQ(e.error, e.uuid == wire::kScaleService ? error : nullptr);
    }
    EXPECT_TRUE(serviceOf(p, wire::kScaleService)->characteristics().empty());
    EXPECT_NE(characteristicOf(p, wire::kBatteryLevel), nullptr);
}

// --- reads and writes ---------------------------------------------------------------------

TEST(SimGatt, WritesReachTheEmulatorAndAreAcknowledgedInOrder) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    r.rec->clear();
    for (const auto& frame : wire::defaultConfigurationFrames().span()) {
        r.write(p, wire::kCommandCharacteristic, bytes(frame));
    }
    r.write(p, wire::kCommandCharacteristic, bytes(wire::tareFrame()), bt::WriteType::WithoutResponse);
    r.h.settle();
    EXPECT_EQ(r.rec->count("write"), 8u);  // none for the write without response
    for (const auto& e : r.rec->of("write")) EXPECT_EQ(e.error, nullptr);
    ASSERT_EQ(scale->writes().size(), 9u);
    EXPECT_EQ(scale->writes()[0].value, (bt::Bytes{0x03}));
    EXPECT_EQ(scale->writes()[8].type, bt::WriteType::WithoutResponse);
    scale->withScale([&](em::ScaleEmulator& s) {
        EXPECT_EQ(s.counters().tares, 1u);
        EXPECT_TRUE(s.isConfigured());
    });
}

TEST(SimGatt, ScriptedAndPlatformReadWriteErrors) {
    Rig r;
    auto scale = r.h.addScale();
    const auto writeError = attError(kAttUnlikelyError);
    const auto readError = attError(5);
    scale->failWrites(wire::kCommandCharacteristic, writeError);
    scale->failReads(wire::kInfoCharacteristic, readError);
    auto p = r.connectAndDiscover(scale);
    r.rec->clear();
    r.write(p, wire::kCommandCharacteristic, bt::Bytes{0x10});
    p->readValueForCharacteristic(characteristicOf(p, wire::kInfoCharacteristic));
    // Not writable: refused by the peer with a response, dropped without one (as the platform does).
    r.write(p, wire::kBatteryLevel, bt::Bytes{0x01}, bt::WriteType::WithoutResponse);
    r.write(p, wire::kDataCharacteristic, bt::Bytes{0x02});
    p->readValueForCharacteristic(characteristicOf(p, wire::kCommandCharacteristic));
    r.h.settle();
    const auto events = r.rec->events();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].error, writeError);
    EXPECT_EQ(events[1].error, readError);
    EXPECT_EQ(events[2].error->code(), kAttWriteNotPermitted);
    EXPECT_EQ(events[3].error->code(), kAttReadNotPermitted);
    EXPECT_EQ(events[3].error->domain(), "CBATTErrorDomain");
    // A refused write never reached the firmware, but the peer saw it.
    scale->withScale([&](em::ScaleEmulator& s) { EXPECT_EQ(s.counters().tares, 0u); });
    ASSERT_EQ(scale->writes().size(), 2u);
    EXPECT_EQ(scale->writes()[0].error, writeError);
    EXPECT_EQ(scale->writes()[1].value, (bt::Bytes{0x02}));

    scale->failWrites(wire::kCommandCharacteristic, nullptr);
    r.rec->clear();
    r.write(p, wire::kCommandCharacteristic, bt::Bytes{0x10});
    r.h.settle();
    EXPECT_EQ(r.rec->of("write").at(0).error, nullptr);
}

TEST(SimGatt, FirmwareCommandsAcknowledgeThenDropTheLink) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.peripheral(scale);
    for (const auto& frame : {wire::firmwareDisconnectFrame(), wire::dfuFrame()}) {
        r.connectAndDiscover(scale);
        r.rec->clear();
        r.write(p, wire::kCommandCharacteristic, bytes(frame));
        r.h.settle();
        ASSERT_EQ(r.rec->kinds(), (Kinds{"write", "disconnect"}));
        EXPECT_EQ(r.rec->of("write")[0].error, nullptr);
        EXPECT_EQ(r.rec->of("disconnect")[0].error->code(), kPlatformPeripheralDisconnected);
    }
    // The update frame restarts the scale as its update target.
    EXPECT_TRUE(scale->inUpdateMode());
    EXPECT_EQ(p->name(), "DfuTarg");
    r.rec->clear();
    r.scan(std::vector{wire::kDfuService});  // what a firmware updater looks for
    ASSERT_EQ(r.rec->count("discover"), 1u);
    EXPECT_EQ(r.rec->of("discover")[0].name, "DfuTarg");
    r.central->stopScan();
    r.connectAndDiscover(scale);
    EXPECT_EQ(uuids(p->services()), std::vector{wire::kDfuService});
    EXPECT_TRUE(r.central->retrieveConnectedPeripheralsWithServices({wire::kScaleService}).empty());

    scale->finishFirmwareUpdate();
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Disconnected);
    EXPECT_EQ(p->name(), "Plenk Scale");
    r.connectAndDiscover(scale);
    EXPECT_NE(serviceOf(p, wire::kScaleService), nullptr);
}

// --- notifications ---------------------------------------------------------------------------

TEST(SimNotify, WeightsStreamWhileNotifyingAndShowAShot) {
    Rig r(test::SimHarnessOptions{.streaming = true});
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    auto data = characteristicOf(p, wire::kDataCharacteristic);
    r.write(p, wire::kCommandCharacteristic,
            bytes(wire::tareFrame()));  // the fresh connection's tare starts the shot
    p->setNotifyValue(true, data);
    r.h.settle();
    ASSERT_EQ(r.rec->count("notifyState"), 1u);
    EXPECT_TRUE(data->isNotifying());
    EXPECT_TRUE(scale->isStreaming());

    r.h.advance(1s);
    EXPECT_EQ(r.rec->count("value"), 10u);
    r.h.advance(39s);
    const auto values = r.rec->of("value");
    ASSERT_EQ(values.size(), 400u);
    std::vector<float> weights;
    for (const auto& v : values) weights.push_back(wire::decodeWeight(p->name(), v.value.span()));
    EXPECT_NEAR(weights[5], 0.0f, 0.11f);      // before the shot
    EXPECT_NEAR(weights.back(), 36.0f, 0.3f);  // settled
    for (std::size_t i = 1; i < weights.size(); ++i) ASSERT_GE(weights[i], weights[i - 1] - 0.2f) << i;

    p->setNotifyValue(false, data);
    r.h.settle();
    EXPECT_FALSE(scale->isStreaming());
    r.h.advance(2s);
    EXPECT_EQ(r.rec->count("value"), 400u);
}

TEST(SimNotify, SwitchErrorsButtonsAndErroneousUpdates) {
    Rig r;
    auto scale = r.h.addScale();
    const auto error = attError(kAttUnlikelyError);
    scale->failNotifyState(wire::kDataCharacteristic, error);
    auto p = r.connectAndDiscover(scale);
    r.rec->clear();
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    p->setNotifyValue(true, characteristicOf(p, wire::kInfoCharacteristic));  // read-only
    r.h.settle();
    const auto switches = r.rec->of("notifyState");
    ASSERT_EQ(switches.size(), 2u);
    EXPECT_EQ(switches[0].error, error);
    EXPECT_EQ(switches[1].error->code(), kAttRequestNotSupported);
    EXPECT_FALSE(characteristicOf(p, wire::kDataCharacteristic)->isNotifying());
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 0u);

    scale->failNotifyState(wire::kDataCharacteristic, nullptr);
    p->setNotifyValue(true, characteristicOf(p, wire::kControlCharacteristic));
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    r.h.settle();
    r.rec->clear();
    scale->pressButton(1);
    scale->notify(wire::kDataCharacteristic, bt::Bytes{1, 2, 3});
    scale->notify(wire::kDataCharacteristic, bt::Bytes{9, 9}, error);
    scale->notify(wire::kInfoCharacteristic, bt::Bytes{7});  // nobody listens there
    r.h.settle();
    const auto values = r.rec->of("value");
    ASSERT_EQ(values.size(), 3u);
    EXPECT_EQ(values[0].uuid, wire::kControlCharacteristic);
    EXPECT_EQ(values[0].value, (bt::Bytes{0x02}));
    EXPECT_EQ(values[1].value, (bt::Bytes{1, 2, 3}));
    EXPECT_EQ(values[2].error, error);
    EXPECT_EQ(values[2].value, (bt::Bytes{1, 2, 3}));  // an update with an error keeps the old value
}

TEST(SimNotify, FlatOutFromManyThreadsKeepsEachThreadsOrder) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    r.h.settle();
    r.rec->clear();
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
    const auto values = r.rec->of("value");
    ASSERT_EQ(values.size(), std::size_t{kThreads * kEach});
    std::vector<int> next(kThreads, 0);
    for (const auto& v : values) {
        const auto tag = static_cast<int>(wire::decodeWeight("Plenk", v.value.span()));
        ASSERT_EQ(tag % 100000, next[tag / 100000]++);
    }
}

// --- names, retrieval, threads ------------------------------------------------------------------

TEST(SimRetrieve, ConnectedToSystemByServiceAndKnownByIdentifier) {
    Rig r;
    auto held = r.h.world->addScale({}, device(std::nullopt, false, true));
    auto free = r.h.addScale("Plenk Two");
    auto stranger = r.h.world->addPeripheral(device("Other", true, false, false));

    auto connected = r.central->retrieveConnectedPeripheralsWithServices({wire::kScaleService});
    ASSERT_EQ(connected.size(), 1u);
    EXPECT_EQ(connected[0]->identifier(), held->identifier());
    EXPECT_EQ(connected[0]->state(), PeripheralState::Disconnected);  // held by the system, not by us
    EXPECT_TRUE(r.central->retrieveConnectedPeripheralsWithServices({bt::Uuid::from16(0x180D)}).empty());

    auto p = r.connect(free);  // our own links count as connected to the system
    EXPECT_EQ(r.central->retrieveConnectedPeripheralsWithServices({wire::kScaleService}).size(), 2u);
    const auto known = r.central->retrievePeripheralsWithIdentifiers(
        {free->identifier(), stranger->identifier(), bt::Uuid::random(), held->identifier()});
    ASSERT_EQ(known.size(), 2u);
    EXPECT_EQ(known[0], p);  // one object per device per central
    EXPECT_EQ(known[1], connected[0]);

    // A rename while connected is reported.
    free->setName("Coffee Plenk");
    free->setName(std::nullopt);
    r.h.settle();
    ASSERT_EQ(r.rec->count("name"), 2u);
    EXPECT_EQ(r.rec->of("name")[0].name, "Coffee Plenk");
    EXPECT_EQ(p->name(), std::nullopt);
}

TEST(SimThreads, CallsFromInsideAnEventAreNotReentered) {
    Rig r;
    r.rec->discoverOnConnect = true;
    r.connect(r.h.addScale());
    EXPECT_EQ(r.rec->kinds(), (Kinds{"state", "connect", "services"}));
    EXPECT_EQ(r.central->queueLabel(), "Corebluetooth");
    EXPECT_FALSE(r.central->isOnQueue());
}

TEST(SimThreads, DelegatesAreHeldWeakly) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    r.h.settle();
    std::weak_ptr<Recorder> weak = r.rec;
    for (int i = 0; i < 100; ++i) scale->notify(wire::kDataCharacteristic, bt::Bytes{1});
    scale->dropLink();
    r.rec.reset();  // released while its events are still on their way
    r.h.settle();
    EXPECT_TRUE(weak.expired());  // nothing kept it alive
    r.rec = std::make_shared<Recorder>();
    r.central->setDelegate(r.rec);
    r.h.world->setRadioState(ManagerState::PoweredOff);
    r.h.settle();
    EXPECT_EQ(r.rec->kinds(), Kinds{"state"});  // a new delegate hears later events only
}

// Real time, real threads: the clock's timer thread streams at 1000 Hz while
// the test thread connects and cancels and another thread renames and presses
// buttons. What matters here is that nothing races or deadlocks (run it under
// ThreadSanitizer), and that data flowed.
class AutoSubscriber final : public bt::CentralDelegate,
                             public bt::PeripheralDelegate,
                             public std::enable_shared_from_this<AutoSubscriber> {
public:
    void centralManagerDidConnectPeripheral(bt::Central&, const bt::PeripheralPtr& p) override {
        p->setDelegate(weak_from_this());
        p->discoverServices(std::vector{wire::kScaleService});
    }
    void peripheralDidDiscoverServices(bt::Peripheral& p, const ErrorPtr&) override {
        for (const auto& s : p.services()) p.discoverCharacteristics(std::nullopt, s);
    }
    void peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral& p, const bt::ServicePtr& s,
                                                             const ErrorPtr&) override {
        for (const auto& c : s->characteristics()) {
            if (c->uuid() == wire::kDataCharacteristic || c->uuid() == wire::kControlCharacteristic) {
                p.setNotifyValue(true, c);
            }
        }
    }
    void peripheralDidUpdateValueForCharacteristicError(bt::Peripheral& p, const bt::CharacteristicPtr& c,
                                                        const ErrorPtr&) override {
        if (c->uuid() == wire::kDataCharacteristic) {
            wire::decodeWeight(p.name(), c->value().span());
            ++weights;
        }
    }
    std::atomic<int> weights{0};
};

TEST(SimThreads, RealTimeStreamingSurvivesChurn) {
    sim::World::Options options;
    options.timings = sim::Timings{10ms, 1ms, 0ms};
    auto world = sim::World::make(Clock::steady(), options);
    world->setRadioState(ManagerState::PoweredOn);
    em::ScaleOptions fast;
    fast.sampleRateHz = 1000;
    auto scale = world->addScale(fast);
    sim::SimBackend backend(world);
    auto delegate = std::make_shared<AutoSubscriber>();
    auto central = backend.makeCentral(delegate, "Corebluetooth", Context{});
    central->scanForPeripheralsWithServices(std::nullopt, bt::ScanOptions{true});
    auto p = central->retrievePeripheralsWithIdentifiers({scale->identifier()}).at(0);

    std::atomic<bool> stop{false};
    std::thread meddler([&] {
        for (int i = 0; !stop; ++i) {
            scale->pressButton(i % 2);
            scale->setName(i % 3 == 0 ? "Plenk Scale" : "Coffee Plenk");
            std::this_thread::sleep_for(1ms);
        }
    });
    for (int round = 0; round < 8; ++round) {
        central->connectPeripheral(p, {});
        std::this_thread::sleep_for(40ms);
        central->cancelPeripheralConnection(p);
        std::this_thread::sleep_for(2ms);
    }
    central->connectPeripheral(p, {});
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (delegate->weights < 50 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    central.reset();  // torn down mid-stream
    stop = true;
    meddler.join();
    EXPECT_GE(delegate->weights.load(), 50);
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_FALSE(scale->isStreaming());
}

TEST(SimBackend, RegisteredAsSimWithADemoWorldOnTheContextsClock) {
    test::SimHarness h;
    Context context = h.context;
    context.backend.reset();
    context.backendName = "sim";
    auto backend = BackendRegistry::create("sim", context);
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->name(), "sim");
    auto world = std::static_pointer_cast<sim::SimBackend>(backend)->world();
    EXPECT_NE(world, sim::defaultWorld());  // a virtual clock gets a world of its own
    EXPECT_EQ(world->radioState(), ManagerState::PoweredOn);
    ASSERT_EQ(world->peripherals().size(), 1u);
    EXPECT_EQ(world->peripherals()[0]->name(), "Plenk Scale");
    EXPECT_EQ(world->clock(), h.context.clock);
}

}  // namespace
}  // namespace plenk
