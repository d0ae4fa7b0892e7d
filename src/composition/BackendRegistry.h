#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bt/Backend.h"

namespace plenk {

struct Context;

// Backends selectable by name at run time. The composition root: it alone
// knows which backends are built in; the port and everything above it only
// see bt::Backend.
class BackendRegistry {
public:
    using Factory = std::function<std::shared_ptr<bt::Backend>(const Context&)>;

    // Adds or replaces a backend under this name.
    static void add(std::string name, Factory factory);
    // Throws std::invalid_argument listing the known names.
    static std::shared_ptr<bt::Backend> create(std::string_view name, const Context& context);
    static std::vector<std::string> names();
    // The name used when neither PLENK_BACKEND nor the host chooses.
    static std::string defaultName();
};

}  // namespace plenk
