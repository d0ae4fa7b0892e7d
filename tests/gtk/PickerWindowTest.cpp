// The device picker as a GTK window, through the whole stack: a host window, a
// facade on the GLib main queue and a simulated world of two scales on real
// time. What is checked on screen is measured in screenshots, which are kept in
// the build folder for people to look at.
#include <PlenkKit/PlenkKit.h>
#include <PlenkKitGtk/PlenkKitGtk.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gtk/support/MainContextWait.h"
#include "gtk/support/Screenshot.h"
#include "gtk/support/WidgetLookup.h"

namespace plenk::gtk {
namespace {

using namespace std::chrono_literals;
using test::boundsInWindow;
using test::findWidget;
using test::findWidgets;
using test::isShown;
using test::Rgba;
using test::Screenshot;
using test::waitForFrame;
using test::waitUntil;

constexpr Color kBackground{0.2, 0.4, 0.6, 1.0};
constexpr Color kTint{0.9, 0.1, 0.1, 1.0};
// Antialiased text: its strokes' cores are drawn in the colour itself.
constexpr int kTextTolerance = 40;

Rgba rgba(const Color& colour) {
    return Rgba::fromUnit(colour.r, colour.g, colour.b, colour.a);
}

std::string labelText(GtkWidget* root, const char* name) {
    GtkWidget* label = findWidget(root, name);
    return label != nullptr ? gtk_label_get_text(GTK_LABEL(label)) : "<no " + std::string(name) + ">";
}

class LookSource final : public PKPlenkDataSource {
public:
    std::optional<std::string> titleForSelectAccessoryModalViewController() override {
        return "Choose A Scale";
    }
    std::optional<std::string> deviceStringForSelectAccessoryModalViewController() override {
        return "Scales";
    }
    std::optional<Color> backgroundColorForSelectAccessoryModalViewController() override {
        return kBackground;
    }
    std::optional<Color> navigationBarColorForSelectAccessoryModalViewController() override { return kTint; }
};

class PickerWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        Simulator::Options options;
        options.clock = Clock::steady();
        options.radio = std::nullopt;  // powered on once auto-connect is off
        options.log = LogSink::discard();
        sim = std::make_unique<Simulator>(options);
        Simulator::ScaleOptions plenkOptions;
        plenkOptions.name = "Plenk Scale A";
        plenkScale = sim->addScale(plenkOptions);
        Simulator::ScaleOptions coffeeOptions;
        coffeeOptions.name = "Coffee Scale B";
        coffeeOptions.format = Simulator::WeightFormat::Text;
        coffeeScale = sim->addScale(coffeeOptions);

        Context context = sim->context();
        context.mainQueue = queue;
        plenk = PKPlenk::create(context);
        plenk->setIsAutoConnectEnabled(false);
        sim->setRadioState(RadioState::PoweredOn);

        host = gtk_window_new();
        gtk_window_set_title(GTK_WINDOW(host), "Host");
        gtk_window_set_default_size(GTK_WINDOW(host), 640, 480);
        gtk_window_present(GTK_WINDOW(host));
        presenter = WindowPresenter::create(GTK_WINDOW(host));
        ASSERT_TRUE(
            waitUntil([&] { return gtk_widget_get_mapped(host) && plenk->rosta()->leState() == 104; }));
    }

    void TearDown() override {
        if (heldPicker != nullptr) g_object_unref(heldPicker);
        plenk.reset();
        presenter.reset();
        gtk_window_destroy(GTK_WINDOW(host));
        sim.reset();
        waitUntil([&] { return queue->pendingTasks() == 0; }, 2s);
    }

    // Opens the picker and waits until it is on screen, done presenting, with
    // both scales listed; the completion notes what the host could see then.
    void openPicker() {
        plenk->showDevicePickerOnViewContoller(presenter, [this](const ErrorPtr& error) {
            results.push_back(error);
            calledOnGtkThread = std::this_thread::get_id() == gtkThread;
            pickerClosedWhenCalled = presenter->pickerWindow() == nullptr &&
                                     (heldPicker == nullptr || !gtk_widget_get_mapped(heldPicker));
        });
        ASSERT_TRUE(waitUntil([&] {
            GtkWindow* window = presenter->pickerWindow();
            return window != nullptr && gtk_widget_get_mapped(GTK_WIDGET(window)) &&
                   !presenter->isIgnoringInteractionEvents() &&
                   findWidgets(GTK_WIDGET(window), "picker-row").size() == 2;
        }));
        picker = GTK_WIDGET(presenter->pickerWindow());
        heldPicker = GTK_WIDGET(g_object_ref(picker));
    }

    GtkWidget* rowTitled(const std::string& title) const {
        for (GtkWidget* row : findWidgets(picker, "picker-row")) {
            if (labelText(row, "picker-row-label") == title) return row;
        }
        return nullptr;
    }

    Screenshot shoot(const char* name) const {
        EXPECT_TRUE(waitForFrame(picker));
        Screenshot shot = Screenshot::take(picker);
        shot.save(name);
        return shot;
    }

    std::shared_ptr<GLibMainQueue> queue = GLibMainQueue::create();
    std::unique_ptr<Simulator> sim;
    Simulator::Scale plenkScale;
    Simulator::Scale coffeeScale;
    std::shared_ptr<PKPlenk> plenk;
    GtkWidget* host = nullptr;
    std::shared_ptr<WindowPresenter> presenter;
    GtkWidget* picker = nullptr;
    GtkWidget* heldPicker = nullptr;  // a reference of the test's, to look at it once closed

    const std::thread::id gtkThread = std::this_thread::get_id();
    std::vector<ErrorPtr> results;
    bool calledOnGtkThread = false;
    bool pickerClosedWhenCalled = false;
};

TEST_F(PickerWindowTest, DefaultLookThenOneTapConnectsAndCloses) {
    openPicker();
    EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(picker)), "Connect An Accessory");
    EXPECT_EQ(labelText(picker, "picker-title"), "Connect An Accessory");
    EXPECT_EQ(labelText(picker, "picker-header-label"), "Device");
    GtkWidget* chosen = rowTitled("Plenk Scale A");
    GtkWidget* other = rowTitled("Coffee Scale B");
    ASSERT_NE(chosen, nullptr);
    ASSERT_NE(other, nullptr);
    GtkWidget* chosenSpinner = findWidget(chosen, "picker-row-spinner");
    GtkWidget* otherSpinner = findWidget(other, "picker-row-spinner");
    EXPECT_FALSE(gtk_widget_get_visible(chosenSpinner));
    EXPECT_FALSE(gtk_widget_get_visible(otherSpinner));

    const Screenshot initial = shoot("picker-default");
    const auto content = boundsInWindow(findWidget(picker, "picker-content"));
    const auto cancel = boundsInWindow(findWidget(picker, "picker-cancel"));
    ASSERT_TRUE(content && cancel);
    EXPECT_TRUE(initial.dominantColour(*content).near(Rgba::fromUnit(0.8118, 0.7843, 0.7451), 1))
        << test::describe(initial.dominantColour(*content));
    EXPECT_EQ(initial.countNear(*cancel, rgba(kTint), kTextTolerance), 0U) << "a tint nobody asked for";

    // The chosen scale is out of range, so its connection waits for the test.
    plenkScale.setInRange(false);
    gtk_widget_activate(chosen);
    const auto controller = plenk->rosta()->scanViewController();
    ASSERT_NE(controller, nullptr);
    EXPECT_FALSE(controller->allowsSelection());

    // The tapped row's spinner and the header's turn from frame to frame.
    const Screenshot tapped1 = shoot("picker-tapped-1");
    test::runFor(300ms);
    const Screenshot tapped2 = shoot("picker-tapped-2");
    EXPECT_TRUE(isShown(chosenSpinner));
    const std::pair<const char*, GtkWidget*> spinners[] = {
        {"header", findWidget(picker, "picker-header-spinner")}, {"tapped row", chosenSpinner}};
    for (const auto& [name, spinner] : spinners) {
        const auto region = boundsInWindow(spinner);
        ASSERT_TRUE(region) << name;
        EXPECT_GT(Screenshot::countDifferences(tapped1, tapped2, *region), 10U) << name;
    }

    // A second tap, delivered straight to the list as if the row still took
    // clicks, is ignored.
    g_signal_emit_by_name(findWidget(picker, "picker-list"), "row-activated", other);
    test::runFor(100ms);
    EXPECT_FALSE(controller->allowsSelection());
    EXPECT_FALSE(gtk_widget_get_visible(otherSpinner));
    EXPECT_FALSE(coffeeScale.isConnected());
    EXPECT_TRUE(results.empty());

    plenkScale.setInRange(true);
    ASSERT_TRUE(waitUntil([&] { return !results.empty(); }));
    EXPECT_EQ(results.front(), nullptr);
    EXPECT_TRUE(calledOnGtkThread);
    EXPECT_EQ(presenter->pickerWindow(), nullptr);
    EXPECT_FALSE(gtk_widget_get_mapped(heldPicker));
    EXPECT_TRUE(plenk->isConnected());
    EXPECT_TRUE(plenkScale.isConnected());
    EXPECT_FALSE(coffeeScale.isConnected());
}

TEST_F(PickerWindowTest, DataSourceLookThenCancelReportsOnceClosed) {
    const auto look = std::make_shared<LookSource>();
    plenk->setDataSource(look);
    openPicker();
    EXPECT_STREQ(gtk_window_get_title(GTK_WINDOW(picker)), "Choose A Scale");
    EXPECT_EQ(labelText(picker, "picker-title"), "Choose A Scale");
    EXPECT_EQ(labelText(picker, "picker-header-label"), "Scales");

    const Screenshot shot = shoot("picker-custom");
    const auto content = boundsInWindow(findWidget(picker, "picker-content"));
    const auto cancel = boundsInWindow(findWidget(picker, "picker-cancel"));
    ASSERT_TRUE(content && cancel);
    EXPECT_TRUE(shot.dominantColour(*content).near(rgba(kBackground), 1))
        << test::describe(shot.dominantColour(*content));
    EXPECT_GT(shot.countNear(*cancel, rgba(kTint), kTextTolerance), 10U) << "Cancel's text in the tint";

    gtk_widget_activate(findWidget(picker, "picker-cancel"));
    EXPECT_TRUE(results.empty()) << "told before the window went";
    ASSERT_TRUE(waitUntil([&] { return !results.empty(); }));
    ASSERT_NE(results.front(), nullptr);
    EXPECT_TRUE(isKind<RKErrorLECancelC>(results.front()));
    EXPECT_EQ(results.front()->domain(), "RKErrorDomain");
    EXPECT_EQ(results.front()->code(), 100);
    EXPECT_TRUE(calledOnGtkThread);
    EXPECT_TRUE(pickerClosedWhenCalled);
    EXPECT_FALSE(presenter->isIgnoringInteractionEvents());
    EXPECT_FALSE(plenk->isConnected());
}

// The host's window going takes the picker with it, and the host hears a cancel.
TEST_F(PickerWindowTest, HostWindowDestroyedClosesThePickerAsACancel) {
    openPicker();
    gtk_window_destroy(GTK_WINDOW(host));
    EXPECT_EQ(presenter->pickerWindow(), nullptr);
    EXPECT_FALSE(gtk_widget_get_mapped(heldPicker));
    ASSERT_TRUE(waitUntil([&] { return !results.empty(); }));
    EXPECT_TRUE(isKind<RKErrorLECancelC>(results.front()));
    EXPECT_TRUE(pickerClosedWhenCalled);
}

}  // namespace
}  // namespace plenk::gtk
