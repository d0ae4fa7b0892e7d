#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include <PlenkKit/Clock.h>
#include <PlenkKit/LogSink.h>

#include "backends/sim/SimTypes.h"
#include "backends/sim/VirtualPeripheral.h"
#include "bt/Central.h"
#include "emulator/ScaleEmulator.h"

namespace plenk::sim {

class SimCentral;

// The simulated radio environment shared by every central of the sim backend:
// the radio state, the virtual peripherals and the timings. Thread-safe; one
// mutex guards the whole world, and it is never held while a delegate runs.
//
//   auto world = sim::World::make(clock);
//   world->setRadioState(bt::ManagerState::PoweredOn);
//   auto scale = world->addScale();                 // "Plenk Scale", binary, 10 Hz
//   scale->queueConnectResult(sim::ConnectResult::failWithCode(kPlatformConnectionTimeout));
//   auto central = sim::SimBackend(world).makeCentral(delegate, "Corebluetooth", context);
class World : public std::enable_shared_from_this<World> {
public:
    struct Options {
        Timings timings{};
        // Whether scales stream weights by default while a central listens.
        bool streamByDefault = true;
        // Leaving the powered-on state drops every link. With this set the
        // centrals hear a didDisconnect (without error) for each, as a BlueZ
        // adapter reports it; without, links vanish silently.
        bool disconnectOnPowerOff = true;
        // Diagnostics of the simulator (dropped operations); none by default.
        std::shared_ptr<LogSink> log;
    };

    static std::shared_ptr<World> make(std::shared_ptr<Clock> clock, Options options);
    static std::shared_ptr<World> make(std::shared_ptr<Clock> clock) {
        return make(std::move(clock), Options{});
    }
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    const std::shared_ptr<Clock>& clock() const { return clock_; }
    Timings timings() const;
    void setTimings(Timings timings);
    void setLog(std::shared_ptr<LogSink> log);

    // --- radio ------------------------------------------------------------------
    // None until set: centrals report nothing before the world has a state.
    // Every change is reported to every central.
    std::optional<bt::ManagerState> radioState() const;
    void setRadioState(std::optional<bt::ManagerState> state);

    // --- peripherals --------------------------------------------------------------
    std::shared_ptr<VirtualPeripheral> addPeripheral(PeripheralOptions options);
    // A scale: name, advertised services and GATT table come from the emulator
    // (options.name, advertisedServices and profile are ignored; change them
    // afterwards on the handle).
    std::shared_ptr<VirtualPeripheral> addScale(emulator::ScaleOptions scale = {},
                                                PeripheralOptions options = {});
    // Gone for good: links drop with a supervision timeout, pending connects never finish.
    void removePeripheral(const std::shared_ptr<VirtualPeripheral>& peripheral);
    std::vector<std::shared_ptr<VirtualPeripheral>> peripherals() const;
    std::shared_ptr<VirtualPeripheral> find(const bt::Uuid& identifier) const;
    std::shared_ptr<VirtualPeripheral> findByName(std::string_view name) const;

    // --- centrals (for test harnesses) --------------------------------------------
    std::size_t centralCount() const;
    // Blocks until every central's queue has run the tasks posted before the call.
    void drainQueues();
    bool queuesIdle() const;

private:
    friend class SimCentral;
    friend class SimPeripheral;
    friend class SimService;
    friend class SimCharacteristic;
    friend class VirtualPeripheral;

    struct Token {};

public:
    World(Token, std::shared_ptr<Clock> clock, Options options);

private:
    bool poweredOnLocked() const { return radio_ == bt::ManagerState::PoweredOn; }
    // Runs the repeat timer while a scan that allows duplicates is running.
    void updateAdvertisingTimerLocked();
    void advertisingTick(std::uint64_t generation);
    // Writes a diagnostic line (outside the lock).
    void diagnose(std::string_view text) const;

    mutable std::mutex mutex_;
    const std::shared_ptr<Clock> clock_;
    Options options_;
    std::optional<bt::ManagerState> radio_;
    std::vector<std::shared_ptr<VirtualPeripheral>> peripherals_;
    // Registered by each central's constructor, removed by its destructor, both under the lock.
    std::vector<SimCentral*> centrals_;
    Clock::TimerId advertisingTimer_ = 0;
    std::uint64_t advertisingGeneration_ = 0;  // tells a stale tick from the current one
};

}  // namespace plenk::sim
