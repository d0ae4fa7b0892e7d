// plenk-realstack-client: the library's side of the end-to-end run on a real
// BlueZ stack. Run beside plenk-emulator, reading its log:
//
//   plenk-realstack-client --adapter hci0 --name "Plenk Scale" --emulator-log emulator.log

#include <CLI/CLI.hpp>

#include "Scenario.h"

int main(int argc, char** argv) {
    CLI::App app{"The library's side of the real-stack end-to-end run"};
    Scenario::Options options;
    app.add_option("--adapter", options.adapter)->capture_default_str();
    app.add_option("--name", options.name, "The emulator's advertised name")->capture_default_str();
    app.add_option("--emulator-log", options.emulatorLog, "plenk-emulator's output")->required();
    app.add_option("--battery", options.battery, "The emulator's battery level")->capture_default_str();
    app.add_flag("--weights-only", options.weightsOnly,
                 "Connect, check the tare and the weights, disconnect");
    CLI11_PARSE(app, argc, argv);
    return Scenario(options).run();
}
