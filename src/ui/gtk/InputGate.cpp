#include "ui/gtk/InputGate.h"

namespace plenk::gtk {

namespace {

using WeakGate = std::weak_ptr<InputGate>;

// Runs first (capture phase, on the window itself), so no widget inside sees
// an event the gate drops.
gboolean filterEvent(GtkEventControllerLegacy*, GdkEvent* event, gpointer data) {
    const auto gate = static_cast<WeakGate*>(data)->lock();
    if (!gate || !gate->isClosed()) return GDK_EVENT_PROPAGATE;
    switch (gdk_event_get_event_type(event)) {
        case GDK_BUTTON_PRESS:
        case GDK_BUTTON_RELEASE:
        case GDK_MOTION_NOTIFY:
        case GDK_KEY_PRESS:
        case GDK_KEY_RELEASE:
        case GDK_SCROLL:
        case GDK_TOUCH_BEGIN:
        case GDK_TOUCH_UPDATE:
        case GDK_TOUCH_END:
        case GDK_TOUCHPAD_SWIPE:
        case GDK_TOUCHPAD_PINCH:
            return GDK_EVENT_STOP;
        default:
            return GDK_EVENT_PROPAGATE;
    }
}

void freeWeakGate(gpointer data, GClosure*) {
    delete static_cast<WeakGate*>(data);
}

}  // namespace

void InputGate::guard(GtkWindow* window) {
    GtkEventController* controller = gtk_event_controller_legacy_new();
    gtk_event_controller_set_propagation_phase(controller, GTK_PHASE_CAPTURE);
    g_signal_connect_data(controller, "event", G_CALLBACK(filterEvent), new WeakGate(weak_from_this()),
                          freeWeakGate, GConnectFlags{});
    gtk_widget_add_controller(GTK_WIDGET(window), controller);
}

}  // namespace plenk::gtk
