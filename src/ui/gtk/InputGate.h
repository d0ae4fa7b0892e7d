#pragma once

#include <gtk/gtk.h>

#include <memory>

namespace plenk::gtk {

// Drops pointer and key events to the windows it guards while closed: the host
// ignores user input while a picker slides in. Closing counts, so nested
// begin/end pairs work. GTK thread only.
class InputGate : public std::enable_shared_from_this<InputGate> {
public:
    void close() { ++closedCount_; }
    void open() {
        if (closedCount_ > 0) --closedCount_;
    }
    bool isClosed() const { return closedCount_ > 0; }

    // Guards `window` for as long as both live.
    void guard(GtkWindow* window);

private:
    int closedCount_ = 0;
};

}  // namespace plenk::gtk
