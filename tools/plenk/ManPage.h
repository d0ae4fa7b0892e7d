#pragma once

#include <iosfwd>
#include <string_view>

namespace CLI {
class App;
}

namespace plenk::cli {

// Writes the manual page (section 1, troff -man) of the command `root` names, from
// its help texts: NAME and DESCRIPTION from its description, OPTIONS, one entry per
// visible verb at every depth (usage, description, options, footer), and the
// sections of the root's footer ("Exit status:" becomes EXIT STATUS).
void writeManPage(std::ostream& out, const CLI::App& root, std::string_view version);

}  // namespace plenk::cli
