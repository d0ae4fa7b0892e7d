#pragma once

#include <memory>
#include <string>

#include "backends/sim/World.h"
#include "bt/Backend.h"

namespace plenk::sim {

// The simulated Bluetooth stack: every central it makes lives in its world.
class SimBackend final : public bt::Backend {
public:
    explicit SimBackend(std::shared_ptr<World> world);

    std::string name() const override { return "sim"; }
    // The central's queue runs on the world's clock (the Context's clock is
    // the one the world was made with).
    std::shared_ptr<bt::Central> makeCentral(std::weak_ptr<bt::CentralDelegate> delegate,
                                             const std::string& queueLabel, const Context& context) override;

    const std::shared_ptr<World>& world() const { return world_; }

private:
    std::shared_ptr<World> world_;
};

// A world as a demo starts out: the radio powered on and one emulated scale
// named "Plenk Scale" (binary weights at 10 Hz, streaming while listened to).
std::shared_ptr<World> makeDemoWorld(std::shared_ptr<Clock> clock);

// The process-wide demo world on the steady clock, made on first use. The
// registered "sim" backend uses it for every Context on the steady clock, and a
// fresh demo world for any other clock.
std::shared_ptr<World> defaultWorld();

// The backend the name "sim" stands for: on the steady clock (or none) the
// process-wide demo world, on any other clock a fresh demo world.
std::shared_ptr<bt::Backend> makeBackend(const Context& context);

}  // namespace plenk::sim
