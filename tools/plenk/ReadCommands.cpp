// What a connected scale tells: `plenk battery`, `plenk info`, and its
// configuration: `plenk config read [--raw]`, `config init`, `config sync`.

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "HexText.h"
#include "ScaleRun.h"

namespace plenk::cli {

namespace {

using Work = std::function<void(ScaleRun&)>;

// Registers a verb that connects and then does `work`.
CLI::App* addScaleVerb(CLI::App& parent, const std::string& name, const std::string& help,
                       const GlobalOptions& options, const std::shared_ptr<ConnectOptions>& connect,
                       std::function<Work()> work) {
    CLI::App* verb = parent.add_subcommand(name, help);
    addConnectOptions(*verb, *connect);
    verb->callback([&options, connect, work = std::move(work)] {
        ScaleRun run(options, *connect);
        run.run(work());
    });
    return verb;
}

void battery(ScaleRun& r) {
    r.waitFor("the battery level");
    r.session().plenk()->readPlenkBatteryLifeWithCompletion([&r](std::int64_t level) {
        r.print(
            "battery: " + std::to_string(level) + "%",
            JsonObject().string("event", "battery").integer("value", level).string("scale", r.scaleName()));
        r.done();
    });
}

std::string recordHex(const RKConfigurationRecord& record) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return formatHex({bytes, sizeof record});
}

void printConfiguration(ScaleRun& r, const RKConfiguration& c) {
    const std::pair<const char*, std::int64_t> fields[] = {
        {"timerOn", c.timerOn},
        {"timerDefaultOn", c.timerDefaultOn},
        {"timerBit2", c.timerBit2},
        {"timerAutoStart", c.timerAutoStart},
        {"byte12HighSet", c.byte12HighSet},
        {"timerHighNibble", c.timerHighNibble},
        {"byte10High", c.byte10High},
        {"byte10Low", c.byte10Low},
        {"byte11High", c.byte11High},
        {"byte11Low", c.byte11Low},
        {"byte12Low", c.byte12Low},
    };
    std::string text;
    JsonObject object;
    object.string("event", "configuration");
    for (const auto& [name, value] : fields) {
        text += (text.empty() ? "" : "\n") + std::string(name) + ": " + std::to_string(value);
        object.integer(name, value);
    }
    r.print(text, object);
}

Work configRead(const bool& raw) {
    return [&raw](ScaleRun& r) {
        r.waitFor("the configuration record");
        const auto printRaw = [&r](const RKConfigurationRecord& record) {
            const std::string hex = recordHex(record);
            r.print(hex, JsonObject().string("event", "configuration").string("raw", hex));
            r.done();
        };
        // The record read as the verb started; if that read failed, again, for the scale's error.
        if (raw && r.lastRecord() != nullptr) return printRaw(*r.lastRecord());
        if (raw) return r.device()->readRawData(r.onLoop(printRaw));
        r.kit()->readConfiguration(r.onLoop([&r](RKConfiguration configuration) {
            printConfiguration(r, configuration);
            r.done();
        }));
    };
}

// One write result of an exchange, as it came.
void printWrite(ScaleRun& r, const char* exchange, int index, bool success, const ErrorPtr& error) {
    JsonObject object;
    object.string("event", "write")
        .string("exchange", exchange)
        .integer("index", index)
        .boolean("success", success);
    std::string text =
        std::string(exchange) + ": write " + std::to_string(index) + (success ? " accepted" : " refused");
    if (error) {
        text += ": " + error->domain() + " " + std::to_string(error->code()) + " " +
                error->localizedDescription();
        object.string("domain", error->domain()).integer("code", error->code());
    }
    r.print(text, object);
}

// The initialisation reads the record; an unconfigured scale is sent the
// default configuration (eight writes) and the completion hears the results
// of the first two, a configured one completes once at once. The record read
// as the verb started tells which of the two to expect; every completion is
// printed as it comes, and the record is read again afterwards.
void configInit(ScaleRun& r) {
    {
        const RKConfigurationRecord* before = r.lastRecord();  // read as the verb started
        if (before == nullptr) return r.refused("reading the configuration record", nullptr);
        const bool unconfigured = protocol::isUnconfigured(*before);
        r.print(unconfigured ? "config init: the scale is unconfigured: sending the default configuration"
                             : "config init: the scale is configured already",
                JsonObject().string("event", "initializing").boolean("configured", !unconfigured));
        auto remaining = std::make_shared<int>(unconfigured ? 2 : 1);
        auto index = std::make_shared<int>(0);
        r.waitFor("the initialisation's results");
        r.kit()->initializeConfiguration(
            r.onLoop([&r, remaining, index](bool success, const ErrorPtr& error) {
                printWrite(r, "config init", ++*index, success, error);
                if (--*remaining > 0) return;
                r.waitFor("the configuration record after the initialisation");
                r.afterPendingWrites([&r](const RKConfigurationRecord* after) {
                    const bool configured = after != nullptr && !protocol::isUnconfigured(*after);
                    r.print(std::string("config init: the scale is ") +
                                (configured ? "configured" : "still unconfigured"),
                            JsonObject().string("event", "initialized").boolean("configured", configured));
                    r.done();
                });
            }));
    }
}

void configSync(ScaleRun& r) {
    r.waitFor("the synchronisation's result");
    r.kit()->synchronize(r.onLoop([&r](bool success, const ErrorPtr& error) {
        printWrite(r, "config sync", 1, success, error);
        if (!success) return r.refused("the synchronisation", error);
        r.done();
    }));
}

// The firmware revision is read; the other texts are what the scale's device
// information service held when it was discovered.
void info(ScaleRun& r) {
    r.waitFor("the firmware revision");
    r.device()->readFirmwareVersionWithCompletion(r.onLoop([&r](std::optional<std::string> version,
                                                                const ErrorPtr& error) {
        const auto device = r.device();
        if (!device) return r.session().finish(kExitConnectionFailed, "the link was lost");
        const auto peripheral = device->peripheral();
        const std::pair<const char*, std::optional<std::string>> texts[] = {
            {"firmwareRevision", version},
            {"manufacturer", device->manufacturer()},
            {"model", device->model()},
            {"hardwareRevision", device->hardwareVersion()},
            {"softwareRevision", device->softwareVersion()},
        };
        std::string text = "name: " + r.scaleName() + "\nidentifier: " + peripheral->identifier().toString();
        JsonObject object;
        object.string("event", "info")
            .string("name", r.scaleName())
            .string("identifier", peripheral->identifier().toString());
        for (const auto& [name, value] : texts) {
            const bool known = value && !value->empty();
            text += "\n" + std::string(name) + ": " + (known ? *value : "(not known)");
            if (known) {
                object.string(name, *value);
            } else {
                object.null(name);
            }
        }
        if (error) text += "\n(firmware revision: " + error->localizedDescription() + ")";
        r.print(text, object);
        r.done();
    }));
}

}  // namespace

void addReadCommands(CLI::App& app, const GlobalOptions& options) {
    auto connect = std::make_shared<ConnectOptions>();
    addScaleVerb(app, "battery", "Read the battery level", options, connect, [] {
        return Work(battery);
    })->group("Reads");
    addScaleVerb(app, "info", "Read the firmware revision and show the device-information texts", options,
                 connect, [] { return Work(info); })
        ->group("Reads");

    CLI::App* config =
        app.add_subcommand("config", "Read, initialise or synchronise the scale's configuration");
    config->require_subcommand(1);
    config->group("Reads");
    auto raw = std::make_shared<bool>(false);
    addScaleVerb(*config, "read", "Read the configuration record, decoded", options, connect, [raw] {
        return configRead(*raw);
    })->add_flag("--raw", *raw, "Print the record's 15 bytes as hex instead");
    addScaleVerb(*config, "init",
                 "Initialise the configuration: an unconfigured scale is sent the default one", options,
                 connect, [] { return Work(configInit); });
    addScaleVerb(*config, "sync", "Synchronise the settings (writes 04)", options, connect,
                 [] { return Work(configSync); });
}

}  // namespace plenk::cli
