#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/sim/SimTypes.h"
#include "emulator/ScaleEmulator.h"

namespace plenk::sim {

class World;
class SimPeripheral;
class SimCentral;

// The world's scripting handle for one simulated device: its advertising,
// its GATT table, the faults it injects and, for scales, the firmware
// emulator behind the table. Every method may be called from any thread and
// returns at once; what centrals see of a change arrives later on their
// queues. Once the world is gone every method does nothing.
class VirtualPeripheral : public std::enable_shared_from_this<VirtualPeripheral> {
public:
    ~VirtualPeripheral();
    VirtualPeripheral(const VirtualPeripheral&) = delete;
    VirtualPeripheral& operator=(const VirtualPeripheral&) = delete;

    bt::Uuid identifier() const { return identifier_; }
    const std::shared_ptr<Clock>& clock() const { return clock_; }
    std::optional<std::string> name() const;
    // Renames the device; connected centrals get peripheralDidUpdateName.
    void setName(std::optional<std::string> name);

    // --- advertising and presence -------------------------------------------
    // An advertising device is reported to scans (once per scan unless they
    // allow duplicates) and accepts connections; a silent one leaves connects
    // pending until it advertises again.
    void setAdvertising(bool advertising);
    bool isAdvertising() const;  // advertising right now (not while held, unless configured so)
    void setAdvertisedServices(std::vector<bt::Uuid> services);
    void setRssi(int rssi);
    // Out of range: links drop with `linkError` (a supervision timeout by
    // default), nothing is advertised, connects wait. Back in range: as before.
    void setInRange(bool inRange, ErrorPtr linkError = platformError(kPlatformConnectionTimeout));
    void setConnectedToSystem(bool connected);
    void setKnownToSystem(bool known);

    // --- links ----------------------------------------------------------------
    // The outcome of every connect attempt (default: succeed).
    void setConnectResult(ConnectResult result);
    // The outcome of the next attempt(s), used before the default, first in first out.
    void queueConnectResult(ConnectResult result);
    // The device drops every link: centrals get didDisconnect with `error`.
    void dropLink(ErrorPtr error = nullptr);
    std::size_t linkCount() const;

    // --- GATT -------------------------------------------------------------------
    // The table the next discovery finds (changes do not touch services a
    // central already discovered).
    emulator::GattProfile profile() const;
    void setProfile(emulator::GattProfile profile);
    void removeService(const bt::Uuid& service);
    void removeCharacteristic(const bt::Uuid& service, const bt::Uuid& characteristic);
    // The value a characteristic holds, served on reads in place of what the
    // emulator or the table would give; `cached` makes it visible at discovery.
    void setCharacteristicValue(const bt::Uuid& characteristic, bt::Bytes value, bool cached = false);
    // Scripted failures, until cleared with a null error.
    void failServiceDiscovery(ErrorPtr error);
    void failCharacteristicDiscovery(const bt::Uuid& service, ErrorPtr error);
    void failReads(const bt::Uuid& characteristic, ErrorPtr error);
    void failWrites(const bt::Uuid& characteristic, ErrorPtr error);
    void failNotifyState(const bt::Uuid& characteristic, ErrorPtr error);
    // Sends a value update to every central that has notifications on for the
    // characteristic; with an error the update carries it (and no new value).
    // Callable from any thread at any rate: the weight path does not allocate.
    void notify(const bt::Uuid& characteristic, const bt::Bytes& value, const ErrorPtr& error = nullptr);
    // How many centrals currently listen to the characteristic.
    std::size_t subscriberCount(const bt::Uuid& characteristic) const;
    std::vector<WriteRecord> writes() const;
    void clearWrites();

    // --- scale ------------------------------------------------------------------
    bool hasScale() const { return hasScale_; }
    // Runs `f` on the emulator under the world's lock (f must not call into
    // the simulator). Returns false for a device without emulator.
    bool withScale(const std::function<void(emulator::ScaleEmulator&)>& f);
    // Weight streaming while someone listens on the data characteristic.
    void setStreaming(bool streaming);
    bool isStreaming() const;
    void setSampleRate(int hertz);
    void pressButton(int button);  // a notification on the control characteristic
    void setBatteryLevel(int level);
    // The scale restarts as its update target, as after the DFU command (links
    // drop, name and table change); the update target restarts as the scale.
    void restartIntoUpdateMode();
    void finishFirmwareUpdate();
    bool inUpdateMode() const;

private:
    friend class World;
    friend class SimCentral;
    friend class SimPeripheral;

    struct Token {};

public:
    VirtualPeripheral(Token, std::weak_ptr<World> world, std::shared_ptr<Clock> clock,
                      PeripheralOptions options, std::optional<emulator::ScaleOptions> scale, bool streaming);

private:
    // Runs `f(world)` under the world's lock; returns a default value once the world is gone.
    template <typename F>
    static auto withWorldLocked(const std::weak_ptr<World>& weak, F&& f);

    // Everything below is guarded by the world's mutex; *Locked methods need it held.
    bool advertisingLocked() const;
    bool connectableLocked() const;
    ConnectResult takeConnectResultLocked();
    std::optional<bt::Bytes> readValueLocked(const bt::Uuid& characteristic, Clock::TimePoint now) const;
    emulator::ScaleEmulator::Effect applyWriteLocked(const bt::Uuid& characteristic, const bt::Bytes& value,
                                                     Clock::TimePoint now);
    void attachLocked(SimPeripheral* link, Clock::TimePoint now);
    void detachLocked(SimPeripheral* link, Clock::TimePoint now);
    void dropLinksLocked(World& world, const ErrorPtr& error);
    // Tells scans and waiting connects that the device may have become visible.
    void visibilityChangedLocked(World& world);
    void notifyLocked(const bt::Uuid& characteristic, const bt::Bytes& value, const ErrorPtr& error);
    bool streamNeededLocked() const;
    void armStreamLocked();
    void updateStreamLocked();
    void streamTick(std::uint64_t generation);
    void recordWriteLocked(WriteRecord record);
    // Switch name, advertisement and table between scale and update target.
    void enterUpdateModeLocked();
    void leaveUpdateModeLocked();

    const std::weak_ptr<World> world_;
    const std::shared_ptr<Clock> clock_;
    const bt::Uuid identifier_;
    const bool hasScale_;

    std::optional<std::string> name_;
    std::optional<std::string> scaleName_;  // the name to return to after an update
    std::vector<bt::Uuid> advertisedServices_;
    int rssi_;
    bool advertising_;
    bool advertisesWhileConnected_;
    bool inRange_ = true;
    bool removed_ = false;
    bool connectedToSystem_;
    bool knownToSystem_;
    emulator::GattProfile profile_;
    emulator::GattProfile scaleProfile_;  // the table to return to after an update
    std::optional<emulator::ScaleEmulator> scale_;
    bool streaming_;
    Clock::TimerId streamTimer_ = 0;
    std::uint64_t streamGeneration_ = 0;  // tells a stale tick from the current one
    Clock::TimePoint nextSample_{};

    ConnectResult connectResult_;
    std::deque<ConnectResult> queuedConnectResults_;
    ErrorPtr serviceDiscoveryError_;
    std::map<bt::Uuid, ErrorPtr> characteristicDiscoveryErrors_;  // by service
    std::map<bt::Uuid, ErrorPtr> readErrors_;
    std::map<bt::Uuid, ErrorPtr> writeErrors_;
    std::map<bt::Uuid, ErrorPtr> notifyStateErrors_;
    std::vector<WriteRecord> writes_;
    std::map<bt::Uuid, bt::Bytes> values_;  // set by scripts or written to a plain device

    // Centrals' peripheral objects linked to this device, and those whose
    // connect waits for it to become connectable. Raw pointers: an object is
    // removed from both under the lock before it can go away.
    std::vector<SimPeripheral*> links_;
    std::vector<SimPeripheral*> waiting_;
};

}  // namespace plenk::sim
