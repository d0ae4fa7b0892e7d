#include "Session.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <stdexcept>

#include "HexText.h"
#include "SignalWatcher.h"
#include "TextLines.h"

namespace plenk::cli {

namespace {

// How long a real backend may go without a usable radio before the verb gives
// up: bluetoothd answers within milliseconds when it runs.
constexpr auto kRadioGrace = std::chrono::seconds(3);
constexpr auto kRadioPoll = std::chrono::milliseconds(250);
// How long the closing disconnect may take before the tool leaves anyway.
constexpr auto kDisconnectGrace = std::chrono::seconds(2);

// Lines of text on standard error, one writer at a time.
void writeLines(std::string_view prefix, std::string_view text) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    forEachTrimmedLine(text, [prefix](std::string_view line) {
        std::fprintf(stderr, "%.*s%.*s\n", static_cast<int>(prefix.size()), prefix.data(),
                     static_cast<int>(line.size()), line.data());
    });
    std::fflush(stderr);
}

class DiagnosticLog final : public LogSink {
public:
    explicit DiagnosticLog(DiagnosticSink sink) : sink_(std::move(sink)) {}
    void write(std::string_view text) override { sink_(text); }

private:
    DiagnosticSink sink_;
};

// The simulated world's misbehaviours, for trying a script's error handling.
void applyFault(const std::string& fault, Simulator::Scale& scale) {
    using C = Simulator::Characteristic;
    if (fault == "connect-fails") {
        scale.setConnectOutcome(Simulator::ConnectOutcome::failWithCode(kPlatformConnectionFailed));
    } else if (fault == "connect-hangs") {
        scale.setConnectOutcome(Simulator::ConnectOutcome::hang());
    } else if (fault == "setup-fails") {
        scale.removeCharacteristic(C::Weight);
    } else if (fault == "write-fails") {
        scale.failWrites(C::Command, attError(kAttWriteNotPermitted));
    } else if (fault == "read-fails") {
        for (const C c : {C::Configuration, C::BatteryLevel, C::FirmwareRevision}) {
            scale.failReads(c, attError(kAttReadNotPermitted));
        }
    } else if (fault == "no-battery") {
        scale.removeCharacteristic(C::BatteryLevel);
    }
}

}  // namespace

const std::vector<std::string>& simulatorFaults() {
    static const std::vector<std::string> kFaults{"none",          "no-scale",    "connect-fails",
                                                  "connect-hangs", "setup-fails", "write-fails",
                                                  "read-fails",    "no-battery"};
    return kFaults;
}

class Session::Delegate final : public PKPlenkDelegate {
public:
    explicit Delegate(Session& session) : session_(session) {}

    void plenkDidConnected(PKPlenk&) override { call(session_.events_.connected); }
    // Also heard while closing: the closing disconnect is an event too.
    void plenkDidDisconnected(PKPlenk&) override {
        if (session_.events_.disconnected) session_.events_.disconnected();
        if (session_.closed_) session_.loop_->stop();
    }
    void plenkDidErrorOccur(PKPlenk&, const ErrorPtr& error) override {
        if (session_.events_.error && !session_.finishing_) session_.events_.error(error);
    }
    void plenkWeightDidUpdate(float grams) override {
        if (session_.events_.weight && !session_.finishing_) session_.events_.weight(grams);
    }
    void plenkDeviceDidClickButton(std::uint64_t button) override {
        if (session_.events_.button && !session_.finishing_) session_.events_.button(button);
    }

private:
    void call(const std::function<void()>& f) const {
        if (f && !session_.finishing_) f();
    }
    Session& session_;
};

Session::Session(const GlobalOptions& global, DiagnosticSink diagnostics)
    : global_(global), diagnostics_(std::move(diagnostics)) {
    if (global_.sim && !global_.backend.empty() && global_.backend != "sim") {
        throw UsageError("--sim uses the simulator; it cannot be combined with --backend '" +
                         global_.backend + "'");
    }
    if (!global_.simFault.empty() && !global_.sim) throw UsageError("--sim-fault needs --sim");
    if (!diagnostics_) diagnostics_ = [](std::string_view text) { writeLines("plenk: library: ", text); };
    SignalWatcher::blockInThisProcess();  // before any library thread starts

    const std::shared_ptr<LogSink> log =
        global_.verbose ? std::make_shared<DiagnosticLog>(diagnostics_) : LogSink::discard();
    if (global_.sim) {
        buildSimulator(log);
    } else {
        context_.mainQueue = std::make_shared<RunLoop>();
        context_.backendName = global_.backend;
        context_.adapter = global_.adapter;
    }
    context_.log = log;
    context_.notifications = std::make_shared<NotificationCenter>();
    try {
        context_ = context_.resolved();
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
    loop_ = simulator_ ? simulator_->mainLoop() : std::static_pointer_cast<RunLoop>(context_.mainQueue);
    if (global_.verbose) observeNotifications();
    plenk_ = PKPlenk::create(context_);
    // A fresh kit connects by itself to the first scale it sees until told
    // otherwise; every verb chooses its scale (watch turns it back on). The
    // simulated radio comes on only now, so no simulated scale is taken
    // before; a real one reports after a bus round trip.
    plenk_->setIsAutoConnectEnabled(false);
    if (simulator_) simulator_->setRadioState(RadioState::PoweredOn);
    delegate_ = std::make_shared<Delegate>(*this);
    plenk_->setDelegate(delegate_);
}

Session::~Session() {
    // The verb's objects that the events call into may already be gone: no
    // event reaches them from here on (the facade holds its delegate weakly).
    delegate_.reset();
    events_ = Events{};
    for (const auto token : observers_) context_.notifications->removeObserver(token);
    plenk_.reset();
    loop_->runUntilIdle();
}

// Two scales as the demo has them, on real time: "Plenk Scale" (binary
// weights, unconfigured until initialised) and "Coffee Scale" (text weights,
// configured); each pours a 36 g shot after the tare of a connection.
void Session::buildSimulator(const std::shared_ptr<LogSink>& log) {
    const auto& faults = simulatorFaults();
    if (!global_.simFault.empty() &&
        std::find(faults.begin(), faults.end(), global_.simFault) == faults.end()) {
        std::string names;
        for (const auto& fault : faults) names += (names.empty() ? "" : ", ") + fault;
        throw UsageError("--sim-fault: '" + global_.simFault + "' is not one of " + names);
    }
    Simulator::Options options;
    options.clock = Clock::steady();
    options.log = log;
    options.radio = std::nullopt;  // powered on once the facade is set up
    simulator_ = std::make_unique<Simulator>(options);
    context_ = simulator_->context();
    if (global_.simFault == "no-scale") return;
    // Fixed identifiers, as real scales keep theirs: --id works across runs.
    Simulator::ScaleOptions plenkScale;
    plenkScale.identifier = Uuid::fromString("C0FFEE00-5CA1-4E00-8000-000000000001");
    Simulator::ScaleOptions coffeeScale;
    coffeeScale.identifier = Uuid::fromString("C0FFEE00-5CA1-4E00-8000-000000000002");
    coffeeScale.name = "Coffee Scale";
    coffeeScale.format = Simulator::WeightFormat::Text;
    coffeeScale.configured = true;
    coffeeScale.firmwareRevision = "2.0.1";
    for (const auto& scaleOptions : {plenkScale, coffeeScale}) {
        auto scale = simulator_->addScale(scaleOptions);
        applyFault(global_.simFault, scale);
        simulatedScales_.push_back({scaleOptions.name, scale});
    }
}

void Session::observeNotifications() {
    for (const auto name : {kLogNotification, kReconnectNotification, kConnectNotification}) {
        observers_.push_back(
            context_.notifications->addObserver(name, [sink = diagnostics_](const Notification& n) {
                sink("notification " + n.name + (n.object ? ": " + *n.object : std::string()));
            }));
    }
}

void Session::finish(int status, std::string message) {
    if (finishing_) return;
    finishing_ = true;
    status_ = status;
    message_ = std::move(message);
    loop_->post([this] { close(); });
}

void Session::setDeadline(std::chrono::nanoseconds delay, std::function<void()> onDeadline) {
    deadline_ = delay;
    onDeadline_ = std::move(onDeadline);
}

bool Session::releaseUnwantedLink(const PeripheralPtr& wanted) {
    const auto kit = plenk_->rosta();
    const auto isWanted = [&wanted](const PeripheralPtr& p) {
        return wanted && p && p->identifier() == wanted->identifier();
    };
    if (const auto device = kit ? kit->currentDevice() : nullptr) {
        if (isWanted(device->peripheral())) return false;
        plenk_->disconnect();
        return true;
    }
    const auto connecting = kit ? kit->connectingPeripheral() : nullptr;
    if (!connecting || isWanted(connecting) || connecting->state() == PeripheralState::Disconnected)
        return false;
    kit->connecter()->cancelConnectDeviceWithPeripheral(connecting);
    return true;
}

std::string Session::radioProblem() const {
    const auto kit = plenk_->rosta();
    const std::uint64_t state = kit ? kit->leState() : 0;
    const std::string via = " through " + context_.backendName;
    const std::string adapter = context_.adapter.empty() ? "" : " '" + context_.adapter + "'";
    const std::string suggestion = "; use --sim for the simulated scales";
    switch (state) {
        case RKRostaKit::kLEStatePoweredOn:
            return {};
        case RKRostaKit::kLEStatePoweredOff:
            return "Bluetooth is switched off" + via + " (bluetoothctl power on)";
        case RKRostaKit::kLEStateNotSupported:
            return "no Bluetooth adapter" + adapter + " found" + via +
                   " (check that bluetoothd runs and the adapter is present)" + suggestion;
        case RKRostaKit::kLEStateUnauthorized:
            return "not allowed to use Bluetooth" + via + " (the system bus denied access)" + suggestion;
        default:
            return "Bluetooth is not available" + via + " (is bluetoothd running?)" + suggestion;
    }
}

// A radio that stays unusable ends the run with advice; one that is merely
// off is waited for until the deadline (the kit resumes when it comes on).
void Session::watchRadio() {
    if (finishing_) return;
    const auto kit = plenk_->rosta();
    const std::uint64_t state = kit ? kit->leState() : 0;
    const auto now = std::chrono::steady_clock::now();
    if (state == RKRostaKit::kLEStatePoweredOn || state == RKRostaKit::kLEStatePoweredOff) {
        unusableSince_ = now;
    } else if (now - unusableSince_ >= kRadioGrace) {
        return finish(kExitNoBluetooth, radioProblem());
    }
    loop_->postAfter(kRadioPoll, [this] { watchRadio(); });
}

// Leaves the scale as it was found: no scan running, no link held.
void Session::close() {
    closed_ = true;
    const auto kit = plenk_->rosta();
    plenk_->setIsAutoConnectEnabled(false);
    if (kit && kit->currentDevice()) {
        plenk_->disconnect();  // plenkDidDisconnected stops the loop
        loop_->postAfter(kDisconnectGrace, [loop = loop_] { loop->stop(); });
        return;
    }
    if (kit) {
        if (const auto connecting = kit->connectingPeripheral();
            connecting && connecting->state() == PeripheralState::Connecting) {
            kit->connecter()->cancelConnectDeviceWithPeripheral(connecting);
        }
    }
    loop_->stop();
}

void Session::reportSimulatorFrames() {
    if (!global_.verbose) return;
    for (const auto& scale : simulatedScales_) {
        for (const auto& frame : scale.handle.receivedCommands()) {
            writeLines("plenk: sim: ", "'" + scale.name + "' received " + formatHex(frame));
        }
    }
}

void Session::run() {
    SignalWatcher signals([this] { loop_->post([this] { finish(interruptStatus_, "interrupted"); }); });
    if (!simulator_) loop_->post([this] { watchRadio(); });
    if (deadline_.count() > 0) {
        loop_->postAfter(deadline_, [this] {
            if (finishing_) return;
            if (const std::string problem = radioProblem(); !problem.empty()) {
                return finish(kExitNoBluetooth, problem);
            }
            if (onDeadline_) onDeadline_();
        });
    }
    loop_->run();
    reportSimulatorFrames();
    if (status_ != 0) throw RunError(status_, message_);
}

}  // namespace plenk::cli
