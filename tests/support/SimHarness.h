#pragma once

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

#include "backends/sim/SimBackend.h"
#include "backends/sim/World.h"
#include "emulator/ScaleEmulator.h"

namespace plenk::test {

// A LogSink that keeps every text it is given, in order. Thread-safe.
class CapturingLogSink final : public LogSink {
public:
    void write(std::string_view text) override;
    std::vector<std::string> lines() const;
    // How many lines contain `fragment`.
    std::size_t count(std::string_view fragment) const;
    bool contains(std::string_view fragment) const { return count(fragment) > 0; }
    void clear();

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

// A deterministic world for behaviour tests above the Bluetooth port:
//
//   test::SimHarness h;
//   auto scale = h.addScale();                       // "Plenk Scale", binary weights
//   auto kit = RKRostaKit::make(h.context);          // whatever the layer under test is
//   h.settle();                                      // power-on, scan, connect, discovery...
//   scale->setStreaming(true);
//   h.advance(std::chrono::seconds(2));              // 20 weight samples at 10 Hz
//
// Time is a VirtualClock: it moves only in advance(). The main queue is a
// RunLoop on that clock, run by settle() on the test's thread; the centrals'
// "Corebluetooth" queues are real threads that settle() drains. Events reach
// the layer under test exactly as in production (on the central's queue,
// then posted to the main queue), only faster and in a fixed order.
class TrackingClock;

class SimHarness {
public:
    explicit SimHarness(SimHarnessOptions options = {});
    // Drops the timers still pending (a pending timer that holds its owner,
    // like the kit's watchdog, would otherwise keep a reference cycle alive)
    // and settles, so nothing outlives the harness.
    ~SimHarness();
    SimHarness(const SimHarness&) = delete;
    SimHarness& operator=(const SimHarness&) = delete;

    // Time for everything in the harness. The Context, the main loop and the
    // world see it through a thin wrapper that lets the harness drop pending
    // timers at teardown; advance it here.
    std::shared_ptr<VirtualClock> clock;
    std::shared_ptr<RunLoop> mainLoop;  // the Context's main queue
    std::shared_ptr<sim::World> world;
    std::shared_ptr<sim::SimBackend> backend;
    std::shared_ptr<NotificationCenter> notifications;  // a fresh centre, not the default one
    std::shared_ptr<CapturingLogSink> log;              // the library's diagnostic lines
    std::shared_ptr<CapturingLogSink> simLog;           // the simulator's own lines ("[sim] ...")
    Context context;                                    // {mainLoop, notifications, log, clock, backend}

    // Repeats { drain every central queue; run the main loop until idle }
    // until nothing is pending anywhere. Does not move time. Fails the
    // current test (and returns) if still busy after `maxRounds` rounds.
    void settle(std::size_t maxRounds = 10000);
    // Moves virtual time forward by `duration`: stops at every timer deadline
    // on the way, fires what is due and settles, so delayed results and weight
    // samples arrive in time order.
    void advance(Clock::Duration duration);

    // A scale with this name and weight format (binary for "Plenk" names, text
    // for "Coffee" names is what clients expect), streaming per the options.
    std::shared_ptr<sim::VirtualPeripheral> addScale(
        std::string name = "Plenk Scale", emulator::WeightFormat format = emulator::WeightFormat::Binary);

private:
    std::shared_ptr<TrackingClock> tracking_;
};

}  // namespace plenk::test
