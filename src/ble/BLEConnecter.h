#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <PlenkKit/Context.h>
#include <PlenkKit/Error.h>

#include "bt/Central.h"
#include "bt/Peripheral.h"
#include "bt/Uuid.h"

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
    using Value = std::variant<BLEConnecter*, bt::PeripheralPtr, ErrorPtr>;

    std::string key;
    Value value;

    bool has(std::string_view k) const noexcept { return key == k; }
    // The value as the given type, or null when it holds another one.
    BLEConnecter* connecter() const noexcept {
        const auto* v = std::get_if<BLEConnecter*>(&value);
        return v != nullptr ? *v : nullptr;
    }
    bt::PeripheralPtr peripheral() const {
        const auto* v = std::get_if<bt::PeripheralPtr>(&value);
        return v != nullptr ? *v : nullptr;
    }
    ErrorPtr error() const {
        const auto* v = std::get_if<ErrorPtr>(&value);
        return v != nullptr ? *v : nullptr;
    }
};

// Receiver of the connecter's events. Every event arrives on the "Corebluetooth"
// queue; every method has an empty default (implementing one is responding).
class BLEConnecterDelegate {
public:
    virtual ~BLEConnecterDelegate();
    virtual void connecterDidDiscoverPeripheral(BLEConnecter& connecter, const bt::PeripheralPtr& peripheral);
    // userInfo: { "ble_conneted": peripheral }.
    virtual void connecterDidConnectPeripheralUserInfo(BLEConnecter& connecter,
                                                       const bt::PeripheralPtr& peripheral,
                                                       const ConnecterUserInfo& userInfo);
    // userInfo: { "ble_disconnected": peripheral } or { "ble_error_disconnected": peripheral }.
    virtual void connecterDidDisconnectPeripheralUserInfo(BLEConnecter& connecter,
                                                          const bt::PeripheralPtr& peripheral,
                                                          const ConnecterUserInfo& userInfo);
    // userInfo: { "ble_error_connection_error": error }, or none when the platform gave no error.
    virtual void connecterDidFailToConnectPeripheralUserInfo(
        BLEConnecter& connecter, const bt::PeripheralPtr& peripheral,
        const std::optional<ConnecterUserInfo>& userInfo);
    // userInfo: { "ble_power_on" | "ble_not_support" | "ble_unauthorized" | "ble_power_off": connecter },
    // or none for the unknown and resetting states.
    virtual void connecterDidDidUpdateStateWithUserInfo(BLEConnecter& connecter,
                                                        const std::optional<ConnecterUserInfo>& userInfo);
};

// The only owner of the central. Turns requests into central commands with
// fixed options and central events into delegate calls; keeps no peripheral
// list and no connection state. Commands may come from any thread.
class BLEConnecter : public std::enable_shared_from_this<BLEConnecter>, private bt::CentralDelegate {
public:
    static constexpr std::string_view kQueueLabel = "Corebluetooth";

    // Without a delegate. The central comes from context.resolved().backend;
    // an unknown backend name throws std::invalid_argument.
    static std::shared_ptr<BLEConnecter> create(const Context& context);
    // With a (non-owning) delegate: the constructor the kit uses.
    static std::shared_ptr<BLEConnecter> create(std::weak_ptr<BLEConnecterDelegate> delegate,
                                                const Context& context);
    // Detaches from the central first, so no event reaches a destroyed connecter.
    ~BLEConnecter() override;
    BLEConnecter(const BLEConnecter&) = delete;
    BLEConnecter& operator=(const BLEConnecter&) = delete;

    // Makes a new central on a new "Corebluetooth" queue with this connecter as
    // its delegate, replacing the one held without stopping or detaching it.
    // Called once by create().
    void createCBManager();
    std::shared_ptr<bt::Central> cbManager() const;
    void setCbManager(std::shared_ptr<bt::Central> central);

    std::shared_ptr<BLEConnecterDelegate> delegate() const;
    void setDelegate(std::weak_ptr<BLEConnecterDelegate> delegate);

    // Every advertiser, one report per advertiser and scan.
    void scanDevices();
    // Only the firmware-update bootloader's service, one report per advertiser.
    void scanDFUDevices();
    void stopScan();
    // Cancels the peripheral first (dropping any half-open attempt), then
    // connects with notify-on-connection.
    void connectDeviceWithPeripheral(const bt::PeripheralPtr& peripheral);
    // Connects (no cancel first) with notify-on-connection and on-disconnection.
    void retrieveDeviceWithPeripheral(const bt::PeripheralPtr& peripheral);
    void disconnect(const bt::PeripheralPtr& peripheral);
    void cancelConnectDeviceWithPeripheral(const bt::PeripheralPtr& peripheral);
    std::vector<bt::PeripheralPtr> retrieveConnectedPeripheralWithServiceUUIDs(
        const std::vector<bt::Uuid>& serviceUUIDs);
    std::vector<bt::PeripheralPtr> retrievePeripheralWithIdentifiers(
        const std::vector<bt::Uuid>& identifiers);
    // Has no effect.
    void disconnectedAlert();

    // The first two bytes of the UUID's byte form, each sign-extended before
    // they are combined: "2A19" → 0x2A19, "EF80" → 0xFF80 (the second byte's
    // sign fills the high byte), a 128-bit UUID → its first two bytes.
    static std::uint16_t CBUUIDToInt(const bt::Uuid& uuid);

private:
    struct Token {};

public:
    // Use create(): the central needs a shared owner to point back at.
    BLEConnecter(Token, std::weak_ptr<BLEConnecterDelegate> delegate, const Context& context);

private:
    std::weak_ptr<bt::CentralDelegate> asCentralDelegate();

    // bt::CentralDelegate
    void centralManagerDidUpdateState(bt::Central& central) override;
    void centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(bt::Central& central,
                                                                  const bt::PeripheralPtr& peripheral,
                                                                  const bt::AdvertisementData& advertisement,
                                                                  int rssi) override;
    void centralManagerDidConnectPeripheral(bt::Central& central,
                                            const bt::PeripheralPtr& peripheral) override;
    void centralManagerDidDisconnectPeripheralError(bt::Central& central, const bt::PeripheralPtr& peripheral,
                                                    const ErrorPtr& error) override;
    void centralManagerDidFailToConnectPeripheralError(bt::Central& central,
                                                       const bt::PeripheralPtr& peripheral,
                                                       const ErrorPtr& error) override;
    void centralManagerDidRetrievePeripherals(bt::Central& central,
                                              const std::vector<bt::PeripheralPtr>& peripherals) override;

    const Context context_;  // resolved
    mutable std::mutex mutex_;
    mutable std::mutex creating_;  // held while createCBManager makes the central
    std::shared_ptr<bt::Central> cbManager_;
    std::weak_ptr<BLEConnecterDelegate> delegate_;
};

}  // namespace plenk
