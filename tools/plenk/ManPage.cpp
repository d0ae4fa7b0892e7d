#include "ManPage.h"

#include <algorithm>
#include <cctype>
#include <ostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "CommandTree.h"

namespace plenk::cli {

namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        out.push_back(text.substr(start, end - start));
    }
    if (start < text.size()) out.push_back(text.substr(start));
    return out;
}

// Text as troff prints it: backslashes escaped, '-' as the minus sign (so that options
// and commands copy as typed), and a line never starting with a control character.
std::string escaped(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool lineStart = i == 0 || text[i - 1] == '\n';
        if (lineStart && (text[i] == '.' || text[i] == '\'')) out += "\\&";
        if (text[i] == '\\') {
            out += "\\e";
        } else if (text[i] == '-') {
            out += "\\-";
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string bold(const std::string& text) {
    return "\\fB" + escaped(text) + "\\fR";
}

std::string italic(const std::string& text) {
    return "\\fI" + escaped(text) + "\\fR";
}

// The options listed under a command: the help flag only at the root, where the
// global options are.
std::vector<const CLI::Option*> listedOptions(const CommandNode& node) {
    std::vector<const CLI::Option*> options = visibleOptions(*node.app);
    if (!node.path.empty()) std::erase(options, node.app->get_help_ptr());
    return options;
}

// "plenk frame timer [OPTIONS] STATE", "plenk frame COMMAND".
std::string usage(const CommandNode& node, const std::string& program) {
    std::string line = bold(program + (node.path.empty() ? "" : " " + node.pathText()));
    if (!listedOptions(node).empty()) line += " [" + italic("OPTIONS") + "]";
    for (const CLI::Option* arg : positionals(*node.app)) {
        std::string name = italic(arg->get_name(true));
        if (arg->get_items_expected_max() > 1) name += "...";
        line += " " + (arg->get_required() ? name : "[" + name + "]");
    }
    if (!visibleSubcommands(*node.app).empty()) {
        const bool required = node.app->get_require_subcommand_min() > 0;
        line += " " + (required ? italic("COMMAND") : "[" + italic("COMMAND") + "]");
    }
    return line;
}

// One .TP entry per positional and listed option: its names, its type, its help.
void writeArguments(std::ostream& out, const CommandNode& node) {
    std::vector<const CLI::Option*> items = positionals(*node.app);
    for (const CLI::Option* option : listedOptions(node)) items.push_back(option);
    for (const CLI::Option* item : items) {
        const bool positional = !item->nonpositional();
        std::string term;
        for (const auto& name :
             positional ? std::vector<std::string>{item->get_name(true)} : optionNames(*item)) {
            term += (term.empty() ? "" : ", ") + bold(name);
        }
        const std::string type = item->get_type_name();
        if (takesValue(*item) && !type.empty() && !(positional && type == item->get_name(true))) {
            term += " " + italic(type);
        }
        out << ".TP\n" << term << '\n' << escaped(item->get_description()) << '\n';
    }
}

void writeVerbatim(std::ostream& out, const std::vector<std::string>& text) {
    if (text.empty()) return;
    out << ".PP\n.nf\n";
    for (const auto& line : text) out << escaped(line) << '\n';
    out << ".fi\n";
}

// Where a line of the root footer heads a section, the length of its label: an
// unindented "Examples:" or "Exit status: 0 done..." (one to three words, then ':').
std::size_t headingLabel(const std::string& line) {
    const std::size_t colon = line.find(':');
    if (colon == 0 || colon == std::string::npos || (colon + 1 < line.size() && line[colon + 1] != ' '))
        return 0;
    const std::string label = line.substr(0, colon);
    if (!std::all_of(label.begin(), label.end(),
                     [](unsigned char c) { return std::isalpha(c) != 0 || c == ' '; }) ||
        label.front() == ' ' || std::count(label.begin(), label.end(), ' ') > 2) {
        return 0;
    }
    return colon;
}

// A section's text as it stands, a new paragraph at each unindented line that
// introduces a list (ends with ':').
void writeParagraphs(std::ostream& out, const std::vector<std::string>& text) {
    std::vector<std::string> paragraph;
    for (const auto& line : text) {
        if (!paragraph.empty() && !line.empty() && line.front() != ' ' && line.back() == ':') {
            writeVerbatim(out, paragraph);
            paragraph.clear();
        }
        paragraph.push_back(line);
    }
    writeVerbatim(out, paragraph);
}

std::string upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace

void writeManPage(std::ostream& out, const CLI::App& root, std::string_view version) {
    const std::string& program = root.get_name();
    const auto commands = visibleCommands(root);
    // The footer's lines before its first heading close the description.
    std::vector<std::string> footer = lines(root.get_footer());
    auto firstHeading = footer.begin();
    while (firstHeading != footer.end() && headingLabel(*firstHeading) == 0) ++firstHeading;

    out << ".\\\" Written by '" << program << " manpage' from the program's help texts.\n"
        << ".TH " << upper(program) << " 1 \"\" \"" << program << ' ' << version << "\" \"User Commands\"\n"
        << ".SH NAME\n"
        << program << " \\- " << escaped(firstLine(root.get_description())) << '\n'
        << ".SH SYNOPSIS\n"
        << usage(commands.front(), program) << '\n'
        << ".SH DESCRIPTION\n"
        << escaped(root.get_description()) << '\n';
    writeParagraphs(out, {footer.begin(), firstHeading});
    out << ".SH OPTIONS\n";
    writeArguments(out, commands.front());
    if (commands.size() > 1) out << ".SH COMMANDS\n";
    for (auto node = commands.begin() + 1; node != commands.end(); ++node) {
        out << ".SS\n" << usage(*node, program) << '\n' << escaped(node->app->get_description()) << '\n';
        writeArguments(out, *node);
        writeVerbatim(out, lines(node->app->get_footer()));
    }
    // The rest of the footer, section by section: "Exit status:" becomes EXIT STATUS.
    for (auto line = firstHeading; line != footer.end();) {
        const std::size_t label = headingLabel(*line);
        std::vector<std::string> body;
        if (label + 2 < line->size()) body.push_back(line->substr(label + 2));
        auto next = line + 1;
        for (; next != footer.end() && headingLabel(*next) == 0; ++next) body.push_back(*next);
        out << ".SH " << escaped(upper(line->substr(0, label))) << '\n';
        writeParagraphs(out, body);
        line = next;
    }
}

}  // namespace plenk::cli
