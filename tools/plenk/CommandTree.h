#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace plenk::cli {

// What the help shows of a CLI11 app tree, read at run time so that the
// completion scripts and the manual follow every verb and option as registered.
// Items whose group is empty are hidden (CLI11's own rule) and left out.

// One visible command: the root app (empty path) or a verb at any depth.
struct CommandNode {
    const CLI::App* app;
    std::vector<std::string> path;  // verb names below the root: {"frame", "timer"}
    std::string pathText() const;   // "frame timer", "" for the root
};

// The root first, then every visible verb depth-first in registration order.
std::vector<CommandNode> visibleCommands(const CLI::App& root);
// The visible verbs directly below `app`.
std::vector<const CLI::App*> visibleSubcommands(const CLI::App& app);
// Visible named options (flags and options with values) of `app` alone.
std::vector<const CLI::Option*> visibleOptions(const CLI::App& app);
// Named options usable at `app`: its own, then those of each parent its options fall
// through to (fallthrough), without repeating a name.
std::vector<const CLI::Option*> optionsInScope(const CLI::App& app);
// Positional arguments of `app`, in order.
std::vector<const CLI::Option*> positionals(const CLI::App& app);

// "-n --name" style names: short ones, then long ones, each with its dashes.
std::vector<std::string> optionNames(const CLI::Option& option);
bool takesValue(const CLI::Option& option);
// The fixed values the help lists for an option or positional: the set of an
// IsMember check ("TEXT:{bash,zsh,fish}") or a lower-case type name ("on|off").
std::vector<std::string> choicesOf(const CLI::Option& option);
// The first line of a help text.
std::string firstLine(const std::string& text);

}  // namespace plenk::cli
