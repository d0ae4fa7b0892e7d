#include "gtk/support/MainContextWait.h"

namespace plenk::gtk::test {

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit, GMainContext* context) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // A ticking source wakes the blocking iteration, so that a predicate made
    // true by another thread is seen without a busy loop.
    GSource* tick = g_timeout_source_new(10);
    g_source_set_callback(
        tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_attach(tick, context);
    bool held = done();
    while (!held && std::chrono::steady_clock::now() < deadline) {
        g_main_context_iteration(context, TRUE);
        held = done();
    }
    g_source_destroy(tick);
    g_source_unref(tick);
    return held;
}

void runFor(std::chrono::milliseconds duration) {
    const auto end = std::chrono::steady_clock::now() + duration;
    waitUntil([&] { return std::chrono::steady_clock::now() >= end; }, duration + duration);
}

bool waitForFrame(GtkWidget* widget) {
    GdkFrameClock* clock = gtk_widget_get_frame_clock(widget);
    if (clock == nullptr) return false;
    bool painted = false;
    const gulong handler = g_signal_connect_swapped(clock, "after-paint",
                                                    G_CALLBACK(+[](bool* flag) { *flag = true; }), &painted);
    gtk_widget_queue_draw(GTK_WIDGET(gtk_widget_get_root(widget)));
    const bool ok = waitUntil([&] { return painted; });
    g_signal_handler_disconnect(clock, handler);
    return ok;
}

}  // namespace plenk::gtk::test
