#include "gtk/support/WidgetLookup.h"

#include <cmath>

namespace plenk::gtk::test {

namespace {

void collect(GtkWidget* widget, std::string_view name, std::vector<GtkWidget*>& found) {
    if (name == gtk_widget_get_name(widget)) found.push_back(widget);
    for (GtkWidget* child = gtk_widget_get_first_child(widget); child != nullptr;
         child = gtk_widget_get_next_sibling(child)) {
        collect(child, name, found);
    }
}

}  // namespace

std::vector<GtkWidget*> findWidgets(GtkWidget* root, std::string_view name) {
    std::vector<GtkWidget*> found;
    if (root != nullptr) collect(root, name, found);
    return found;
}

GtkWidget* findWidget(GtkWidget* root, std::string_view name) {
    const auto found = findWidgets(root, name);
    return found.empty() ? nullptr : found.front();
}

std::optional<PixelRect> boundsInWindow(GtkWidget* widget) {
    GtkWidget* window = GTK_WIDGET(gtk_widget_get_root(widget));
    graphene_rect_t own;
    graphene_rect_t inWindow;
    graphene_rect_t windowBox;
    if (window == nullptr || !gtk_widget_compute_bounds(widget, widget, &own) ||
        !gtk_widget_compute_bounds(widget, window, &inWindow) ||
        !gtk_widget_compute_bounds(window, window, &windowBox)) {
        return std::nullopt;
    }
    // A turning spinner is rotated by a CSS transform, and its bounds in the
    // window are the rotated box's. The box's centre is where the widget's
    // centre is drawn under any such transform; around it lies the widget's
    // own untransformed size. A screenshot starts at the window's own box,
    // which need not be the origin of its coordinate system.
    const double centreX = inWindow.origin.x + inWindow.size.width / 2 - windowBox.origin.x;
    const double centreY = inWindow.origin.y + inWindow.size.height / 2 - windowBox.origin.y;
    const double left = std::floor(centreX - own.size.width / 2);
    const double top = std::floor(centreY - own.size.height / 2);
    const double right = std::ceil(centreX + own.size.width / 2);
    const double bottom = std::ceil(centreY + own.size.height / 2);
    return PixelRect{static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
                     static_cast<int>(bottom - top)};
}

bool isShown(GtkWidget* widget) {
    return widget != nullptr && gtk_widget_get_visible(widget) && gtk_widget_get_mapped(widget);
}

}  // namespace plenk::gtk::test
