#pragma once

#include <gtk/gtk.h>

#include <memory>

#include "DemoSession.h"
#include "DemoWindow.h"

namespace plenk::demo {

// The GTK application around the demo window: its command line, the session
// made from it, the window, and an orderly end (the scale is let go before the
// library is).
class DemoApp {
public:
    static constexpr const char* kApplicationId = "org.plenkkit.Demo";

    DemoApp();
    ~DemoApp();
    DemoApp(const DemoApp&) = delete;
    DemoApp& operator=(const DemoApp&) = delete;

    // Runs the application; returns the process's exit status (2 for a bad
    // command line).
    int run(int argc, char** argv);

private:
    int handleOptions(GVariantDict* options);
    void activate();
    void shutdown();

    GtkApplication* app_;
    std::unique_ptr<DemoSession> session_;
    std::shared_ptr<DemoWindow> window_;
};

}  // namespace plenk::demo
