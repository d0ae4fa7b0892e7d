// plenk watch: connects to a scale through the public facade and shows its
// live weight and the link's state until Ctrl-C or --duration.

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <PlenkKit/PlenkKit.h>
#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "LiveWatch.h"
#include "ScaleConnector.h"
#include "Session.h"

namespace plenk::cli {
namespace {

struct WatchOptions {
    std::optional<std::string> duration;  // seconds; none = until Ctrl-C
    ConnectOptions connect;               // timeout: none = wait for a scale for as long as it takes
};

// With --name or --id the watch looks for its scale through the kit's list
// (and looks again when a held link is given up); without, the kit's
// auto-connect takes the first scale found, as a host app would.
void runWatch(const WatchOptions& options, const GlobalOptions& global) {
    const double seconds = options.duration ? parseDurationArgument(*options.duration, "--duration") : 0;
    const bool filtered = options.connect.name || options.connect.id;

    checkConnectOptions(options.connect);
    auto printer = LiveWatch::makePrinter(global);
    Session session(global, [printer](std::string_view text) { printer->diagnostic(text); });
    ScaleConnector connector(session, options.connect);
    LiveWatch watch(session, printer);

    const auto onConnected = [&watch] { watch.connected(); };
    watch.start([&] {
        if (filtered) connector.start(onConnected);  // the held link was given up
    });
    if (filtered) {
        connector.start(onConnected);
    } else {
        session.events().connected = onConnected;
        session.plenk()->setIsAutoConnectEnabled(true);
    }

    session.setInterruptStatus(0);  // Ctrl-C is how a watch ends
    if (seconds > 0) {
        session.loop().postAfter(toDuration(seconds), [&session] { session.finish(0); });
    }
    if (connector.timeout().count() > 0) {
        session.setDeadline(connector.timeout(), [&] {
            if (watch.everConnected()) return;
            if (filtered) return connector.timedOut("");
            const bool connecting = session.kit()->connectingPeripheral() != nullptr;
            session.finish(connecting ? kExitTimedOut : kExitNoScale,
                           connecting ? "timed out connecting to a scale" : "no scale found");
        });
    }
    session.run();
}

}  // namespace

void addWatchCommand(CLI::App& app, const GlobalOptions& options) {
    auto watchOptions = std::make_shared<WatchOptions>();
    watchOptions->connect.timeout.clear();
    auto* watch = app.add_subcommand("watch", "Connect to a scale and show its live weight");
    watch->add_option("--duration", watchOptions->duration,
                      "Stop after this many seconds, e.g. 40 or 2.5 (default: until Ctrl-C)");
    addConnectOptions(*watch, watchOptions->connect,
                      "Give up when no scale is connected after this many seconds (default: wait)");
    watch->footer(
        "Shows grams with one decimal, the link's state and the battery level on one line.\n"
        "States: waiting for Bluetooth, Bluetooth off, scanning, connecting, connected,\n"
        "reconnecting (a dropped link is being brought back), disconnected.\n"
        "With --json one object per event: {\"event\":\"weight\",\"value\":12.5}, state (value),\n"
        "connected, disconnected, button, battery, error (kind, domain, code, description).\n"
        "Ctrl-C disconnects cleanly (exit status 0).\n"
        "The simulated scale pours a 36 g espresso shot: first drops after about 4 s,\n"
        "about 36 g by 35 s.\n"
        "Examples: plenk --sim watch --duration 40\n"
        "          plenk watch --adapter hci0 --name Coffee");
    watch->callback([watchOptions, &options] { runWatch(*watchOptions, options); });
}

}  // namespace plenk::cli
