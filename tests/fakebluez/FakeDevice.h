#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "BusConnection.h"
#include "FakeBluez.h"
#include "ObjectTree.h"
#include "dispatch/PollLoop.h"
#include "emulator/ScaleEmulator.h"

// One remote device as bluetoothd shows it: org.bluez.Device1 with its link
// (Connect before ServicesResolved, the disconnect order, link loss), and its
// GATT client objects (GattService1, GattCharacteristic1: reads, serialised
// writes, StartNotify sessions per client, AcquireNotify sockets). The scale
// behind it is the firmware emulator. Loop thread only.
namespace plenk::fakebluez {

// The emulator's time: the steady clock it shares with the fake's timers.
inline Clock::TimePoint emulatorNow() {
    return std::chrono::time_point_cast<Clock::Duration>(std::chrono::steady_clock::now());
}

// What devices share with the daemon around them.
struct DeviceContext {
    dispatch::PollLoop& loop;
    ObjectTree& tree;
    const Timings& timings;
    FakeBluez::EmissionObserver* observer;
    std::function<bool(const std::string& adapterPath)> adapterPowered;
};

class FakeDevice {
public:
    FakeDevice(DeviceContext& context, std::string adapterPath, ScaleSetup setup);
    ~FakeDevice();
    FakeDevice(const FakeDevice&) = delete;
    FakeDevice& operator=(const FakeDevice&) = delete;

    const std::string& path() const { return path_; }
    const std::string& address() const { return setup_.address; }
    const std::string& adapterPath() const { return adapterPath_; }
    bool exported() const { return context_.tree.has(path_); }
    bool connected() const { return link_ == Link::Connected; }
    // Forgotten after a scan, unlike a device connected once or cached.
    bool temporary() const { return temporary_; }
    bool advertising() const;
    std::vector<bt::Uuid> advertisedServices() const { return scale_.advertisedServices(); }
    std::int16_t rssi() const { return setup_.rssi; }
    emulator::ScaleEmulator& scale() { return scale_; }

    // --- discovery (the adapter's scan) ---------------------------------------
    // An advertisement was received: export the device or update it.
    // `everyReport` emits RSSI on each advertisement (a filtered scan).
    void advertisementSeen(bool everyReport);
    // The scan ended: RSSI becomes unknown again.
    void scanEnded();
    // Exports Device1 (after a restart or at start for known devices).
    void exportKnown();

    // --- D-Bus ------------------------------------------------------------------
    // Handles a call on the device or one of its GATT objects.
    void handleCall(const CallPtr& call);
    // A client left the bus: its notification sessions end.
    void clientGone(const std::string& client);
    // Removes every object of the device (a temporary device forgotten after
    // a scan); the link drops first.
    void remove();

    // --- hooks ------------------------------------------------------------------
    void failConnect(const std::string& text) { connectFaults_.push_back({text, std::nullopt}); }
    void hangConnect(Duration after, const std::string& text) { connectFaults_.push_back({text, after}); }
    void clearConnectFaults() { connectFaults_.clear(); }
    void setResolveMode(ResolveMode mode) { resolveMode_ = mode; }
    void removeCharacteristic(const bt::Uuid& service, const bt::Uuid& characteristic) {
        removedCharacteristics_.insert({service, characteristic});
    }
    // 0 clears the fault.
    void failWrites(const bt::Uuid& characteristic, std::uint8_t attError) {
        if (attError == 0) writeErrors_.erase(characteristic);
        if (attError != 0) writeErrors_[characteristic] = attError;
    }
    void linkLost();  // the peer left, went out of range, or the adapter stopped
    void setInRange(bool inRange);
    // `index` numbers the emission for the observer (default: a running count).
    void notify(const bt::Uuid& characteristic, const bt::Bytes& value,
                std::optional<std::uint64_t> index = {});
    // bluetoothd went away: forget links, sessions and objects without signals.
    void daemonStopped();

    const std::vector<GattWrite>& writes() const { return writes_; }

private:
    enum class Link { Disconnected, Connecting, Connected, Disconnecting };

    struct NotifySession {
        bool registered = false;  // subscribed on the peer (false between reconnects)
    };

    struct Characteristic {
        std::string path;
        bt::Uuid uuid;
        std::uint32_t properties = 0;
        std::map<std::string, NotifySession> sessions;  // StartNotify, by client
        CallPtr pendingWrite;                           // one write request at a time
        std::vector<CallPtr> pendingReads;
        // AcquireNotify: the client and our end of its socket (-1: none).
        std::string acquiredBy;
        int notifyFd = -1;
        CallPtr pendingAcquire;
    };

    struct ConnectFault {
        std::string text;
        std::optional<Duration> hangFor;
    };

    Interfaces deviceInterfaces(bool withRssi) const;
    std::vector<std::string> uuidStrings() const;
    Characteristic* findCharacteristic(const std::string& path);
    Characteristic* findCharacteristic(const bt::Uuid& uuid);
    // Runs `task` later unless the device is gone by then.
    dispatch::PollLoop::TimerId after(Duration delay, std::function<void()> task);
    dispatch::PollLoop::TimerId at(dispatch::PollLoop::TimePoint when, std::function<void()> task);

    // Device1
    void connect(const CallPtr& call);
    void disconnect(const CallPtr& call);
    bool connectable() const;
    void startLink();
    void linkUp();
    void resolveServices();
    void servicesReady();
    // Ends a link or a connect attempt; `disconnectCall` is answered between
    // ServicesResolved=false and Connected=false.
    void linkDown(const CallPtr& disconnectCall, const std::string& connectError);
    void failPendingConnect(const std::string& text);
    void cancelTimer(dispatch::PollLoop::TimerId& timer);
    void closeNotifySockets();

    // GATT objects
    void exportGatt();
    void unexportGatt();
    void handleCharacteristicCall(Characteristic& characteristic, const CallPtr& call);
    void readValue(Characteristic& characteristic, const CallPtr& call);
    void writeValue(Characteristic& characteristic, const CallPtr& call);
    void startNotify(Characteristic& characteristic, const CallPtr& call);
    void stopNotify(Characteristic& characteristic, const CallPtr& call);
    void acquireNotify(Characteristic& characteristic, const CallPtr& call);
    void completeAcquire(const std::string& path);
    void releaseAcquired(Characteristic& characteristic);
    void failPending(Characteristic& characteristic);
    bool notifying(const Characteristic& characteristic) const;
    emulator::ScaleEmulator::Effect deliverWrite(const bt::Uuid& characteristic,
                                                 const std::vector<std::uint8_t>& value);
    void registerSessions();
    void updateNotifying(Characteristic& characteristic);
    bool hasListeners(const Characteristic& characteristic) const;
    void applyEffect(emulator::ScaleEmulator::Effect effect);

    // Weight stream
    bool streamNeeded() const;
    void updateStream();
    void streamTick();

    DeviceContext& context_;
    const std::string adapterPath_;
    const std::string path_;
    ScaleSetup setup_;
    emulator::ScaleEmulator scale_;
    bool temporary_ = true;

    Link link_ = Link::Disconnected;
    bool servicesResolved_ = false;
    CallPtr pendingConnect_;
    bool waiting_ = false;  // Connect() waits for the device to advertise
    std::vector<CallPtr> pendingDisconnects_;
    dispatch::PollLoop::TimerId connectTimer_ = 0;
    dispatch::PollLoop::TimerId timeoutTimer_ = 0;
    dispatch::PollLoop::TimerId resolveTimer_ = 0;
    dispatch::PollLoop::TimerId disconnectTimer_ = 0;
    std::deque<ConnectFault> connectFaults_;
    ResolveMode resolveMode_ = ResolveMode::Normal;

    std::set<std::pair<bt::Uuid, bt::Uuid>> removedCharacteristics_;
    std::map<bt::Uuid, std::uint8_t> writeErrors_;
    std::string exportedTable_;  // what the exported objects show, to tell a changed table
    std::vector<std::string> servicePaths_;
    std::vector<bt::Uuid> serviceUuids_;
    std::vector<Characteristic> characteristics_;
    std::vector<GattWrite> writes_;

    dispatch::PollLoop::TimerId streamTimer_ = 0;
    dispatch::PollLoop::TimePoint nextSample_{};
    std::uint64_t sequence_ = 0;
    std::uint64_t emissions_ = 0;

    // Invalidates timer callbacks of a destroyed device.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace plenk::fakebluez
