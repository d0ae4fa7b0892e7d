#pragma once

#include <memory>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Executor.h>
#include <PlenkKit/Simulator.h>

namespace plenk::demo {

// Keeps a simulated scale brewing so the demo stays alive: once a shot has
// settled, the cup is lifted off, and a few seconds later the next shot starts
// pouring. It only brews while a client is linked, as a barista would watch the
// app. Runs on the main queue; stops when its owner lets go.
class ShotLoop : public std::enable_shared_from_this<ShotLoop> {
public:
    static std::shared_ptr<ShotLoop> start(Simulator::Scale scale, const std::shared_ptr<Executor>& queue,
                                           std::shared_ptr<Clock> clock);

    struct Token {};
    ShotLoop(Token, Simulator::Scale scale, const std::shared_ptr<Executor>& queue,
             std::shared_ptr<Clock> clock);

private:
    enum class Phase { Watching, CupLifted };

    void scheduleTick();
    void tick();

    Simulator::Scale scale_;
    std::weak_ptr<Executor> queue_;
    std::shared_ptr<Clock> clock_;
    Phase phase_ = Phase::Watching;
    double lastGrams_ = 0;
    Clock::TimePoint lastChange_;
    Clock::TimePoint phaseStart_;
};

}  // namespace plenk::demo
