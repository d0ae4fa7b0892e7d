#pragma once

namespace plenk {

// A colour in the device RGB space, each component in [0, 1]; what the host's
// data source answers for the picker's background and bar colours.
struct Color {
    double r = 0.0;
    double g = 0.0;
    double b = 0.0;
    double a = 1.0;

    friend bool operator==(const Color&, const Color&) = default;
};

}  // namespace plenk
