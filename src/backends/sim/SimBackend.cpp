#include "backends/sim/SimBackend.h"

#include <PlenkKit/Context.h>

#include "backends/sim/SimCentral.h"

namespace plenk::sim {

SimBackend::SimBackend(std::shared_ptr<World> world) : world_(std::move(world)) {}

std::shared_ptr<bt::Central> SimBackend::makeCentral(std::weak_ptr<bt::CentralDelegate> delegate,
                                                     const std::string& queueLabel,
                                                     const Context& /*context*/) {
    return SimCentral::make(world_, std::move(delegate), queueLabel);
}

std::shared_ptr<World> makeDemoWorld(std::shared_ptr<Clock> clock) {
    auto world = World::make(std::move(clock));
    world->addScale();
    world->setRadioState(bt::ManagerState::PoweredOn);
    return world;
}

std::shared_ptr<World> defaultWorld() {
    // Never destroyed: centrals made from it may be torn down at exit.
    static auto* const instance = new std::shared_ptr<World>(makeDemoWorld(Clock::steady()));
    return *instance;
}

std::shared_ptr<bt::Backend> makeBackend(const Context& context) {
    const auto steady = Clock::steady();
    auto world = !context.clock || context.clock == steady ? defaultWorld() : makeDemoWorld(context.clock);
    return std::make_shared<SimBackend>(std::move(world));
}

}  // namespace plenk::sim
