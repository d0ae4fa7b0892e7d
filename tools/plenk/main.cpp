// plenk: the command-line tool for PlenkKit scales. Each verb lives in its own
// file and registers itself here through one add...Command function.

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "JsonWriter.h"
#include "Session.h"

namespace {

// Error messages may quote user input; keep them on one line.
std::string oneLine(std::string message) {
    for (char& c : message) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return message;
}

// The command path the parser got to ("plenk frame timer") and the deepest app on it.
const CLI::App* deepestCommand(const CLI::App& app, std::string& path) {
    const CLI::App* current = &app;
    path = app.get_name();
    while (!current->get_subcommands().empty()) {
        current = current->get_subcommands().front();
        path += " " + current->get_name();
    }
    return current;
}

// One line for a parse error, naming the unknown or missing command and where help is.
std::string describe(const CLI::App& app, const CLI::ParseError& error) {
    std::string path;
    const CLI::App* command = deepestCommand(app, path);
    const std::string help = " (see '" + path + " --help')";
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr &&
        command->get_require_subcommand_min() > 0 && command->get_subcommands().empty()) {
        const auto leftover = app.remaining(true);
        if (!leftover.empty()) return "unknown command '" + leftover.front() + "' for '" + path + "'" + help;
        return "missing command for '" + path + "'" + help;
    }
    return error.what() + help;
}

int run(int argc, char** argv) {
    using namespace plenk::cli;

    CLI::App app{"Talk to Bluetooth LE coffee and kitchen scales through PlenkKit.", "plenk"};
    GlobalOptions options;
    // Subcommands inherit fallthrough when they are created: --json is accepted
    // before or after the verb.
    app.fallthrough();
    app.require_subcommand(1);
    app.add_flag("--json", options.json, "Print one JSON object per line (accepted anywhere on the line)");
    app.add_flag("--sim", options.sim, "Use the simulated scales ('Plenk Scale' and 'Coffee Scale')");
    app.add_option("--backend", options.backend,
                   "Bluetooth backend: bluez (real Bluetooth, the default when built in) or sim;\n"
                   "PLENK_BACKEND overrides it")
        ->type_name("bluez|sim");
    app.add_option("--adapter", options.adapter,
                   "The Bluetooth adapter, by name (hci1) or object path (/org/bluez/hci1);\n"
                   "default: PLENK_ADAPTER, else the first powered adapter");
    app.add_flag("--verbose", options.verbose,
                 "Show the library's diagnostics and its log, Reconnect and Connect notifications\n"
                 "on stderr (with --sim also the frames each simulated scale received)");
    std::string faultChoices;
    for (const auto& fault : simulatorFaults()) faultChoices += (faultChoices.empty() ? "" : "|") + fault;
    app.add_option("--sim-fault", options.simFault,
                   "Make the simulated scales misbehave, to try a script's error handling")
        ->type_name(faultChoices);
    app.set_version_flag("--version", "plenk " PLENK_TOOL_VERSION, "Print the version and exit");

    // The verbs, one registration each (declared in Commands.h).
    addDecodeCommand(app, options);
    addFrameCommand(app, options);
    addWatchCommand(app, options);
    addScanCommand(app, options);
    addPickCommand(app, options);
    addScaleCommands(app, options);
    addReadCommands(app, options);
    addCompletionCommand(app);

    // Set after the verbs, which would otherwise inherit it.
    app.footer(
        "Run 'plenk COMMAND --help' for the options of one command.\n"
        "Examples:\n"
        "  plenk decode weight --name Plenk-01 00 39 30 00 ff\n"
        "  plenk frame timer-auto-start off\n"
        "  plenk --json frame default-config\n" +
        std::string(kExitStatusHelp) + "\n" + kJsonHelp);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and friends are "errors" with exit code 0.
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
        std::cerr << "plenk: " << oneLine(describe(app, e)) << '\n';
        return 2;
    } catch (const UsageError& e) {
        std::cerr << "plenk: " << oneLine(e.what()) << '\n';
        return 2;
    } catch (const RunError& e) {
        std::cerr << "plenk: " << oneLine(e.what()) << '\n';
        if (options.json) {
            std::cout << JsonObject()
                             .string("event", "failed")
                             .integer("status", e.status())
                             .string("message", oneLine(e.what()))
                             .str()
                      << std::endl;
        }
        return e.status();
    } catch (const std::exception& e) {
        std::cerr << "plenk: internal error: " << oneLine(e.what()) << '\n';
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (...) {  // the command line could not even be set up (out of memory...)
        std::fputs("plenk: internal error\n", stderr);
        return 1;
    }
}
