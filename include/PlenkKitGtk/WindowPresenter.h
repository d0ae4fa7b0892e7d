#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <memory>

#include <PlenkKit/CSRSelectDeviceViewController.h>
#include <PlenkKit/RKRostaKit.h>
#include <PlenkKitGtk/Export.h>

namespace plenk::gtk {

// Presents the device picker as a GTK 4 window, modal and transient for the
// host's window; give it to PKPlenk::showDevicePickerOnViewContoller. Main
// thread only (the GLib main context's thread, where GLibMainQueue runs the
// library's callbacks).
//
// The picker window is drawn in code: a header bar 44 points high with the
// title and a Cancel button, a grouped list of one section whose header shows
// the device text beside a turning spinner, rows 44 points high with the
// scale's name and a hidden spinner that turns once the row is tapped. Widget
// names for styling and for tests: the window "plenk-picker", the bar
// "picker-bar", its button "picker-cancel", the header "picker-header" with
// "picker-header-label" and "picker-header-spinner", the list "picker-list",
// each row "picker-row" with "picker-row-label" and "picker-row-spinner".
//
// Closing the window from the window manager counts as Cancel.
class PLENK_GTK_EXPORT WindowPresenter final : public PickerPresenter {
public:
    // Holds a reference on `host` until the presenter is gone.
    static std::shared_ptr<WindowPresenter> create(GtkWindow* host);
    ~WindowPresenter() override;
    WindowPresenter(const WindowPresenter&) = delete;
    WindowPresenter& operator=(const WindowPresenter&) = delete;

    // While ignoring, pointer and key events to the host's window and to the
    // picker's are dropped; nested calls count.
    void beginIgnoringInteractionEvents() override;
    void endIgnoringInteractionEvents() override;
    bool isIgnoringInteractionEvents() const;

    // Builds the picker's window, attaches it to `picker` as its view and shows
    // it; with `animated` the list slides up into place. `completion` runs
    // once it is on screen.
    void presentViewController(const std::shared_ptr<CSRSelectDeviceViewController>& picker, bool animated,
                               std::function<void()> completion) override;

    // Takes the presented picker off screen (the list slides down with
    // `animated`) and runs `completion` once its window is closed; at once
    // without an open picker. Unlike Cancel, the picker's delegate is not told.
    void dismissViewController(bool animated, std::function<void()> completion);

    GtkWindow* hostWindow() const;
    // The picker window presented last while it is open; null otherwise.
    GtkWindow* pickerWindow() const;

private:
    struct State;
    explicit WindowPresenter(GtkWindow* host);
    std::shared_ptr<State> state_;
};

}  // namespace plenk::gtk
