#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/PlenkKit.h>

#include "ConnectAttempt.h"

namespace CLI {
class App;
}

namespace plenk::cli {

class Session;

// Which scale a verb talks to, and how long it may take.
struct ConnectOptions {
    std::optional<std::string> name;  // a substring of the advertised name
    std::optional<std::string> id;    // the identifier `plenk scan` shows
    std::string timeout = "20";       // seconds, for the whole verb; empty: none
};
// Checks the options as ScaleConnector would, before anything connects
// (throws UsageError).
void checkConnectOptions(const ConnectOptions& options);
// Adds --name, --id and --timeout to a verb; `timeoutHelp` tells what the
// time-out bounds for this verb.
void addConnectOptions(CLI::App& verb, ConnectOptions& options,
                       const std::string& timeoutHelp = "Give up after this many seconds (default 20)");

// The scale a user asked for: any scale, or one by name or identifier.
class ScaleFilter {
public:
    // Throws UsageError for a malformed identifier or an empty name.
    explicit ScaleFilter(const ConnectOptions& options);
    bool matches(const Peripheral& peripheral) const;
    // "a scale", "a scale named like 'Coffee'", "the scale 1234..."
    std::string describe() const;

private:
    std::optional<std::string> name_;
    std::optional<Uuid> id_;
};

// Finds the scale the options ask for and connects it. Scales are collected
// as the device picker collects them (auto-connect off, the kit's list) and
// the first that matches is connected; failures end the session with the
// status a script can act on. Runs on the session's loop.
class ScaleConnector {
public:
    // Throws UsageError for bad options.
    ScaleConnector(Session& session, const ConnectOptions& options);

    // Starts looking (again, after a link was given up); `onConnected` runs on
    // the loop once the scale is linked and set up (the kit has tared it, as
    // on every fresh connection). The session's connected event is its.
    void start(std::function<void()> onConnected);
    // What to tell the user when the deadline passed before the verb was done;
    // `waitingFor` names what the verb was waiting for once connected.
    void timedOut(const std::string& waitingFor);
    std::chrono::nanoseconds timeout() const { return timeout_; }
    // The connected (or connecting) scale's name as it was found, for messages
    // (a scale restarting for an update changes its name).
    std::string scaleName() const;
    bool isConnected() const { return stage_ == Stage::Connected; }

private:
    enum class Stage { Searching, Connecting, Connected };

    void poll();
    void later(std::chrono::nanoseconds delay, std::function<void()> task);
    void search(RKRostaKit& kit);
    void choose(const PeripheralPtr& peripheral);
    void connected();
    void connectionFailed(const ErrorPtr& error);

    Session& session_;
    const ScaleFilter filter_;
    std::chrono::nanoseconds timeout_;
    std::function<void()> onConnected_;
    Stage stage_ = Stage::Searching;
    bool scanning_ = false;
    ConnectAttempt attempt_;
    const std::shared_ptr<int> alive_ = std::make_shared<int>(0);  // tasks hold it weakly
    PeripheralPtr target_;
    std::string name_ = "the scale";
};

}  // namespace plenk::cli
