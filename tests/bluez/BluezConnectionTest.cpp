// The library (the facade on the bluez backend) against the fake bluetoothd:
// the connection road, weights, write errors and buttons, link drops, connect
// and discovery faults, bluetoothd restarts and power-off.
#include <PlenkKit/RKRostaKit.h>

#include <algorithm>
#include <atomic>

#include "bluez/BluezRig.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Notify = bluez::NotifyMode;
using fakebluez::FakeBluez;
using Fault = std::function<void(FakeBluez&)>;

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

TEST(BluezConnection, FindsTheScaleWhereverItIsThenLinksTaresAndStreamsOverEitherNotificationPath) {
    struct Row {
        const char* name;
        Notify notify;
        std::string requested;  // Context::adapter
        bool hci0Powered;
        std::string scaleAdapter;
        bool cached;  // known from an earlier scan: reported once this scan hears it
        bool held;    // connected to the system: does not advertise, taken over when the app is active
    };
    const Row rows[] = {
        {"cached", Notify::Property, "", true, "hci0", true, false},
        {"held by the system", Notify::Socket, "", true, "hci0", false, true},
        {"first powered adapter", Notify::Socket, "", false, "hci1", false, false},
        {"adapter by name", Notify::Property, "hci1", true, "hci1", false, false},
        {"adapter by path", Notify::Socket, "/org/bluez/hci1", true, "hci1", false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        BluezRig rig({.notify = row.notify, .adapter = row.requested});
        rig.fake.addAdapter({.name = "hci0", .address = "00:1A:7D:DA:71:10", .powered = row.hci0Powered});
        rig.fake.addAdapter({.name = "hci1", .address = "00:1A:7D:DA:71:11"});
        rig.fake.addScale({.address = kScaleAddress,
                           .adapter = row.scaleAdapter,
                           .connected = row.held,
                           .cached = row.cached});
        rig.start();
        if (row.held) {
            ASSERT_TRUE(rig.waitFor([&] { return rig.callCount("StartDiscovery") >= 1; })) << rig.log();
            rig.notifications->post(UIApplicationDidBecomeActiveNotification);
        }
        ASSERT_TRUE(rig.waitFor([&] { return weightCount(rig) >= 5; })) << rig.log();
        EXPECT_EQ(rig.host->count("connected"), 1u);
        EXPECT_EQ(rig.host->offMainThread, 0);
        EXPECT_EQ(commandWrites(rig).front(), Bytes{0x10}) << "tare on connection";
        if (row.held) continue;
        // Found by a scan, linked, set up: the tare goes out once the
        // characteristics are known, then both notifications are switched on.
        const char* on = row.notify == Notify::Property ? "StartNotify" : "AcquireNotify";
        auto members = rig.fake.calls();
        members.resize(std::min<std::size_t>(members.size(), 8));
        EXPECT_EQ(members,
                  (std::vector<std::string>{"GetManagedObjects", "SetDiscoveryFilter", "StartDiscovery",
                                            "StopDiscovery", "Connect", "WriteValue", on, on}));
    }
}

// (Commands, the configuration, the battery on this backend: the plenk tool's BlueZ test.)
TEST(BluezConnection, AWriteTheScaleRefusesAndTheButtonsReachTheHost) {
    BluezRig rig;
    rig.addScale();
    rig.start();
    ASSERT_TRUE(rig.waitFor([&] { return rig.host->count("connected") == 1 && !commandWrites(rig).empty(); }))
        << rig.log();
    rig.fake.failWrites(kScaleAddress, wire::kCommandCharacteristic, 0x03);
    rig.plenk->rosta()->tare();
    EXPECT_TRUE(rig.waitFor([&] { return rig.host->count("error 109") == 1; })) << rig.log();

    // The button's notifications come on their own characteristic.
    rig.fake.pressButton(kScaleAddress, 1);
    EXPECT_TRUE(rig.waitFor([&] { return rig.host->count("button 1") == 1; })) << rig.log();
}

Fault failConnect(const char* text) {
    return [text](FakeBluez& f) { f.failConnect(kScaleAddress, text); };
}

Fault resolve(fakebluez::ResolveMode mode) {
    return [mode](FakeBluez& f) { f.setResolveMode(kScaleAddress, mode); };
}

TEST(BluezConnection, ConnectAndDiscoveryFaultsReachTheHostAsTheirKind) {
    struct Row {
        const char* name;
        Fault fault;
        std::vector<std::string> first;  // the host's first events, weights aside
    };
    const Row rows[] = {
        // A failed attempt is reported; the kit scans again and the next one links.
        {"timeout", failConnect("le-connection-timeout"), {"error 106", "connected"}},
        {"aborted by the kernel", failConnect("le-connection-abort-by-local"), {"error 106", "connected"}},
        {"aborted by the scale", failConnect("le-connection-abort-by-remote"), {"error 103", "connected"}},
        {"invalid arguments", failConnect("le-connection-invalid-arguments"), {"error 104", "connected"}},
        {"bad socket", failConnect("le-connection-bad-socket"), {"error 105", "connected"}},
        {"radio off: not the attempt's fault",
         failConnect("le-connection-adapter-not-powered"),
         {"connected"}},
        // Discovery waits for ServicesResolved, but not forever, and needs the weight characteristic.
        {"resolved late", resolve(fakebluez::ResolveMode::Late), {"connected"}},
        {"resolved before its objects", resolve(fakebluez::ResolveMode::BeforeObjects), {"connected"}},
        {"never resolved", resolve(fakebluez::ResolveMode::Never), {"error 107"}},
        {"no weight characteristic",
         [](FakeBluez& f) {
             f.removeCharacteristic(kScaleAddress, wire::kScaleService, wire::kDataCharacteristic);
         },
         {"error 108"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        BluezRig rig;
        rig.addScale();
        row.fault(rig.fake);
        rig.start();
        const auto events = [&] {
            auto all = rig.host->snapshot();
            std::erase_if(all, [](const std::string& e) { return e.starts_with("weight"); });
            return all;
        };
        ASSERT_TRUE(rig.waitFor([&] { return events().size() >= row.first.size(); }, 10s)) << rig.log();
        auto first = events();
        first.resize(row.first.size());
        EXPECT_EQ(first, row.first);
    }
}

TEST(BluezConnection, ALinkLostMidStreamComesBackWithEveryWeightOnce) {
    struct Row {
        const char* name;
        Fault fault;
    };
    const Row rows[] = {
        {"link drop", [](FakeBluez& f) { f.dropLink(kScaleAddress); }},
        {"bluetoothd restart", [](FakeBluez& f) { f.restart(200ms); }},
        {"out of range for a moment",
         [](FakeBluez& f) {
             f.setInRange(kScaleAddress, false);
             std::this_thread::sleep_for(200ms);
             f.setInRange(kScaleAddress, true);
         }},
        {"power cycle",
         [](FakeBluez& f) {
             f.setPowered("hci0", false);
             std::this_thread::sleep_for(200ms);
             f.setPowered("hci0", true);
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::atomic<int> emitted{0};  // outlives the fake that counts into it
        BluezRig rig;
        rig.addScale();
        rig.fake.setEmissionObserver([&](const std::string&, std::uint64_t, std::int64_t) { ++emitted; });
        rig.start();
        ASSERT_TRUE(rig.waitFor([&] { return weightCount(rig) >= 3; })) << rig.log();
        row.fault(rig.fake);
        ASSERT_TRUE(rig.waitFor([&] { return rig.host->count("connected") == 2; }, 10s)) << rig.log();
        EXPECT_EQ(rig.host->count("disconnected"), 1u);
        // Nothing of the earlier link (a socket, a handler) doubles a weight.
        const std::size_t before = weightCount(rig);
        const int sentBefore = emitted.load();
        rig.runFor(1s);
        const int sent = emitted.load() - sentBefore;
        const auto got = static_cast<int>(weightCount(rig) - before);
        EXPECT_GE(sent, 5);
        EXPECT_LE(std::abs(got - sent), 2) << "sent " << sent << ", got " << got;
    }
}

}  // namespace
}  // namespace plenk::test
