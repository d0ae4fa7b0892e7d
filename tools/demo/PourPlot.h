#pragma once

#include <cairo.h>

#include "PourHistory.h"

namespace plenk::demo {

struct PlotColour {
    double r, g, b;
};
inline constexpr PlotColour kPlotBackground{0.984, 0.973, 0.953};
inline constexpr PlotColour kPlotWeight{0.435, 0.306, 0.216};
inline constexpr PlotColour kPlotFlow{0.110, 0.443, 0.847};

// Where the curves go within a width x height plot: inside the axis labels,
// the legend and the time scale.
struct PlotArea {
    double x, y, width, height;
};
PlotArea pourPlotDataArea(int width, int height);

// Draws the last 30 seconds of `history` up to `now` into a width x height
// area: the weight (left axis, grams) as a filled brown line and the flow
// (right axis, g/s) as a blue line over a grid of 5-second steps. Both axes
// grow to fit what is shown.
void drawPourPlot(cairo_t* cr, int width, int height, const PourHistory& history, PourHistory::TimePoint now);

}  // namespace plenk::demo
