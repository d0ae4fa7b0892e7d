#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "backends/bluez/BluezGatt.h"
#include "backends/bluez/BluezProperties.h"
#include "backends/bluez/RequestQueue.h"
#include "bt/Peripheral.h"
#include "dispatch/PollLoop.h"

namespace plenk::bluez {

class CentralCore;

// One org.bluez Device1 as one central sees it: the same object for the same
// device for the central's whole life. Host calls post to the central's event
// loop; everything else here runs on it.
//
// GATT requests of one peripheral run one at a time, in the order issued:
// bluetoothd allows one pending write per characteristic and the link itself
// carries one ATT request at a time, so nothing is lost by waiting, and every
// result comes back in the order of the requests.
class BluezPeripheral final : public bt::Peripheral {
public:
    BluezPeripheral(std::weak_ptr<CentralCore> core, bt::Uuid identifier);
    ~BluezPeripheral() override;

    // --- the port (any thread) ----------------------------------------------
    std::optional<std::string> name() const override;
    bt::Uuid identifier() const override { return identifier_; }
    bt::PeripheralState state() const override;
    std::optional<int> rssi() const override;
    std::vector<bt::ServicePtr> services() const override;
    void setDelegate(std::weak_ptr<bt::PeripheralDelegate> delegate) override;
    std::shared_ptr<bt::PeripheralDelegate> delegate() const override;

    void discoverServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs) override;
    void discoverCharacteristics(const std::optional<std::vector<bt::Uuid>>& characteristicUUIDs,
                                 const bt::ServicePtr& service) override;
    void readValueForCharacteristic(const bt::CharacteristicPtr& characteristic) override;
    void writeValue(const bt::Bytes& data, const bt::CharacteristicPtr& characteristic,
                    bt::WriteType type) override;
    void setNotifyValue(bool enabled, const bt::CharacteristicPtr& characteristic) override;
    void readRSSI() override;

    // What the central's retrieval reads (any thread).
    bool knownToSystem() const;
    bool connectedToSystem() const;
    std::vector<bt::Uuid> advertisedServices() const;

    // --- the central (event loop) -------------------------------------------
    const std::string& devicePath() const { return devicePath_; }
    // The Device1 object appeared, or its properties changed (`change` holds
    // what changed, `device` the whole current state).
    void deviceUpdated(const std::string& path, const BluezProperties& device, const BluezProperties& change);
    // The Device1 object is gone: a link it had is lost.
    void deviceRemoved();
    void gattObjectAdded();
    void valueChanged(const std::string& characteristicPath, const std::vector<std::uint8_t>& value);
    void recordRssi(int rssi);

    void connect();
    void cancelConnection();
    // The radio or bluetoothd went away: links end (reported with `error` when
    // `report`), attempts end silently, calls in flight are forgotten.
    void linkGone(bool report, const ErrorPtr& error);
    // The central is going away: everything ends silently. Returns whether
    // bluetoothd still has a link or attempt of ours to end.
    bool shutdown();

private:
    using Done = RequestQueue::Done;

    std::shared_ptr<BluezPeripheral> self();
    std::shared_ptr<CentralCore> core() const;
    void setState(bt::PeripheralState state);
    void withDelegate(const std::function<void(bt::PeripheralDelegate&)>& call);
    void diagnose(const std::string& text) const;

    // Link.
    void sendConnect();
    void connectAnswered(std::uint64_t call, std::uint32_t attempt, const std::optional<BusError>& error);
    void retryConnect(std::uint32_t attempt);
    void linkUp();
    void failConnect(const ErrorPtr& error);
    void linkDown();  // state Disconnected, GATT objects and requests of the link dropped
    void sendDisconnect();
    // Tells the central's delegate the link is down (error null: asked for).
    void reportDisconnect(const ErrorPtr& error);
    // Cancels `timer` if it is pending and clears it.
    void cancelTimer(dispatch::PollLoop::TimerId& timer);

    // Requests: posted from the host, queued on the loop.
    void post(std::function<void(BluezPeripheral&)> work);
    std::shared_ptr<BluezCharacteristic> ownCharacteristic(const bt::CharacteristicPtr& characteristic) const;
    std::shared_ptr<BluezCharacteristic> characteristicAt(const std::string& path) const;

    void startDiscovery(const std::optional<std::vector<bt::Uuid>>& filter, Done done);
    void checkDiscovery();
    void finishDiscovery(const ErrorPtr& error);
    void buildCharacteristics(const std::optional<std::vector<bt::Uuid>>& filter,
                              const std::shared_ptr<BluezService>& service);
    void startRead(const std::shared_ptr<BluezCharacteristic>& characteristic, Done done);
    void startWrite(const std::shared_ptr<BluezCharacteristic>& characteristic, const bt::Bytes& data,
                    bt::WriteType type, Done done);
    void startNotify(const std::shared_ptr<BluezCharacteristic>& characteristic, bool enabled, Done done);
    void subscribeByProperty(const std::shared_ptr<BluezCharacteristic>& characteristic, Done done);
    void subscribed(const std::shared_ptr<BluezCharacteristic>& characteristic, const ErrorPtr& error);
    void socketReadable(const std::shared_ptr<BluezCharacteristic>& characteristic);
    void closeSocket(BluezCharacteristic& characteristic);
    void deliverValue(const std::shared_ptr<BluezCharacteristic>& characteristic, bt::Bytes value,
                      const ErrorPtr& error);

    const std::weak_ptr<CentralCore> core_;
    const bt::Uuid identifier_;

    // Guarded by mutex_: what host threads read.
    mutable std::mutex mutex_;
    bt::PeripheralState state_ = bt::PeripheralState::Disconnected;
    std::optional<std::string> name_;
    std::optional<int> rssi_;
    std::vector<std::shared_ptr<BluezService>> services_;
    std::weak_ptr<bt::PeripheralDelegate> delegate_;
    bool known_ = false;
    bool systemConnected_ = false;
    std::vector<bt::Uuid> advertised_;

    // The event loop's own.
    std::string devicePath_;
    std::uint32_t link_ = 0;     // bumped when a link comes up and when it goes down
    std::uint32_t attempt_ = 0;  // bumped by every connect, cancel and failure
    bool connectInFlight_ = false;
    std::uint64_t connectCall_ = 0;  // which Connect call is in flight
    int busyAnswers_ = 0;            // InProgress answers to this attempt
    dispatch::PollLoop::TimerId retryTimer_ = 0;

    RequestQueue requests_;  // emptied when the link drops

    bool discovering_ = false;
    std::optional<std::vector<bt::Uuid>> discoveryFilter_;
    Done discoveryDone_;
    dispatch::PollLoop::TimerId discoveryTimer_ = 0;
    dispatch::PollLoop::TimerId settleTimer_ = 0;
};

}  // namespace plenk::bluez
