#include "CompletionScript.h"

#include <cctype>
#include <ostream>

#include <CLI/CLI.hpp>

#include "CommandTree.h"

namespace plenk::cli {

namespace {

// Every script is one generated lookup function plus a fixed walker; the comment below
// heads each script.
constexpr const char* kHowItWorks =
    "# The walker reads the words before the cursor: a verb of the current command moves into\n"
    "# it (only before any positional), an option that takes a value swallows the next word,\n"
    "# anything else is a positional. It then offers the fixed values of the option before the\n"
    "# cursor; the options in scope when the word starts with '-'; else the verbs and the fixed\n"
    "# values of the next positional. The lookup answers \"KIND|PATH\" (commands, options,\n"
    "# values: the options that take a value) and \"choices|PATH|OPTION\" or \"choices|PATH|#INDEX\".\n\n";

struct Entry {
    std::string word;
    std::string description;
};

struct Table {
    std::string key;
    std::vector<Entry> entries;
};

std::vector<Table> lookupTables(const CLI::App& root) {
    std::vector<Table> tables;
    for (const CommandNode& node : visibleCommands(root)) {
        const std::string path = node.pathText();
        const std::string choicesKey = "choices|" + path + "|";  // then an option's name or #INDEX
        Table commands{"commands|" + path, {}};
        for (const CLI::App* sub : visibleSubcommands(*node.app)) {
            commands.entries.push_back({sub->get_name(), firstLine(sub->get_description())});
        }
        Table options{"options|" + path, {}};
        Table values{"values|" + path, {}};
        std::vector<Table> choices;
        for (const CLI::Option* option : optionsInScope(*node.app)) {
            std::vector<Entry> fixed;
            for (const auto& choice : choicesOf(*option)) fixed.push_back({choice, ""});
            for (const auto& name : optionNames(*option)) {
                options.entries.push_back({name, firstLine(option->get_description())});
                if (takesValue(*option)) values.entries.push_back({name, ""});
                if (!fixed.empty()) choices.push_back({choicesKey + name, fixed});
            }
        }
        // A positional taking several words gets its choices at its first index only.
        const auto args = positionals(*node.app);
        for (std::size_t i = 0; i < args.size(); ++i) {
            Table table{choicesKey + "#" + std::to_string(i), {}};
            for (const auto& choice : choicesOf(*args[i])) table.entries.push_back({choice, ""});
            choices.push_back(std::move(table));
        }
        for (Table* table : {&commands, &options, &values}) tables.push_back(std::move(*table));
        for (Table& table : choices) tables.push_back(std::move(table));
    }
    std::erase_if(tables, [](const Table& table) { return table.entries.empty(); });
    return tables;
}

// Quoted for bash and zsh ('it'\''s') or for fish ('it\'s').
std::string posixQuoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string fishQuoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'' || c == '\\') out += '\\';
        out += c;
    }
    return out + "'";
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

void writeBashLookup(std::ostream& out, const std::vector<Table>& tables) {
    out << "    case \"$1|$2\" in\n";
    for (const Table& table : tables) {
        std::string words;
        for (const Entry& e : table.entries) words += (words.empty() ? "" : " ") + e.word;
        out << "    " << posixQuoted(table.key) << ") REPLY=" << posixQuoted(words) << " ;;\n";
    }
    out << "    *) REPLY='' ;;\n    esac\n";
}

void writeZshLookup(std::ostream& out, const std::vector<Table>& tables) {
    out << "    case \"$1|$2\" in\n";
    for (const Table& table : tables) {
        out << "    " << posixQuoted(table.key) << ") reply=(";
        for (const Entry& e : table.entries) {
            out << ' ' << posixQuoted(e.description.empty() ? e.word : e.word + ":" + e.description);
        }
        out << " ) ;;\n";
    }
    out << "    *) reply=() ;;\n    esac\n";
}

void writeFishLookup(std::ostream& out, const std::vector<Table>& tables) {
    out << "    switch \"$argv[1]|$argv[2]\"\n";
    for (const Table& table : tables) {
        out << "        case " << fishQuoted(table.key) << "\n            printf '%s\\t%s\\n'";
        for (const Entry& e : table.entries)
            out << ' ' << fishQuoted(e.word) << ' ' << fishQuoted(e.description);
        out << '\n';
    }
    out << "    end\n";
}

constexpr const char* kBashWalker = R"(
_@FN@() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local cmdpath='' word i npos=0 skip=0 REPLY
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        # --option=value: bash splits it at '=', which leaves the value to skip.
        if [[ $word == = ]]; then skip=1; continue; fi
        if ((skip)); then skip=0; continue; fi
        case $word in
        -*=*) ;;
        -*) _@FN@_lookup values "$cmdpath"; [[ " $REPLY " == *" $word "* ]] && skip=1 ;;
        *)
            _@FN@_lookup commands "$cmdpath"
            if ((npos == 0)) && [[ " $REPLY " == *" $word "* ]]; then
                cmdpath=${cmdpath:+$cmdpath }$word
            else
                npos=$((npos + 1))
            fi
            ;;
        esac
    done
    local candidates
    if ((skip)); then
        _@FN@_lookup choices "$cmdpath|$prev"
        candidates=$REPLY
    elif [[ $cur == -* ]]; then
        _@FN@_lookup options "$cmdpath"
        candidates=$REPLY
    else
        _@FN@_lookup commands "$cmdpath"
        candidates=$REPLY
        _@FN@_lookup choices "$cmdpath|#$npos"
        candidates+=" $REPLY"
    fi
    # The candidates are single words (verbs, options, fixed values): no quoting needed.
    COMPREPLY=($(compgen -W "$candidates" -- "$cur"))
}
complete -F _@FN@ @CMD@
)";

constexpr const char* kZshWalker = R"(
_@FN@_has() {  # is $1 a word of $reply ("word" or "word:description")?
    local entry
    for entry in $reply; do [[ ${entry%%:*} == "$1" ]] && return 0; done
    return 1
}

_@FN@() {
    local cmdpath='' word i npos=0 skip=0
    local -a reply
    for ((i = 2; i < CURRENT; i++)); do
        word=${words[i]}
        if ((skip)); then skip=0; continue; fi
        case $word in
        -*=*) ;;
        -*) _@FN@_lookup values "$cmdpath"; _@FN@_has "$word" && skip=1 ;;
        *)
            _@FN@_lookup commands "$cmdpath"
            if ((npos == 0)) && _@FN@_has "$word"; then
                cmdpath=${cmdpath:+$cmdpath }$word
            else
                npos=$((npos + 1))
            fi
            ;;
        esac
    done
    if ((skip)); then
        _@FN@_lookup choices "$cmdpath|${words[CURRENT - 1]}"
        _describe -t values 'value' reply
    elif [[ ${words[CURRENT]} == -* ]]; then
        _@FN@_lookup options "$cmdpath"
        _describe -t options 'option' reply
    else
        _@FN@_lookup commands "$cmdpath"
        _describe -t commands 'command' reply
        _@FN@_lookup choices "$cmdpath|#$npos"
        _describe -t values 'value' reply
    fi
}

if [[ $funcstack[1] == _@FN@ ]]; then
    _@FN@ "$@"
else
    compdef _@FN@ @CMD@
fi
)";

constexpr const char* kFishWalker = R"(
function __@FN@_has --description 'is $argv[1] a word of the lookup lines that follow?'
    for line in $argv[2..-1]
        test (string split -m 1 \t -- $line)[1] = $argv[1]; and return 0
    end
    return 1
end

function __@FN@_complete
    set -l tokens (commandline -opc)
    set -l cmdpath ''
    set -l skip 0
    set -l npos 0
    for word in $tokens[2..-1]
        if test $skip = 1
            set skip 0
            continue
        end
        switch $word
            case '-*=*'
            case '-*'
                __@FN@_has $word (__@FN@_lookup values "$cmdpath"); and set skip 1
            case '*'
                if test $npos = 0; and __@FN@_has $word (__@FN@_lookup commands "$cmdpath")
                    set cmdpath (string trim -- "$cmdpath $word")
                else
                    set npos (math $npos + 1)
                end
        end
    end
    if test $skip = 1
        __@FN@_lookup choices "$cmdpath|$tokens[-1]"
    else if string match -q -- '-*' (commandline -ct)
        __@FN@_lookup options "$cmdpath"
    else
        __@FN@_lookup commands "$cmdpath"
        __@FN@_lookup choices "$cmdpath|#$npos"
    end
end

complete -c @CMD@ -f -a '(__@FN@_complete)'
)";

}  // namespace

const std::vector<std::string>& completionShells() {
    static const std::vector<std::string> shells{"bash", "zsh", "fish"};
    return shells;
}

bool writeCompletionScript(std::ostream& out, const CLI::App& root, std::string_view shell) {
    const std::string& command = root.get_name();
    std::string fn = command;
    for (char& c : fn) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
    }
    const auto tables = lookupTables(root);
    const char* walker = nullptr;
    if (shell == "bash") {
        out << "# bash completion for " << command << ", written by '" << command << " completion bash'\n"
            << kHowItWorks << '_' << fn << "_lookup() {\n";
        writeBashLookup(out, tables);
        walker = kBashWalker;
    } else if (shell == "zsh") {
        out << "#compdef " << command << "\n# zsh completion for " << command << ", written by '" << command
            << " completion zsh'\n"
            << kHowItWorks << '_' << fn << "_lookup() {\n";
        writeZshLookup(out, tables);
        walker = kZshWalker;
    } else if (shell == "fish") {
        out << "# fish completion for " << command << ", written by '" << command << " completion fish'\n"
            << kHowItWorks << "function __" << fn << "_lookup\n";
        writeFishLookup(out, tables);
        walker = kFishWalker;
    } else {
        return false;
    }
    out << (shell == "fish" ? "end\n" : "}\n") << replaced(replaced(walker, "@FN@", fn), "@CMD@", command);
    return true;
}

}  // namespace plenk::cli
