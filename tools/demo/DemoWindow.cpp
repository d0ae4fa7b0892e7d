#include "DemoWindow.h"

#include <cmath>
#include <cstdio>

#include "LinkStatus.h"
#include "PourPlot.h"

namespace plenk::demo {

namespace {

using std::chrono::seconds;
constexpr auto kTick = std::chrono::milliseconds(100);
constexpr auto kBatteryRefresh = seconds(60);
// After a drop, "Disconnected" stays up this long before auto-connect's
// "Searching…" replaces it, so a user sees that the link went.
constexpr auto kShowDrop = seconds(2);
// How long "Choose Scale…" waits for the link it dropped before it opens the
// picker anyway (the picker then says what is in the way).
constexpr auto kDropWait = seconds(3);
// How long Bluetooth may stay unusable before the banner says what to try.
constexpr auto kRadioGrace = seconds(4);

constexpr const char* kCss = R"css(
#demo-weight { font-size: 60pt; font-weight: 300; font-feature-settings: "tnum"; }
#demo-weight.stale { color: alpha(currentColor, 0.45); }
#demo-flow { font-size: 15pt; color: #1c71d8; font-feature-settings: "tnum"; }
#demo-scale { font-size: 13pt; font-weight: bold; }
#demo-state { padding: 3px 12px; border-radius: 999px; font-weight: bold; background: rgba(0,0,0,0.08); }
#demo-state.linked { background: #2ec27e; color: white; }
#demo-state.busy { background: #f8e45c; color: #3d3846; }
.banner { background: #c01c28; color: white; padding: 6px 6px 6px 14px; }
.banner button { color: white; }
#demo-plot { border-radius: 10px; }
)css";

void installStyle() {
    static bool installed = false;
    GdkDisplay* display = gdk_display_get_default();
    if (installed || !display) return;
    installed = true;
    GtkCssProvider* provider = gtk_css_provider_new();
    gtk_css_provider_load_from_data(provider, kCss, -1);
    gtk_style_context_add_provider_for_display(display, GTK_STYLE_PROVIDER(provider),
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    g_object_unref(provider);
}

// Names are for tests and for the style sheet (#name).
GtkWidget* named(GtkWidget* widget, const char* name) {
    gtk_widget_set_name(widget, name);
    return widget;
}

GtkWidget* label(const char* name, const char* text, float xalign = 0) {
    GtkWidget* widget = named(gtk_label_new(text), name);
    gtk_label_set_xalign(GTK_LABEL(widget), xalign);
    return widget;
}

void setText(GtkWidget* widget, const std::string& text) {
    if (text != gtk_label_get_text(GTK_LABEL(widget))) gtk_label_set_text(GTK_LABEL(widget), text.c_str());
}

// One decimal, without a "-0.0" for noise around zero.
std::string formatted(double value, const char* unit) {
    if (std::abs(value) < 0.05) value = 0;
    char text[48];
    std::snprintf(text, sizeof text, "%.1f %s", value, unit);
    return text;
}

}  // namespace

struct DemoWindow::Widgets {
    GtkWidget* banner = nullptr;
    GtkWidget* bannerText = nullptr;
    GtkWidget* scale = nullptr;
    GtkWidget* weight = nullptr;
    GtkWidget* flow = nullptr;
    GtkWidget* state = nullptr;
    GtkWidget* battery = nullptr;
    GtkWidget* plot = nullptr;
    GtkWidget* tare = nullptr;
    GtkWidget* display = nullptr;
    GtkWidget* choose = nullptr;
};

struct DemoWindow::MainHop {
    std::weak_ptr<DemoWindow> window;
    std::weak_ptr<Executor> queue;

    template <typename Step>
    void operator()(Step step) const {
        if (const auto q = queue.lock()) {
            q->post([window = window, step = std::move(step)] {
                if (const auto self = window.lock(); self && self->widgets_) step(*self);
            });
        }
    }
};

DemoWindow::MainHop DemoWindow::hop() {
    return MainHop{weak_from_this(), queue_};
}

std::shared_ptr<DemoWindow> DemoWindow::create(GtkApplication* app, DemoSession& session) {
    auto window = std::make_shared<DemoWindow>(Token{}, session);
    window->build(app);
    window->observeNotifications();
    session.plenk()->setDelegate(window);
    return window;
}

DemoWindow::DemoWindow(Token, DemoSession& session)
    : plenk_(session.plenk()), queue_(session.mainQueue()), notifications_(session.notifications()) {}

DemoWindow::~DemoWindow() {
    // Once removed, an observer is never called again: nothing reaches this
    // object from the Bluetooth queue after this.
    for (const auto token : observers_) notifications_->removeObserver(token);
    if (tickSource_ != 0) g_source_remove(tickSource_);
    for (GObject* object : handlerOwners_) {
        g_signal_handlers_disconnect_by_data(object, this);
        g_object_unref(object);
    }
    presenter_.reset();
    if (widgets_) {  // still on screen
        gtk_drawing_area_set_draw_func(GTK_DRAWING_AREA(widgets_->plot), nullptr, nullptr, nullptr);
        gtk_window_destroy(window_);
    }
    g_object_unref(window_);
}

void DemoWindow::connect(gpointer instance, const char* signal, GCallback handler) {
    g_signal_connect(instance, signal, handler, this);
    handlerOwners_.push_back(G_OBJECT(g_object_ref(instance)));
}

void DemoWindow::build(GtkApplication* app) {
    installStyle();
    window_ = GTK_WINDOW(app ? gtk_application_window_new(app) : gtk_window_new());
    g_object_ref(window_);
    gtk_window_set_title(window_, "Plenk Demo");
    gtk_window_set_icon_name(window_, "org.plenkkit.Demo");
    gtk_window_set_default_size(window_, 760, 560);
    connect(window_, "destroy", G_CALLBACK(+[](GtkWidget*, gpointer self) {
                static_cast<DemoWindow*>(self)->windowDestroyed();
            }));
    presenter_ = gtk::WindowPresenter::create(window_);
    widgets_ = std::make_unique<Widgets>();
    Widgets& w = *widgets_;

    GtkWidget* header = gtk_header_bar_new();
    w.choose = named(gtk_button_new_with_label("Choose Scale…"), "demo-choose");
    gtk_widget_set_tooltip_text(w.choose, "Pick a scale from the ones in range (turns auto-connect off)");
    gtk_header_bar_pack_start(GTK_HEADER_BAR(header), w.choose);
    gtk_window_set_titlebar(window_, header);

    // The error banner, hidden until there is something to say.
    w.banner = named(gtk_revealer_new(), "demo-banner");
    gtk_revealer_set_transition_type(GTK_REVEALER(w.banner), GTK_REVEALER_TRANSITION_TYPE_SLIDE_DOWN);
    GtkWidget* bannerBox = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    gtk_widget_add_css_class(bannerBox, "banner");
    w.bannerText = label("demo-banner-text", "");
    gtk_label_set_wrap(GTK_LABEL(w.bannerText), TRUE);
    gtk_widget_set_hexpand(w.bannerText, TRUE);
    GtkWidget* close = named(gtk_button_new_from_icon_name("window-close-symbolic"), "demo-banner-close");
    gtk_button_set_has_frame(GTK_BUTTON(close), FALSE);
    gtk_widget_set_tooltip_text(close, "Dismiss");
    gtk_box_append(GTK_BOX(bannerBox), w.bannerText);
    gtk_box_append(GTK_BOX(bannerBox), close);
    gtk_revealer_set_child(GTK_REVEALER(w.banner), bannerBox);

    // The readout: scale name, big weight and flow on the left; state and battery on the right.
    w.scale = label("demo-scale", "No scale");
    w.weight = label("demo-weight", "--.- g");
    gtk_widget_add_css_class(w.weight, "stale");
    w.flow = label("demo-flow", "0.0 g/s");
    GtkWidget* readout = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_widget_set_hexpand(readout, TRUE);
    gtk_box_append(GTK_BOX(readout), w.scale);
    gtk_box_append(GTK_BOX(readout), w.weight);
    gtk_box_append(GTK_BOX(readout), w.flow);
    w.state = label("demo-state", "Disconnected", 0.5);
    w.battery = label("demo-battery", "Battery –", 1);
    GtkWidget* status = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_widget_set_valign(status, GTK_ALIGN_START);
    gtk_box_append(GTK_BOX(status), w.state);
    gtk_box_append(GTK_BOX(status), w.battery);
    GtkWidget* top = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
    gtk_box_append(GTK_BOX(top), readout);
    gtk_box_append(GTK_BOX(top), status);

    w.plot = named(gtk_drawing_area_new(), "demo-plot");
    gtk_widget_set_vexpand(w.plot, TRUE);
    gtk_widget_set_size_request(w.plot, 480, 240);
    gtk_widget_set_overflow(w.plot, GTK_OVERFLOW_HIDDEN);
    gtk_drawing_area_set_draw_func(
        GTK_DRAWING_AREA(w.plot),
        +[](GtkDrawingArea*, cairo_t* cr, int width, int height, gpointer self) {
            drawPourPlot(cr, width, height, static_cast<DemoWindow*>(self)->history_,
                         PourHistory::Clock::now());
        },
        this, nullptr);

    w.tare = named(gtk_button_new_with_label("Tare"), "demo-tare");
    gtk_widget_add_css_class(w.tare, "suggested-action");
    gtk_widget_set_size_request(w.tare, 120, -1);
    w.display = named(gtk_switch_new(), "demo-display");
    gtk_switch_set_active(GTK_SWITCH(w.display), TRUE);
    gtk_widget_set_valign(w.display, GTK_ALIGN_CENTER);
    gtk_widget_set_tooltip_text(w.display, "The scale's display on or off");
    GtkWidget* buttons = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 10);
    gtk_box_append(GTK_BOX(buttons), w.tare);
    GtkWidget* spacer = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    gtk_widget_set_hexpand(spacer, TRUE);
    gtk_box_append(GTK_BOX(buttons), spacer);
    gtk_box_append(GTK_BOX(buttons), gtk_label_new("Display"));
    gtk_box_append(GTK_BOX(buttons), w.display);

    GtkWidget* body = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
    gtk_widget_set_margin_start(body, 18);
    gtk_widget_set_margin_end(body, 18);
    gtk_widget_set_margin_top(body, 12);
    gtk_widget_set_margin_bottom(body, 18);
    gtk_box_append(GTK_BOX(body), top);
    gtk_box_append(GTK_BOX(body), w.plot);
    gtk_box_append(GTK_BOX(body), buttons);
    GtkWidget* page = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_box_append(GTK_BOX(page), w.banner);
    gtk_box_append(GTK_BOX(page), body);
    gtk_window_set_child(window_, page);

    connect(w.choose, "clicked",
            G_CALLBACK(+[](GtkButton*, gpointer self) { static_cast<DemoWindow*>(self)->chooseScale(); }));
    connect(close, "clicked", G_CALLBACK(+[](GtkButton*, gpointer self) {
                auto* window = static_cast<DemoWindow*>(self);
                gtk_revealer_set_reveal_child(GTK_REVEALER(window->widgets_->banner), FALSE);
            }));
    connect(w.tare, "clicked",
            G_CALLBACK(+[](GtkButton*, gpointer self) { static_cast<DemoWindow*>(self)->plenk_->tare(); }));
    connect(w.display, "notify::active", G_CALLBACK(+[](GObject* widget, GParamSpec*, gpointer self) {
                auto* window = static_cast<DemoWindow*>(self);
                if (!window->settingDisplay_)
                    window->plenk_->setLEDDisplayOn(gtk_switch_get_active(GTK_SWITCH(widget)));
            }));
    tickSource_ = g_timeout_add(
        static_cast<guint>(kTick.count()),
        +[](gpointer self) -> gboolean {
            static_cast<DemoWindow*>(self)->tick();
            return G_SOURCE_CONTINUE;
        },
        this);
    refreshState();
}

void DemoWindow::windowDestroyed() {
    // The widgets are going; library callbacks still arriving find nothing to update.
    if (tickSource_ != 0) g_source_remove(tickSource_);
    tickSource_ = 0;
    if (widgets_) gtk_drawing_area_set_draw_func(GTK_DRAWING_AREA(widgets_->plot), nullptr, nullptr, nullptr);
    widgets_.reset();
}

// The kit's notifications arrive on the Bluetooth queue: hop to the main queue.
void DemoWindow::observeNotifications() {
    const MainHop toMain = hop();
    observers_.push_back(notifications_->addObserver(kReconnectNotification, [toMain](const Notification&) {
        toMain([](DemoWindow& w) { w.heldLinkDropped(); });
    }));
    observers_.push_back(notifications_->addObserver(kConnectNotification, [toMain](const Notification&) {
        toMain([](DemoWindow& w) { w.heldLinkBack(); });
    }));
}

void DemoWindow::start() {
    plenk_->setIsAutoConnectEnabled(true);
    refreshState();
}

void DemoWindow::showBanner(const std::string& text) {
    if (!widgets_) return;
    gtk_label_set_text(GTK_LABEL(widgets_->bannerText), text.c_str());
    gtk_revealer_set_reveal_child(GTK_REVEALER(widgets_->banner), TRUE);
}

// --- the facade's events (on the main queue) ----------------------------------

void DemoWindow::plenkDidConnected(PKPlenk&) {
    linked_ = true;
    reconnecting_ = false;
    if (!widgets_) return;
    // A fresh link: the scale shows its display until told otherwise.
    settingDisplay_ = true;
    gtk_switch_set_active(GTK_SWITCH(widgets_->display), TRUE);
    settingDisplay_ = false;
    readBattery();
    refreshState();
}

void DemoWindow::plenkDidDisconnected(PKPlenk&) {
    linked_ = false;
    reconnecting_ = false;
    disconnectedAt_ = PourHistory::Clock::now();
    if (widgets_) {
        setText(widgets_->battery, "Battery –");
        gtk_widget_add_css_class(widgets_->weight, "stale");
    }
    if (pickerAfterDisconnect_) openPicker();
    refreshState();
}

void DemoWindow::plenkDidErrorOccur(PKPlenk&, const ErrorPtr& error) {
    if (error) showBanner(error->localizedDescription());
}

void DemoWindow::plenkWeightDidUpdate(float weight) {
    history_.add(PourHistory::Clock::now(), weight);
    if (!widgets_) return;
    setText(widgets_->weight, formatted(weight, "g"));
    gtk_widget_remove_css_class(widgets_->weight, "stale");
}

// A held link dropped: the kit relinks it without telling the delegate.
void DemoWindow::heldLinkDropped() {
    if (linked_) reconnecting_ = true;
    refreshState();
}

void DemoWindow::heldLinkBack() {
    if (reconnecting_) {
        reconnecting_ = false;
        readBattery();
    }
    refreshState();
}

// --- the picker ---------------------------------------------------------------------

// The picker lists scales only with auto-connect off and no scale linked.
void DemoWindow::chooseScale() {
    if (presenter_->pickerWindow()) {
        gtk_window_present(presenter_->pickerWindow());
        return;
    }
    plenk_->setIsAutoConnectEnabled(false);
    const auto kit = plenk_->rosta();
    if (kit && kit->currentDevice()) {
        pickerAfterDisconnect_ = true;
        plenk_->disconnect();  // plenkDidDisconnected opens the picker
        queue_->postAfter(kDropWait, [weak = weak_from_this()] {
            if (const auto self = weak.lock(); self && self->pickerAfterDisconnect_) self->openPicker();
        });
        return;
    }
    if (const auto connecting = kit ? kit->connectingPeripheral() : nullptr;
        connecting && connecting->state() == PeripheralState::Connecting) {
        kit->connecter()->cancelConnectDeviceWithPeripheral(connecting);
    }
    openPicker();
}

void DemoWindow::openPicker() {
    pickerAfterDisconnect_ = false;
    const auto kit = plenk_->rosta();
    if (!kit || kit->leState() == 0) {
        // Before the radio's first report the kit offers no picker at all.
        showBanner("Bluetooth has not reported its state yet; try again in a moment.");
        return;
    }
    // Opening errors arrive at once on this thread, failures while the picker
    // is open on the Bluetooth queue: every answer takes the hop.
    const MainHop toMain = hop();
    plenk_->showDevicePickerOnViewContoller(presenter_, [toMain](const ErrorPtr& error) {
        toMain([error](DemoWindow& w) { w.pickerFinished(error); });
    });
    refreshState();
}

void DemoWindow::pickerFinished(const ErrorPtr& error) {
    // Cancelling is the user's own choice, not a failure to report.
    if (error && !isKind<RKErrorLECancelC>(error)) showBanner(error->localizedDescription());
    refreshState();
}

// --- battery -------------------------------------------------------------------------

void DemoWindow::readBattery() {
    nextBatteryRead_ = PourHistory::Clock::now() + kBatteryRefresh;
    const MainHop toMain = hop();
    plenk_->readPlenkBatteryLifeWithCompletion(
        [toMain](std::int64_t level) { toMain([level](DemoWindow& w) { w.showBattery(level); }); });
}

void DemoWindow::showBattery(std::int64_t level) {
    if (linked_) setText(widgets_->battery, "Battery " + std::to_string(level) + " %");
}

// --- the periodic refresh --------------------------------------------------------------

void DemoWindow::tick() {
    const auto now = PourHistory::Clock::now();
    history_.trim(now);
    const auto latest = history_.latest();
    const bool flowing = latest && now - latest->time < PourHistory::kGap;
    setText(widgets_->flow, formatted(flowing ? latest->flow : 0.0, "g/s"));
    if (linked_ && !reconnecting_ && now >= nextBatteryRead_) readBattery();
    refreshState();
    gtk_widget_queue_draw(widgets_->plot);
}

void DemoWindow::refreshState() {
    if (!widgets_) return;
    const auto kit = plenk_->rosta();
    const auto device = kit ? kit->currentDevice() : nullptr;
    const auto connecting = kit ? kit->connectingPeripheral() : nullptr;
    const bool attempting = connecting && connecting->state() == PeripheralState::Connecting;
    LinkFacts facts;
    facts.radio = kit ? kit->leState() : 0;
    facts.connected = linked_;
    facts.reconnecting = reconnecting_;
    facts.connecting = attempting || (device && !linked_);
    facts.searching =
        presenter_->pickerWindow() != nullptr ||
        (plenk_->isAutoConnectEnabled() && PourHistory::Clock::now() - disconnectedAt_ >= kShowDrop);
    setText(widgets_->state, linkStatusText(facts));
    adviseOnRadio(facts.radio);
    const bool busy = facts.reconnecting || (!facts.connected && (facts.connecting || facts.searching));
    (facts.connected && !busy ? gtk_widget_add_css_class : gtk_widget_remove_css_class)(widgets_->state,
                                                                                        "linked");
    (busy ? gtk_widget_add_css_class : gtk_widget_remove_css_class)(widgets_->state, "busy");

    // The scale being used, or the one being linked.
    const auto peripheral = device ? device->peripheral() : (attempting ? connecting : nullptr);
    const auto name = peripheral ? peripheral->name() : std::nullopt;
    setText(widgets_->scale, name ? *name : (peripheral ? "Unnamed scale" : "No scale"));

    const bool usable = linked_ && !reconnecting_;
    gtk_widget_set_sensitive(widgets_->tare, usable);
    gtk_widget_set_sensitive(widgets_->display, usable);
}

// Powered off is the user's to switch on; no adapter, no permission or no
// bluetoothd at all needs a hint, once.
void DemoWindow::adviseOnRadio(std::uint64_t radio) {
    const auto now = PourHistory::Clock::now();
    if (radio == RKRostaKit::kLEStatePoweredOn || radio == RKRostaKit::kLEStatePoweredOff)
        radioUsableAt_ = now;
    if (radioHintShown_ || now - radioUsableAt_ < kRadioGrace) return;
    radioHintShown_ = true;
    showBanner(
        radio == RKRostaKit::kLEStateUnauthorized
            ? "This user may not use Bluetooth. To try the demo without a scale, run plenk-demo --sim."
            : "Bluetooth is not available: is bluetoothd running and an adapter present? To try the demo "
              "without a scale, run plenk-demo --sim.");
}

}  // namespace plenk::demo
