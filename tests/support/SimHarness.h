#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Context.h>
#include <PlenkKit/LogSink.h>
#include <PlenkKit/NotificationCenter.h>
#include <PlenkKit/RunLoop.h>
#include <PlenkKit/Simulator.h>

#include "backends/sim/SimBackend.h"
#include "backends/sim/SimulatorAccess.h"
#include "backends/sim/World.h"
#include "emulator/ScaleEmulator.h"

namespace plenk::test {

// A LogSink that keeps every text it is given, in order. Thread-safe.
class CapturingLogSink final : public LogSink {
public:
    void write(std::string_view text) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(text);
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    // How many lines contain `fragment`.
    std::size_t count(std::string_view fragment) const {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(
            std::count_if(lines_.begin(), lines_.end(),
                          [&](const std::string& line) { return line.find(fragment) != std::string::npos; }));
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

struct SimHarnessOptions {
    // Zero latencies: results are posted at once, so settle() alone delivers
    // them. The advertising interval is zero as well (no repeated
    // advertisements); set one to test scans that allow duplicates.
    sim::Timings timings = sim::Timings::zero();
    // Scales do not stream weights unless told to (VirtualPeripheral::setStreaming).
    bool streaming = false;
    // The radio state at start; nullopt = the platform has reported nothing yet.
    std::optional<bt::ManagerState> radio = bt::ManagerState::PoweredOn;
    bool disconnectOnPowerOff = true;
};

// A deterministic world for behaviour tests above the Bluetooth port: the
// public plenk::Simulator on virtual time, opened up to the world and devices
// behind it.
//
//   test::SimHarness h;
//   auto scale = h.addScale();                       // "Plenk Scale", binary weights
//   auto kit = RKRostaKit::make(h.context);          // whatever the layer under test is
//   h.settle();                                      // power-on, scan, connect, discovery...
//   scale->setStreaming(true);
//   h.advance(std::chrono::seconds(2));              // 20 weight samples at 10 Hz
//
// Time moves only in advance(). The main queue is the simulator's RunLoop, run
// by settle() on the test's thread; the centrals' "Corebluetooth" queues are
// real threads that settle() drains. Events reach the layer under test exactly
// as in production (on the central's queue, then posted to the main queue),
// only faster and in a fixed order. At teardown the simulator drops the timers
// still pending, so nothing outlives the harness.
class SimHarness {
public:
    explicit SimHarness(SimHarnessOptions options = {});
    SimHarness(const SimHarness&) = delete;
    SimHarness& operator=(const SimHarness&) = delete;

    std::shared_ptr<NotificationCenter> notifications;  // the simulator's own centre, not the default one
    std::shared_ptr<CapturingLogSink> log;              // the library's diagnostic lines
    std::shared_ptr<CapturingLogSink> simLog;           // the simulator's own lines ("[sim] ...")
    std::unique_ptr<Simulator> simulator;
    // The simulator's time, world and backend. Advance time through advance().
    std::shared_ptr<VirtualClock> clock;
    std::shared_ptr<RunLoop> mainLoop;  // the Context's main queue
    std::shared_ptr<sim::World> world;
    std::shared_ptr<sim::SimBackend> backend;
    Context context;  // {mainLoop, notifications, log, clock, backend}

    // Runs everything ready now (Simulator::settle); fails the current test if
    // it never becomes idle. Does not move time.
    void settle();
    // Moves virtual time forward by `duration` (Simulator::advance).
    void advance(Clock::Duration duration);

    // A scale with this name and weight format (binary for "Plenk" names, text
    // for "Coffee" names is what clients expect), streaming per the options.
    std::shared_ptr<sim::VirtualPeripheral> addScale(
        std::string name = "Plenk Scale", emulator::WeightFormat format = emulator::WeightFormat::Binary);
};

}  // namespace plenk::test
