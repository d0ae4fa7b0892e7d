#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plenk::bluez {

struct AdapterCandidate {
    std::string path;  // "/org/bluez/hci0"
    bool powered = false;
};

// The adapter a central uses. `requested` names one by object path
// ("/org/bluez/hci1") or by name ("hci1"): only that one will do. Empty: the
// first powered adapter, else the first one (by index). nullopt: none fits.
std::optional<std::string> chooseAdapter(std::string_view requested,
                                         std::vector<AdapterCandidate> candidates);

}  // namespace plenk::bluez
