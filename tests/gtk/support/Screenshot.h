#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <gtk/gtk.h>

#include "gtk/support/WidgetLookup.h"

namespace plenk::gtk::test {

// A colour as 8-bit channels, not premultiplied.
struct Rgba {
    int r = 0;
    int g = 0;
    int b = 0;
    int a = 255;

    // From channels 0..1, rounded to the nearest 8-bit value.
    static Rgba fromUnit(double r, double g, double b, double a = 1.0);
    // Every channel within `tolerance` of the other's.
    bool near(const Rgba& other, int tolerance) const;
    friend bool operator==(const Rgba&, const Rgba&) = default;
};

// "rgba(207, 200, 190, 255)"; GoogleTest prints colours so.
std::string describe(const Rgba& colour);
inline void PrintTo(const Rgba& colour, std::ostream* out) {
    *out << describe(colour);
}

// A window as GTK last drew it: the window's render node rendered by the
// window's own renderer into a texture, and its pixels. Take it after
// waitForFrame() to see the current state.
class Screenshot {
public:
    // Throws std::runtime_error if the window has not been drawn yet.
    static Screenshot take(GtkWidget* window);

    // Writes a PNG to $PLENK_BINARY_DIR/screenshots/NAME.png (./screenshots
    // without it) and returns its path. A build artefact for people to look
    // at; tests read the pixels here, not the file.
    std::string save(std::string_view name) const;

    // Transparent black outside the image.
    Rgba pixel(int x, int y) const;

    // The most frequent colour in `region` (clipped to the image).
    Rgba dominantColour(const PixelRect& region) const;
    // Pixels of `region` within `tolerance` of `colour`.
    std::size_t countNear(const PixelRect& region, const Rgba& colour, int tolerance) const;
    // Pixels of `region` that differ between the two shots (of the same window size).
    static std::size_t countDifferences(const Screenshot& a, const Screenshot& b, const PixelRect& region);

private:
    Screenshot() = default;
    // Pixels of `region` (clipped to the image) for which predicate(x, y) holds.
    template <typename Predicate>
    std::size_t count(const PixelRect& region, Predicate predicate) const;

    std::shared_ptr<GdkTexture> texture_;
    int width_ = 0;
    int height_ = 0;
    std::vector<std::uint8_t> pixels_;  // ARGB32 premultiplied, native endian
};

}  // namespace plenk::gtk::test
