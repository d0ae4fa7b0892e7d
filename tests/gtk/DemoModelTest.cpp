// The demo window's pour history: what it keeps and the flow it smooths.
#include <gtest/gtest.h>

#include <algorithm>

#include "PourHistory.h"

namespace plenk::demo {
namespace {

using namespace std::chrono_literals;
using TimePoint = PourHistory::TimePoint;

constexpr TimePoint kStart{std::chrono::hours(1)};

// Readings every `period` from `from` for `duration`, of grams(t in seconds),
// with the scale's noise of a few hundredths of a gram alternating around it.
template <typename Grams>
TimePoint feed(PourHistory& history, TimePoint from, std::chrono::milliseconds duration,
               std::chrono::milliseconds period, Grams grams) {
    int i = 0;
    TimePoint t = from;
    for (; t < from + duration; t += period, ++i) {
        history.add(t, grams(std::chrono::duration<double>(t - from).count()) + (i % 2 ? 0.04 : -0.04));
    }
    return t;
}

TEST(DemoPourHistory, ConstantPourRateReadsAsThatFlowAtAnyNotificationRate) {
    for (const auto period : {100ms, 20ms, 1ms}) {
        PourHistory history;
        feed(history, kStart, 5s, period, [](double s) { return 2.0 * s; });
        ASSERT_TRUE(history.latest());
        EXPECT_NEAR(history.latest()->flow, 2.0, 0.1) << "every " << period.count() << " ms";
    }
}

TEST(DemoPourHistory, AStepIsSmoothedIntoAShortRiseAndFadesOut) {
    PourHistory history;
    TimePoint t = feed(history, kStart, 3s, 100ms, [](double) { return 0.0; });
    // A 50 g cup set down: 500 g/s between two readings.
    t = feed(history, t, 4s, 100ms, [](double) { return 50.0; });
    double peak = 0;
    for (const auto& p : history.points()) peak = std::max(peak, p.flow);
    EXPECT_GT(peak, 1.0);
    EXPECT_LT(peak, 50.0);
    EXPECT_LT(std::abs(history.latest()->flow), 0.5);
}

TEST(DemoPourHistory, KeepsThirtySecondsAndRestartsTheFlowAfterAGap) {
    PourHistory history;
    TimePoint t = feed(history, kStart, 40s, 100ms, [](double s) { return s; });
    const auto kept = history.latest()->time - history.points().front().time;
    EXPECT_LE(kept, PourHistory::kSpan);
    EXPECT_GT(kept, PourHistory::kSpan - 200ms);
    EXPECT_NEAR(history.latest()->flow, 1.0, 0.1);

    // The link was gone for 5 s and the cup is fuller now: no flow from the jump.
    history.add(t + 5s, 80.0);
    EXPECT_EQ(history.latest()->flow, 0.0);
    // A reading that claims to be older than the newest is taken as made with it.
    history.add(t, 80.0);
    EXPECT_EQ(history.latest()->time, t + 5s);

    history.trim(t + 5s + PourHistory::kSpan + 1ms);
    EXPECT_TRUE(history.points().empty());
}

}  // namespace
}  // namespace plenk::demo
