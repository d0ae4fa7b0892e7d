#pragma once

#include <gtk/gtk.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/PlenkKit.h>
#include <PlenkKitGtk/WindowPresenter.h>

#include "DemoSession.h"
#include "PourHistory.h"

namespace plenk::demo {

// The demo's window: the scale's name, a large live weight, the flow, a plot of
// the last 30 seconds, the connection state, battery, Tare and display
// buttons, "Choose Scale…" for the picker, and a banner for errors. It is the
// facade's delegate and watches the kit's notifications. Widget names for
// tests: "demo-weight", "demo-flow", "demo-scale", "demo-plot", "demo-state",
// "demo-battery", "demo-banner" (a GtkRevealer) with "demo-banner-text" and
// "demo-banner-close", "demo-tare", "demo-display" (a GtkSwitch),
// "demo-choose".
//
// GTK thread only; every library callback reaches it there through the
// session's main queue.
class DemoWindow final : public PKPlenkDelegate, public std::enable_shared_from_this<DemoWindow> {
public:
    // Builds the window (an application window when `app` is given) on
    // `session`, which must outlive it, and becomes the facade's delegate.
    static std::shared_ptr<DemoWindow> create(GtkApplication* app, DemoSession& session);
    // Destroys the window.
    ~DemoWindow() override;
    DemoWindow(const DemoWindow&) = delete;
    DemoWindow& operator=(const DemoWindow&) = delete;

    // Turns auto-connect on: the first scale found is linked.
    void start();
    GtkWindow* window() const { return window_; }
    const PourHistory& history() const { return history_; }
    // Shows `text` in the banner until closed or replaced.
    void showBanner(const std::string& text);

    // PKPlenkDelegate
    void plenkDidConnected(PKPlenk& plenk) override;
    void plenkDidDisconnected(PKPlenk& plenk) override;
    void plenkDidErrorOccur(PKPlenk& plenk, const ErrorPtr& error) override;
    void plenkWeightDidUpdate(float weight) override;

    struct Token {};
    DemoWindow(Token, DemoSession& session);

private:
    struct Widgets;

    void build(GtkApplication* app);
    void observeNotifications();
    // Moves a library callback that may run on another thread onto the main
    // queue, to this window if it still exists then. Made on the GTK thread.
    struct MainHop;
    MainHop hop();
    void connect(gpointer instance, const char* signal, GCallback handler);

    void chooseScale();
    void openPicker();
    void pickerFinished(const ErrorPtr& error);
    void readBattery();
    void showBattery(std::int64_t level);
    void heldLinkDropped();
    void heldLinkBack();
    void windowDestroyed();

    // Every 100 ms: readout, state and plot.
    void tick();
    void refreshState();
    void adviseOnRadio(std::uint64_t radio);

    std::shared_ptr<PKPlenk> plenk_;
    std::shared_ptr<Executor> queue_;
    std::shared_ptr<NotificationCenter> notifications_;
    std::vector<NotificationCenter::Token> observers_;
    std::shared_ptr<gtk::WindowPresenter> presenter_;

    GtkWindow* window_ = nullptr;  // a reference of ours
    std::unique_ptr<Widgets> widgets_;
    std::vector<GObject*> handlerOwners_;  // objects we hold handlers on, each referenced
    guint tickSource_ = 0;

    PourHistory history_;
    bool linked_ = false;
    bool reconnecting_ = false;
    bool settingDisplay_ = false;  // the switch is set to match the scale, not by the user
    bool pickerAfterDisconnect_ = false;
    PourHistory::TimePoint disconnectedAt_{};
    PourHistory::TimePoint nextBatteryRead_{};
    PourHistory::TimePoint radioUsableAt_ = PourHistory::Clock::now();
    bool radioHintShown_ = false;
};

}  // namespace plenk::demo
