#include "LinkMonitor.h"

#include <PlenkKit/RKRostaKit.h>

namespace plenk::cli {

namespace {
// The kit publishes its radio state and connecting peripheral as properties,
// not events: look a few times a second, which is what a person can read.
constexpr auto kPollInterval = std::chrono::milliseconds(200);
}  // namespace

const char* LinkMonitor::describe(State state) {
    switch (state) {
        case State::WaitingForBluetooth:
            return "waiting for Bluetooth";
        case State::BluetoothOff:
            return "Bluetooth off";
        case State::NoAdapter:
            return "no adapter";
        case State::NotAllowed:
            return "Bluetooth not allowed";
        case State::Scanning:
            return "scanning";
        case State::Connecting:
            return "connecting";
        case State::Connected:
            return "connected";
        case State::Reconnecting:
            return "reconnecting";
        case State::Disconnected:
            return "disconnected";
    }
    return "?";
}

LinkMonitor::LinkMonitor(std::shared_ptr<PKPlenk> plenk, std::shared_ptr<RunLoop> loop, Listener listener)
    : plenk_(std::move(plenk)), loop_(std::move(loop)), listener_(std::move(listener)) {}

LinkMonitor::~LinkMonitor() {
    if (!center_) return;
    center_->removeObserver(reconnectToken_);
    center_->removeObserver(connectToken_);
}

void LinkMonitor::start(const std::shared_ptr<NotificationCenter>& center) {
    center_ = center;
    // Notifications arrive on the library's Bluetooth queue: hop to the loop.
    const std::weak_ptr<LinkMonitor> weak = weak_from_this();
    // "Connect" means the scale is linked and set up again: a held link that
    // comes back tells the host nothing else.
    const auto onLoop = [weak, loop = loop_](bool reconnecting) {
        return [weak, loop, reconnecting](const Notification&) {
            loop->post([weak, reconnecting] {
                if (auto self = weak.lock()) {
                    self->reconnecting_ = reconnecting;
                    if (!reconnecting) self->linked_ = true;
                    self->refresh();
                }
            });
        };
    };
    reconnectToken_ = center_->addObserver(kReconnectNotification, onLoop(true));
    connectToken_ = center_->addObserver(kConnectNotification, onLoop(false));
    refresh();
    schedule();
}

void LinkMonitor::connected() {
    linked_ = true;
    reconnecting_ = false;
    refresh();
}

void LinkMonitor::disconnected(bool asked) {
    linked_ = false;
    reconnecting_ = !asked && plenk_->isAutoConnectEnabled();
    set(State::Disconnected);  // heard even when reconnecting follows at once
    if (reconnecting_) set(State::Reconnecting);
}

std::chrono::steady_clock::duration LinkMonitor::unavailableFor() const {
    return unavailable_ ? std::chrono::steady_clock::now() - unavailableSince_
                        : std::chrono::steady_clock::duration::zero();
}

void LinkMonitor::schedule() {
    loop_->postAfter(kPollInterval, [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->refresh();
            self->schedule();
        }
    });
}

void LinkMonitor::refresh() {
    const auto kit = plenk_->rosta();
    const std::uint64_t radio = kit ? kit->leState() : 0;
    State next = State::Scanning;
    if (reconnecting_) {
        next = State::Reconnecting;
    } else if (linked_) {
        next = State::Connected;
    } else if (radio == RKRostaKit::kLEStatePoweredOff) {
        next = State::BluetoothOff;
    } else if (radio == RKRostaKit::kLEStateNotSupported) {
        next = State::NoAdapter;
    } else if (radio == RKRostaKit::kLEStateUnauthorized) {
        next = State::NotAllowed;
    } else if (radio != RKRostaKit::kLEStatePoweredOn) {
        next = State::WaitingForBluetooth;
    } else if (kit->connectingPeripheral()) {
        next = State::Connecting;
    }
    const bool unavailable =
        next == State::WaitingForBluetooth || next == State::NoAdapter || next == State::NotAllowed;
    if (unavailable && !unavailable_) unavailableSince_ = std::chrono::steady_clock::now();
    unavailable_ = unavailable;
    set(next);
}

void LinkMonitor::set(State state) {
    if (state == reported_) return;
    reported_ = state;
    listener_(state);
}

}  // namespace plenk::cli
