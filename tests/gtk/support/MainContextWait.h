#pragma once

#include <chrono>
#include <functional>

#include <gtk/gtk.h>

namespace plenk::gtk::test {

// Generous on purpose: a loaded machine under a sanitizer is slow, and no test
// asserts on how long anything took.
inline constexpr std::chrono::milliseconds kWaitLimit{20000};

// Iterates `context` (null: the default one, the GTK thread's) until `done()`
// holds or `limit` has passed; returns done(). done() is checked between
// iterations, at least every 10 ms.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = kWaitLimit,
               GMainContext* context = nullptr);

// Iterates the default main context for `duration`: frames are drawn and
// animations move on meanwhile.
void runFor(std::chrono::milliseconds duration);

// Queues a redraw of `widget`'s window and waits until a frame has been painted
// after it, so that a screenshot shows the current state. False if no frame
// came within the limit (the window is not mapped).
bool waitForFrame(GtkWidget* widget);

}  // namespace plenk::gtk::test
