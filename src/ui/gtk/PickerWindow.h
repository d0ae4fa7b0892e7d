#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <PlenkKit/CSRSelectDeviceViewController.h>

#include "ui/gtk/InputGate.h"
#include "ui/gtk/PickerStyle.h"

namespace plenk::gtk {

// The picker's view on GTK: a modal window over the host's, drawn from what the
// controller answers, reporting row taps and Cancel back to it. GTK thread
// only, except that the last owner may let go of it anywhere.
//
// Rows are kept by position and reused, as a table reuses its cells: a reload
// renames them, and the spinner a tap showed stays on the row at that position.
class PickerWindow final : public PickerView, public std::enable_shared_from_this<PickerWindow> {
public:
    // Builds the window (not shown yet) from the controller's answers; `gate`
    // guards it as it guards the host's window.
    static std::shared_ptr<PickerWindow> create(
        GtkWindow* host, const std::shared_ptr<CSRSelectDeviceViewController>& controller,
        const std::shared_ptr<InputGate>& gate);
    ~PickerWindow() override;
    PickerWindow(const PickerWindow&) = delete;
    PickerWindow& operator=(const PickerWindow&) = delete;

    // Shows the window; with `animated` the list slides up into place first.
    // `completion` runs once it is on screen.
    void present(bool animated, std::function<void()> completion);

    // PickerView.
    void reloadData() override;
    // With `animated` the list slides down first; the window is closed before
    // `completion` runs.
    void dismiss(bool animated, std::function<void()> completion) override;

    // Null once closed.
    GtkWindow* window() const { return window_; }

    struct Token {};
    PickerWindow(Token, std::weak_ptr<CSRSelectDeviceViewController> controller);

private:
    struct Row {
        GtkWidget* row;
        GtkWidget* label;
        GtkWidget* spinner;
    };

    void build(GtkWindow* host, CSRSelectDeviceViewController& controller,
               const std::shared_ptr<InputGate>& gate);
    GtkWidget* buildBar(CSRSelectDeviceViewController& controller);
    GtkWidget* buildHeader(CSRSelectDeviceViewController& controller);
    Row takeRow();
    void rowActivated(GtkListBoxRow* row);
    // Cancel, Escape or the window manager's close.
    void cancel();
    void revealed();
    void destroyedFromOutside();
    void close();

    const std::weak_ptr<CSRSelectDeviceViewController> controller_;  // it holds this view
    const std::thread::id gtkThread_ = std::this_thread::get_id();
    GtkWindow* window_ = nullptr;  // a reference held until closed
    GtkWindow* host_ = nullptr;    // likewise, to hear of its destruction
    gulong hostHandler_ = 0;
    GtkWidget* revealer_ = nullptr;
    GtkWidget* headerLabel_ = nullptr;
    GtkWidget* list_ = nullptr;
    std::unique_ptr<PickerStyle> style_;
    bool dismissing_ = false;
    std::vector<Row> rows_;
    std::vector<Row> reusable_;  // rows taken off the list, references held
    std::function<void()> presented_;
    std::function<void()> dismissed_;
};

}  // namespace plenk::gtk
