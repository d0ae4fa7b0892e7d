#include "emulator/PourProfile.h"

#include <algorithm>
#include <cmath>

namespace plenk::emulator {

namespace {

double smoothstep(double x) noexcept {
    x = std::clamp(x, 0.0, 1.0);
    return x * x * (3.0 - 2.0 * x);
}

double finiteOr(double value, double fallback) noexcept {
    return std::isfinite(value) ? value : fallback;
}

// Out-of-range parameters are pulled into a consistent shot rather than rejected.
ShotParameters sanitized(ShotParameters p) noexcept {
    const ShotParameters d;
    p.finalGrams = std::clamp(finiteOr(p.finalGrams, d.finalGrams), 0.0, 5000.0);
    p.pumpSeconds = std::clamp(finiteOr(p.pumpSeconds, d.pumpSeconds), 1.0, 600.0);
    p.wetSeconds = std::clamp(finiteOr(p.wetSeconds, d.wetSeconds), 0.0, p.pumpSeconds);
    p.preinfusionSeconds =
        std::clamp(finiteOr(p.preinfusionSeconds, d.preinfusionSeconds), p.wetSeconds, p.pumpSeconds);
    p.rampSeconds =
        std::clamp(finiteOr(p.rampSeconds, d.rampSeconds), 0.0, p.pumpSeconds - p.preinfusionSeconds);
    p.taperSeconds = std::clamp(finiteOr(p.taperSeconds, d.taperSeconds), 0.0,
                                p.pumpSeconds - p.preinfusionSeconds - p.rampSeconds);
    p.preinfusionFlow = std::clamp(finiteOr(p.preinfusionFlow, d.preinfusionFlow), 0.0, 1.0);
    p.tailGrams = std::clamp(finiteOr(p.tailGrams, d.tailGrams), 0.0, p.finalGrams);
    p.tailSeconds = std::clamp(finiteOr(p.tailSeconds, d.tailSeconds), 0.01, 60.0);
    return p;
}

// Relative pump flow (full flow = 1) at t seconds into the shot.
double relativeFlow(const ShotParameters& p, double t) noexcept {
    const double rampEnd = p.preinfusionSeconds + p.rampSeconds;
    const double taperStart = p.pumpSeconds - p.taperSeconds;
    const double steadyLength = std::max(taperStart - rampEnd, 1e-9);
    // The puck erodes during the main flow, so it speeds up slightly.
    const auto steady = [&](double at) {
        return 1.0 + 0.1 * std::clamp((at - rampEnd) / steadyLength, 0.0, 1.0);
    };
    if (t < p.wetSeconds || t >= p.pumpSeconds) return 0.0;
    if (t < p.preinfusionSeconds) {
        const double dripRamp = std::min(1.0, p.preinfusionSeconds - p.wetSeconds);
        return p.preinfusionFlow * smoothstep((t - p.wetSeconds) / std::max(dripRamp, 1e-9));
    }
    if (t < rampEnd) {
        return p.preinfusionFlow +
               (1.0 - p.preinfusionFlow) * smoothstep((t - p.preinfusionSeconds) / p.rampSeconds);
    }
    if (t < taperStart) return steady(t);
    return steady(taperStart) * (1.0 - smoothstep((t - taperStart) / std::max(p.taperSeconds, 1e-9)));
}

}  // namespace

PourProfile::PourProfile(ShotParameters parameters) : parameters_(sanitized(parameters)) {
    const auto& p = parameters_;
    const auto steps = static_cast<std::size_t>(std::ceil(p.pumpSeconds / kStep));
    pumped_.assign(steps + 1, 0.0);
    double previous = relativeFlow(p, 0.0);
    for (std::size_t i = 1; i <= steps; ++i) {
        const double flow = relativeFlow(p, static_cast<double>(i) * kStep);
        pumped_[i] = pumped_[i - 1] + 0.5 * (previous + flow) * kStep;
        previous = flow;
    }
    const double total = pumped_.back();
    const double target = p.finalGrams - p.tailGrams;
    const double scale = total > 0.0 ? target / total : 0.0;
    for (double& grams : pumped_) grams *= scale;
}

double PourProfile::massAt(double seconds) const noexcept {
    const auto& p = parameters_;
    if (!(seconds > 0.0)) return 0.0;  // also NaN
    if (seconds >= p.pumpSeconds) {
        const double drips = p.tailGrams * (1.0 - std::exp(-(seconds - p.pumpSeconds) / p.tailSeconds));
        return pumped_.back() + drips;
    }
    const double position = seconds / kStep;
    const auto index = std::min(static_cast<std::size_t>(position), pumped_.size() - 2);
    const double fraction = std::clamp(position - static_cast<double>(index), 0.0, 1.0);
    return pumped_[index] + (pumped_[index + 1] - pumped_[index]) * fraction;
}

double PourProfile::flowAt(double seconds) const noexcept {
    constexpr double h = 0.005;
    return (massAt(seconds + h) - massAt(seconds - h)) / (2 * h);
}

double PourProfile::settledAfterSeconds() const noexcept {
    const auto& p = parameters_;
    if (p.tailGrams <= 0.01) return p.pumpSeconds;
    return p.pumpSeconds + p.tailSeconds * std::log(p.tailGrams / 0.01);
}

}  // namespace plenk::emulator
