#include "DemoApp.h"

#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace plenk::demo {

namespace {
// How long closing waits for the scale to acknowledge the disconnect.
constexpr gint64 kDisconnectGraceUs = 1'500'000;

const GOptionEntry kOptions[] = {
    {"sim", 0, 0, G_OPTION_ARG_NONE, nullptr, "Use a simulated scale that pours espresso shots", nullptr},
    {"backend", 0, 0, G_OPTION_ARG_STRING, nullptr, "Bluetooth backend: bluez (default when built in) or sim",
     "NAME"},
    {"adapter", 0, 0, G_OPTION_ARG_STRING, nullptr,
     "Bluetooth adapter to use, e.g. hci1 (default: first powered)", "hciN"},
    {"verbose", 'v', 0, G_OPTION_ARG_NONE, nullptr, "Print the library's diagnostics on standard error",
     nullptr},
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

std::string stringOption(GVariantDict* options, const char* name) {
    const char* value = nullptr;
    return g_variant_dict_lookup(options, name, "&s", &value) && value ? value : "";
}
}  // namespace

DemoApp::DemoApp() : app_(gtk_application_new(kApplicationId, G_APPLICATION_NON_UNIQUE)) {
    g_application_add_main_option_entries(G_APPLICATION(app_), kOptions);
    g_application_set_option_context_summary(
        G_APPLICATION(app_),
        "Shows a Bluetooth coffee scale's live weight, a plot of the last 30 seconds of weight and flow,\n"
        "its connection and battery. Connects to the first scale found; \"Choose Scale…\" picks one.");
    g_application_set_option_context_description(
        G_APPLICATION(app_),
        "Examples:\n  plenk-demo --sim\n  plenk-demo --backend bluez "
        "--adapter hci1");
    g_signal_connect(app_, "handle-local-options",
                     G_CALLBACK(+[](GApplication*, GVariantDict* options, gpointer self) {
                         return static_cast<DemoApp*>(self)->handleOptions(options);
                     }),
                     this);
    g_signal_connect(
        app_, "activate",
        G_CALLBACK(+[](GApplication*, gpointer self) { static_cast<DemoApp*>(self)->activate(); }), this);
    g_signal_connect(
        app_, "shutdown",
        G_CALLBACK(+[](GApplication*, gpointer self) { static_cast<DemoApp*>(self)->shutdown(); }), this);
}

DemoApp::~DemoApp() {
    window_.reset();
    session_.reset();
    g_object_unref(app_);
}

int DemoApp::run(int argc, char** argv) {
    return g_application_run(G_APPLICATION(app_), argc, argv);
}

// The command line is checked, and the library set up, before any window opens.
int DemoApp::handleOptions(GVariantDict* options) {
    DemoOptions demo;
    demo.sim = g_variant_dict_contains(options, "sim");
    demo.verbose = g_variant_dict_contains(options, "verbose");
    demo.backend = stringOption(options, "backend");
    demo.adapter = stringOption(options, "adapter");
    try {
        session_ = std::make_unique<DemoSession>(demo);
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "plenk-demo: %s\nTry 'plenk-demo --help'.\n", e.what());
        return 2;
    }
    return -1;  // go on: activate
}

void DemoApp::activate() {
    if (window_) {
        gtk_window_present(window_->window());
        return;
    }
    // Ctrl-C in the terminal ends the demo as closing the window does: the
    // scale is let go first.
    for (const int signal : {SIGINT, SIGTERM}) {
        g_unix_signal_add(
            signal,
            +[](gpointer app) -> gboolean {
                g_application_quit(G_APPLICATION(app));
                return G_SOURCE_CONTINUE;
            },
            app_);
    }
    const char* const closeKeys[] = {"<Control>q", "<Control>w", nullptr};
    gtk_application_set_accels_for_action(app_, "window.close", closeKeys);
    window_ = DemoWindow::create(app_, *session_);
    session_->start();
    window_->start();
    gtk_window_present(window_->window());
}

// Leaves the scale unlinked, then releases the window and the library while
// the main loop can still run what they post.
void DemoApp::shutdown() {
    if (session_) {
        const auto& plenk = session_->plenk();
        plenk->setIsAutoConnectEnabled(false);
        if (plenk->isConnected()) {
            plenk->disconnect();
            const gint64 deadline = g_get_monotonic_time() + kDisconnectGraceUs;
            while (plenk->isConnected() && g_get_monotonic_time() < deadline) {
                if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(10'000);
            }
        }
    }
    window_.reset();
    session_.reset();
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

}  // namespace plenk::demo
