// BluezPeripheral: the link (connect, cancel, link loss) on the event loop.
#include <PlenkKit/PlatformErrors.h>

#include "backends/bluez/BluezPeripheral.h"
#include "backends/bluez/CentralCore.h"

namespace plenk::bluez {

namespace {

// A Connect answered InProgress is tried again after a pause; after a few
// such answers a Disconnect clears what bluetoothd may still hold of an
// attempt that was aborted, and after many the attempt fails.
constexpr auto kBusyPause = std::chrono::milliseconds(250);
constexpr int kClearStaleAfter = 4;
constexpr int kGiveUpAfter = 20;
// Connect waits for bluetoothd's own time-out, which is shorter than this.
constexpr auto kConnectCallTimeout = std::chrono::seconds(60);

}  // namespace

// --- the link --------------------------------------------------------------------------

void BluezPeripheral::connect() {
    auto c = core();
    if (!c) return;
    if (!c->poweredOn()) {
        diagnose("[bluez] connect while the radio is not powered on: ignored");
        return;
    }
    if (state() != bt::PeripheralState::Disconnected) return;
    setState(bt::PeripheralState::Connecting);
    ++attempt_;
    busyAnswers_ = 0;
    sendConnect();
}

void BluezPeripheral::sendConnect() {
    auto c = core();
    // One Connect at a time: a new attempt waits for the answer of one we
    // cancelled (bluetoothd would answer it InProgress), and for the device
    // object to exist.
    if (!c || !c->bus() || connectInFlight_ || devicePath_.empty() ||
        state() != bt::PeripheralState::Connecting)
        return;
    connectInFlight_ = true;
    const auto call = ++connectCall_;
    c->bus()->call(
        devicePath_, kDeviceInterface, "Connect", [](sdbus::MethodCall&) {},
        [weak = std::weak_ptr<BluezPeripheral>(self()), call, attempt = attempt_](
            std::optional<bool>, const std::optional<BusError>& error) {
            if (auto p = weak.lock()) p->connectAnswered(call, attempt, error);
        },
        kConnectCallTimeout);
}

void BluezPeripheral::connectAnswered(std::uint64_t call, std::uint32_t attempt,
                                      const std::optional<BusError>& error) {
    if (call != connectCall_) return;  // forgotten: bluetoothd went away meanwhile
    connectInFlight_ = false;
    const bool current = attempt == attempt_ && state() == bt::PeripheralState::Connecting;
    if (!current) {
        // An attempt we cancelled: its "br-connection-canceled" is ours, not a
        // failure. If a new attempt waits, it goes now; a link that came up
        // after all is let go.
        if (state() == bt::PeripheralState::Connecting) {
            sendConnect();
        } else if (!error && state() == bt::PeripheralState::Disconnected) {
            sendDisconnect();
        }
        return;
    }
    if (!error) {
        linkUp();
        return;
    }
    switch (classifyConnectFailure(*error)) {
        case ConnectOutcome::Linked:
            linkUp();
            return;
        case ConnectOutcome::Busy:
            if (++busyAnswers_ < kGiveUpAfter) {
                if (busyAnswers_ == kClearStaleAfter) sendDisconnect();
                if (auto c = core()) {
                    retryTimer_ = c->loop().postAfter(
                        kBusyPause, [weak = std::weak_ptr<BluezPeripheral>(self()), attempt] {
                            if (auto p = weak.lock()) p->retryConnect(attempt);
                        });
                }
                return;
            }
            break;
        case ConnectOutcome::Cancelled:
        case ConnectOutcome::Failed:
            break;
    }
    if (error->name == "org.freedesktop.DBus.Error.NoReply" ||
        error->name == "org.freedesktop.DBus.Error.Timeout")
        sendDisconnect();  // bluetoothd may still be trying: stop it
    failConnect(connectError(*error));
}

void BluezPeripheral::retryConnect(std::uint32_t attempt) {
    retryTimer_ = 0;
    if (attempt == attempt_) sendConnect();
}

void BluezPeripheral::linkUp() {
    setState(bt::PeripheralState::Connected);
    ++link_;
    auto me = self();
    if (auto c = core()) {
        c->withDelegate([&](bt::CentralDelegate& d, bt::Central& central) {
            d.centralManagerDidConnectPeripheral(central, me);
        });
    }
}

void BluezPeripheral::failConnect(const ErrorPtr& error) {
    setState(bt::PeripheralState::Disconnected);
    ++attempt_;
    auto me = self();
    if (auto c = core()) {
        c->withDelegate([&](bt::CentralDelegate& d, bt::Central& central) {
            d.centralManagerDidFailToConnectPeripheralError(central, me, error);
        });
    }
}

void BluezPeripheral::cancelConnection() {
    const auto state = this->state();
    if (state == bt::PeripheralState::Connected) {
        // An orderly disconnect: reported at once, without error. The
        // Connected=false that follows finds nothing left to report.
        linkDown();
        sendDisconnect();
        reportDisconnect(nullptr);
    } else if (state == bt::PeripheralState::Connecting) {
        // Silently, as the platform does; the Connect's failure is not reported.
        setState(bt::PeripheralState::Disconnected);
        ++attempt_;
        cancelTimer(retryTimer_);
        if (connectInFlight_) sendDisconnect();
    }
}

void BluezPeripheral::sendDisconnect() {
    auto c = core();
    if (!c || !c->bus() || devicePath_.empty()) return;
    c->bus()->call(
        devicePath_, kDeviceInterface, "Disconnect", [](sdbus::MethodCall&) {},
        [weak = std::weak_ptr<BluezPeripheral>(self())](std::optional<bool>,
                                                        const std::optional<BusError>& error) {
            auto p = weak.lock();
            if (p && error) p->diagnose("[bluez] Disconnect failed: " + error->name + " " + error->message);
        });
}

void BluezPeripheral::reportDisconnect(const ErrorPtr& error) {
    auto me = self();
    if (auto c = core()) {
        c->withDelegate([&](bt::CentralDelegate& d, bt::Central& central) {
            d.centralManagerDidDisconnectPeripheralError(central, me, error);
        });
    }
}

void BluezPeripheral::cancelTimer(dispatch::PollLoop::TimerId& timer) {
    if (auto c = core(); c && timer != 0) c->loop().cancel(timer);
    timer = 0;
}

void BluezPeripheral::linkDown() {
    setState(bt::PeripheralState::Disconnected);
    ++link_;
    requests_.clear();
    discovering_ = false;
    discoveryDone_ = nullptr;
    cancelTimer(discoveryTimer_);
    cancelTimer(settleTimer_);
    std::vector<std::shared_ptr<BluezService>> old;
    {
        std::lock_guard lock(mutex_);
        old.swap(services_);
    }
    for (const auto& service : old) {
        for (const auto& characteristic : service->characteristicList()) {
            closeSocket(*characteristic);
            characteristic->subscription = BluezCharacteristic::Subscription::None;
            characteristic->setNotifying(false);
        }
    }
}

void BluezPeripheral::linkGone(bool report, const ErrorPtr& error) {
    const auto state = this->state();
    if (state == bt::PeripheralState::Connected) {
        linkDown();
        if (report) reportDisconnect(error);
    } else if (state == bt::PeripheralState::Connecting) {
        setState(bt::PeripheralState::Disconnected);
        ++attempt_;
    }
    cancelTimer(retryTimer_);
    connectInFlight_ = false;
    ++connectCall_;
}

bool BluezPeripheral::shutdown() {
    const auto state = this->state();
    const bool held = state == bt::PeripheralState::Connected || connectInFlight_;
    if (state == bt::PeripheralState::Connected) linkDown();
    setState(bt::PeripheralState::Disconnected);
    ++attempt_;
    connectInFlight_ = false;
    return held && !devicePath_.empty();
}

}  // namespace plenk::bluez
