#pragma once

#include <memory>

#include <PlenkKit/Simulator.h>

#include "backends/sim/SimBackend.h"
#include "backends/sim/World.h"

namespace plenk::sim {

// The library's own tests reach below the public simulator: the world and the
// devices behind its handles, and world options a host has no use for.
struct SimulatorAccess {
    // A simulator whose world starts with `world` (timings, streaming default,
    // power-off rule, the simulator's own log); the latencies of `options` are
    // not used.
    static std::unique_ptr<Simulator> make(Simulator::Options options, World::Options world);
    static const std::shared_ptr<World>& world(const Simulator& simulator);
    static const std::shared_ptr<SimBackend>& backend(const Simulator& simulator);
    // Null on real time.
    static const std::shared_ptr<VirtualClock>& virtualClock(const Simulator& simulator);
    static const std::shared_ptr<VirtualPeripheral>& device(const Simulator::Scale& scale) {
        return scale.device_;
    }
};

}  // namespace plenk::sim
