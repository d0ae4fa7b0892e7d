#include "ui/gtk/PickerStyle.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace plenk::gtk {

namespace {

// Shared by every picker: a bar 44 points high, the header's grey label, rows
// 44 points high in a grouped list with light grey (lightGrayColor, 2/3 white)
// separators.
constexpr const char* kLayoutCss = R"css(
headerbar.picker-bar { min-height: 44px; padding-top: 0; padding-bottom: 0; border-bottom-width: 0;
                       box-shadow: inset 0 -1px rgba(0, 0, 0, 0.15); }
headerbar.picker-bar button { margin-top: 5px; margin-bottom: 5px; }
.picker-header-label { color: rgb(127.5, 127.5, 127.5); }
list.picker-list { background-color: white; border: 1px solid rgb(170, 170, 170); border-radius: 8px;
                   margin: 0 10px 10px 10px; }
list.picker-list > row { min-height: 44px; padding: 0; border-bottom: 1px solid rgb(170, 170, 170); }
list.picker-list > row:last-child { border-bottom: none; }
scrolledwindow.picker-scroller, scrolledwindow.picker-scroller > viewport { background: none; }
)css";

// Once per display; the display keeps the provider.
void installLayoutCss(GdkDisplay* display) {
    constexpr const char* kKey = "plenk-picker-layout-css";
    if (g_object_get_data(G_OBJECT(display), kKey) != nullptr) return;
    GtkCssProvider* provider = gtk_css_provider_new();
    gtk_css_provider_load_from_data(provider, kLayoutCss, -1);
    gtk_style_context_add_provider_for_display(display, GTK_STYLE_PROVIDER(provider),
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    g_object_set_data_full(G_OBJECT(display), kKey, provider, g_object_unref);
}

double channel(double component) {
    return std::clamp(component, 0.0, 1.0) * 255.0;
}

}  // namespace

std::string PickerStyle::css(const Color& color) {
    char text[96];
    std::snprintf(text, sizeof text, "rgba(%.3f, %.3f, %.3f, %.4f)", channel(color.r), channel(color.g),
                  channel(color.b), std::clamp(color.a, 0.0, 1.0));
    return text;
}

PickerStyle::PickerStyle(GtkWidget* window, Color background, std::optional<Color> barTint)
    : display_(GDK_DISPLAY(g_object_ref(gtk_widget_get_display(window)))), provider_(gtk_css_provider_new()) {
    installLayoutCss(display_);
    static std::atomic<unsigned> serial{0};
    const std::string windowClass = "plenk-picker-" + std::to_string(++serial);
    gtk_widget_add_css_class(window, windowClass.c_str());
    std::string text =
        "window." + windowClass + " .picker-content { background-color: " + css(background) + "; }\n";
    // The bar's tint colours its button, as a tint does; the bar keeps its own background.
    if (barTint) {
        text += "window." + windowClass + " .picker-bar button { color: " + css(*barTint) + "; }\n";
    }
    gtk_css_provider_load_from_data(provider_, text.c_str(), -1);
    gtk_style_context_add_provider_for_display(display_, GTK_STYLE_PROVIDER(provider_),
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION + 1);
}

PickerStyle::~PickerStyle() {
    gtk_style_context_remove_provider_for_display(display_, GTK_STYLE_PROVIDER(provider_));
    g_object_unref(provider_);
    g_object_unref(display_);
}

}  // namespace plenk::gtk
