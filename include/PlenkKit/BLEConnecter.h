#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <PlenkKit/Context.h>
#include <PlenkKit/Error.h>
#include <PlenkKit/Export.h>
#include <PlenkKit/Peripheral.h>
#include <PlenkKit/Uuid.h>

namespace plenk {

class BLEConnecter;

// Keys of the connecter's user-info dictionaries. The presence of the key is
// the message; "ble_conneted" is spelled as the interface spells it.
inline constexpr std::string_view kBlePowerOn = "ble_power_on";
inline constexpr std::string_view kBleNotSupport = "ble_not_support";
inline constexpr std::string_view kBleUnauthorized = "ble_unauthorized";
inline constexpr std::string_view kBlePowerOff = "ble_power_off";
inline constexpr std::string_view kBleConneted = "ble_conneted";
inline constexpr std::string_view kBleDisconnected = "ble_disconnected";
inline constexpr std::string_view kBleErrorDisconnected = "ble_error_disconnected";
inline constexpr std::string_view kBleErrorConnectionError = "ble_error_connection_error";

// A one-entry dictionary: a fixed key and its value (the connecter itself for
// radio states, a peripheral for link events, the platform's error for a
// failed connect).
struct ConnecterUserInfo {
    using Value = std::variant<BLEConnecter*, PeripheralPtr, ErrorPtr>;

    std::string key;
    Value value;

    bool has(std::string_view k) const noexcept { return key == k; }
    // The value as the given type, or null when it holds another one.
    BLEConnecter* connecter() const noexcept {
        const auto* v = std::get_if<BLEConnecter*>(&value);
        return v != nullptr ? *v : nullptr;
    }
    PeripheralPtr peripheral() const {
        const auto* v = std::get_if<PeripheralPtr>(&value);
        return v != nullptr ? *v : nullptr;
    }
    ErrorPtr error() const {
        const auto* v = std::get_if<ErrorPtr>(&value);
        return v != nullptr ? *v : nullptr;
    }
};

// Receiver of the connecter's events. Every event arrives on the "Corebluetooth"
// queue, one at a time; every method has an empty default (implementing one is
// responding).
class PLENK_EXPORT BLEConnecterDelegate {
public:
    virtual ~BLEConnecterDelegate();
    // Once per advertiser and scan. The advertisement's signal strength is not
    // passed on; the peripheral's rssi() holds it.
    virtual void connecterDidDiscoverPeripheral(BLEConnecter& connecter, const PeripheralPtr& peripheral);
    // userInfo: { "ble_conneted": peripheral }.
    virtual void connecterDidConnectPeripheralUserInfo(BLEConnecter& connecter,
                                                       const PeripheralPtr& peripheral,
                                                       const ConnecterUserInfo& userInfo);
    // userInfo: { "ble_disconnected": peripheral } for a link the connecter
    // dropped or a clean loss, { "ble_error_disconnected": peripheral } when
    // the platform gave an error (the error itself is not passed on).
    virtual void connecterDidDisconnectPeripheralUserInfo(BLEConnecter& connecter,
                                                          const PeripheralPtr& peripheral,
                                                          const ConnecterUserInfo& userInfo);
    // A connection attempt failed. userInfo: { "ble_error_connection_error":
    // error } with the platform's error as the backend reported it: kindless,
    // domain kPlatformErrorDomain ("CBErrorDomain"), a PlatformCode (usually
    // 10 to 15, kPlatformConnectionFailed to kPlatformEncryptionTimedOut);
    // none when the platform gave no error.
    virtual void connecterDidFailToConnectPeripheralUserInfo(
        BLEConnecter& connecter, const PeripheralPtr& peripheral,
        const std::optional<ConnecterUserInfo>& userInfo);
    // userInfo: { "ble_power_on" | "ble_not_support" | "ble_unauthorized" | "ble_power_off": connecter },
    // or none for the unknown and resetting states.
    virtual void connecterDidDidUpdateStateWithUserInfo(BLEConnecter& connecter,
                                                        const std::optional<ConnecterUserInfo>& userInfo);
};

// The only owner of the Bluetooth central. Turns requests into central
// commands with fixed options and central events into delegate calls; keeps no
// peripheral list and no connection state. Commands may come from any thread
// and return at once; their effects arrive as delegate events.
//
// The kit owns one (RKRostaKit::connecter()); a host may create its own on a
// context of its choice to drive a radio directly.
class PLENK_EXPORT BLEConnecter {
public:
    static constexpr std::string_view kQueueLabel = "Corebluetooth";

    // Without a delegate. The central comes from context.resolved().backend;
    // an unknown backend name throws std::invalid_argument.
    static std::shared_ptr<BLEConnecter> create(const Context& context);
    // With a (non-owning) delegate: the constructor the kit uses.
    static std::shared_ptr<BLEConnecter> create(std::weak_ptr<BLEConnecterDelegate> delegate,
                                                const Context& context);
    // Detaches from the central first, so no event reaches a destroyed connecter.
    virtual ~BLEConnecter();

    virtual std::shared_ptr<BLEConnecterDelegate> delegate() const = 0;
    virtual void setDelegate(std::weak_ptr<BLEConnecterDelegate> delegate) = 0;

    // Every advertiser, one report per advertiser and scan.
    virtual void scanDevices() = 0;
    // Only the firmware-update bootloader's service, one report per advertiser.
    virtual void scanDFUDevices() = 0;
    virtual void stopScan() = 0;
    // The peripheral commands take handles this library handed out; any
    // other handle (or null) is ignored.
    //
    // Cancels the peripheral first (dropping any half-open attempt), then
    // connects with notify-on-connection.
    virtual void connectDeviceWithPeripheral(const PeripheralPtr& peripheral) = 0;
    // Connects (no cancel first) with notify-on-connection and on-disconnection.
    virtual void retrieveDeviceWithPeripheral(const PeripheralPtr& peripheral) = 0;
    virtual void disconnect(const PeripheralPtr& peripheral) = 0;
    virtual void cancelConnectDeviceWithPeripheral(const PeripheralPtr& peripheral) = 0;
    // Peripherals connected to the system (by any application) exposing one of the services.
    virtual std::vector<PeripheralPtr> retrieveConnectedPeripheralWithServiceUUIDs(
        const std::vector<Uuid>& serviceUUIDs) = 0;
    // Peripherals the system knows by these identifiers, in the order asked.
    virtual std::vector<PeripheralPtr> retrievePeripheralWithIdentifiers(
        const std::vector<Uuid>& identifiers) = 0;
    // Has no effect.
    virtual void disconnectedAlert() = 0;

    // The first two bytes of the UUID's byte form, each sign-extended before
    // they are combined: "2A19" → 0x2A19, "EF80" → 0xFF80 (the second byte's
    // sign fills the high byte), a 128-bit UUID → its first two bytes.
    static std::uint16_t CBUUIDToInt(const Uuid& uuid);

protected:
    BLEConnecter() = default;
    BLEConnecter(const BLEConnecter&) = delete;
    BLEConnecter& operator=(const BLEConnecter&) = delete;
};

}  // namespace plenk
