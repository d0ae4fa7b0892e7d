#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Advertisement.h"
#include "EventLog.h"
#include "GattApplication.h"
#include "PeripheralBus.h"
#include "dispatch/PollLoop.h"
#include "emulator/ScaleEmulator.h"

namespace plenk::emulator_tool {

// The scale emulator served as a real BLE peripheral on one BlueZ adapter:
// the adapter's name is set to the scale's, its GATT table is registered as
// an application and its advertisement as a connectable one. Commands written
// by a central reach the emulator; its weight stream goes out as notifications
// while the central subscribes. A firmware disconnect drops the link; an
// update restart re-registers everything as the update target, which becomes
// the scale again once its central disconnects. Lives on the loop.
class PeripheralScale {
public:
    // How the run ended: 0 stopped, 3 Bluetooth unusable (no adapter, no
    // bluetoothd, registration refused), 1 the bus connection failed.
    using Finished = std::function<void(int status, const std::string& why)>;

    // `readvertiseEvery` > 0 announces the advertisement anew at that period
    // while no central is connected: a virtual controller (btvirt) reports an
    // advertisement only when it is switched on, so a scan started later
    // would otherwise never see it. A real controller repeats it by itself.
    PeripheralScale(dispatch::PollLoop& loop, std::string adapterPath, emulator::ScaleOptions options,
                    std::chrono::milliseconds readvertiseEvery, EventLog& log, Finished finished);
    ~PeripheralScale();
    PeripheralScale(const PeripheralScale&) = delete;
    PeripheralScale& operator=(const PeripheralScale&) = delete;

    // Powers the adapter, names it, registers the table and the advertisement.
    void start();

    // What the console can do to the scale, as its owner would.
    void pressButton(int button);
    void startPour(std::optional<double> grams);
    void addLoad(double grams);
    void setBatteryLevel(int percent);
    void dropLink();

private:
    Clock::TimePoint now() const;
    void publish();
    void unpublish();
    void registered(const char* what, const sdbus::Error* error);
    std::shared_ptr<Advertisement> makeAdvertisement();
    void scheduleReadvertise();
    void readvertise();
    void linkChanged(const std::string& devicePath, bool connected);
    std::optional<bt::Bytes> read(const bt::Uuid& characteristic);
    bool write(const bt::Uuid& characteristic, const std::vector<std::uint8_t>& value);
    void subscription(const bt::Uuid& characteristic, bool on);
    void apply(emulator::ScaleEmulator::Effect effect);
    void scheduleSample();
    void sendSample();
    void stopStream();
    void fail(int status, const std::string& why);

    dispatch::PollLoop& loop_;
    std::string adapterPath_;
    EventLog& log_;
    Finished finished_;
    std::shared_ptr<Clock> clock_;
    emulator::ScaleEmulator scale_;
    std::unique_ptr<PeripheralBus> bus_;
    std::unique_ptr<GattApplication> application_;
    std::shared_ptr<Advertisement> advertisement_;
    unsigned generation_ = 0;      // a fresh object path for every registration
    unsigned advertisements_ = 0;  // and for every advertisement of it
    std::chrono::milliseconds readvertiseEvery_;
    bool readvertising_ = false;
    int pendingRegistrations_ = 0;
    std::string central_;                 // the connected central's Device1 path, "" when none
    bool centralOfUpdateTarget_ = false;  // the link began after an update restart
    std::optional<dispatch::PollLoop::TimerId> sampleTimer_;
    Clock::TimePoint nextSample_{};
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace plenk::emulator_tool
