// plenk-demo's window in this process on the simulated scale, mid-pour: the
// readout shows the cup filling and the plot draws the weight and flow curves.
// The screenshot stays in build/<preset>/screenshots/demo-midpour.png.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "DemoSession.h"
#include "DemoWindow.h"
#include "PourPlot.h"
#include "gtk/support/MainContextWait.h"
#include "gtk/support/Screenshot.h"
#include "gtk/support/WidgetLookup.h"

namespace plenk::demo {
namespace {

using namespace plenk::gtk::test;

std::string text(GtkWidget* label) {
    return gtk_label_get_text(GTK_LABEL(label));
}

// "18.4 g" as 18.4; 0 for the placeholder.
double grams(GtkWidget* label) {
    return std::strtod(text(label).c_str(), nullptr);
}

Rgba colour(PlotColour c) {
    return Rgba::fromUnit(c.r, c.g, c.b);
}

TEST(DemoWindow, MidPourOnTheSimulatorShowsTheWeightAndPlotsThePour) {
    DemoOptions options;
    options.sim = true;
    DemoSession session(options);
    const auto demo = DemoWindow::create(nullptr, session);
    session.start();
    demo->start();
    GtkWidget* window = GTK_WIDGET(demo->window());
    gtk_window_present(demo->window());

    // The shot starts 1.5 s after the tare of the connection and pours about 1.2 g/s.
    GtkWidget* weight = findWidget(window, "demo-weight");
    ASSERT_NE(weight, nullptr);
    ASSERT_TRUE(waitUntil([&] { return grams(weight) >= 2.0; })) << "the readout shows " << text(weight);
    EXPECT_EQ(text(findWidget(window, "demo-state")), "Connected");
    EXPECT_EQ(text(findWidget(window, "demo-scale")), "Plenk Scale");

    ASSERT_TRUE(waitForFrame(window));
    const Screenshot shot = Screenshot::take(window);
    shot.save("demo-midpour");
    const auto bounds = boundsInWindow(findWidget(window, "demo-plot"));
    ASSERT_TRUE(bounds);
    const PlotArea area = pourPlotDataArea(bounds->width, bounds->height);
    const PixelRect curves{bounds->x + static_cast<int>(area.x), bounds->y + static_cast<int>(area.y),
                           static_cast<int>(area.width), static_cast<int>(area.height)};
    EXPECT_TRUE(shot.dominantColour(curves).near(colour(kPlotBackground), 2));
    // The weight curve with its fill, and the flow line: far more than the
    // grid could account for.
    EXPECT_GT(shot.countNear(curves, colour(kPlotWeight), 24), 60u);
    EXPECT_GT(shot.countNear(curves, colour(kPlotFlow), 24), 60u);
}

}  // namespace
}  // namespace plenk::demo
