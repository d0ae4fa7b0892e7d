#include "ui/gtk/PickerWindow.h"

#include <algorithm>
#include <string>
#include <utility>

#include "ui/gtk/GtkThread.h"

namespace plenk::gtk {

namespace {

using WeakWindow = std::weak_ptr<PickerWindow>;

constexpr int kBarHeight = static_cast<int>(CSRSelectDeviceViewController::kNavigationBarHeight);
constexpr int kHeaderHeight = 40;
constexpr int kRowHeight = 44;
constexpr int kSpinnerSize = 20;  // a grey activity indicator's own size
constexpr guint kSlideMilliseconds = 250;
// More rows than anyone scrolls through; a data source answering more is cut here.
constexpr std::int64_t kMaxRows = 10000;

// Signal handlers hold the window weakly: a handler may outlive it.
gpointer weakRef(const std::shared_ptr<PickerWindow>& self) {
    return new WeakWindow(self);
}
void freeWeakRef(gpointer data, GClosure* /*closure*/) {
    delete static_cast<WeakWindow*>(data);
}
std::shared_ptr<PickerWindow> lock(gpointer data) {
    return static_cast<WeakWindow*>(data)->lock();
}

template <typename Callback>
void connect(gpointer instance, const char* signal, Callback callback,
             const std::shared_ptr<PickerWindow>& self) {
    g_signal_connect_data(instance, signal, G_CALLBACK(callback), weakRef(self), freeWeakRef,
                          GConnectFlags{});
}

GtkWidget* namedLabel(const char* name, const std::string& text) {
    GtkWidget* label = gtk_label_new(text.c_str());
    gtk_widget_set_name(label, name);
    gtk_widget_add_css_class(label, name);
    return label;
}

GtkWidget* namedSpinner(const char* name) {
    GtkWidget* spinner = gtk_spinner_new();
    gtk_widget_set_name(spinner, name);
    gtk_widget_set_size_request(spinner, kSpinnerSize, kSpinnerSize);
    gtk_widget_set_valign(spinner, GTK_ALIGN_CENTER);
    return spinner;
}

}  // namespace

std::shared_ptr<PickerWindow> PickerWindow::create(
    GtkWindow* host, const std::shared_ptr<CSRSelectDeviceViewController>& controller,
    const std::shared_ptr<InputGate>& gate) {
    auto view = std::make_shared<PickerWindow>(Token{}, controller);
    view->build(host, *controller, gate);
    return view;
}

PickerWindow::PickerWindow(Token, std::weak_ptr<CSRSelectDeviceViewController> controller)
    : controller_(std::move(controller)) {}

PickerWindow::~PickerWindow() {
    if (window_ == nullptr && reusable_.empty()) return;
    onGtkThread(gtkThread_, [window = window_, host = host_, hostHandler = hostHandler_,
                             style = std::shared_ptr<PickerStyle>(std::move(style_)),
                             reusable = std::move(reusable_)]() mutable {
        style.reset();
        if (host != nullptr) {
            g_signal_handler_disconnect(host, hostHandler);
            g_object_unref(host);
        }
        for (const Row& row : reusable) g_object_unref(row.row);
        if (window != nullptr) {
            gtk_window_destroy(window);
            g_object_unref(window);
        }
    });
}

void PickerWindow::build(GtkWindow* host, CSRSelectDeviceViewController& controller,
                         const std::shared_ptr<InputGate>& gate) {
    const auto self = shared_from_this();
    window_ = GTK_WINDOW(gtk_window_new());
    g_object_ref(window_);
    gtk_widget_set_name(GTK_WIDGET(window_), "plenk-picker");
    const std::string title = controller.title();
    gtk_window_set_title(window_, title.c_str());
    gtk_window_set_modal(window_, TRUE);
    gtk_window_set_transient_for(window_, host);
    gtk_window_set_default_size(window_, 360, 480);
    gtk_window_set_titlebar(window_, buildBar(controller));
    style_ = std::make_unique<PickerStyle>(GTK_WIDGET(window_), controller.backgroundColor(),
                                           controller.navigationBarTintColor());
    gate->guard(window_);

    // Destroyed by someone else, or its host is: the user can no longer
    // choose, which the controller hears as a cancel. A GTK 4 window that is
    // destroyed is unrealized at once; its "destroy" waits for the last
    // reference, and the presenter holds the host's.
    connect(
        window_, "unrealize",
        +[](GtkWidget*, gpointer data) {
            if (auto view = lock(data)) view->destroyedFromOutside();
        },
        self);
    host_ = GTK_WINDOW(g_object_ref(host));
    hostHandler_ = g_signal_connect_data(host_, "unrealize", G_CALLBACK(+[](GtkWidget*, gpointer data) {
                                             if (auto view = lock(data)) view->destroyedFromOutside();
                                         }),
                                         weakRef(self), freeWeakRef, GConnectFlags{});
    // The window manager's close and Escape cancel, as the Cancel button does.
    connect(
        window_, "close-request",
        +[](GtkWindow*, gpointer data) -> gboolean {
            if (auto view = lock(data)) view->cancel();
            return TRUE;
        },
        self);
    GtkEventController* keys = gtk_shortcut_controller_new();
    gtk_shortcut_controller_add_shortcut(
        GTK_SHORTCUT_CONTROLLER(keys),
        gtk_shortcut_new(
            gtk_keyval_trigger_new(GDK_KEY_Escape, GdkModifierType{}),
            gtk_callback_action_new(
                +[](GtkWidget*, GVariant*, gpointer data) -> gboolean {
                    if (auto view = lock(data)) view->cancel();
                    return TRUE;
                },
                new WeakWindow(self), [](gpointer data) { delete static_cast<WeakWindow*>(data); })));
    gtk_widget_add_controller(GTK_WIDGET(window_), keys);

    GtkWidget* content = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_widget_set_name(content, "picker-content");
    gtk_widget_add_css_class(content, "picker-content");
    gtk_box_append(GTK_BOX(content), buildHeader(controller));

    list_ = gtk_list_box_new();
    gtk_widget_set_name(list_, "picker-list");
    gtk_widget_add_css_class(list_, "picker-list");
    gtk_widget_set_valign(list_, GTK_ALIGN_START);
    gtk_list_box_set_selection_mode(GTK_LIST_BOX(list_), GTK_SELECTION_NONE);
    gtk_list_box_set_activate_on_single_click(GTK_LIST_BOX(list_), TRUE);
    connect(
        list_, "row-activated",
        +[](GtkListBox*, GtkListBoxRow* row, gpointer data) {
            if (auto view = lock(data)) view->rowActivated(row);
        },
        self);
    GtkWidget* scroller = gtk_scrolled_window_new();
    gtk_widget_add_css_class(scroller, "picker-scroller");
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroller), GTK_POLICY_NEVER, GTK_POLICY_AUTOMATIC);
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), list_);
    gtk_widget_set_vexpand(scroller, TRUE);
    gtk_box_append(GTK_BOX(content), scroller);

    // The list slides up into the window as it is presented and down as it goes.
    revealer_ = gtk_revealer_new();
    gtk_revealer_set_transition_type(GTK_REVEALER(revealer_), GTK_REVEALER_TRANSITION_TYPE_SLIDE_UP);
    gtk_revealer_set_child(GTK_REVEALER(revealer_), content);
    gtk_widget_set_vexpand(revealer_, TRUE);
    connect(
        revealer_, "notify::child-revealed",
        +[](GObject*, GParamSpec*, gpointer data) {
            if (auto view = lock(data)) view->revealed();
        },
        self);
    gtk_window_set_child(window_, revealer_);
    reloadData();
}

GtkWidget* PickerWindow::buildBar(CSRSelectDeviceViewController& controller) {
    GtkWidget* bar = gtk_header_bar_new();
    gtk_widget_set_name(bar, "picker-bar");
    gtk_widget_add_css_class(bar, "picker-bar");
    gtk_widget_set_size_request(bar, -1, kBarHeight);
    gtk_header_bar_set_show_title_buttons(GTK_HEADER_BAR(bar), FALSE);
    GtkWidget* title = namedLabel("picker-title", controller.title());
    gtk_widget_add_css_class(title, "title");
    gtk_header_bar_set_title_widget(GTK_HEADER_BAR(bar), title);
    GtkWidget* cancel = gtk_button_new_with_label("Cancel");
    gtk_widget_set_name(cancel, "picker-cancel");
    connect(
        cancel, "clicked",
        +[](GtkButton*, gpointer data) {
            if (auto view = lock(data)) view->cancel();
        },
        shared_from_this());
    gtk_header_bar_pack_end(GTK_HEADER_BAR(bar), cancel);
    return bar;
}

// The section header as laid out for a phone: the label at (10, 0, 70, 40) and
// the spinner at (70, 0, 30, 40), overlapping the label's last 10 points.
GtkWidget* PickerWindow::buildHeader(CSRSelectDeviceViewController& controller) {
    GtkWidget* header = gtk_fixed_new();
    gtk_widget_set_name(header, "picker-header");
    gtk_widget_set_size_request(header, 320, kHeaderHeight);
    headerLabel_ = namedLabel("picker-header-label", controller.deviceString());
    gtk_label_set_xalign(GTK_LABEL(headerLabel_), 0.0F);
    gtk_label_set_ellipsize(GTK_LABEL(headerLabel_), PANGO_ELLIPSIZE_END);
    gtk_widget_set_size_request(headerLabel_, 70, kHeaderHeight);
    gtk_fixed_put(GTK_FIXED(header), headerLabel_, 10, 0);
    // The spinner draws at its own size, centred in its frame.
    GtkWidget* spinner = namedSpinner("picker-header-spinner");
    gtk_spinner_start(GTK_SPINNER(spinner));
    gtk_fixed_put(GTK_FIXED(header), spinner, 70 + (30 - kSpinnerSize) / 2.0,
                  (kHeaderHeight - kSpinnerSize) / 2.0);
    return header;
}

PickerWindow::Row PickerWindow::takeRow() {
    if (!reusable_.empty()) {
        Row row = reusable_.back();
        reusable_.pop_back();
        return row;  // the list takes over the reference held while it was off it
    }
    Row row{};
    row.row = gtk_list_box_row_new();
    gtk_widget_set_name(row.row, "picker-row");
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    gtk_widget_set_size_request(box, -1, kRowHeight);
    row.label = namedLabel("picker-row-label", "");
    gtk_label_set_xalign(GTK_LABEL(row.label), 0.0F);
    gtk_label_set_ellipsize(GTK_LABEL(row.label), PANGO_ELLIPSIZE_END);
    gtk_widget_set_hexpand(row.label, TRUE);
    gtk_widget_set_margin_start(row.label, 15);
    row.spinner = namedSpinner("picker-row-spinner");
    gtk_widget_set_margin_end(row.spinner, 15);
    gtk_widget_set_visible(row.spinner, FALSE);
    gtk_box_append(GTK_BOX(box), row.label);
    gtk_box_append(GTK_BOX(box), row.spinner);
    gtk_list_box_row_set_child(GTK_LIST_BOX_ROW(row.row), box);
    g_object_ref_sink(row.row);  // held like a row off the list
    return row;
}

void PickerWindow::reloadData() {
    const auto controller = controller_.lock();
    if (!controller || window_ == nullptr) return;
    const auto count = static_cast<std::size_t>(
        std::clamp<std::int64_t>(controller->tableViewNumberOfRowsInSection(0), 0, kMaxRows));
    const bool selectable = controller->allowsSelection();
    // The section header is asked for again on every reload, its text with it.
    gtk_label_set_text(GTK_LABEL(headerLabel_), controller->deviceString().c_str());
    while (rows_.size() > count) {
        Row row = rows_.back();
        rows_.pop_back();
        g_object_ref(row.row);
        gtk_list_box_remove(GTK_LIST_BOX(list_), row.row);
        reusable_.push_back(row);
    }
    while (rows_.size() < count) {
        Row row = takeRow();
        gtk_list_box_append(GTK_LIST_BOX(list_), row.row);
        g_object_unref(row.row);
        rows_.push_back(row);
    }
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        const std::string title =
            controller->tableViewTitleForRowAtIndexPath(IndexPath{0, static_cast<std::int64_t>(i)});
        gtk_label_set_text(GTK_LABEL(rows_[i].label), title.c_str());
        gtk_list_box_row_set_activatable(GTK_LIST_BOX_ROW(rows_[i].row), selectable ? TRUE : FALSE);
    }
}

void PickerWindow::rowActivated(GtkListBoxRow* activated) {
    const auto controller = controller_.lock();
    if (!controller || !controller->allowsSelection()) return;
    const int index = gtk_list_box_row_get_index(activated);
    if (index < 0 || static_cast<std::size_t>(index) >= rows_.size()) return;
    // One choice per picker: no row reacts to a tap from here on.
    for (const Row& row : rows_) gtk_list_box_row_set_activatable(GTK_LIST_BOX_ROW(row.row), FALSE);
    const Row& chosen = rows_[static_cast<std::size_t>(index)];
    gtk_widget_set_visible(chosen.spinner, TRUE);
    gtk_spinner_start(GTK_SPINNER(chosen.spinner));
    controller->tableViewDidSelectRowAtIndexPath(IndexPath{0, index});
}

void PickerWindow::cancel() {
    if (dismissing_) return;
    if (auto controller = controller_.lock()) {
        controller->didClickCancelBarItem();
    } else {
        dismiss(true, nullptr);
    }
}

void PickerWindow::present(bool animated, std::function<void()> completion) {
    if (window_ == nullptr) return;
    presented_ = std::move(completion);
    gtk_revealer_set_transition_duration(GTK_REVEALER(revealer_), animated ? kSlideMilliseconds : 0);
    gtk_window_present(window_);
    gtk_revealer_set_reveal_child(GTK_REVEALER(revealer_), TRUE);
}

void PickerWindow::dismiss(bool animated, std::function<void()> completion) {
    if (window_ == nullptr) {
        if (completion) completion();
        return;
    }
    if (completion) {
        dismissed_ = [first = std::move(dismissed_), next = std::move(completion)] {
            if (first) first();
            next();
        };
    }
    if (dismissing_) return;
    dismissing_ = true;
    presented_ = nullptr;
    GtkRevealer* revealer = GTK_REVEALER(revealer_);
    gtk_revealer_set_transition_duration(revealer, animated ? kSlideMilliseconds : 0);
    gtk_revealer_set_reveal_child(revealer, FALSE);
    // Nothing to slide away (never shown, or no animation): closed at once.
    if (window_ != nullptr && !gtk_revealer_get_child_revealed(revealer)) close();
}

void PickerWindow::revealed() {
    if (window_ == nullptr) return;
    const bool shown = gtk_revealer_get_child_revealed(GTK_REVEALER(revealer_)) != FALSE;
    if (shown && presented_) {
        auto completion = std::exchange(presented_, nullptr);
        completion();
    } else if (!shown && dismissing_) {
        close();
    }
}

void PickerWindow::destroyedFromOutside() {
    if (window_ == nullptr) return;
    close();
    if (auto controller = controller_.lock()) controller->didClickCancelBarItem();
}

void PickerWindow::close() {
    if (window_ == nullptr) return;
    GtkWindow* window = std::exchange(window_, nullptr);
    g_signal_handler_disconnect(host_, hostHandler_);
    g_object_unref(std::exchange(host_, nullptr));
    revealer_ = nullptr;
    headerLabel_ = nullptr;
    list_ = nullptr;
    rows_.clear();
    for (const Row& row : reusable_) g_object_unref(row.row);
    reusable_.clear();
    gtk_window_destroy(window);  // a no-op when it is being destroyed already
    g_object_unref(window);
    style_.reset();
    presented_ = nullptr;
    if (auto completion = std::exchange(dismissed_, nullptr)) completion();
}

}  // namespace plenk::gtk
