#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace plenk::cli {

// The shells writeCompletionScript knows: bash, zsh, fish.
const std::vector<std::string>& completionShells();

// Writes a completion script for the command `root` names (its verbs at every depth,
// the options usable there, the fixed values of options and positionals) in the
// language of `shell`; false, writing nothing, for a shell not in completionShells().
bool writeCompletionScript(std::ostream& out, const CLI::App& root, std::string_view shell);

}  // namespace plenk::cli
