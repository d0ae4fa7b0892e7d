// The fake bluetoothd seen from plain D-Bus clients: what the library's own
// tests cannot show (several clients at once, replies racing each other, what
// bluetoothd keeps over a link).

#include <gtest/gtest.h>
#include <poll.h>

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "BluezNames.h"
#include "FakeBluez.h"
#include "PrivateBus.h"
#include "wire/GattUuids.h"

namespace plenk::fakebluez {
namespace {

using namespace std::chrono_literals;
using Dict = std::map<std::string, sdbus::Variant>;
using InterfaceMap = std::map<std::string, Dict>;
using ManagedObjects = std::map<sdbus::ObjectPath, InterfaceMap>;

constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kAdapter = kAdapterInterface;
constexpr const char* kDevice = kDeviceInterface;
constexpr const char* kCharacteristic = kCharacteristicInterface;
constexpr const char* kScale = "C0:FF:EE:00:00:01";
constexpr const char* kOther = "C0:FF:EE:00:00:02";

// A D-Bus client on its own connection, pumped on the test thread.
class Client {
public:
    explicit Client(const std::string& address)
        : connection_(sdbus::createSessionBusConnectionWithAddress(address)),
          root_(sdbus::createProxy(*connection_, "org.bluez", "/")) {
        root_->uponSignal("InterfacesAdded")
            .onInterface(kObjectManager)
            .call([this](const sdbus::ObjectPath& path, const InterfaceMap&) { added.insert(path); });
        root_->finishRegistration();
    }

    // The proxy of `path`. It records the Device1 booleans that change as
    // "Name=value" in `events`, and counts a characteristic's Value changes.
    sdbus::IProxy& at(const std::string& path) {
        auto& proxy = proxies_[path];
        if (!proxy) {
            proxy = sdbus::createProxy(*connection_, "org.bluez", path);
            proxy->uponSignal("PropertiesChanged")
                .onInterface("org.freedesktop.DBus.Properties")
                .call([this](const std::string& interface, const Dict& changed,
                             const std::vector<std::string>&) {
                    for (const auto& [name, value] : changed) {
                        if (interface == kCharacteristic && name == "Value") ++values;
                        if (interface == kDevice && value.containsValueOfType<bool>())
                            events.push_back(name + (value.get<bool>() ? "=true" : "=false"));
                    }
                });
            proxy->finishRegistration();
        }
        return *proxy;
    }

    // The error name of a call ("" on success).
    static std::string errorOf(const std::function<void()>& call) {
        try {
            call();
        } catch (const sdbus::Error& error) {
            return error.getName() + ": " + error.getMessage();
        }
        return "";
    }

    bool pump(const std::function<bool()>& done, std::chrono::milliseconds timeout = 3s) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            while (connection_->processPendingRequest()) {
            }
            if (done()) return true;
            if (std::chrono::steady_clock::now() >= deadline) return false;
            const auto data = connection_->getEventLoopPollData();
            pollfd wait{data.fd, static_cast<short>(data.events), 0};
            ::poll(&wait, 1, 5);
        }
    }

    // The path of the characteristic with this UUID.
    std::string characteristic(const bt::Uuid& uuid) {
        ManagedObjects objects;
        root_->callMethod("GetManagedObjects").onInterface(kObjectManager).storeResultsTo(objects);
        for (const auto& [path, interfaces] : objects) {
            auto found = interfaces.find(kCharacteristic);
            if (found != interfaces.end() && found->second.at("UUID").get<std::string>() == uuid.fullString())
                return path;
        }
        return "";
    }

    std::set<std::string> added;
    std::vector<std::string> events;
    std::size_t values = 0;

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> root_;
    std::map<std::string, std::unique_ptr<sdbus::IProxy>> proxies_;
};

TEST(FakeBluez, DiscoverySessionsMergeTheirFiltersAndEveryClientSeesTheUnion) {
    const std::string scaleUuid = "0000ff08-0000-1000-8000-00805f9b34fb";
    const std::string dfuUuid = "00001530-1212-efde-1523-785feabcd123";
    const auto scalePath = FakeBluez::devicePath("hci0", kScale);
    const auto targetPath = FakeBluez::devicePath("hci0", kOther);
    struct Case {
        const char* name;
        std::optional<std::vector<std::string>> filterB;  // nullopt: B scans unfiltered
        bool startB;
        std::set<std::string> expected;
    };
    const Case cases[] = {
        {"A alone", std::vector<std::string>{dfuUuid}, false, {scalePath}},
        {"A and a filtered B", std::vector<std::string>{dfuUuid}, true, {scalePath, targetPath}},
        {"A and an unfiltered B", std::nullopt, true, {scalePath, targetPath}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PrivateBus bus;
        FakeBluez bluez(bus.address());
        bluez.addAdapter({});
        bluez.addScale({.address = kScale});
        bluez.addScale({.address = kOther});
        bluez.withScale(kOther, [](emulator::ScaleEmulator& scale) { scale.enterUpdateMode(); });
        Client a(bus.address()), b(bus.address()), observer(bus.address());
        // Sets the client's filter (when given), then starts its session (when told to).
        const auto scan = [](Client& client, const std::optional<std::vector<std::string>>& uuids,
                             bool start) {
            auto& hci0 = client.at("/org/bluez/hci0");
            if (uuids) {
                hci0.callMethod("SetDiscoveryFilter")
                    .onInterface(kAdapter)
                    .withArguments(Dict{{"UUIDs", *uuids}, {"Transport", std::string("le")}});
            }
            if (start) hci0.callMethod("StartDiscovery").onInterface(kAdapter);
        };
        scan(a, std::vector{scaleUuid}, true);
        scan(b, c.filterB, c.startB);
        // InterfacesAdded is broadcast: a client without a session sees the union too.
        observer.pump([&] { return observer.added.size() >= c.expected.size(); });
        observer.pump([] { return false; }, 250ms);  // two more advertising intervals
        EXPECT_EQ(observer.added, c.expected);
        a.pump([] { return true; });
        EXPECT_EQ(a.added, c.expected);
        EXPECT_EQ(Client::errorOf([&] {
                      observer.at("/org/bluez/hci0").callMethod("StopDiscovery").onInterface(kAdapter);
                  }),
                  "org.bluez.Error.Failed: No discovery started");
    }
}

TEST(FakeBluez, ConnectRepliesAtLinkUpWritesAreSerialisedDisconnectKeepsItsOrderAndSessionsSurvive) {
    PrivateBus bus;
    FakeBluez bluez(bus.address());
    bluez.addAdapter({});
    bluez.addScale({.address = kScale, .cached = true});
    Client client(bus.address());
    const auto device = FakeBluez::devicePath("hci0", kScale);
    // Calls `member` on the device: where its reply falls among the property changes.
    const auto linkCall = [&](const char* member, const std::vector<std::string>& expected) {
        client.events.clear();
        client.at(device).callMethodAsync(member).onInterface(kDevice).uponReplyInvoke(
            [&](const sdbus::Error* error) { client.events.push_back(error ? error->getName() : "reply"); });
        ASSERT_TRUE(client.pump([&] { return client.events.size() == expected.size(); }));
        EXPECT_EQ(client.events, expected);
    };
    // Connect answers at link-up; services resolve after it.
    const std::vector<std::string> connected{"Connected=true", "reply", "ServicesResolved=true"};
    linkCall("Connect", connected);
    // A StartNotify session streams the weights at 10 Hz.
    const auto data = client.characteristic(wire::kDataCharacteristic);
    client.at(data).callMethod("StartNotify").onInterface(kCharacteristic);
    ASSERT_TRUE(client.pump([&] { return client.values >= 3; }));

    // Two writes at once on one characteristic: the second is refused while the first is pending.
    auto& command = client.at(client.characteristic(wire::kCommandCharacteristic));
    std::vector<std::string> results(2, "pending");
    for (std::size_t i = 0; i < 2; ++i) {
        command.callMethodAsync("WriteValue")
            .onInterface(kCharacteristic)
            .withArguments(std::vector<std::uint8_t>{0x55, static_cast<std::uint8_t>(i)},
                           Dict{{"type", std::string("request")}})
            .uponReplyInvoke(
                [&results, i](const sdbus::Error* error) { results[i] = error ? error->getName() : ""; });
    }
    ASSERT_TRUE(client.pump([&] { return results[0] != "pending" && results[1] != "pending"; }));
    EXPECT_EQ(results, (std::vector<std::string>{"", "org.bluez.Error.InProgress"}));
    ASSERT_EQ(bluez.writes(kScale).size(), 1u);
    EXPECT_EQ(bluez.writes(kScale)[0].value, (std::vector<std::uint8_t>{0x55, 0x00}));

    linkCall("Disconnect", {"ServicesResolved=false", "reply", "Connected=false"});
    EXPECT_EQ(Client::errorOf([&] {
                  client.at(client.characteristic(wire::kInfoCharacteristic))
                      .callMethod("ReadValue")
                      .onInterface(kCharacteristic)
                      .withArguments(Dict{});
              }),
              "org.bluez.Error.Failed: Not connected");

    // bluetoothd kept the session and subscribes it again on the next link.
    linkCall("Connect", connected);
    client.values = 0;
    EXPECT_TRUE(client.pump([&] { return client.values >= 2; }));
}

}  // namespace
}  // namespace plenk::fakebluez
