#include "CommandTree.h"

#include <algorithm>
#include <cctype>

#include <CLI/CLI.hpp>

namespace plenk::cli {

namespace {

void collect(const CLI::App& app, std::vector<std::string>& path, std::vector<CommandNode>& out) {
    out.push_back({&app, path});
    for (const CLI::App* sub : visibleSubcommands(app)) {
        path.push_back(sub->get_name());
        collect(*sub, path, out);
        path.pop_back();
    }
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1) {
        parts.push_back(text.substr(start, end - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

bool isWord(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.';
    });
}

}  // namespace

std::string CommandNode::pathText() const {
    std::string text;
    for (const auto& name : path) text += (text.empty() ? "" : " ") + name;
    return text;
}

std::vector<CommandNode> visibleCommands(const CLI::App& root) {
    std::vector<CommandNode> out;
    std::vector<std::string> path;
    collect(root, path, out);
    return out;
}

std::vector<const CLI::App*> visibleSubcommands(const CLI::App& app) {
    return app.get_subcommands(
        [](const CLI::App* sub) { return !sub->get_name().empty() && !sub->get_group().empty(); });
}

std::vector<const CLI::Option*> visibleOptions(const CLI::App& app) {
    return app.get_options(
        [](const CLI::Option* option) { return !option->get_group().empty() && option->nonpositional(); });
}

std::vector<const CLI::Option*> optionsInScope(const CLI::App& app) {
    std::vector<const CLI::Option*> out;
    std::vector<std::string> seen;
    for (const CLI::App* level = &app; level != nullptr;
         level = level->get_fallthrough() ? level->get_parent() : nullptr) {
        for (const CLI::Option* option : visibleOptions(*level)) {
            const auto names = optionNames(*option);
            if (std::any_of(names.begin(), names.end(), [&](const std::string& name) {
                    return std::find(seen.begin(), seen.end(), name) != seen.end();
                })) {
                continue;  // shadowed by the deeper command's option of that name
            }
            seen.insert(seen.end(), names.begin(), names.end());
            out.push_back(option);
        }
    }
    return out;
}

std::vector<const CLI::Option*> positionals(const CLI::App& app) {
    return app.get_options([](const CLI::Option* option) {
        return !option->get_group().empty() && option->get_positional() && !option->nonpositional();
    });
}

std::vector<std::string> optionNames(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const auto& name : option.get_snames()) names.push_back("-" + name);
    for (const auto& name : option.get_lnames()) names.push_back("--" + name);
    return names;
}

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

std::vector<std::string> choicesOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    std::vector<std::string> choices;
    const std::size_t open = type.rfind(":{");
    if (open != std::string::npos && type.back() == '}') {
        choices = split(type.substr(open + 2, type.size() - open - 3), ',');
    } else if (std::none_of(type.begin(), type.end(), [](unsigned char c) { return std::isupper(c) != 0; })) {
        // CLI11's placeholders are upper case (TEXT, INT); a lower-case type name spells
        // the literal words themselves: "on|off", "default-on".
        choices = split(type, '|');
    }
    if (!std::all_of(choices.begin(), choices.end(), isWord)) return {};
    return choices;
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

}  // namespace plenk::cli
