#pragma once

#include <functional>
#include <thread>

namespace plenk::gtk {

// GTK objects are touched on the thread that runs GTK only. An object of ours
// that holds GTK objects may still be released elsewhere (the library lets go
// of a picker wherever its last owner lets go): its release runs here, now if
// this is the GTK thread, else from the default main context's next iteration.
void onGtkThread(std::thread::id gtkThread, std::function<void()> release);

}  // namespace plenk::gtk
