// `plenk completion SHELL` prints a completion script, and the hidden `plenk manpage`
// the manual page; both describe the whole command tree as built, so they run from
// the callbacks, after every verb has been registered.

#include <iostream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "CompletionScript.h"
#include "ManPage.h"

namespace plenk::cli {

namespace {

const CLI::App& rootOf(const CLI::App& app) {
    const CLI::App* root = &app;
    while (root->get_parent() != nullptr) root = root->get_parent();
    return *root;
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
    std::string out;
    for (const auto& word : words) out += (out.empty() ? "" : separator) + word;
    return out;
}

}  // namespace

void addCompletionCommand(CLI::App& app) {
    auto shell = std::make_shared<std::string>();
    CLI::App* completion = app.add_subcommand("completion", "Print the shell completion script for SHELL");
    completion->add_option("SHELL", *shell, "The shell: " + joined(completionShells(), ", "))
        ->required()
        ->type_name(joined(completionShells(), "|"));
    completion->footer(
        "Install it for your user (bash-completion, zsh with ~/.zfunc in fpath, fish):\n"
        "  plenk completion bash > ~/.local/share/bash-completion/completions/plenk\n"
        "  plenk completion zsh > ~/.zfunc/_plenk\n"
        "  plenk completion fish > ~/.config/fish/completions/plenk.fish\n"
        "or load it into the running shell: source <(plenk completion bash)");
    completion->callback([completion, shell] {
        if (!writeCompletionScript(std::cout, rootOf(*completion), *shell)) {
            throw UsageError("SHELL: '" + *shell + "' is not one of " + joined(completionShells(), ", "));
        }
    });

    // Hidden (empty group): the build writes plenk.1 with it.
    CLI::App* manpage = app.add_subcommand("manpage", "Print the manual page (troff)")->group("");
    manpage->callback([manpage] { writeManPage(std::cout, rootOf(*manpage), PLENK_TOOL_VERSION); });
}

}  // namespace plenk::cli
