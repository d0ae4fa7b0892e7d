// The library (the facade on the bluez backend) against the fake bluetoothd:
// the connection road, weights, commands, battery, configuration, link drops,
// connect failures, bluetoothd restarts and power-off.
#include <PlenkKit/RKRostaKit.h>

#include <algorithm>
#include <atomic>

#include "bluez/BluezRig.h"
#include "wire/Frames.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Notify = bluez::NotifyMode;

void addScale(BluezRig& rig, fakebluez::ScaleSetup setup = {}) {
    rig.fake.addAdapter({});
    setup.address = kScaleAddress;
    rig.fake.addScale(setup);
}

std::size_t weightCount(const BluezRig& rig) {
    return rig.host->weights().size();
}

std::vector<Bytes> commandWrites(const BluezRig& rig) {
    std::vector<Bytes> out;
    for (const auto& write : rig.fake.writes(kScaleAddress)) {
        if (write.characteristic == wire::kCommandCharacteristic) out.push_back(write.value);
    }
    return out;
}

TEST(BluezConnection, ConnectsTaresAndStreamsWeightsInBothFormatsOverBothNotificationPaths) {
    for (const auto format : {emulator::WeightFormat::Binary, emulator::WeightFormat::Text}) {
        for (const auto notify : {Notify::Property, Notify::Socket}) {
            BluezRig rig({.notify = notify});
            fakebluez::ScaleSetup setup;
            setup.options.format = format;
            addScale(rig, setup);
            rig.start();
            ASSERT_TRUE(rig.waitFor([&] { return weightCount(rig) >= 5; })) << rig.log();
            EXPECT_EQ(rig.host->count("connected"), 1u);
            EXPECT_EQ(rig.host->offMainThread, 0);
            // Found by a scan, linked, set up: the tare goes out once the
            // characteristics are known, then both notifications are switched on.
            const char* on = notify == Notify::Property ? "StartNotify" : "AcquireNotify";
            std::vector<std::string> members;
            for (const auto& call : rig.fake.calls()) members.push_back(call.member);
            members.resize(std::min<std::size_t>(members.size(), 8));
            EXPECT_EQ(members,
                      (std::vector<std::string>{"GetManagedObjects", "SetDiscoveryFilter", "StartDiscovery",
                                                "StopDiscovery", "Connect", "WriteValue", on, on}));
            EXPECT_EQ(commandWrites(rig).front(), Bytes{0x10}) << "tare on connection";
        }
    }
}

TEST(BluezConnection, FindsTheScaleCachedOrBehindTheChosenAdapter) {
    struct Row {
        const char* name;
        std::string requested;  // Context::adapter
        bool hci0Powered;
        std::string scaleAdapter;
        bool cached;
    };
    const Row rows[] = {
        // Known from an earlier scan: reported once this scan hears it.
        {"cached", "", true, "hci0", true},
        {"first powered adapter", "", false, "hci1", false},
        {"adapter by name", "hci1", true, "hci1", false},
        {"adapter by path", "/org/bluez/hci1", true, "hci1", false},
    };
    for (const auto& row : rows) {
        BluezRig rig({.adapter = row.requested});
        rig.fake.addAdapter({.name = "hci0", .address = "00:1A:7D:DA:71:10", .powered = row.hci0Powered});
        rig.fake.addAdapter({.name = "hci1", .address = "00:1A:7D:DA:71:11"});
        fakebluez::ScaleSetup setup;
        setup.address = kScaleAddress;
        setup.adapter = row.scaleAdapter;
        setup.cached = row.cached;
        rig.fake.addScale(setup);
        rig.start();
        EXPECT_TRUE(rig.waitFor([&] { return weightCount(rig) >= 1; })) << row.name << rig.log();
    }
}

TEST(BluezConnection, CommandsBatteryAndConfigurationReachTheScale) {
    // Declared before the rig: completions may still run while it winds down.
    std::vector<std::string> results;
    std::optional<RKConfiguration> configuration;
    std::int64_t battery = -1;
    BluezRig rig;
    addScale(rig);
    rig.start();
    ASSERT_TRUE(rig.waitFor([&] { return rig.host->count("connected") == 1 && !commandWrites(rig).empty(); }))
        << rig.log();
    auto kit = rig.plenk->rosta();
    struct Case {
        const char* name;
        std::function<void(RKRostaKit&)> send;
        std::vector<Bytes> frames;
    };
    const auto bytes = [](const wire::Frame& frame) {
        return Bytes(frame.span().begin(), frame.span().end());
    };
    const auto led = wire::ledDisplayFrames(true);
    std::vector<Bytes> ledFrames;
    for (const auto& frame : led.span()) ledFrames.push_back(bytes(frame));
    // Every command but the two that end the link (firmware disconnect, update).
    const std::vector<Case> cases = {
        {"tare", [](RKRostaKit& k) { k.tare(); }, {bytes(wire::tareFrame())}},
        {"calibrate", [](RKRostaKit& k) { k.calibrate(7); }, {bytes(wire::calibrateFrame(7))}},
        {"segment command", [](RKRostaKit& k) { k.sevenSegmentCommand(0xE5, 0x33); }, {{0xE5, 0x33}}},
        {"segment block",
         [](RKRostaKit& k) { k.sevenSegmentBlock(3, 0x42); },
         {bytes(wire::segmentBlockFrame(3, 0x42))}},
        {"segment preset",
         [](RKRostaKit& k) { k.sevenSegmentPreset(5); },
         {bytes(wire::segmentPresetFrame(5))}},
        {"segment update",
         [](RKRostaKit& k) { k.sevenSegmentUpdate(); },
         {bytes(wire::segmentUpdateFrame())}},
        {"segment release",
         [](RKRostaKit& k) { k.sevenSegmentReleaseControl(); },
         {bytes(wire::segmentReleaseFrame())}},
        {"segment on",
         [](RKRostaKit& k) { k.sevenSegmentSwitchOn(true); },
         {bytes(wire::segmentSwitchFrame(true))}},
        {"firmware version", [](RKRostaKit& k) { k.getFWVersion(); }, {bytes(wire::firmwareVersionFrame())}},
        {"indication LED",
         [](RKRostaKit& k) { k.indicationLEDSwitchOn(true); },
         {bytes(wire::indicationLedFrame(true))}},
        {"engineering",
         [](RKRostaKit& k) { k.setEngineeringMode(true); },
         {bytes(wire::engineeringModeFrame(true))}},
        {"advertising",
         [](RKRostaKit& k) { k.setAdvertisingTime(2, 1); },
         {bytes(wire::advertisingTimeFrame(2, 1))}},
        {"sleep", [](RKRostaKit& k) { k.setSleepTime(3, 0); }, {bytes(wire::sleepTimeFrame(3, 0))}},
        {"timer", [](RKRostaKit& k) { k.setTimerOn(true, true); }, {bytes(wire::timerFrame(true, true))}},
        {"timer auto start",
         [](RKRostaKit& k) { k.setTimerAutoStart(true); },
         {bytes(wire::timerAutoStartFrame(true))}},
        {"power",
         [](RKRostaKit& k) { k.setBLEPowerEnhanced(true); },
         {bytes(wire::powerEnhancedFrame(true))}},
        {"LED display", [](RKRostaKit& k) { k.setLEDDisplayOn(true); }, ledFrames},
        {"unit", [](RKRostaKit& k) { k.setUnit(0); }, {bytes(wire::unitFrame(0))}},
    };
    for (const auto& c : cases) {
        rig.fake.clearWrites(kScaleAddress);
        c.send(*kit);
        EXPECT_TRUE(rig.waitFor([&] { return commandWrites(rig).size() >= c.frames.size(); })) << c.name;
        EXPECT_EQ(commandWrites(rig), c.frames) << c.name;
    }

    // The default configuration's eight frames go out at once: the backend
    // queues them behind each other, and both results come back.
    rig.fake.clearWrites(kScaleAddress);
    kit->initializeConfiguration([&](bool ok, const ErrorPtr&) { results.push_back(ok ? "ok" : "failed"); });
    std::vector<Bytes> expected;
    const auto frames = wire::defaultConfigurationFrames();
    for (const auto& frame : frames.span()) expected.emplace_back(frame.span().begin(), frame.span().end());
    ASSERT_TRUE(rig.waitFor([&] { return results.size() == 2 && commandWrites(rig).size() == 8; }))
        << rig.log();
    EXPECT_EQ(results, (std::vector<std::string>{"ok", "ok"}));
    EXPECT_EQ(commandWrites(rig), expected);

    kit->readConfiguration([&](RKConfiguration c) { configuration = c; });
    rig.plenk->readPlenkBatteryLifeWithCompletion([&](std::int64_t level) { battery = level; });
    ASSERT_TRUE(rig.waitFor([&] { return configuration && battery >= 0; })) << rig.log();
    EXPECT_EQ(battery, 85);

    // A write the scale refuses reaches the host as a write error.
    rig.fake.failWrites(kScaleAddress, wire::kCommandCharacteristic, 0x03);
    kit->tare();
    EXPECT_TRUE(rig.waitFor([&] { return rig.host->count("error 109") == 1; })) << rig.log();

    // The button's notifications come on their own characteristic.
    rig.fake.pressButton(kScaleAddress, 1);
    EXPECT_TRUE(rig.waitFor([&] { return rig.host->count("button 1") == 1; })) << rig.log();
}

TEST(BluezConnection, ReconnectsAfterALinkDropWithEveryWeightOnce) {
    for (const auto notify : {Notify::Property, Notify::Socket}) {
        std::atomic<int> emitted{0};  // outlives the fake that counts into it
        BluezRig rig({.notify = notify});
        addScale(rig);
        rig.fake.setEmissionObserver([&](const std::string&, std::uint64_t, std::int64_t) { ++emitted; });
        rig.start();
        ASSERT_TRUE(rig.waitFor([&] { return weightCount(rig) >= 3; })) << rig.log();
        for (int drop = 1; drop <= 2; ++drop) {
            rig.fake.dropLink(kScaleAddress);
            ASSERT_TRUE(rig.waitFor([&] { return rig.host->count("connected") == 1u + drop; }, 10s))
                << rig.log();
            ASSERT_TRUE(rig.waitFor([&] { return rig.host->count("disconnected") == std::size_t(drop); }));
        }
        // bluetoothd kept the subscription of the earlier links: still one
        // weight per notification.
        const std::size_t before = weightCount(rig);
        const int sentBefore = emitted.load();
        rig.runFor(1s);
        const int sent = emitted.load() - sentBefore;
        const auto got = static_cast<int>(weightCount(rig) - before);
        EXPECT_GE(sent, 5);
        EXPECT_LE(std::abs(got - sent), 2) << "sent " << sent << ", got " << got;
    }
}

TEST(BluezConnection, EachConnectFailureReachesTheHostAsItsKind) {
    struct Row {
        const char* text;
        const char* reported;  // nullptr: nothing reported
    };
    const Row rows[] = {
        {"le-connection-timeout", "error 106"},         {"le-connection-abort-by-local", "error 106"},
        {"le-connection-abort-by-remote", "error 103"}, {"le-connection-invalid-arguments", "error 104"},
        {"le-connection-bad-socket", "error 105"},      {"le-connection-adapter-not-powered", nullptr},
    };
    for (const auto& row : rows) {
        BluezRig rig;
        addScale(rig);
        rig.fake.failConnect(kScaleAddress, row.text);
        rig.start();
        // The kit scans again and the next attempt links.
        ASSERT_TRUE(rig.waitFor([&] { return rig.host->count("connected") == 1; }, 10s))
            << row.text << rig.log();
        std::vector<std::string> expected;
        if (row.reported != nullptr) expected.emplace_back(row.reported);
        expected.emplace_back("connected");
        auto events = rig.host->snapshot();
        std::erase_if(events, [](const std::string& e) { return e.starts_with("weight"); });
        EXPECT_EQ(events, expected) << row.text;
    }
}

TEST(BluezConnection, ServiceDiscoveryWaitsForServicesResolvedButNotForeverAndNeedsTheScaleService) {
    struct Row {
        const char* name;
        std::function<void(fakebluez::FakeBluez&)> fault;
        const char* first;  // the host's first event
    };
    const auto resolve = [](fakebluez::ResolveMode mode) {
        return [mode](fakebluez::FakeBluez& f) { f.setResolveMode(kScaleAddress, mode); };
    };
    const Row rows[] = {
        {"late", resolve(fakebluez::ResolveMode::Late), "connected"},
        {"before its objects", resolve(fakebluez::ResolveMode::BeforeObjects), "connected"},
        {"never", resolve(fakebluez::ResolveMode::Never), "error 107"},
        {"no weight characteristic",
         [](fakebluez::FakeBluez& f) {
             f.removeCharacteristic(kScaleAddress, wire::kScaleService, wire::kDataCharacteristic);
         },
         "error 108"},
    };
    for (const auto& row : rows) {
        BluezRig rig;
        addScale(rig);
        row.fault(rig.fake);
        rig.start();
        ASSERT_TRUE(rig.waitFor([&] { return !rig.host->snapshot().empty(); }, 10s)) << row.name << rig.log();
        EXPECT_EQ(rig.host->snapshot().front(), row.first) << row.name;
    }
}

TEST(BluezConnection, RestartPowerOffAndRangeLossMidStreamEndInAReconnect) {
    struct Row {
        const char* name;
        std::function<void(fakebluez::FakeBluez&)> fault;
    };
    const Row rows[] = {
        {"bluetoothd restart", [](fakebluez::FakeBluez& f) { f.restart(200ms); }},
        {"out of range for a moment",
         [](fakebluez::FakeBluez& f) {
             f.setInRange(kScaleAddress, false);
             std::this_thread::sleep_for(200ms);
             f.setInRange(kScaleAddress, true);
         }},
        {"power cycle",
         [](fakebluez::FakeBluez& f) {
             f.setPowered("hci0", false);
             std::this_thread::sleep_for(200ms);
             f.setPowered("hci0", true);
         }},
    };
    for (const auto& row : rows) {
        BluezRig rig;
        addScale(rig);
        rig.start();
        ASSERT_TRUE(rig.waitFor([&] { return weightCount(rig) >= 3; })) << rig.log();
        row.fault(rig.fake);
        ASSERT_TRUE(rig.waitFor([&] { return rig.host->count("connected") == 2; }, 10s))
            << row.name << rig.log();
        EXPECT_EQ(rig.host->count("disconnected"), 1u) << row.name;
        const auto before = weightCount(rig);
        EXPECT_TRUE(rig.waitFor([&] { return weightCount(rig) >= before + 3; })) << row.name;
    }
}

TEST(BluezConnection, AScaleAlreadyConnectedToTheSystemIsTakenOverWhenTheAppIsActive) {
    BluezRig rig;
    fakebluez::ScaleSetup setup;
    setup.connected = true;
    addScale(rig, setup);
    rig.start();
    // Powered on (the kit scans): the held scale does not advertise.
    ASSERT_TRUE(rig.waitFor([&] { return !rig.calls("StartDiscovery").empty(); })) << rig.log();
    rig.notifications->post(UIApplicationDidBecomeActiveNotification);
    ASSERT_TRUE(rig.waitFor([&] { return weightCount(rig) >= 3; })) << rig.log();
    EXPECT_EQ(rig.host->count("connected"), 1u);
}

}  // namespace
}  // namespace plenk::test
