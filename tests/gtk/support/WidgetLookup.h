#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include <gtk/gtk.h>

namespace plenk::gtk::test {

// Every widget under `root` (itself included) whose widget name
// (gtk_widget_get_name) is `name`, depth first in child order.
std::vector<GtkWidget*> findWidgets(GtkWidget* root, std::string_view name);
// The first of them; null if there is none.
GtkWidget* findWidget(GtkWidget* root, std::string_view name);

// An axis-aligned rectangle in a window's pixels (scale 1 under Xvfb).
struct PixelRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

// Where `widget` is laid out within its window, in the window screenshot's
// coordinates (the window's own box at 0,0), rounded outwards, without the
// rotation of a turning spinner; nullopt if it is not in a window.
std::optional<PixelRect> boundsInWindow(GtkWidget* widget);

// A widget that is visible and mapped (on screen, as far as GTK knows).
bool isShown(GtkWidget* widget);

}  // namespace plenk::gtk::test
