// plenk-emulator: the scale's firmware model served as a real BLE peripheral
// through BlueZ, so a spare Linux machine or adapter becomes a test scale.
//
//   plenk-emulator --adapter hci1 --name "Plenk Scale" --format binary --rate 10
//
// It prints one line per event (connected, frame, read, weight, ...) on
// stdout, and takes console commands on stdin (button, pour, load, battery,
// drop). Ends cleanly on Ctrl-C or SIGTERM.

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <cstdio>
#include <future>
#include <mutex>
#include <regex>
#include <string>

#include "Console.h"
#include "EventLog.h"
#include "PeripheralScale.h"
#include "SignalWatcher.h"
#include "dispatch/PollLoop.h"

using namespace plenk;
using namespace plenk::emulator_tool;

namespace {

// "hci1" or "/org/bluez/hci1" → the object path; "" for anything else.
std::string adapterPath(const std::string& text) {
    static const std::regex kName("hci[0-9]{1,3}");
    static const std::regex kPath("/org/bluez/hci[0-9]{1,3}");
    if (std::regex_match(text, kName)) return "/org/bluez/" + text;
    if (std::regex_match(text, kPath)) return text;
    return {};
}

// The first report wins: a signal, or the scale giving up.
class Outcome {
public:
    void finish(int status, const std::string& why) {
        std::call_once(once_, [&] {
            if (!why.empty()) std::fprintf(stderr, "plenk-emulator: %s\n", why.c_str());
            status_.set_value(status);
        });
    }
    int wait() { return status_.get_future().get(); }

private:
    std::once_flag once_;
    std::promise<int> status_;
};

int run(int argc, char** argv) {
    CLI::App app{"Serve an emulated scale as a Bluetooth LE peripheral through BlueZ"};
    std::string adapter = "hci0";
    emulator::ScaleOptions options;
    std::string format = "binary";
    bool noPour = false;
    double readvertise = 0;
    app.add_option("--adapter", adapter, "The adapter to serve on, by name (hci1) or object path")
        ->capture_default_str();
    app.add_option("--name", options.name,
                   "The advertised name; \"Coffee\" names tell clients to expect text")
        ->capture_default_str();
    app.add_option("--format", format, "How weights are sent")
        ->check(CLI::IsMember({"binary", "text"}))
        ->capture_default_str();
    app.add_option("--rate", options.sampleRateHz, "Weight notifications per second")
        ->check(CLI::Range(10, 1000))
        ->capture_default_str();
    app.add_option("--battery", options.batteryLevel, "Battery level in percent")
        ->check(CLI::Range(0, 100))
        ->capture_default_str();
    app.add_flag("--configured", options.startConfigured,
                 "Start configured (default: unconfigured until a client initialises it)");
    app.add_flag("--no-pour", noPour, "Do not start a shot after the first tare of a connection");
    app.add_option("--readvertise", readvertise,
                   "Announce the advertisement anew every SECONDS while no central is connected, for "
                   "virtual controllers (btvirt) that report an advertisement only once; 0: never")
        ->check(CLI::Range(0.0, 60.0))
        ->capture_default_str();
    app.add_option("--seed", options.seed, "Seed of the sensor noise")->capture_default_str();
    app.footer(
        "Output: one line per event, seconds since start first: advertising, connected, disconnected,\n"
        "subscribed/unsubscribed UUID, frame HEX (a command written to EF80), write UUID HEX,\n"
        "read UUID HEX, weight GRAMS HEX, button N HEX, dropping, restarting.\n"
        "Console (stdin): button 0|1, pour [GRAMS], load GRAMS, battery PERCENT, drop, help.\n"
        "Exit status: 0 stopped by Ctrl-C or SIGTERM; 1 the bus failed; 2 bad usage;\n"
        "3 no usable Bluetooth (no adapter, no bluetoothd, registration refused).");
    CLI11_PARSE(app, argc, argv);
    const std::string path = adapterPath(adapter);
    if (path.empty()) {
        std::fprintf(stderr, "plenk-emulator: --adapter: not an adapter name or path: %s\n", adapter.c_str());
        return 2;
    }
    options.format = format == "text" ? emulator::WeightFormat::Text : emulator::WeightFormat::Binary;
    options.autoPour = !noPour;

    cli::SignalWatcher::blockInThisProcess();
    Outcome outcome;
    cli::SignalWatcher signals([&] { outcome.finish(0, ""); });
    EventLog log;
    dispatch::PollLoop loop("plenk-emulator");
    std::unique_ptr<PeripheralScale> scale;
    std::unique_ptr<Console> console;
    loop.post([&] {
        const auto every = std::chrono::milliseconds(static_cast<long long>(readvertise * 1000));
        scale = std::make_unique<PeripheralScale>(
            loop, path, options, every, log,
            [&](int status, const std::string& why) { outcome.finish(status, why); });
        console = std::make_unique<Console>(loop, STDIN_FILENO, *scale, log);
        scale->start();
    });
    const int status = outcome.wait();
    loop.stop([&] {
        console.reset();
        scale.reset();
    });
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "plenk-emulator: %s\n", e.what());
        return 1;
    }
}
