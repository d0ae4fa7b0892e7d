// fake-bluetoothd: the tests' fake org.bluez as a program, serving emulated
// scales until SIGINT or SIGTERM. A client in another process (a benchmark's
// peer, a manual session with bluetoothctl-like tools) talks to it over D-Bus.
//
//   fake-bluetoothd --private --scale "Plenk Scale" --rate 1000 --sequence --stamps emitted.txt
//
// With --sequence the i-th weight notification carries the weight i, and
// --stamps writes "i monotonic_ns" (CLOCK_MONOTONIC) per emission at exit,
// so latency can be measured from the receiving side. SIGUSR1 drops every
// scale's link (a link loss, as when a scale goes out of range for a moment).

#include <CLI/CLI.hpp>

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FakeBluez.h"
#include "PrivateBus.h"

using namespace plenk::fakebluez;

namespace {

// "C0:FF:EE:00:00:01 EF80 ca 64" per write, in the order each scale got them.
bool writeLog(const FakeBluez& bluez, const std::vector<std::string>& addresses, const std::string& path) {
    FILE* out = std::fopen(path.c_str(), "w");
    if (out == nullptr) {
        std::perror(path.c_str());
        return false;
    }
    for (const auto& address : addresses) {
        for (const auto& write : bluez.writes(address)) {
            std::fprintf(out, "%s %s", address.c_str(), write.characteristic.toString().c_str());
            for (const auto byte : write.value) std::fprintf(out, " %02x", byte);
            std::fputc('\n', out);
        }
    }
    return std::fclose(out) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"A fake bluetoothd (org.bluez) serving emulated scales"};
    bool privateBus = false;
    std::vector<std::string> names;
    std::string format = "binary";
    int rate = 10;
    bool sequence = false;
    std::string stamps;
    std::string writesFile;
    app.add_flag("--private", privateBus,
                 "Start a private dbus-daemon and print its address on the first line "
                 "(default: serve on $DBUS_SYSTEM_BUS_ADDRESS)");
    app.add_option("--scale", names, "Advertised name of a scale (repeatable; default one \"Plenk Scale\")");
    app.add_option("--format", format, "Weight format")
        ->check(CLI::IsMember({"binary", "text"}))
        ->capture_default_str();
    app.add_option("--rate", rate, "Weight notifications per second")
        ->check(CLI::Range(10, 1000))
        ->capture_default_str();
    app.add_flag("--sequence", sequence, "Weight notification i carries the weight i");
    app.add_option("--stamps", stamps,
                   "Write \"i monotonic_ns\" per emitted notification to this file at exit");
    app.add_option("--writes", writesFile,
                   "Write every GATT write the scales received to this file at exit, one per line:\n"
                   "\"ADDRESS CHARACTERISTIC hex bytes\"");
    CLI11_PARSE(app, argc, argv);

    // Signals are taken with sigwait, so every thread started later blocks them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    try {
        std::optional<PrivateBus> bus;
        std::string address;
        if (privateBus) {
            address = bus.emplace().address();
            std::cout << address << std::endl;
        } else if (const char* system = std::getenv("DBUS_SYSTEM_BUS_ADDRESS"); system && *system) {
            address = system;
        } else {
            std::cerr << "fake-bluetoothd: no bus: give --private or set DBUS_SYSTEM_BUS_ADDRESS\n";
            return 2;
        }
        if (names.empty()) names.emplace_back("Plenk Scale");

        std::vector<std::pair<std::uint64_t, std::int64_t>> emitted;
        {
            FakeBluez bluez(address);
            if (!stamps.empty()) {
                emitted.reserve(1 << 20);
                // Runs on the fake's thread; read only after it has stopped.
                bluez.setEmissionObserver([&emitted](const std::string&, std::uint64_t index,
                                                     std::int64_t ns) { emitted.emplace_back(index, ns); });
            }
            bluez.addAdapter({});
            std::vector<std::string> addresses;
            for (std::size_t i = 0; i < names.size(); ++i) {
                char deviceAddress[18];
                std::snprintf(deviceAddress, sizeof deviceAddress, "C0:FF:EE:00:00:%02X",
                              static_cast<unsigned>(i + 1) & 0xFFu);
                ScaleSetup setup;
                setup.address = deviceAddress;
                setup.options.name = names[i];
                setup.options.format = format == "text" ? plenk::emulator::WeightFormat::Text
                                                        : plenk::emulator::WeightFormat::Binary;
                setup.options.sampleRateHz = rate;
                setup.sequence = sequence;
                std::cerr << "fake-bluetoothd: \"" << names[i] << "\" at " << bluez.addScale(setup) << "\n";
                addresses.emplace_back(deviceAddress);
            }
            std::cerr << "fake-bluetoothd: serving org.bluez\n";
            int received = 0;
            while (sigwait(&signals, &received) == 0 && received == SIGUSR1) {
                for (const auto& each : addresses) bluez.dropLink(each);
            }
            if (!writesFile.empty() && !writeLog(bluez, addresses, writesFile)) return 1;
        }
        if (!stamps.empty()) {
            FILE* out = std::fopen(stamps.c_str(), "w");
            if (out == nullptr) {
                std::perror(stamps.c_str());
                return 1;
            }
            for (const auto& [index, ns] : emitted) {
                std::fprintf(out, "%llu %lld\n", static_cast<unsigned long long>(index),
                             static_cast<long long>(ns));
            }
            std::fclose(out);
        }
    } catch (const std::exception& error) {
        std::cerr << "fake-bluetoothd: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
