#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace plenk::cli {

// A positional argument of a verb, as its help shows it.
struct Arg {
    const char* name;
    const char* type;  // on|off, BYTE, INT...
    const char* help;
    bool required = true;
};

// Positional arguments as given on the command line; absent optional ones are nullopt.
using Args = std::vector<std::optional<std::string>>;

inline const Arg kStateArg{"STATE", "on|off", "on or off"};
inline const Arg kLevelArg{"LEVEL", "INT",
                           "Level, a 32-bit integer: 1, 2 and 3 are sent as such, anything else as 0"};
inline const Arg kModeArg{"MODE", "INT", "Mode, a 32-bit integer: 0, or any other value for mode 1"};

// Adds subcommand `name` with the positionals `args` to `parent`; its
// callback gets them as given.
CLI::App* addVerbWithArgs(CLI::App& parent, const std::string& name, const std::string& help,
                          const std::vector<Arg>& args, std::function<void(const Args&)> run);

// The first argument as on/off (UsageError otherwise).
bool stateArg(const Args& args);

}  // namespace plenk::cli
