#pragma once

#include <chrono>
#include <deque>
#include <optional>

namespace plenk::demo {

// The last 30 seconds of a scale's readings with the flow into the cup, in
// grams per second. The flow is the slope of the readings over the last second
// (a least-squares line, so sensor noise averages out), then eased towards that
// slope with a time constant: a cup set down reads as a short rise, not a spike.
class PourHistory {
public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;

    struct Point {
        TimePoint time;
        double grams = 0;
        double flow = 0;  // g/s, smoothed
    };

    static constexpr Clock::duration kSpan = std::chrono::seconds(30);
    static constexpr Clock::duration kSlopeWindow = std::chrono::seconds(1);
    static constexpr Clock::duration kEasing = std::chrono::milliseconds(600);
    // Readings further apart than this are separate runs: the flow restarts at
    // zero and the plot leaves a gap.
    static constexpr Clock::duration kGap = std::chrono::seconds(2);

    // A reading taken at `time`; one older than the newest is taken as made at
    // the newest's time. Drops what falls out of the span.
    void add(TimePoint time, double grams);
    // Drops readings older than the span before `now` (time passes without
    // readings while no scale is linked).
    void trim(TimePoint now);
    void clear();

    const std::deque<Point>& points() const { return points_; }
    std::optional<Point> latest() const;

private:
    double slopeOverWindow(TimePoint end) const;

    std::deque<Point> points_;
};

}  // namespace plenk::demo
