#include "support/SimHarness.h"

#include <gtest/gtest.h>

#include <utility>

namespace plenk::test {

SimHarness::SimHarness(SimHarnessOptions options)
    : log(std::make_shared<CapturingLogSink>()), simLog(std::make_shared<CapturingLogSink>()) {
    Simulator::Options simulatorOptions;
    simulatorOptions.radio = std::nullopt;  // set on the world below: the public states are the same six
    simulatorOptions.log = log;
    sim::World::Options worldOptions;
    worldOptions.timings = options.timings;
    worldOptions.streamByDefault = options.streaming;
    worldOptions.disconnectOnPowerOff = options.disconnectOnPowerOff;
    worldOptions.log = simLog;
    simulator = sim::SimulatorAccess::make(simulatorOptions, worldOptions);
    clock = sim::SimulatorAccess::virtualClock(*simulator);
    mainLoop = simulator->mainLoop();
    world = sim::SimulatorAccess::world(*simulator);
    backend = sim::SimulatorAccess::backend(*simulator);
    world->setRadioState(options.radio);
    context = simulator->context();
    notifications = context.notifications;
}

void SimHarness::settle() {
    try {
        simulator->settle();
    } catch (const std::exception& e) {
        ADD_FAILURE() << "SimHarness::settle: " << e.what();
    }
}

void SimHarness::advance(Clock::Duration duration) {
    try {
        simulator->advance(duration);
    } catch (const std::exception& e) {
        ADD_FAILURE() << "SimHarness::advance: " << e.what();
    }
}

std::shared_ptr<sim::VirtualPeripheral> SimHarness::addScale(std::string name,
                                                             emulator::WeightFormat format) {
    Simulator::ScaleOptions scale;
    scale.name = std::move(name);
    scale.format = format == emulator::WeightFormat::Text ? Simulator::WeightFormat::Text
                                                          : Simulator::WeightFormat::Binary;
    return sim::SimulatorAccess::device(simulator->addScale(std::move(scale)));
}

}  // namespace plenk::test
