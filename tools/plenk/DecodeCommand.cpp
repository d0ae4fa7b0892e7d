// `plenk decode weight|button|config HEX`: decodes captured values of the scale's
// characteristics with the library's own decoders.

#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/ScaleProtocol.h>
#include <CLI/CLI.hpp>

#include "Commands.h"
#include "HexText.h"
#include "JsonWriter.h"

namespace plenk::cli {

namespace {

// The HEX words of the command line, joined: "00 39 30" may come as one word or three.
std::vector<std::uint8_t> bytesFrom(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) {
        if (!text.empty()) text.push_back(' ');
        text += word;
    }
    HexParseResult parsed = parseHexText(text);
    if (!parsed.ok()) throw UsageError(parsed.error);
    return std::move(parsed.bytes);
}

std::string floatText(float value) {
    // Same shortest round-trip form as the JSON output; inf/nan spelled out.
    std::string json = jsonNumber(value);
    if (json != "null") return json;
    if (value != value) return "nan";
    return value < 0 ? "-inf" : "inf";
}

CLI::Option* addHexArgument(CLI::App& sub, std::vector<std::string>& words, const char* what) {
    return sub.add_option("HEX", words, what)->required()->expected(1, -1)->type_name("HEX");
}

void addWeight(CLI::App& decode, const GlobalOptions& options) {
    struct Args {
        std::string name;
        std::vector<std::string> hex;
    };
    auto args = std::make_shared<Args>();
    CLI::App* sub =
        decode.add_subcommand("weight", "Decode a weight notification (data characteristic EF81)");
    sub->add_option("--name,-n", args->name,
                    "Advertised name of the scale: a name containing \"Coffee\" means decimal text, "
                    "else \"Plenk\" means binary; any other name decodes to 0")
        ->required();
    addHexArgument(*sub, args->hex, "The notification's bytes");
    sub->footer(
        "Examples:\n"
        "  plenk decode weight --name Plenk-01 00 39 30 00 ff     # 1234.5\n"
        "  plenk decode weight --name 'Coffee Scale' 3132333400   # \"1234\" -> 123.4");
    sub->callback([args, &options] {
        const auto bytes = bytesFrom(args->hex);
        const float weight = protocol::decodeWeight(args->name, bytes);
        if (options.json) {
            std::cout << JsonObject().number("weight", weight).str() << '\n';
        } else {
            std::cout << floatText(weight) << '\n';
        }
    });
}

void addButton(CLI::App& decode, const GlobalOptions& options) {
    auto hex = std::make_shared<std::vector<std::string>>();
    CLI::App* sub =
        decode.add_subcommand("button", "Decode a button notification (control characteristic EF82)");
    addHexArgument(*sub, *hex, "The notification's bytes");
    sub->footer(
        "Prints the button number (0 or 1), or \"none\" for a value that is not a button press.\n"
        "Examples:\n"
        "  plenk decode button 02          # 1\n"
        "  plenk --json decode button 03   # {\"button\":null}");
    sub->callback([hex, &options] {
        const auto button = protocol::decodeButton(bytesFrom(*hex));
        if (options.json) {
            JsonObject object;
            if (button) {
                object.unsignedInteger("button", *button);
            } else {
                object.null("button");
            }
            std::cout << object.str() << '\n';
        } else {
            std::cout << (button ? std::to_string(*button) : std::string("none")) << '\n';
        }
    });
}

void addConfig(CLI::App& decode, const GlobalOptions& options) {
    auto hex = std::make_shared<std::vector<std::string>>();
    CLI::App* sub =
        decode.add_subcommand("config", "Decode a configuration record (info characteristic EF83)");
    addHexArgument(*sub, *hex, "The record's 15 bytes (missing bytes count as 00, extra bytes are ignored)");
    sub->footer(
        "Examples:\n"
        "  plenk decode config 000000000000000000 31 12 34 56 0000\n"
        "  plenk decode config --json 00000000000000000000ffffff0000   # unconfigured");
    sub->callback([hex, &options] {
        const auto record = protocol::configurationRecord(bytesFrom(*hex));
        const RKConfiguration c = protocol::decodeConfiguration(record);
        const bool unconfigured = protocol::isUnconfigured(record);
        if (options.json) {
            std::cout << JsonObject()
                             .integer("timerOn", c.timerOn)
                             .boolean("timerDefaultOn", c.timerDefaultOn)
                             .integer("timerBit2", c.timerBit2)
                             .boolean("timerAutoStart", c.timerAutoStart)
                             .boolean("byte12HighSet", c.byte12HighSet)
                             .integer("timerHighNibble", c.timerHighNibble)
                             .integer("byte10High", c.byte10High)
                             .integer("byte10Low", c.byte10Low)
                             .integer("byte11High", c.byte11High)
                             .integer("byte11Low", c.byte11Low)
                             .integer("byte12Low", c.byte12Low)
                             .boolean("unconfigured", unconfigured)
                             .str()
                      << '\n';
            return;
        }
        const auto trueFalse = [](bool b) { return b ? "true" : "false"; };
        std::cout << "timerOn: " << c.timerOn << '\n'
                  << "timerDefaultOn: " << trueFalse(c.timerDefaultOn) << '\n'
                  << "timerBit2: " << c.timerBit2 << '\n'
                  << "timerAutoStart: " << trueFalse(c.timerAutoStart) << '\n'
                  << "byte12HighSet: " << trueFalse(c.byte12HighSet) << '\n'
                  << "timerHighNibble: " << c.timerHighNibble << '\n'
                  << "byte10High: " << c.byte10High << '\n'
                  << "byte10Low: " << c.byte10Low << '\n'
                  << "byte11High: " << c.byte11High << '\n'
                  << "byte11Low: " << c.byte11Low << '\n'
                  << "byte12Low: " << c.byte12Low << '\n'
                  << "unconfigured: " << trueFalse(unconfigured) << '\n';
    });
}

}  // namespace

void addDecodeCommand(CLI::App& app, const GlobalOptions& options) {
    CLI::App* decode = app.add_subcommand("decode", "Decode captured values of the scale's characteristics");
    decode->require_subcommand(1);
    decode->footer(
        "Values are given as hex, with or without spaces or colons between bytes.\n"
        "Examples:\n"
        "  plenk decode weight --name Plenk-01 00:39:30:00:ff\n"
        "  plenk decode button 01\n"
        "  plenk decode config --json 000000000000000000 03 12 34 56 0000");
    addWeight(*decode, options);
    addButton(*decode, options);
    addConfig(*decode, options);
}

}  // namespace plenk::cli
