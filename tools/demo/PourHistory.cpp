#include "PourHistory.h"

#include <cmath>

namespace plenk::demo {

namespace {
double seconds(PourHistory::Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}
}  // namespace

void PourHistory::add(TimePoint time, double grams) {
    double flow = 0;
    if (!points_.empty()) {
        const Point& last = points_.back();
        if (time < last.time) time = last.time;
        if (time - last.time > kGap) {
            points_.push_back({time, grams, 0});
            trim(time);
            return;
        }
        points_.push_back({time, grams, last.flow});
        // Exponential easing over the time since the previous reading, so the
        // response does not depend on the scale's notification rate.
        const double alpha = 1.0 - std::exp(-seconds(time - last.time) / seconds(kEasing));
        flow = last.flow + alpha * (slopeOverWindow(time) - last.flow);
        points_.back().flow = flow;
    } else {
        points_.push_back({time, grams, flow});
    }
    trim(time);
}

// Least-squares slope of the readings of the last window, this run only.
double PourHistory::slopeOverWindow(TimePoint end) const {
    double n = 0, sumT = 0, sumG = 0, sumTT = 0, sumTG = 0;
    TimePoint previous = end;
    for (auto it = points_.rbegin(); it != points_.rend(); ++it) {
        if (end - it->time > kSlopeWindow || previous - it->time > kGap) break;
        previous = it->time;
        const double t = seconds(it->time - end);
        n += 1;
        sumT += t;
        sumG += it->grams;
        sumTT += t * t;
        sumTG += t * it->grams;
    }
    const double denominator = n * sumTT - sumT * sumT;
    if (n < 2 || denominator <= 1e-12) return 0;
    return (n * sumTG - sumT * sumG) / denominator;
}

void PourHistory::trim(TimePoint now) {
    while (!points_.empty() && now - points_.front().time > kSpan) points_.pop_front();
}

void PourHistory::clear() {
    points_.clear();
}

std::optional<PourHistory::Point> PourHistory::latest() const {
    if (points_.empty()) return std::nullopt;
    return points_.back();
}

}  // namespace plenk::demo
