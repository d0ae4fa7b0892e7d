#include "ShotLoop.h"

#include <cmath>

namespace plenk::demo {

namespace {
constexpr auto kTick = std::chrono::milliseconds(500);
// A shot counts as finished once the reading has not moved for this long.
constexpr auto kSettled = std::chrono::seconds(4);
// How long the cup stays off before the next shot.
constexpr auto kBreak = std::chrono::seconds(5);
// An empty platform that stays still this long (a tare mid-shot, a fresh link
// without the automatic shot) gets a shot too.
constexpr auto kIdle = std::chrono::seconds(10);
constexpr double kShotGrams = 36.0;
constexpr double kStill = 0.05;  // grams; the scale's reading without noise
}  // namespace

std::shared_ptr<ShotLoop> ShotLoop::start(Simulator::Scale scale, const std::shared_ptr<Executor>& queue,
                                          std::shared_ptr<Clock> clock) {
    auto loop = std::make_shared<ShotLoop>(Token{}, std::move(scale), queue, std::move(clock));
    loop->scheduleTick();
    return loop;
}

ShotLoop::ShotLoop(Token, Simulator::Scale scale, const std::shared_ptr<Executor>& queue,
                   std::shared_ptr<Clock> clock)
    : scale_(std::move(scale)),
      queue_(queue),
      clock_(std::move(clock)),
      lastChange_(clock_->now()),
      phaseStart_(lastChange_) {}

void ShotLoop::scheduleTick() {
    if (const auto queue = queue_.lock()) {
        queue->postAfter(kTick, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->tick();
        });
    }
}

void ShotLoop::tick() {
    const auto now = clock_->now();
    const double grams = scale_.displayedGrams();
    if (std::abs(grams - lastGrams_) > kStill) {
        lastGrams_ = grams;
        lastChange_ = now;
    }
    const bool still = now - lastChange_ >= kSettled;
    if (!scale_.isConnected()) {
        // Nothing happens on an unwatched scale; the automatic shot of the
        // next connection takes over.
        phase_ = Phase::Watching;
    } else if (phase_ == Phase::Watching && still && grams > 1.0) {
        scale_.addLoad(-grams);  // the cup with the shot is taken away
        phase_ = Phase::CupLifted;
        phaseStart_ = now;
    } else if ((phase_ == Phase::CupLifted && now - phaseStart_ >= kBreak) ||
               (phase_ == Phase::Watching && std::abs(grams) <= 1.0 && now - lastChange_ >= kIdle)) {
        scale_.startPour(kShotGrams);
        phase_ = Phase::Watching;
        lastChange_ = now;
    }
    scheduleTick();
}

}  // namespace plenk::demo
