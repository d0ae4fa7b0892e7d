#include "ui/gtk/GtkThread.h"

#include <glib.h>

namespace plenk::gtk {

void onGtkThread(std::thread::id gtkThread, std::function<void()> release) {
    if (std::this_thread::get_id() == gtkThread) {
        release();
        return;
    }
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer data) -> gboolean {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(release)),
        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

}  // namespace plenk::gtk
