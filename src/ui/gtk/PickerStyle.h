#pragma once

#include <gtk/gtk.h>

#include <optional>
#include <string>

#include <PlenkKit/Color.h>

namespace plenk::gtk {

// The picker's look, through CSS: the layout's fixed parts for every picker
// (bar height, grey header text, light grey separators, 44-point rows), and
// the colours of one picker window (its background, its bar's tint) scoped to
// a CSS class of that window alone.
class PickerStyle {
public:
    // Adds the colours of one window to the display; they go when this does.
    PickerStyle(GtkWidget* window, Color background, std::optional<Color> barTint);
    ~PickerStyle();
    PickerStyle(const PickerStyle&) = delete;
    PickerStyle& operator=(const PickerStyle&) = delete;

    // A CSS colour for `color`, exact to a thousandth of a channel step.
    static std::string css(const Color& color);

private:
    GdkDisplay* display_;
    GtkCssProvider* provider_;
};

}  // namespace plenk::gtk
