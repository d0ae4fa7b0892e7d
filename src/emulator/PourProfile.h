#pragma once

#include <vector>

namespace plenk::emulator {

// The shape of one espresso shot as the cup's weight over time.
struct ShotParameters {
    double finalGrams = 36.0;         // in the cup once the tail has settled
    double pumpSeconds = 30.0;        // from the start of the shot until the pump stops
    double wetSeconds = 2.5;          // puck saturates: nothing reaches the cup yet
    double preinfusionSeconds = 7.0;  // end of the slow pre-infusion drip
    double rampSeconds = 3.0;         // pre-infusion drip to full flow
    double taperSeconds = 6.0;        // flow fades before the pump stops
    double preinfusionFlow = 0.2;     // drip rate relative to full flow
    double tailGrams = 0.6;           // drips after the pump stops
    double tailSeconds = 1.2;         // time constant of the drips
};

// Cumulative cup weight of a shot: zero before the first drop, a slow
// pre-infusion, a steady main flow, a taper, then drips that settle
// exponentially onto finalGrams. Monotone non-decreasing. The main flow is
// integrated once on a 10 ms grid at construction; lookups interpolate.
class PourProfile {
public:
    explicit PourProfile(ShotParameters parameters = {});

    // Grams in the cup `seconds` after the shot started (0 for negative times).
    double massAt(double seconds) const noexcept;
    // Flow in g/s at that time (numerical derivative, for tests and displays).
    double flowAt(double seconds) const noexcept;
    // When the tail is within 0.01 g of its end.
    double settledAfterSeconds() const noexcept;
    const ShotParameters& parameters() const noexcept { return parameters_; }

private:
    static constexpr double kStep = 0.01;

    ShotParameters parameters_;
    std::vector<double> pumped_;  // grams at i * kStep until the pump stops
};

}  // namespace plenk::emulator
