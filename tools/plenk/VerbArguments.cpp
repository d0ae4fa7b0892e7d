#include "VerbArguments.h"

#include <memory>

#include <CLI/CLI.hpp>

#include "Arguments.h"

namespace plenk::cli {

CLI::App* addVerbWithArgs(CLI::App& parent, const std::string& name, const std::string& help,
                          const std::vector<Arg>& args, std::function<void(const Args&)> run) {
    struct Bound {
        std::vector<std::string> values;
        std::vector<CLI::Option*> options;
    };
    auto bound = std::make_shared<Bound>();
    bound->values.resize(args.size());
    CLI::App* sub = parent.add_subcommand(name, help);
    for (std::size_t i = 0; i < args.size(); ++i) {
        CLI::Option* option =
            sub->add_option(args[i].name, bound->values[i], args[i].help)->type_name(args[i].type);
        if (args[i].required) option->required();
        bound->options.push_back(option);
    }
    sub->callback([bound, run = std::move(run)] {
        Args given;
        for (std::size_t i = 0; i < bound->values.size(); ++i) {
            given.push_back(bound->options[i]->count() > 0 ? std::optional(bound->values[i]) : std::nullopt);
        }
        run(given);
    });
    return sub;
}

bool stateArg(const Args& args) {
    return parseSwitchArgument(*args.at(0), "STATE");
}

}  // namespace plenk::cli
