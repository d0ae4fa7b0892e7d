#include "backends/bluez/AdapterChoice.h"

#include <algorithm>

namespace plenk::bluez {

std::optional<std::string> chooseAdapter(std::string_view requested,
                                         std::vector<AdapterCandidate> candidates) {
    // By index: hci2 before hci10.
    std::sort(candidates.begin(), candidates.end(), [](const AdapterCandidate& a, const AdapterCandidate& b) {
        return a.path.size() != b.path.size() ? a.path.size() < b.path.size() : a.path < b.path;
    });
    if (!requested.empty()) {
        const std::string wanted =
            requested.front() == '/' ? std::string(requested) : "/org/bluez/" + std::string(requested);
        for (const auto& c : candidates) {
            if (c.path == wanted) return c.path;
        }
        return std::nullopt;
    }
    for (const auto& c : candidates) {
        if (c.powered) return c.path;
    }
    if (candidates.empty()) return std::nullopt;
    return candidates.front().path;
}

}  // namespace plenk::bluez
