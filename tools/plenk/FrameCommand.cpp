// `plenk frame COMMAND [ARGS]`: prints the command frames the library writes to
// the scale's command characteristic for each command, one frame per line.

#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/ScaleProtocol.h>
#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "HexText.h"
#include "JsonWriter.h"
#include "VerbArguments.h"

namespace plenk::cli {

namespace {

using protocol::Frame;
using FrameList = std::vector<Frame>;

std::string framesAsText(const FrameList& frames) {
    std::string out;
    for (const Frame& f : frames) out += formatHex(f.bytes) + '\n';
    return out;
}

std::string framesAsJson(std::string_view command, const FrameList& frames) {
    std::vector<std::string> items;
    for (const Frame& f : frames) {
        std::vector<std::string> bytes;
        for (const std::uint8_t b : f.bytes) bytes.push_back(jsonString(hexByte(b)));
        items.push_back(jsonArray(bytes));
    }
    return JsonObject().string("command", command).raw("frames", jsonArray(items)).str() + '\n';
}

FrameList single(Frame f) {
    return {std::move(f)};
}

struct FrameVerb {
    const char* name;
    const char* help;
    std::vector<Arg> args;
    std::vector<std::string> example;  // arguments of the example in the command's help
    // Converts the arguments (throwing UsageError) and builds the frames.
    std::function<FrameList(const Args&)> build;
};

std::vector<FrameVerb> frameVerbs(const std::shared_ptr<bool>& timerDefaultOn) {
    return {
        {"tare", "Zero the scale", {}, {}, [](auto&) { return single(protocol::tareFrame()); }},
        {"calibrate",
         "Calibrate with parameter V",
         {{"V", "BYTE", "Calibration parameter"}},
         {"100"},
         [](auto& a) { return single(protocol::calibrateFrame(parseByteArgument(*a[0], "V"))); }},
        {"unit",
         "Select the unit: exactly 1 gives unit code 03, anything else 02",
         {{"N", "INT", "Unit, a 32-bit integer"}},
         {"1"},
         [](auto& a) { return single(protocol::unitFrame(parseInt32Argument(*a[0], "N"))); }},
        {"display",
         "Switch the seven-segment display (on: hand it back to the scale, then on)",
         {kStateArg},
         {"on"},
         [](auto& a) { return protocol::ledDisplayFrames(stateArg(a)); }},
        {"led",
         "Switch the indication LED",
         {kStateArg},
         {"on"},
         [](auto& a) { return single(protocol::indicationLedFrame(stateArg(a))); }},
        {"engineering",
         "Switch engineering mode",
         {kStateArg},
         {"on"},
         [](auto& a) { return single(protocol::engineeringModeFrame(stateArg(a))); }},
        {"timer",
         "Switch the timer; with on, optionally on by default",
         {kStateArg, {"DEFAULT", "default-on", "The word default-on, same as --default-on", false}},
         {"on", "default-on"},
         [timerDefaultOn](auto& a) {
             if (a[1] && *a[1] != "default-on")
                 throw UsageError("DEFAULT: '" + *a[1] + "' is not 'default-on'");
             return single(protocol::timerFrame(stateArg(a), *timerDefaultOn || a[1].has_value()));
         }},
        {"timer-auto-start",
         "Switch the timer's auto start",
         {kStateArg},
         {"off"},
         [](auto& a) { return single(protocol::timerAutoStartFrame(stateArg(a))); }},
        {"power-enhanced",
         "Switch enhanced radio power",
         {kStateArg},
         {"on"},
         [](auto& a) { return single(protocol::powerEnhancedFrame(stateArg(a))); }},
        {"sleep",
         "Set the sleep time level for a mode",
         {kLevelArg, kModeArg},
         {"2", "1"},
         [](auto& a) {
             return single(protocol::sleepTimeFrame(parseInt32Argument(*a[0], "LEVEL"),
                                                    parseInt32Argument(*a[1], "MODE")));
         }},
        {"advertising",
         "Set the advertising time level for a mode",
         {kLevelArg, kModeArg},
         {"3", "0"},
         [](auto& a) {
             return single(protocol::advertisingTimeFrame(parseInt32Argument(*a[0], "LEVEL"),
                                                          parseInt32Argument(*a[1], "MODE")));
         }},
        {"fw-disconnect",
         "Ask the scale's firmware to drop the link",
         {},
         {},
         [](auto&) { return single(protocol::firmwareDisconnectFrame()); }},
        {"sync",
         "Synchronise the settings",
         {},
         {},
         [](auto&) { return single(protocol::synchronizeFrame()); }},
        {"dfu",
         "Switch the scale into firmware-update mode",
         {},
         {},
         [](auto&) { return single(protocol::dfuFrame()); }},
        {"fw-version",
         "Request the firmware version",
         {},
         {},
         [](auto&) { return single(protocol::firmwareVersionFrame()); }},
        {"default-config",
         "The eight frames written to a scale that reports an unconfigured record",
         {},
         {},
         [](auto&) { return protocol::defaultConfigurationFrames(); }},
        {"segment-block",
         "Set a seven-segment block to a value (only the low 3 bits of B count)",
         {{"B", "BYTE", "Block"}, {"V", "BYTE", "Value"}},
         {"0x0a", "200"},
         [](auto& a) {
             return single(
                 protocol::segmentBlockFrame(parseByteArgument(*a[0], "B"), parseByteArgument(*a[1], "V")));
         }},
        {"segment-preset",
         "Seven-segment display preset",
         {{"P", "BYTE", "Preset"}},
         {"4"},
         [](auto& a) { return single(protocol::segmentPresetFrame(parseByteArgument(*a[0], "P"))); }},
        {"segment-update",
         "Update the seven-segment display",
         {},
         {},
         [](auto&) { return single(protocol::segmentUpdateFrame()); }},
        {"segment-release",
         "Hand the seven-segment display back to the scale",
         {},
         {},
         [](auto&) { return single(protocol::segmentReleaseFrame()); }},
        {"segment",
         "Switch the seven-segment display (one frame, no release)",
         {kStateArg},
         {"off"},
         [](auto& a) { return single(protocol::segmentSwitchFrame(stateArg(a))); }},
        {"raw",
         "A raw frame: opcode C, optionally followed by data byte D",
         {{"C", "BYTE", "Opcode"}, {"D", "BYTE", "Data byte", false}},
         {"0xca", "7"},
         [](auto& a) {
             const std::uint8_t opcode = parseByteArgument(*a[0], "C");
             return single(a[1] ? protocol::rawFrame(opcode, parseByteArgument(*a[1], "D"))
                                : protocol::rawFrame(opcode));
         }},
    };
}

// The help footer of one command: its example with the frames it prints.
std::string exampleFooter(const FrameVerb& verb) {
    std::string line = "  plenk frame " + std::string(verb.name);
    Args args;
    for (const auto& word : verb.example) {
        line += " " + word;
        args.emplace_back(word);
    }
    args.resize(verb.args.size());
    std::string footer =
        "Frames are printed as hex, one write to the command characteristic (EF80) per line;\n"
        "add --json for {\"command\":...,\"frames\":[[...]]}.\nExample:\n" +
        line + "\n";
    for (const Frame& f : verb.build(args)) footer += "    " + formatHex(f.bytes) + "\n";
    footer.pop_back();
    return footer;
}

void addFrameSubcommand(CLI::App& frame, FrameVerb verb, const GlobalOptions& options) {
    const std::string footer = exampleFooter(verb);
    addVerbWithArgs(frame, verb.name, verb.help, verb.args,
                    [name = verb.name, build = std::move(verb.build), &options](const Args& given) {
                        const FrameList frames = build(given);
                        std::cout << (options.json ? framesAsJson(name, frames) : framesAsText(frames));
                    })
        ->footer(footer);
}

}  // namespace

void addFrameCommand(CLI::App& app, const GlobalOptions& options) {
    CLI::App* frame = app.add_subcommand("frame", "Print the command frames sent to the scale for COMMAND");
    frame->require_subcommand(1);
    auto timerDefaultOn = std::make_shared<bool>(false);
    for (auto& verb : frameVerbs(timerDefaultOn)) addFrameSubcommand(*frame, std::move(verb), options);
    frame->get_subcommand("timer")->add_flag("--default-on", *timerDefaultOn,
                                             "The timer is on by default (only with on)");
    frame->footer(
        "Each frame is one write to the command characteristic (EF80), printed as hex on its own line.\n"
        "Byte arguments are decimal or 0x-hex (0..255); LEVEL, MODE and N are 32-bit integers.\n"
        "Examples:\n"
        "  plenk frame timer-auto-start off    # 0a 31\n"
        "  plenk frame timer on --default-on   # 0a 03\n"
        "  plenk frame segment-block 0x0a 200  # e2 c8\n"
        "  plenk frame default-config --json");
}

}  // namespace plenk::cli
