#include "PourPlot.h"

#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace plenk::demo {

namespace {

using Rgb = PlotColour;
constexpr Rgb kBackground = kPlotBackground;
constexpr Rgb kGrid{0.86, 0.83, 0.79};
constexpr Rgb kText{0.40, 0.36, 0.33};
constexpr Rgb kWeight = kPlotWeight;
constexpr Rgb kFlow = kPlotFlow;

constexpr double kLeft = 48, kRight = 48, kTop = 28, kBottom = 26;
constexpr int kSpanSeconds = 30;
constexpr int kGridRows = 4;

void setColor(cairo_t* cr, Rgb c, double alpha = 1.0) {
    cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha);
}

// The smallest of 1, 2, 5 x 10^n at or above `value`, times kGridRows steps.
double niceTop(double value) {
    const double step = value / kGridRows;
    const double magnitude = std::pow(10.0, std::floor(std::log10(step)));
    for (const double f : {1.0, 2.0, 2.5, 5.0, 10.0}) {
        if (f * magnitude >= step - 1e-9) return f * magnitude * kGridRows;
    }
    return 10 * magnitude * kGridRows;
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, value == std::floor(value) ? "%.0f" : "%.1f", value);
    return text;
}

// Text anchored by (ax, ay) in [0, 1] of its own extent at (x, y).
void drawText(cairo_t* cr, PangoLayout* layout, const std::string& text, double x, double y, double ax,
              double ay, Rgb color) {
    pango_layout_set_text(layout, text.c_str(), -1);
    int w = 0, h = 0;
    pango_layout_get_pixel_size(layout, &w, &h);
    setColor(cr, color);
    cairo_move_to(cr, x - ax * w, y - ay * h);
    pango_cairo_show_layout(cr, layout);
}

class Frame {
public:
    Frame(int width, int height, double weightTop, double flowTop)
        : area_(pourPlotDataArea(width, height)), weightTop_(weightTop), flowTop_(flowTop) {}

    double x(double secondsAgo) const { return left() + area_.width * (1.0 - secondsAgo / kSpanSeconds); }
    double yWeight(double grams) const { return top() + height() * (1.0 - grams / weightTop_); }
    double yFlow(double flow) const { return top() + height() * (1.0 - flow / flowTop_); }
    double left() const { return area_.x; }
    double right() const { return area_.x + area_.width; }
    double top() const { return area_.y; }
    double bottom() const { return area_.y + area_.height; }
    double height() const { return area_.height; }

private:
    PlotArea area_;
    double weightTop_, flowTop_;
};

void drawGrid(cairo_t* cr, PangoLayout* layout, const Frame& f, double weightTop, double flowTop) {
    cairo_set_line_width(cr, 1);
    setColor(cr, kGrid);
    for (int s = 0; s <= kSpanSeconds; s += 5) {
        const double x = std::round(f.x(s)) + 0.5;
        cairo_move_to(cr, x, f.top());
        cairo_line_to(cr, x, f.bottom());
    }
    for (int row = 0; row <= kGridRows; ++row) {
        const double y = std::round(f.top() + f.height() * row / kGridRows) + 0.5;
        cairo_move_to(cr, f.left(), y);
        cairo_line_to(cr, f.right(), y);
    }
    cairo_stroke(cr);
    for (int s = 0; s <= kSpanSeconds; s += 5) {
        drawText(cr, layout, s == 0 ? "now" : "−" + std::to_string(s) + " s", f.x(s), f.bottom() + 4, 0.5, 0,
                 kText);
    }
    for (int row = 0; row <= kGridRows; ++row) {
        const double y = f.top() + f.height() * row / kGridRows;
        const double share = 1.0 - static_cast<double>(row) / kGridRows;
        drawText(cr, layout, number(weightTop * share) + " g", f.left() - 6, y, 1, 0.5, kWeight);
        drawText(cr, layout, number(flowTop * share) + " g/s", f.right() + 6, y, 0, 0.5, kFlow);
    }
}

// The readings as runs of connected points: a gap in the readings breaks the line.
template <typename Y>
std::vector<std::vector<std::pair<double, double>>> runs(const PourHistory& history,
                                                         PourHistory::TimePoint now, const Frame& f, Y y) {
    std::vector<std::vector<std::pair<double, double>>> out;
    PourHistory::TimePoint previous{};
    for (const auto& p : history.points()) {
        if (out.empty() || p.time - previous > PourHistory::kGap) out.emplace_back();
        previous = p.time;
        const double ago = std::chrono::duration<double>(now - p.time).count();
        out.back().emplace_back(f.x(ago), y(p));
    }
    return out;
}

void drawLegend(cairo_t* cr, PangoLayout* layout, const Frame& f) {
    double x = f.left();
    for (const auto& [label, color] : {std::pair{"Weight", kWeight}, std::pair{"Flow", kFlow}}) {
        setColor(cr, color);
        cairo_rectangle(cr, x, kTop / 2 - 5, 14, 4);
        cairo_fill(cr);
        drawText(cr, layout, label, x + 20, kTop / 2 - 3, 0, 0.5, kText);
        int w = 0;
        pango_layout_get_pixel_size(layout, &w, nullptr);
        x += 20 + w + 18;
    }
}

}  // namespace

PlotArea pourPlotDataArea(int width, int height) {
    return {kLeft, kTop, std::max(1.0, width - kLeft - kRight), std::max(1.0, height - kTop - kBottom)};
}

void drawPourPlot(cairo_t* cr, int width, int height, const PourHistory& history,
                  PourHistory::TimePoint now) {
    double maxWeight = 0, maxFlow = 0;
    for (const auto& p : history.points()) {
        maxWeight = std::max(maxWeight, p.grams);
        maxFlow = std::max(maxFlow, p.flow);
    }
    // Room for an espresso and a few g/s before the axes grow.
    const double weightTop = niceTop(std::max(40.0, maxWeight * 1.1));
    const double flowTop = niceTop(std::max(4.0, maxFlow * 1.2));
    const Frame f(width, height, weightTop, flowTop);

    setColor(cr, kBackground);
    cairo_paint(cr);

    PangoLayout* layout = pango_cairo_create_layout(cr);
    PangoFontDescription* font = pango_font_description_from_string("Sans 8");
    pango_layout_set_font_description(layout, font);
    pango_font_description_free(font);
    drawGrid(cr, layout, f, weightTop, flowTop);
    drawLegend(cr, layout, f);
    g_object_unref(layout);

    cairo_save(cr);
    cairo_rectangle(cr, f.left(), f.top(), f.right() - f.left(), f.bottom() - f.top());
    cairo_clip(cr);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    const auto weightRuns = runs(
        history, now, f, [&f](const PourHistory::Point& p) { return f.yWeight(std::max(0.0, p.grams)); });
    for (const auto& run : weightRuns) {
        cairo_move_to(cr, run.front().first, f.bottom());
        for (const auto& [x, y] : run) cairo_line_to(cr, x, y);
        cairo_line_to(cr, run.back().first, f.bottom());
        cairo_close_path(cr);
        setColor(cr, kWeight, 0.18);
        cairo_fill(cr);
        cairo_move_to(cr, run.front().first, run.front().second);
        for (const auto& [x, y] : run) cairo_line_to(cr, x, y);
        setColor(cr, kWeight);
        cairo_set_line_width(cr, 2.5);
        cairo_stroke(cr);
    }
    const auto flowRuns =
        runs(history, now, f, [&f](const PourHistory::Point& p) { return f.yFlow(std::max(0.0, p.flow)); });
    for (const auto& run : flowRuns) {
        cairo_move_to(cr, run.front().first, run.front().second);
        for (const auto& [x, y] : run) cairo_line_to(cr, x, y);
        setColor(cr, kFlow);
        cairo_set_line_width(cr, 2);
        cairo_stroke(cr);
    }
    cairo_restore(cr);
}

}  // namespace plenk::demo
