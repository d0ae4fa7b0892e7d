#pragma once

#include <cairo.h>

#include "PourHistory.h"

namespace plenk::demo {

// Draws the last 30 seconds of `history` up to `now` into a width x height
// area: the weight (left axis, grams) as a filled brown line and the flow
// (right axis, g/s) as a blue line over a grid of 5-second steps. Both axes
// grow to fit what is shown.
void drawPourPlot(cairo_t* cr, int width, int height, const PourHistory& history, PourHistory::TimePoint now);

}  // namespace plenk::demo
