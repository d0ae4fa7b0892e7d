#include "Scenario.h"

#include <PlenkKit/ScaleProtocol.h>

#include <algorithm>
#include <optional>

#include "HexText.h"

namespace {

using namespace std::chrono_literals;
namespace protocol = plenk::protocol;

std::vector<std::uint8_t> flatten(const std::vector<protocol::Frame>& frames) {
    std::vector<std::uint8_t> out;
    for (const auto& frame : frames) out.insert(out.end(), frame.bytes.begin(), frame.bytes.end());
    return out;
}

std::vector<std::uint8_t> framesIn(const std::vector<EmulatorEvent>& events) {
    std::vector<std::uint8_t> out;
    for (const auto& event : events) {
        const auto bytes = event.bytes();
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    return out;
}

std::string hex(const std::vector<std::uint8_t>& bytes) {
    return plenk::cli::formatHex(bytes);
}

// Picks the scale named `name` as soon as the picker lists it, as a user would.
class TappingPresenter final : public plenk::PickerPresenter,
                               public plenk::PickerView,
                               public std::enable_shared_from_this<TappingPresenter> {
public:
    TappingPresenter(std::string name, std::shared_ptr<plenk::RunLoop> loop)
        : name_(std::move(name)), loop_(std::move(loop)) {}

    void presentViewController(const std::shared_ptr<plenk::CSRSelectDeviceViewController>& picker, bool,
                               std::function<void()> completion) override {
        picker_ = picker;
        picker->setView(shared_from_this());
        completion();
        reloadData();
    }
    void reloadData() override {
        auto picker = picker_.lock();
        if (!picker || tapped_) return;
        for (std::int64_t row = 0; row < picker->tableViewNumberOfRowsInSection(0); ++row) {
            if (picker->tableViewTitleForRowAtIndexPath({0, row}) != name_) continue;
            tapped_ = true;
            // A tap arrives as its own event, not inside the reload.
            loop_->post([picker, row] { picker->tableViewDidSelectRowAtIndexPath({0, row}); });
            return;
        }
    }
    void dismiss(bool, std::function<void()> completion) override {
        dismissed = true;
        completion();
    }

    bool dismissed = false;

private:
    std::string name_;
    std::shared_ptr<plenk::RunLoop> loop_;
    std::weak_ptr<plenk::CSRSelectDeviceViewController> picker_;
    bool tapped_ = false;
};

}  // namespace

void Heard::rostaDidConnected(plenk::RKRostaKit&) {
    ++connected;
    lastConnected = std::chrono::steady_clock::now();
    awaitingFirstWeight = true;
}

void Heard::rostaDidDisconnected(plenk::RKRostaKit&) {
    ++disconnected;
}

void Heard::rostaDidErrorOccur(plenk::RKRostaKit&, const plenk::ErrorPtr& error) {
    errors.push_back(error ? error->localizedDescription() : "(null)");
}

void Heard::rostaWeightDidUpdate(float weight) {
    weights.push_back(weight);
    if (std::exchange(awaitingFirstWeight, false)) firstWeightAfterConnect = std::chrono::steady_clock::now();
}

Scenario::Scenario(Options options)
    : options_(std::move(options)),
      log_(options_.emulatorLog),
      loop_(plenk::RunLoop::main()),
      heard_(std::make_shared<Heard>()),
      notifications_(std::make_shared<plenk::NotificationCenter>()) {
    // Notifications are posted on the Bluetooth queue: counted on the main one.
    const auto count = [this](int Heard::*counter, Clock::time_point Heard::*when) {
        return [this, counter, when](const plenk::Notification&) {
            const auto now = Clock::now();
            loop_->post([heard = heard_, counter, when, now] {
                ++((*heard).*counter);
                (*heard).*when = now;
            });
        };
    };
    observers_.push_back(notifications_->addObserver(plenk::kReconnectNotification,
                                                     count(&Heard::reconnects, &Heard::lastReconnect)));
    observers_.push_back(
        notifications_->addObserver(plenk::kConnectNotification, count(&Heard::relinks, &Heard::lastRelink)));
    observers_.push_back(
        notifications_->addObserver(plenk::kLogNotification, [this](const plenk::Notification& n) {
            if (n.object != "didDiscoverPeripheral") return;
            loop_->post([heard = heard_, now = Clock::now()] {
                if (!heard->discovered) heard->discovered = now;
            });
        }));
}

Scenario::~Scenario() {
    kit_.reset();
    for (const auto token : observers_) notifications_->removeObserver(token);
    loop_->runUntilIdle();
}

bool Scenario::check(bool condition, const std::string& step, const std::string& why) {
    if (condition) {
        std::printf("ok %s\n", step.c_str());
    } else {
        std::printf("FAIL %s: %s\n", step.c_str(), why.c_str());
        ++failures_;
    }
    std::fflush(stdout);
    return condition;
}

bool Scenario::waitFor(const std::function<bool()>& done, std::chrono::seconds timeout) {
    // A tick keeps the loop waking, so conditions on the emulator's log are seen too.
    auto ticking = std::make_shared<bool>(true);
    std::function<void()> tick = [this, ticking, &tick] {
        if (*ticking) loop_->postAfter(50ms, tick);
    };
    tick();
    const bool met = loop_->runUntil(done, timeout);
    *ticking = false;
    return met;
}

void Scenario::timing(const std::string& name, Clock::time_point from, Clock::time_point to) {
    std::printf("timing %s %.3f\n", name.c_str(), std::chrono::duration<double>(to - from).count());
    std::fflush(stdout);
}

int Scenario::run() {
    plenk::Context context;
    context.backendName = "bluez";
    context.adapter = options_.adapter;
    context.notifications = notifications_;
    kit_ = plenk::RKRostaKit::create(context);
    kit_->setDelegate(heard_);

    const bool linked = connectByName();
    if (linked && tareOnce(0, "tare-once-on-connection") && weightsMatch() && !options_.weightsOnly) {
        battery();
        configuration();
        if (hostDisconnectReconnects() && pickerConnects()) firmwareDropIsHeld();
    }
    if (linked) disconnectAtEnd();
    check(heard_->errors.empty(), "no-errors",
          heard_->errors.empty() ? "" : "the kit reported: " + heard_->errors.front());
    return failures_ == 0 ? 0 : 1;
}

// A fresh kit scans and connects to the first scale whose name it accepts.
bool Scenario::connectByName() {
    const auto start = Clock::now();
    kit_->setIsAutoConnectEnabled(true);
    const bool met = waitFor([&] { return heard_->connected == 1; }, 30s);
    if (!check(met, "auto-connect-by-name", "no connection within 30 s")) return false;
    timing("start-to-connected", start, heard_->lastConnected);
    timing("discovery-to-connected", heard_->discovered.value_or(start), heard_->lastConnected);
    waitFor([&] { return !heard_->awaitingFirstWeight; }, 5s);
    if (!check(!heard_->awaitingFirstWeight, "first-weight", "no weight within 5 s of connecting"))
        return false;
    timing("connected-to-first-weight", heard_->lastConnected, heard_->firstWeightAfterConnect);
    return true;
}

// The frames since `logMark` (taken before the connection was asked for)
// begin with the tare, and hold only one. bluetoothd may keep the radio link
// through a quick disconnect and reconnect, so the emulator need not see a
// new link: the kit's own fresh connection is what counts.
bool Scenario::tareOnce(std::size_t logMark, const std::string& step) {
    waitFor([&] { return !log_.since(logMark, "frame").empty(); }, 5s);
    waitFor([] { return false; }, 1s);  // a second tare would come at once
    const auto events = log_.since(logMark, "frame");
    const auto tare = protocol::tareFrame().bytes;
    const auto tares = std::count_if(events.begin(), events.end(),
                                     [&](const EmulatorEvent& e) { return e.bytes() == tare; });
    return check(!events.empty() && events.front().bytes() == tare && tares == 1, step,
                 "frames since connecting: " + hex(framesIn(events)));
}

// What the kit reported is a contiguous run of what the emulator sent, value
// for value, in order.
bool Scenario::weightsMatch() {
    const auto from = heard_->weights.size();
    waitFor([&] { return heard_->weights.size() >= from + 30; }, 10s);
    std::vector<float> sent;
    for (const auto& event : log_.since(0, "weight"))
        sent.push_back(protocol::decodeWeight(options_.name, event.bytes(1)));
    const std::vector<float> got(heard_->weights.begin() + static_cast<std::ptrdiff_t>(from),
                                 heard_->weights.end());
    const auto run = std::search(sent.begin(), sent.end(), got.begin(), got.end());
    return check(got.size() >= 30 && run != sent.end(), "weights-in-order-as-sent",
                 std::to_string(got.size()) + " weights received, " + std::to_string(sent.size()) +
                     " sent; first received " + (got.empty() ? "none" : std::to_string(got.front())));
}

bool Scenario::battery() {
    std::optional<std::int64_t> level;
    kit_->readRostaBatteryLifeWithCompletion([&](std::int64_t value) { level = value; });
    waitFor([&] { return level.has_value(); }, 5s);
    return check(level == options_.battery, "battery-read",
                 level ? "read " + std::to_string(*level) : "no answer within 5 s");
}

// Unconfigured at first; initialising writes the default sequence, after
// which the record reads back configured, decoded as the emulator encoded it.
bool Scenario::configuration() {
    std::vector<plenk::RKConfiguration> read;
    kit_->readConfiguration([&](plenk::RKConfiguration configuration) { read.push_back(configuration); });
    waitFor([&] { return !read.empty(); }, 5s);
    auto records = log_.valuesRead("EF83");
    if (!check(!read.empty() && !records.empty(), "configuration-read", "no record read within 5 s"))
        return false;
    check(protocol::isUnconfigured(protocol::configurationRecord(records.back())),
          "configuration-unconfigured-at-first", "record " + hex(records.back()));

    const auto mark = log_.size();
    int results = 0;
    bool allSucceeded = true;
    kit_->initializeConfiguration([&](bool success, const plenk::ErrorPtr& error) {
        ++results;
        allSucceeded = allSucceeded && success && !error;
    });
    const auto expected = flatten(protocol::defaultConfigurationFrames());
    waitFor([&] { return results >= 2 && framesIn(log_.since(mark, "frame")).size() >= expected.size(); },
            10s);
    const auto written = framesIn(log_.since(mark, "frame"));
    check(results == 2 && allSucceeded, "initialize-configuration-completes",
          std::to_string(results) + " results, all succeeded: " + std::to_string(allSucceeded));
    check(written == expected, "initialize-configuration-frames", "emulator got " + hex(written));

    const auto before = read.size();
    const auto readsBefore = records.size();
    kit_->readConfiguration([&](plenk::RKConfiguration configuration) { read.push_back(configuration); });
    waitFor([&] { return read.size() > before; }, 5s);
    records = log_.valuesRead("EF83");
    if (!check(read.size() > before && records.size() > readsBefore, "configuration-reread", "no answer"))
        return false;
    const auto record = protocol::configurationRecord(records.back());
    return check(!protocol::isUnconfigured(record) && read.back() == protocol::decodeConfiguration(record),
                 "configuration-after-initialize", "record " + hex(records.back()));
}

// With auto-connect on, a link the host drops is found and linked again.
bool Scenario::hostDisconnectReconnects() {
    const auto mark = log_.size();
    const auto start = Clock::now();
    kit_->disconnect();
    waitFor([&] { return heard_->disconnected == 1; }, 10s);
    heard_->discovered.reset();
    const bool met = waitFor([&] { return heard_->disconnected == 1 && heard_->connected == 2; }, 20s);
    if (!check(met, "host-disconnect-rescans-and-reconnects",
               std::to_string(heard_->disconnected) + " disconnects, " + std::to_string(heard_->connected) +
                   " connects"))
        return false;
    timing("host-disconnect-to-reconnected", start, heard_->lastConnected);
    timing("rediscovery-to-connected", heard_->discovered.value_or(start), heard_->lastConnected);
    return tareOnce(mark, "tare-once-on-reconnection");
}

// With auto-connect off the user picks the scale from the picker.
bool Scenario::pickerConnects() {
    kit_->setIsAutoConnectEnabled(false);
    kit_->disconnect();
    if (!check(waitFor([&] { return heard_->disconnected == 2; }, 10s), "disconnect-before-picking",
               "no disconnect within 10 s"))
        return false;
    auto presenter = std::make_shared<TappingPresenter>(options_.name, loop_);
    std::optional<plenk::ErrorPtr> result;
    const auto start = Clock::now();
    kit_->showDevicePickerOnViewContoller(presenter, [&](const plenk::ErrorPtr& error) {
        if (!result) result = error;
    });
    waitFor([&] { return result.has_value() && heard_->connected == 3; }, 30s);
    if (!check(result.has_value() && *result == nullptr && presenter->dismissed && heard_->connected == 3,
               "picker-connects",
               result && *result ? (*result)->localizedDescription() : "no link within 30 s"))
        return false;
    timing("picker-to-connected", start, heard_->lastConnected);
    return true;
}

// With continuous connection on, a link the firmware drops (F1) is taken
// back within the watchdog's 3 s, and the host hears no second connection.
bool Scenario::firmwareDropIsHeld() {
    kit_->setIsContinuousConnectionEnabled(true);
    const int connected = heard_->connected;
    const int disconnected = heard_->disconnected;
    const int relinks = heard_->relinks;
    const auto mark = log_.size();
    kit_->setFWDisconnect();
    const bool met = waitFor([&] { return heard_->reconnects >= 1 && heard_->relinks > relinks; }, 10s);
    const auto dropped = log_.since(mark, "dropping");
    check(!dropped.empty(), "fw-disconnect-drops-link", "the emulator never dropped the link");
    if (!check(met, "drop-relinked", "no relink within 10 s")) return false;
    timing("drop-to-relinked", heard_->lastReconnect, heard_->lastRelink);
    const auto weights = heard_->weights.size();
    waitFor([&] { return heard_->weights.size() > weights + 5; }, 5s);
    check(heard_->weights.size() > weights + 5, "weights-after-relink", "no weights after relinking");
    check(heard_->lastRelink - heard_->lastReconnect <= 3s, "relinked-within-watchdog",
          "took longer than 3 s");
    return check(heard_->connected == connected && heard_->disconnected == disconnected,
                 "held-link-no-second-connected",
                 std::to_string(heard_->connected - connected) + " connects, " +
                     std::to_string(heard_->disconnected - disconnected) + " disconnects heard");
}

bool Scenario::disconnectAtEnd() {
    kit_->setIsAutoConnectEnabled(false);
    kit_->setIsContinuousConnectionEnabled(false);
    const int disconnected = heard_->disconnected;
    kit_->disconnect();
    const bool met = waitFor([&] { return heard_->disconnected > disconnected; }, 10s);
    waitFor([&] { return !log_.since(0, "disconnected").empty() && log_.read().back().event != "connected"; },
            5s);
    return check(met, "disconnect-at-end", "no disconnect within 10 s");
}
