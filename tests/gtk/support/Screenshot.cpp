#include "gtk/support/Screenshot.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <tuple>

namespace plenk::gtk::test {

namespace {

constexpr int kBytesPerPixel = 4;

int toByte(double unit) {
    return static_cast<int>(std::lround(std::clamp(unit, 0.0, 1.0) * 255.0));
}

}  // namespace

Rgba Rgba::fromUnit(double r, double g, double b, double a) {
    return {toByte(r), toByte(g), toByte(b), toByte(a)};
}

bool Rgba::near(const Rgba& other, int tolerance) const {
    return std::abs(r - other.r) <= tolerance && std::abs(g - other.g) <= tolerance &&
           std::abs(b - other.b) <= tolerance && std::abs(a - other.a) <= tolerance;
}

std::string describe(const Rgba& colour) {
    return "rgba(" + std::to_string(colour.r) + ", " + std::to_string(colour.g) + ", " +
           std::to_string(colour.b) + ", " + std::to_string(colour.a) + ")";
}

Screenshot Screenshot::take(GtkWidget* window) {
    GskRenderer* renderer = gtk_native_get_renderer(GTK_NATIVE(window));
    if (renderer == nullptr) throw std::runtime_error("screenshot: the window is not realized");
    GdkPaintable* paintable = gtk_widget_paintable_new(window);
    const int width = gdk_paintable_get_intrinsic_width(paintable);
    const int height = gdk_paintable_get_intrinsic_height(paintable);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    gdk_paintable_snapshot(paintable, snapshot, width, height);
    GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
    g_object_unref(paintable);
    if (node == nullptr || width <= 0 || height <= 0) {
        if (node != nullptr) gsk_render_node_unref(node);
        throw std::runtime_error("screenshot: the window has not been drawn");
    }
    graphene_rect_t viewport;
    graphene_rect_init(&viewport, 0, 0, static_cast<float>(width), static_cast<float>(height));
    GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &viewport);
    gsk_render_node_unref(node);

    Screenshot shot;
    shot.texture_.reset(texture, [](GdkTexture* t) { g_object_unref(t); });
    shot.width_ = gdk_texture_get_width(texture);
    shot.height_ = gdk_texture_get_height(texture);
    shot.pixels_.resize(static_cast<std::size_t>(shot.width_) * shot.height_ * kBytesPerPixel);
    gdk_texture_download(texture, shot.pixels_.data(), static_cast<gsize>(shot.width_) * kBytesPerPixel);
    return shot;
}

std::string Screenshot::save(std::string_view name) const {
    const char* binaryDir = std::getenv("PLENK_BINARY_DIR");
    const std::filesystem::path dir =
        std::filesystem::path(binaryDir != nullptr ? binaryDir : ".") / "screenshots";
    std::filesystem::create_directories(dir);
    const std::string path = (dir / (std::string(name) + ".png")).string();
    if (!gdk_texture_save_to_png(texture_.get(), path.c_str())) {
        throw std::runtime_error("screenshot: cannot write " + path);
    }
    return path;
}

Rgba Screenshot::pixel(int x, int y) const {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) return {0, 0, 0, 0};
    // ARGB32 in native endianness is one 32-bit word per pixel.
    std::uint32_t word = 0;
    const std::size_t offset = (static_cast<std::size_t>(y) * width_ + x) * kBytesPerPixel;
    std::copy_n(pixels_.data() + offset, kBytesPerPixel, reinterpret_cast<std::uint8_t*>(&word));
    const int a = static_cast<int>(word >> 24);
    const auto channel = [&](int shift) {
        const int premultiplied = static_cast<int>((word >> shift) & 0xff);
        return a == 0 ? 0 : (premultiplied * 255 + a / 2) / a;
    };
    return {channel(16), channel(8), channel(0), a};
}

template <typename Predicate>
std::size_t Screenshot::count(const PixelRect& region, Predicate predicate) const {
    const int left = std::clamp(region.x, 0, width_);
    const int top = std::clamp(region.y, 0, height_);
    const int right = std::clamp(region.x + region.width, left, width_);
    const int bottom = std::clamp(region.y + region.height, top, height_);
    std::size_t matches = 0;
    for (int y = top; y < bottom; ++y) {
        for (int x = left; x < right; ++x) matches += predicate(x, y) ? 1 : 0;
    }
    return matches;
}

Rgba Screenshot::dominantColour(const PixelRect& region) const {
    std::map<std::tuple<int, int, int, int>, std::size_t> counts;
    count(region, [&](int x, int y) {
        const Rgba p = pixel(x, y);
        ++counts[{p.r, p.g, p.b, p.a}];
        return false;
    });
    if (counts.empty()) return {0, 0, 0, 0};
    const auto best = std::max_element(counts.begin(), counts.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    const auto [red, green, blue, alpha] = best->first;
    return {red, green, blue, alpha};
}

std::size_t Screenshot::countNear(const PixelRect& region, const Rgba& colour, int tolerance) const {
    return count(region, [&](int x, int y) { return pixel(x, y).near(colour, tolerance); });
}

std::size_t Screenshot::countDifferences(const Screenshot& a, const Screenshot& b, const PixelRect& region) {
    if (a.width_ != b.width_ || a.height_ != b.height_) {
        throw std::invalid_argument("screenshot: comparing shots of different sizes");
    }
    return a.count(region, [&](int x, int y) { return a.pixel(x, y) != b.pixel(x, y); });
}

}  // namespace plenk::gtk::test
