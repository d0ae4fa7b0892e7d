// The commands a scale knows, sent to a connected scale: `plenk tare`,
// `plenk timer on --default-on`, `plenk segment block 3 66`, `plenk dfu`...
// Each waits for the scale to accept every write it makes.

#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "ScaleRun.h"
#include "VerbArguments.h"

namespace plenk::cli {

namespace {

// A command with its arguments checked: how many writes it makes and how it
// is sent.
struct Prepared {
    int writes = 1;
    std::function<void(RKRostaKit&, RKDevice&)> send;
};

struct CommandVerb {
    std::vector<std::string> path;  // {"segment", "block"}
    const char* help;
    std::vector<Arg> args;
    // Checks the arguments (throwing UsageError) before anything connects.
    std::function<Prepared(const Args&)> prepare;
};

std::uint8_t byteArg(const Args& a, std::size_t i, const char* what) {
    return parseByteArgument(*a.at(i), what);
}
std::int32_t intArg(const Args& a, std::size_t i, const char* what) {
    return parseInt32Argument(*a.at(i), what);
}
Prepared one(std::function<void(RKRostaKit&)> send) {
    return {1, [send = std::move(send)](RKRostaKit& kit, RKDevice&) { send(kit); }};
}
// A switch command: one write, on or off.
CommandVerb switchVerb(const char* name, const char* help, void (RKRostaKit::*set)(bool)) {
    return {{name}, help, {kStateArg}, [set](const Args& a) {
                return one([set, on = stateArg(a)](RKRostaKit& kit) { (kit.*set)(on); });
            }};
}
// A command without arguments: one write.
CommandVerb plainVerb(std::vector<std::string> path, const char* help, void (RKRostaKit::*send)()) {
    return {std::move(path), help, {}, [send](const Args&) {
                return one([send](RKRostaKit& kit) { (kit.*send)(); });
            }};
}
// LEVEL and MODE, for the sleep and advertising times.
CommandVerb timeVerb(const char* name, const char* help,
                     void (RKRostaKit::*set)(std::int32_t, std::int32_t)) {
    return {{name}, help, {kLevelArg, kModeArg}, [set](const Args& a) {
                return one([set, level = intArg(a, 0, "LEVEL"),
                            mode = intArg(a, 1, "MODE")](RKRostaKit& kit) { (kit.*set)(level, mode); });
            }};
}

std::vector<CommandVerb> commandVerbs(const std::shared_ptr<bool>& timerDefaultOn) {
    return {
        plainVerb({"tare"}, "Zero the scale", &RKRostaKit::tare),
        {{"calibrate"},
         "Calibrate the scale with parameter V",
         {{"V", "BYTE", "Value, 0..255 (decimal or 0x-hex)"}},
         [](const Args& a) { return one([v = byteArg(a, 0, "V")](RKRostaKit& kit) { kit.calibrate(v); }); }},
        {{"unit"},
         "Select the unit: 0 the first, any other number the second",
         {{"N", "INT", "Unit, a 32-bit integer"}},
         [](const Args& a) { return one([n = intArg(a, 0, "N")](RKRostaKit& kit) { kit.setUnit(n); }); }},
        {{"display"},
         "Switch the display (on hands it back to the scale first: two writes)",
         {kStateArg},
         [](const Args& a) {
             const bool on = stateArg(a);
             return Prepared{on ? 2 : 1, [on](RKRostaKit& kit, RKDevice&) { kit.setLEDDisplayOn(on); }};
         }},
        switchVerb("led", "Switch the indication LED", &RKRostaKit::indicationLEDSwitchOn),
        switchVerb("engineering", "Switch engineering mode", &RKRostaKit::setEngineeringMode),
        {{"timer"},
         "Switch the timer; with on and --default-on it is on by default",
         {kStateArg},
         [timerDefaultOn](const Args& a) {
             return one([on = stateArg(a), defaultOn = *timerDefaultOn](RKRostaKit& kit) {
                 kit.setTimerOn(on, defaultOn);
             });
         }},
        switchVerb("timer-auto-start", "Switch the timer's auto start", &RKRostaKit::setTimerAutoStart),
        switchVerb("power-enhanced", "Switch enhanced radio power", &RKRostaKit::setBLEPowerEnhanced),
        timeVerb("sleep", "Set the sleep time LEVEL for MODE", &RKRostaKit::setSleepTime),
        timeVerb("advertising", "Set the advertising time LEVEL for MODE", &RKRostaKit::setAdvertisingTime),
        plainVerb({"fw-disconnect"}, "Ask the scale's firmware to drop the link",
                  &RKRostaKit::setFWDisconnect),
        plainVerb({"fw-version"}, "Send the firmware-version request frame (00)", &RKRostaKit::getFWVersion),
        {{"segment", "block"},
         "Set seven-segment block B (only its low 3 bits count) to V",
         {{"B", "BYTE", "Block"}, {"V", "BYTE", "Value"}},
         [](const Args& a) {
             return one([b = byteArg(a, 0, "B"), v = byteArg(a, 1, "V")](RKRostaKit& kit) {
                 kit.sevenSegmentBlock(b, v);
             });
         }},
        {{"segment", "preset"},
         "Show seven-segment preset P",
         {{"P", "BYTE", "Preset"}},
         [](const Args& a) {
             return one([p = byteArg(a, 0, "P")](RKRostaKit& kit) { kit.sevenSegmentPreset(p); });
         }},
        plainVerb({"segment", "update"}, "Update the seven-segment display", &RKRostaKit::sevenSegmentUpdate),
        plainVerb({"segment", "release"}, "Hand the seven-segment display back to the scale",
                  &RKRostaKit::sevenSegmentReleaseControl),
        {{"segment", "on"},
         "Switch the seven-segment display on",
         {},
         [](const Args&) { return one([](RKRostaKit& kit) { kit.sevenSegmentSwitchOn(true); }); }},
        {{"segment", "off"},
         "Switch the seven-segment display off",
         {},
         [](const Args&) { return one([](RKRostaKit& kit) { kit.sevenSegmentSwitchOn(false); }); }},
        {{"raw"},
         "Send a raw frame: opcode C, optionally followed by data byte D",
         {{"C", "BYTE", "Opcode"}, {"D", "BYTE", "Data byte", false}},
         [](const Args& a) {
             const std::uint8_t opcode = byteArg(a, 0, "C");
             if (!a.at(1))
                 return Prepared{
                     1, [opcode](RKRostaKit&, RKDevice& device) { device.sevenSegmentCommand(opcode); }};
             return one([opcode, data = byteArg(a, 1, "D")](RKRostaKit& kit) {
                 kit.sevenSegmentCommand(opcode, data);
             });
         }},
    };
}

std::string joinPath(const std::vector<std::string>& path) {
    std::string text;
    for (const auto& word : path) text += (text.empty() ? "" : " ") + word;
    return text;
}

void runCommand(const GlobalOptions& global, const ConnectOptions& connect, const std::string& name,
                const Prepared& command) {
    ScaleRun run(global, connect);
    run.run([&name, &command](ScaleRun& r) {
        r.waitFor("the scale's acceptance of '" + name + "'");
        r.sendCommand(
            command.writes, [&r, &command] { command.send(*r.kit(), *r.device()); },
            [&r, name](bool success, const ErrorPtr& error) {
                if (!success) return r.refused("'" + name + "'", error);
                r.print(name + ": sent to '" + r.scaleName() + "'", JsonObject()
                                                                        .string("event", "sent")
                                                                        .string("command", name)
                                                                        .string("scale", r.scaleName()));
                r.done();
            });
    });
}

CLI::App& parentFor(CLI::App& app, const std::vector<std::string>& path) {
    CLI::App* parent = &app;
    for (std::size_t i = 0; i + 1 < path.size(); ++i) {
        CLI::App* next = nullptr;
        try {
            next = parent->get_subcommand(path[i]);
        } catch (const CLI::OptionNotFound&) {
        }
        if (next == nullptr) {
            next = parent->add_subcommand(path[i], "Drive the seven-segment display");
            next->require_subcommand(1);
        }
        parent = next;
    }
    return *parent;
}

// The scale restarts into its firmware-update mode: nothing a script should
// do by accident.
void confirmDfu(bool yes) {
    if (yes) return;
    if (isatty(STDIN_FILENO) != 1) {
        throw UsageError(
            "dfu switches the scale into firmware-update mode; without a terminal to ask on, "
            "add --yes to confirm");
    }
    std::cerr << "Switch the scale into firmware-update mode? It restarts as \"DfuTarg\" and stays there "
                 "until an update is written. [y/N] "
              << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "Y" && answer != "yes") throw RunError(kExitCancelled, "dfu cancelled");
}

void runDfu(const GlobalOptions& global, const ConnectOptions& connect, bool yes) {
    checkConnectOptions(connect);  // bad options are reported before asking
    confirmDfu(yes);
    ScaleRun run(global, connect);
    run.run([](ScaleRun& r) {
        r.waitFor("the scale's acceptance of 'dfu'");
        // Nothing else is in flight: the device's DFU slot gets this write's result.
        r.device()->enableDFUMode(r.onLoop([&r](bool success, const ErrorPtr& error) {
            if (!success) return r.refused("'dfu'", error);
            r.print(
                "dfu: '" + r.scaleName() + "' restarts in firmware-update mode (\"DfuTarg\")",
                JsonObject().string("event", "sent").string("command", "dfu").string("scale", r.scaleName()));
            r.done();
        }));
    });
}

}  // namespace

void addScaleCommands(CLI::App& app, const GlobalOptions& options) {
    auto connect = std::make_shared<ConnectOptions>();
    auto timerDefaultOn = std::make_shared<bool>(false);
    for (auto& verb : commandVerbs(timerDefaultOn)) {
        const std::string name = joinPath(verb.path);
        CLI::App* sub = addVerbWithArgs(parentFor(app, verb.path), verb.path.back(), verb.help, verb.args,
                                        [&options, connect, name, prepare = verb.prepare](const Args& args) {
                                            runCommand(options, *connect, name, prepare(args));
                                        });
        addConnectOptions(*sub, *connect);
        sub->group("Commands");
    }
    app.get_subcommand("timer")->add_flag("--default-on", *timerDefaultOn,
                                          "The timer is on by default (with on)");
    app.get_subcommand("segment")->group("Commands");

    auto yes = std::make_shared<bool>(false);
    CLI::App* dfu = app.add_subcommand("dfu", "Switch the scale into firmware-update mode (asks first)");
    dfu->add_flag("--yes,-y", *yes, "Do not ask; needed without a terminal");
    addConnectOptions(*dfu, *connect);
    dfu->group("Commands");
    dfu->callback([&options, connect, yes] { runDfu(options, *connect, *yes); });
}

}  // namespace plenk::cli
