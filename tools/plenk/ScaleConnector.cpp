#include "ScaleConnector.h"

#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "ErrorText.h"
#include "Session.h"

namespace plenk::cli {

namespace {
// The kit keeps its list and the peripherals their state: look often enough
// that a connection starts promptly after the scale is seen.
constexpr auto kPollInterval = std::chrono::milliseconds(50);
}  // namespace

void addConnectOptions(CLI::App& verb, ConnectOptions& options, const std::string& timeoutHelp) {
    verb.add_option("--name", options.name, "Use the first scale whose name contains this text")
        ->type_name("TEXT");
    verb.add_option("--id", options.id, "Use the scale with this identifier (as 'plenk scan' shows it)")
        ->type_name("UUID");
    verb.add_option("--timeout", options.timeout, timeoutHelp)->type_name("SECONDS");
}

ScaleFilter::ScaleFilter(const ConnectOptions& options) : name_(options.name) {
    if (name_ && name_->empty()) throw UsageError("--name: the name text is empty");
    if (options.id) {
        id_ = Uuid::parse(*options.id);
        if (!id_)
            throw UsageError("--id: '" + *options.id +
                             "' is not an identifier (a UUID, as 'plenk scan' shows)");
    }
}

bool ScaleFilter::matches(const Peripheral& peripheral) const {
    if (id_ && peripheral.identifier() != *id_) return false;
    if (!name_) return true;
    const auto name = peripheral.name();
    return name && name->find(*name_) != std::string::npos;
}

std::string ScaleFilter::describe() const {
    if (id_) return "the scale " + id_->toString();
    if (name_) return "a scale whose name contains '" + *name_ + "'";
    return "a scale";
}

namespace {
std::chrono::nanoseconds parseTimeout(const ConnectOptions& options) {
    if (options.timeout.empty()) return std::chrono::nanoseconds(0);
    return toDuration(parseDurationArgument(options.timeout, "--timeout"));
}
}  // namespace

void checkConnectOptions(const ConnectOptions& options) {
    [[maybe_unused]] const ScaleFilter filter(options);
    parseTimeout(options);
}

ScaleConnector::ScaleConnector(Session& session, const ConnectOptions& options)
    : session_(session), filter_(options), timeout_(parseTimeout(options)) {}

void ScaleConnector::start(std::function<void()> onConnected) {
    onConnected_ = std::move(onConnected);
    stage_ = Stage::Searching;
    scanning_ = false;
    target_ = nullptr;
    name_ = "the scale";
    const auto kit = session_.kit();
    // The kit's list, not its auto-connect: only the list lets the tool choose
    // which scale to connect. With continuous connection off and no picker
    // open, discoveries go to the list and nothing connects by itself.
    kit->setIsContinuousConnectionEnabled(false);
    session_.plenk()->setIsAutoConnectEnabled(false);
    // With auto-connect off, failed connections and failed set-ups come
    // through the picker completion, on the Bluetooth queue.
    kit->setPickerCompletion(
        [loop = session_.sharedLoop(), alive = std::weak_ptr(alive_), this](const ErrorPtr& error) {
            if (!error) return;  // success: the connected event follows
            loop->post([alive, this, error] {
                if (alive.lock()) connectionFailed(error);
            });
        });
    session_.events().connected = [this] { connected(); };
    later(std::chrono::nanoseconds(0), [this] { poll(); });
}

void ScaleConnector::poll() {
    if (session_.finishing() || stage_ == Stage::Connected) return;
    const auto kit = session_.kit();
    if (!scanning_ && kit->leState() == RKRostaKit::kLEStatePoweredOn) {
        kit->scanDeivces();
        scanning_ = true;
    }
    if (stage_ == Stage::Searching) {
        search(*kit);
    } else if (stage_ == Stage::Connecting && attempt_.endedWithoutLink(*kit)) {
        // A reported error is already queued behind this task and wins.
        return later(std::chrono::nanoseconds(0), [this] { connectionFailed(nullptr); });
    }
    later(kPollInterval, [this] { poll(); });
}

// Tasks of a connector that is gone (the session's loop runs once more as it
// is torn down) do nothing.
void ScaleConnector::later(std::chrono::nanoseconds delay, std::function<void()> task) {
    session_.loop().postAfter(delay, [alive = std::weak_ptr(alive_), task = std::move(task)] {
        if (alive.lock()) task();
    });
}

void ScaleConnector::search(RKRostaKit& kit) {
    // A link the kit made by itself is let go first (and the scan, which
    // that connection stopped, restarted).
    if (session_.releaseUnwantedLink()) {
        scanning_ = false;
        return;
    }
    for (const auto& peripheral : kit.discoveredResults()) {
        if (!peripheral || !filter_.matches(*peripheral)) continue;
        choose(peripheral);
        return kit.connectPeripheral(peripheral);
    }
}

void ScaleConnector::choose(const PeripheralPtr& peripheral) {
    target_ = peripheral;
    name_ = peripheral->name().value_or("the scale");
    stage_ = Stage::Connecting;
    attempt_.begin(peripheral);
}

void ScaleConnector::connected() {
    if (stage_ == Stage::Connected) return;        // a late event of a scale let go
    if (!session_.kit()->currentDevice()) return;  // already gone again
    if (!target_ || session_.releaseUnwantedLink(target_)) {
        scanning_ = false;
        return;  // the kit's own connection, or a late event of one let go
    }
    stage_ = Stage::Connected;
    if (onConnected_) onConnected_();
}

void ScaleConnector::connectionFailed(const ErrorPtr& error) {
    const std::string what = "connecting to '" + scaleName() + "' failed";
    session_.finish(kExitConnectionFailed,
                    error ? what + ": " + describeError(*error) : what + " (no error was reported)");
}

void ScaleConnector::timedOut(const std::string& waitingFor) {
    switch (stage_) {
        case Stage::Searching:
            return session_.finish(kExitNoScale, "no scale found: looked for " + filter_.describe() +
                                                     " for " + formatSeconds(timeout_) + " s");
        case Stage::Connecting:
            return session_.finish(kExitTimedOut, "timed out connecting to '" + scaleName() + "'");
        case Stage::Connected:
            return session_.finish(kExitTimedOut,
                                   "timed out: '" + scaleName() + "' did not answer (" + waitingFor + ")");
    }
}

std::string ScaleConnector::scaleName() const {
    return name_;
}

}  // namespace plenk::cli
