// The simulated Bluetooth backend driven through the port, as the layers above
// use it: a central with a recording delegate, a virtual clock, scripted devices.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
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
namespace em = emulator;

// --- a delegate that records every event --------------------------------------------

struct Event {
    Event(std::string w, bt::PeripheralPtr p = {}, ErrorPtr e = {}, bt::Uuid u = {}, bt::Bytes v = {},
          std::optional<std::string> n = {}, std::vector<bt::Uuid> s = {},
          ManagerState st = ManagerState::Unknown)
        : what(std::move(w)),
          peripheral(std::move(p)),
          error(std::move(e)),
          uuid(u),
          value(std::move(v)),
          name(std::move(n)),
          services(std::move(s)),
          state(st) {}

    std::string what;
    bt::PeripheralPtr peripheral;
    ErrorPtr error;
    bt::Uuid uuid;  // service or characteristic
    bt::Bytes value;
    std::optional<std::string> name;
    std::vector<bt::Uuid> services;
    ManagerState state;
};

class Recorder final : public bt::CentralDelegate,
                       public bt::PeripheralDelegate,
                       public std::enable_shared_from_this<Recorder> {
public:
    bool discoverOnConnect = false;  // call back into the simulator from inside an event

    void centralManagerDidUpdateState(bt::Central& c) override {
        record({"state", {}, {}, {}, {}, {}, {}, c.state()});
    }
    void centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(bt::Central&, const bt::PeripheralPtr& p,
                                                                  const bt::AdvertisementData& ad,
                                                                  int) override {
        record({"discover", p, {}, {}, {}, ad.localName, ad.serviceUUIDs});
    }
    void centralManagerDidConnectPeripheral(bt::Central&, const bt::PeripheralPtr& p) override {
        p->setDelegate(weak_from_this());
        if (discoverOnConnect) p->discoverServices(std::nullopt);
        record({"connect", p});
    }
    void centralManagerDidDisconnectPeripheralError(bt::Central&, const bt::PeripheralPtr& p,
                                                    const ErrorPtr& e) override {
        record({"disconnect", p, e});
    }
    void centralManagerDidFailToConnectPeripheralError(bt::Central&, const bt::PeripheralPtr& p,
                                                       const ErrorPtr& e) override {
        record({"fail", p, e});
    }
    void peripheralDidUpdateName(bt::Peripheral& p) override { record({"name", {}, {}, {}, {}, p.name()}); }
    void peripheralDidDiscoverServices(bt::Peripheral&, const ErrorPtr& e) override {
        record({"services", {}, e});
    }
    void peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral&, const bt::ServicePtr& s,
                                                             const ErrorPtr& e) override {
        record({"characteristics", {}, e, s->uuid()});
    }
    void peripheralDidUpdateValueForCharacteristicError(bt::Peripheral&, const bt::CharacteristicPtr& c,
                                                        const ErrorPtr& e) override {
        record({"value", {}, e, c->uuid(), c->value()});
    }
    void peripheralDidWriteValueForCharacteristicError(bt::Peripheral&, const bt::CharacteristicPtr& c,
                                                       const ErrorPtr& e) override {
        record({"write", {}, e, c->uuid()});
    }
    void peripheralDidUpdateNotificationStateForCharacteristicError(bt::Peripheral&,
                                                                    const bt::CharacteristicPtr& c,
                                                                    const ErrorPtr& e) override {
        record({"notifyState", {}, e, c->uuid()});
    }
    void peripheralDidReadRSSIError(bt::Peripheral&, int, const ErrorPtr& e) override {
        record({"rssi", {}, e});
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
    std::vector<std::string> kinds() const {
        std::vector<std::string> out;
        for (auto& e : events()) out.push_back(e.what);
        return out;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
    }
    // Every event ran on the central's queue, and none inside another.
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

// --- a harness, a central and helpers --------------------------------------------------

struct Rig {
    explicit Rig(test::SimHarnessOptions options = {}) : h(options) {
        central = attach(rec);
        h.settle();
    }
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

std::string text(const bt::Bytes& value) {
    auto v = value.toVector();
    return {v.begin(), v.end()};
}

test::SimHarnessOptions withTimings(sim::Timings timings) {
    test::SimHarnessOptions options;
    options.timings = timings;
    return options;
}

sim::PeripheralOptions device(std::optional<std::string> name, bool advertising = true,
                              bool connectedToSystem = false, bool knownToSystem = true) {
    sim::PeripheralOptions options;
    options.name = std::move(name);
    options.advertising = advertising;
    options.connectedToSystem = connectedToSystem;
    options.knownToSystem = knownToSystem;
    return options;
}

sim::PeripheralOptions named(std::optional<std::string> name, std::vector<bt::Uuid> services = {}) {
    sim::PeripheralOptions options;
    options.name = std::move(name);
    options.advertisedServices = std::move(services);
    return options;
}

// --- radio state ----------------------------------------------------------------------------

TEST(SimRadio, NothingIsReportedBeforeTheWorldHasAState) {
    test::SimHarnessOptions silent;
    silent.radio = std::nullopt;
    Rig r(silent);
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
    const std::vector<ManagerState> changes = {ManagerState::PoweredOff,   ManagerState::PoweredOff,
                                               ManagerState::Unauthorized, ManagerState::Unsupported,
                                               ManagerState::Resetting,    ManagerState::Unknown,
                                               ManagerState::PoweredOn};
    for (auto s : changes) r.h.world->setRadioState(s);
    r.h.settle();
    const std::vector<ManagerState> expected = {ManagerState::PoweredOn,    ManagerState::PoweredOff,
                                                ManagerState::Unauthorized, ManagerState::Unsupported,
                                                ManagerState::Resetting,    ManagerState::Unknown,
                                                ManagerState::PoweredOn};  // the repeat is not a change
    for (const auto& rec : {r.rec, second}) {
        std::vector<ManagerState> seen;
        for (const auto& e : rec->of("state")) seen.push_back(e.state);
        EXPECT_EQ(seen, expected);
    }
    EXPECT_TRUE(second->allOnQueue());
}

TEST(SimRadio, PowerOffDropsLinksAndScansBeforeTheStateIsReported) {
    for (bool report : {true, false}) {
        test::SimHarnessOptions options;
        options.disconnectOnPowerOff = report;
        Rig r(options);
        auto scale = r.h.addScale();
        auto p = r.connect(scale);
        r.scan();
        r.rec->clear();
        r.h.world->setRadioState(ManagerState::PoweredOff);
        r.h.settle();
        const std::vector<std::string> expected =
            report ? std::vector<std::string>{"disconnect", "state"} : std::vector<std::string>{"state"};
        EXPECT_EQ(r.rec->kinds(), expected);
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

TEST(SimScan, ReportsEachAdvertiserOnceWithItsName) {
    Rig r(withTimings(sim::Timings{100ms, 0ms, 0ms}));
    const std::vector<std::optional<std::string>> names = {"Coffee Scale", "My Plenk 2", "Plenk Coffee",
                                                           "Heart Rate",   std::nullopt, "DfuTarg"};
    for (const auto& n : names) r.h.world->addPeripheral(named(n));
    r.scan();
    r.h.advance(2s);
    const auto found = r.rec->of("discover");
    ASSERT_EQ(found.size(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(found[i].name, names[i]);
        EXPECT_EQ(found[i].peripheral->name(), names[i]);
        EXPECT_EQ(found[i].peripheral->state(), PeripheralState::Disconnected);
    }
}

TEST(SimScan, ServiceFilterReportsOnlyAdvertisersListingAService) {
    Rig r;
    auto scale = r.h.addScale();
    r.h.world->addPeripheral(named("DfuTarg", {wire::kDfuService}));
    r.h.world->addPeripheral(named(std::nullopt));
    r.scan(std::vector{wire::kDfuService});
    ASSERT_EQ(r.rec->count("discover"), 1u);
    EXPECT_EQ(r.rec->of("discover")[0].name, "DfuTarg");
    EXPECT_EQ(r.rec->of("discover")[0].services, std::vector{wire::kDfuService});

    r.rec->clear();
    r.scan(std::vector{wire::kScaleService, bt::Uuid::from16(0x180D)});
    ASSERT_EQ(r.rec->count("discover"), 1u);
    EXPECT_EQ(r.rec->of("discover")[0].peripheral->identifier(), scale->identifier());
}

TEST(SimScan, DuplicatesRepeatAtTheAdvertisingIntervalUntilStopped) {
    Rig r(withTimings(sim::Timings{100ms, 0ms, 0ms}));
    r.h.addScale();
    r.scan(std::nullopt, true);
    r.h.advance(1s);
    EXPECT_EQ(r.rec->count("discover"), 11u);  // at once, then every 100 ms
    r.central->stopScan();
    r.h.advance(1s);
    EXPECT_EQ(r.rec->count("discover"), 11u);
    EXPECT_EQ(r.h.clock->pendingTimers(), 0u);
}

TEST(SimScan, LateAdvertisersAreReportedOncePerScan) {
    Rig r;
    auto late = r.h.world->addPeripheral(device("Plenk", false));
    r.scan();
    EXPECT_EQ(r.rec->count("discover"), 0u);
    late->setAdvertising(true);  // the scale is switched on
    r.h.settle();
    EXPECT_EQ(r.rec->count("discover"), 1u);
    late->setAdvertising(false);
    late->setAdvertising(true);
    r.h.settle();
    EXPECT_EQ(r.rec->count("discover"), 1u);
    r.scan();  // a new scan reports it again
    EXPECT_EQ(r.rec->count("discover"), 2u);
}

TEST(SimScan, AHeldDeviceIsSilentUntilReleased) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale);
    auto watcher = std::make_shared<Recorder>();
    auto other = r.attach(watcher);
    other->scanForPeripheralsWithServices(std::nullopt, {});
    r.h.settle();
    EXPECT_EQ(watcher->count("discover"), 0u);
    r.central->cancelPeripheralConnection(p);
    r.h.settle();
    EXPECT_EQ(watcher->count("discover"), 1u);
}

// --- connecting -----------------------------------------------------------------------------

TEST(SimConnect, ConnectsAfterTheConnectLatency) {
    Rig r(withTimings(sim::Timings{100ms, 30ms, 2ms}));
    auto p = r.peripheral(r.h.addScale());
    r.central->connectPeripheral(p, {});
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    r.h.advance(29ms);
    EXPECT_EQ(r.rec->count("connect"), 0u);
    r.h.advance(1ms);
    EXPECT_EQ(r.rec->count("connect"), 1u);
    EXPECT_EQ(p->state(), PeripheralState::Connected);
    // GATT results follow the GATT latency.
    p->discoverServices(std::nullopt);
    r.h.advance(1ms);
    EXPECT_EQ(r.rec->count("services"), 0u);
    r.h.advance(1ms);
    EXPECT_EQ(r.rec->count("services"), 1u);
}

TEST(SimConnect, FailuresCarryTheScriptedPlatformError) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.peripheral(scale);
    const std::vector<ErrorPtr> errors = {platformError(0),  platformError(6),  platformError(10),
                                          platformError(11), platformError(12), platformError(13),
                                          platformError(14), platformError(15), nullptr};
    for (const auto& error : errors) scale->queueConnectResult(sim::ConnectResult::fail(error));
    for (const auto& error : errors) {
        r.rec->clear();
        r.central->connectPeripheral(p, {});
        r.h.settle();
        ASSERT_EQ(r.rec->kinds(), std::vector<std::string>{"fail"});
        EXPECT_EQ(r.rec->of("fail")[0].error, error);
        if (error) {
            EXPECT_EQ(error->domain(), "CBErrorDomain");
        }
        EXPECT_EQ(p->state(), PeripheralState::Disconnected);
    }
    r.central->connectPeripheral(p, {});  // the script is used up: the default succeeds
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Connected);
}

TEST(SimConnect, AHangingConnectStaysConnectingAndCancelsSilently) {
    Rig r;
    auto scale = r.h.addScale();
    scale->setConnectResult(sim::ConnectResult::hang());
    auto p = r.peripheral(scale);
    r.central->connectPeripheral(p, {});
    r.h.advance(60s);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    r.central->cancelPeripheralConnection(p);
    r.h.advance(1s);
    EXPECT_EQ(p->state(), PeripheralState::Disconnected);
    EXPECT_TRUE(r.rec->events().size() == 1u && r.rec->kinds()[0] == "state");
}

TEST(SimConnect, CancelReportsACleanDisconnectOnlyForALink) {
    Rig r;
    auto p = r.connect(r.h.addScale());
    r.rec->clear();
    r.central->cancelPeripheralConnection(p);
    EXPECT_EQ(p->state(), PeripheralState::Disconnected);  // at once
    r.h.settle();
    ASSERT_EQ(r.rec->kinds(), std::vector<std::string>{"disconnect"});
    EXPECT_EQ(r.rec->of("disconnect")[0].error, nullptr);
    r.central->cancelPeripheralConnection(p);  // already disconnected: nothing
    r.h.settle();
    EXPECT_EQ(r.rec->events().size(), 1u);
}

TEST(SimConnect, AConnectWaitsForASilentDevice) {
    Rig r;
    auto scale = r.h.addScale();
    scale->setAdvertising(false);
    auto p = r.peripheral(scale);
    r.central->connectPeripheral(p, {});
    r.h.advance(10s);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    scale->setAdvertising(true);
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Connected);
    EXPECT_EQ(r.rec->count("connect"), 1u);

    // A device the system holds connects without advertising.
    auto held = r.h.world->addPeripheral(device("Held", false, true));
    r.connect(held);
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
        ASSERT_EQ(r.rec->kinds(), std::vector<std::string>{"disconnect"});
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

TEST(SimLink, OutOfRangeAndRemovalDropWithASupervisionTimeout) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale);
    scale->setInRange(false);
    r.h.settle();
    ASSERT_EQ(r.rec->count("disconnect"), 1u);
    EXPECT_EQ(r.rec->of("disconnect")[0].error->code(), kPlatformConnectionTimeout);
    r.central->connectPeripheral(p, {});  // waits while out of range
    r.h.advance(5s);
    EXPECT_EQ(p->state(), PeripheralState::Connecting);
    scale->setInRange(true);
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Connected);

    r.h.world->removePeripheral(scale);
    r.h.settle();
    EXPECT_EQ(r.rec->count("disconnect"), 2u);
    EXPECT_TRUE(r.central->retrievePeripheralsWithIdentifiers({scale->identifier()}).empty());
}

// --- discovery ------------------------------------------------------------------------------

TEST(SimDiscovery, FindsTheScaleTableAndHonoursFilters) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale);
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

TEST(SimDiscovery, MissingServicesAndCharacteristicsAreAbsent) {
    struct Case {
        const char* what;
        std::function<void(sim::VirtualPeripheral&)> edit;
        std::vector<bt::Uuid> absent;
    };
    const std::vector<Case> cases = {
        {"no scale service", [](auto& d) { d.removeService(wire::kScaleService); }, {wire::kScaleService}},
        {"no command and data",
         [](auto& d) {
             d.removeCharacteristic(wire::kScaleService, wire::kCommandCharacteristic);
             d.removeCharacteristic(wire::kScaleService, wire::kDataCharacteristic);
         },
         {wire::kCommandCharacteristic, wire::kDataCharacteristic}},
        {"no control and info",
         [](auto& d) {
             d.removeCharacteristic(wire::kScaleService, wire::kControlCharacteristic);
             d.removeCharacteristic(wire::kScaleService, wire::kInfoCharacteristic);
         },
         {wire::kControlCharacteristic, wire::kInfoCharacteristic}},
        {"no battery or information",
         [](auto& d) {
             d.removeService(wire::kBatteryService);
             d.removeService(wire::kDeviceInformationService);
         },
         {wire::kBatteryService, wire::kDeviceInformationService, wire::kBatteryLevel,
          wire::kFirmwareRevision}},
        {"no firmware revision",
         [](auto& d) { d.removeCharacteristic(wire::kDeviceInformationService, wire::kFirmwareRevision); },
         {wire::kFirmwareRevision}},
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
        EXPECT_EQ(r.rec->count("services"), 1u) << c.what;
        for (const auto& e : r.rec->events()) EXPECT_EQ(e.error, nullptr) << c.what;
    }
}

TEST(SimDiscovery, DeviceInformationIsVisibleAtDiscoveryOnlyWhenCached) {
    for (bool cached : {false, true}) {
        Rig r;
        em::ScaleOptions options;
        options.cacheDeviceInformation = cached;
        auto p = r.connectAndDiscover(r.h.world->addScale(options));
        EXPECT_EQ(text(characteristicOf(p, wire::kFirmwareRevision)->value()), cached ? "1.2.3" : "");
        const std::string manufacturer = cached ? "Plenk Instruments" : "";
        EXPECT_EQ(text(characteristicOf(p, wire::kManufacturerName)->value()), manufacturer);
        EXPECT_TRUE(characteristicOf(p, wire::kBatteryLevel)->value().empty());  // never cached
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

TEST(SimGatt, ReadsAnswerFromTheEmulator) {
    Rig r;
    auto scale = r.h.addScale();
    scale->setBatteryLevel(42);
    auto p = r.connectAndDiscover(scale);
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

TEST(SimGatt, WritesTheCharacteristicDoesNotAllowAreRefusedOrDropped) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    auto battery = characteristicOf(p, wire::kBatteryLevel);  // read and notify only
    r.rec->clear();
    p->writeValue(bt::Bytes{0x01}, battery, bt::WriteType::WithoutResponse);  // dropped, as the platform does
    p->writeValue(bt::Bytes{0x02}, battery, bt::WriteType::WithResponse);     // refused by the peer
    r.h.settle();
    const auto writes = r.rec->of("write");
    ASSERT_EQ(writes.size(), 1u);
    ASSERT_NE(writes[0].error, nullptr);
    EXPECT_EQ(writes[0].error->code(), kAttWriteNotPermitted);
    ASSERT_EQ(scale->writes().size(), 1u);
    EXPECT_EQ(scale->writes()[0].value, (bt::Bytes{0x02}));
}

TEST(SimGatt, WritesReachTheEmulatorAndAreAcknowledgedInOrder) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    auto command = characteristicOf(p, wire::kCommandCharacteristic);
    r.rec->clear();
    const auto frames = wire::defaultConfigurationFrames();
    for (const auto& frame : frames.span()) {
        p->writeValue(bt::Bytes(frame.span()), command, bt::WriteType::WithResponse);
    }
    p->writeValue(bt::Bytes(wire::tareFrame().span()), command, bt::WriteType::WithoutResponse);
    r.h.settle();
    EXPECT_EQ(r.rec->count("write"), 8u);  // none for the write without response
    for (const auto& e : r.rec->of("write")) EXPECT_EQ(e.error, nullptr);
    ASSERT_EQ(scale->writes().size(), 9u);
    EXPECT_EQ(scale->writes()[0].value, (bt::Bytes{0x03}));
    EXPECT_EQ(scale->writes()[8].type, bt::WriteType::WithoutResponse);
    std::uint32_t tares = 0;
    bool configured = false;
    scale->withScale([&](em::ScaleEmulator& s) {
        tares = s.counters().tares;
        configured = s.isConfigured();
    });
    EXPECT_EQ(tares, 1u);
    EXPECT_TRUE(configured);
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
    p->writeValue(bt::Bytes{0x10}, characteristicOf(p, wire::kCommandCharacteristic),
                  bt::WriteType::WithResponse);
    p->readValueForCharacteristic(characteristicOf(p, wire::kInfoCharacteristic));
    p->writeValue(bt::Bytes{0x01}, characteristicOf(p, wire::kDataCharacteristic),
                  bt::WriteType::WithResponse);
    p->readValueForCharacteristic(characteristicOf(p, wire::kCommandCharacteristic));
    r.h.settle();
    const auto events = r.rec->events();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].error, writeError);
    EXPECT_EQ(events[1].error, readError);
    EXPECT_EQ(events[2].error->code(), kAttWriteNotPermitted);
    EXPECT_EQ(events[3].error->code(), kAttReadNotPermitted);
    EXPECT_EQ(events[3].error->domain(), "CBATTErrorDomain");
    // A refused write never reached the firmware.
    std::uint32_t tares = 99;
    scale->withScale([&](em::ScaleEmulator& s) { tares = s.counters().tares; });
    EXPECT_EQ(tares, 0u);
    EXPECT_EQ(scale->writes()[0].error, writeError);

    scale->failWrites(wire::kCommandCharacteristic, nullptr);
    r.rec->clear();
    p->writeValue(bt::Bytes{0x10}, characteristicOf(p, wire::kCommandCharacteristic),
                  bt::WriteType::WithResponse);
    r.h.settle();
    EXPECT_EQ(r.rec->of("write").at(0).error, nullptr);
}

TEST(SimGatt, FirmwareDisconnectAcknowledgesThenDropsTheLink) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    r.rec->clear();
    p->writeValue(bt::Bytes(wire::firmwareDisconnectFrame().span()),
                  characteristicOf(p, wire::kCommandCharacteristic), bt::WriteType::WithResponse);
    r.h.settle();
    ASSERT_EQ(r.rec->kinds(), (std::vector<std::string>{"write", "disconnect"}));
    EXPECT_EQ(r.rec->of("write")[0].error, nullptr);
    EXPECT_EQ(r.rec->of("disconnect")[0].error->code(), kPlatformPeripheralDisconnected);
    EXPECT_EQ(p->name(), "Plenk Scale");
}

TEST(SimGatt, UpdateModeRestartsTheScaleAsDfuTarg) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    r.rec->clear();
    p->writeValue(bt::Bytes(wire::dfuFrame().span()), characteristicOf(p, wire::kCommandCharacteristic),
                  bt::WriteType::WithResponse);
    r.h.settle();
    ASSERT_EQ(r.rec->kinds(), (std::vector<std::string>{"write", "disconnect"}));
    EXPECT_TRUE(scale->inUpdateMode());
    EXPECT_EQ(p->name(), "DfuTarg");

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
    test::SimHarnessOptions streaming;
    streaming.streaming = true;
    Rig r(streaming);
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    auto data = characteristicOf(p, wire::kDataCharacteristic);
    p->writeValue(bt::Bytes(wire::tareFrame().span()), characteristicOf(p, wire::kCommandCharacteristic),
                  bt::WriteType::WithResponse);  // the fresh connection's tare starts the shot
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

TEST(SimNotify, ButtonsAndErroneousUpdatesArriveAsValueUpdates) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connectAndDiscover(scale);
    p->setNotifyValue(true, characteristicOf(p, wire::kControlCharacteristic));
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    r.h.settle();
    r.rec->clear();
    scale->pressButton(1);
    scale->notify(wire::kDataCharacteristic, bt::Bytes{1, 2, 3});
    const auto error = attError(kAttUnlikelyError);
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

TEST(SimNotify, NotifySwitchErrors) {
    Rig r;
    auto scale = r.h.addScale();
    const auto error = attError(kAttUnlikelyError);
    scale->failNotifyState(wire::kDataCharacteristic, error);
    auto p = r.connectAndDiscover(scale);
    r.rec->clear();
    p->setNotifyValue(true, characteristicOf(p, wire::kDataCharacteristic));
    p->setNotifyValue(true, characteristicOf(p, wire::kInfoCharacteristic));  // read-only
    r.h.settle();
    const auto events = r.rec->of("notifyState");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].error, error);
    EXPECT_EQ(events[1].error->code(), kAttRequestNotSupported);
    EXPECT_FALSE(characteristicOf(p, wire::kDataCharacteristic)->isNotifying());
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 0u);
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

TEST(SimName, ARenameAfterConnectingIsReported) {
    Rig r;
    auto scale = r.h.addScale();
    auto p = r.connect(scale);
    scale->setName("Coffee Plenk");
    r.h.settle();
    ASSERT_EQ(r.rec->count("name"), 1u);
    EXPECT_EQ(r.rec->of("name")[0].name, "Coffee Plenk");
    EXPECT_EQ(p->name(), "Coffee Plenk");
    scale->setName(std::nullopt);
    r.h.settle();
    EXPECT_EQ(p->name(), std::nullopt);
    EXPECT_EQ(r.rec->count("name"), 2u);
}

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

    r.connect(free);  // our own links count as connected to the system
    EXPECT_EQ(r.central->retrieveConnectedPeripheralsWithServices({wire::kScaleService}).size(), 2u);

    const auto known = r.central->retrievePeripheralsWithIdentifiers(
        {free->identifier(), stranger->identifier(), bt::Uuid::random(), held->identifier()});
    ASSERT_EQ(known.size(), 2u);
    EXPECT_EQ(known[0]->identifier(), free->identifier());
    EXPECT_EQ(known[1], connected[0]);  // one object per device per central
}

TEST(SimThreads, CallsFromInsideAnEventAreNotReentered) {
    Rig r;
    r.rec->discoverOnConnect = true;
    r.connect(r.h.addScale());
    EXPECT_EQ(r.rec->kinds(), (std::vector<std::string>{"state", "connect", "services"}));
    EXPECT_TRUE(r.rec->allOnQueue());
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
    EXPECT_EQ(r.rec->kinds(), std::vector<std::string>{"state"});  // a new delegate hears later events only
}

TEST(SimThreads, ReleasingACentralFreesItsDevicesForOthers) {
    Rig r;
    auto scale = r.h.addScale();
    auto first = std::make_shared<Recorder>();
    auto holder = r.attach(first);
    auto held = holder->retrievePeripheralsWithIdentifiers({scale->identifier()}).at(0);
    holder->connectPeripheral(held, {});
    r.h.settle();
    ASSERT_EQ(scale->linkCount(), 1u);

    auto p = r.peripheral(scale);
    r.central->connectPeripheral(p, {});
    r.h.settle();
    EXPECT_EQ(p->state(), PeripheralState::Connecting);  // the device is held and silent
    holder.reset();
    r.h.settle();
    EXPECT_EQ(held->state(), PeripheralState::Disconnected);
    EXPECT_EQ(p->state(), PeripheralState::Connected);
    EXPECT_EQ(r.h.world->centralCount(), 1u);
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

TEST(SimBackend, RegisteredAsSimWithADemoWorld) {
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
