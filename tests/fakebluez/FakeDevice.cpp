#include "FakeDevice.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "BluezNames.h"

namespace plenk::fakebluez {

FakeDevice::FakeDevice(DeviceContext& context, std::string adapterPath, ScaleSetup setup)
    : context_(context),
      adapterPath_(std::move(adapterPath)),
      path_(adapterPath_ + "/dev_" + addressPathPart(setup.address)),
      setup_(std::move(setup)),
      scale_(setup_.options, emulatorNow()),
      temporary_(!setup_.cached && !setup_.connected) {}

FakeDevice::~FakeDevice() {
    closeNotifySockets();
    for (auto* timer : {&connectTimer_, &timeoutTimer_, &resolveTimer_, &disconnectTimer_, &streamTimer_}) {
        cancelTimer(*timer);
    }
}

dispatch::PollLoop::TimerId FakeDevice::after(Duration delay, std::function<void()> task) {
    return at(std::chrono::steady_clock::now() + delay, std::move(task));
}

dispatch::PollLoop::TimerId FakeDevice::at(dispatch::PollLoop::TimePoint when, std::function<void()> task) {
    return context_.loop.postAt(when, [alive = std::weak_ptr<bool>(alive_), task = std::move(task)] {
        if (alive.lock()) task();
    });
}

bool FakeDevice::advertising() const {
    return setup_.inRange && link_ != Link::Connected && link_ != Link::Disconnecting;
}

void FakeDevice::cancelTimer(dispatch::PollLoop::TimerId& timer) {
    if (timer != 0) context_.loop.cancel(timer);
    timer = 0;
}

void FakeDevice::closeNotifySockets() {
    for (auto& characteristic : characteristics_) {
        if (characteristic.notifyFd < 0) continue;
        context_.loop.unwatch(characteristic.notifyFd);
        ::close(characteristic.notifyFd);
    }
}

// --- Device1 properties ------------------------------------------------------------

std::vector<std::string> FakeDevice::uuidStrings() const {
    std::set<std::string> uuids;
    for (const auto& uuid : scale_.advertisedServices()) uuids.insert(uuid.fullString());
    for (const auto& uuid : serviceUuids_) uuids.insert(uuid.fullString());
    return {uuids.begin(), uuids.end()};
}

Interfaces FakeDevice::deviceInterfaces(bool withRssi) const {
    const std::string name = scale_.advertisedName();
    Properties device{
        {"Address", setup_.address},
        {"AddressType", std::string("public")},
        {"Name", name},
        {"Alias", name},
        {"Paired", false},
        {"Bonded", false},
        {"Trusted", false},
        {"Blocked", false},
        {"LegacyPairing", false},
        {"Connected", link_ == Link::Connected || link_ == Link::Disconnecting},
        {"UUIDs", uuidStrings()},
        {"Adapter", ObjectPath{adapterPath_}},
        {"ServicesResolved", servicesResolved_},
    };
    if (withRssi) device["RSSI"] = setup_.rssi;
    return {{kDeviceInterface, std::move(device)}};
}

// --- discovery -----------------------------------------------------------------------

void FakeDevice::advertisementSeen(bool everyReport) {
    if (!exported()) {
        context_.tree.add(path_, deviceInterfaces(true));
        return;
    }
    auto& tree = context_.tree;
    const std::string name = scale_.advertisedName();
    if (const Value* current = tree.get(path_, kDeviceInterface, "Name");
        current == nullptr || std::get<std::string>(*current) != name) {
        tree.set(path_, kDeviceInterface, "Name", name);
        tree.set(path_, kDeviceInterface, "Alias", name);
    }
    tree.set(path_, kDeviceInterface, "UUIDs", uuidStrings());
    const Value* rssi = tree.get(path_, kDeviceInterface, "RSSI");
    if (rssi == nullptr || everyReport) {
        tree.set(path_, kDeviceInterface, "RSSI", setup_.rssi, true);
    } else if (std::abs(std::get<std::int16_t>(*rssi) - setup_.rssi) >= kRssiThreshold) {
        tree.set(path_, kDeviceInterface, "RSSI", setup_.rssi);
    }
}

void FakeDevice::scanEnded() {
    context_.tree.unset(path_, kDeviceInterface, "RSSI");
}

void FakeDevice::exportKnown() {
    if (exported()) return;
    context_.tree.add(path_, deviceInterfaces(false));
    if (setup_.connected && link_ == Link::Disconnected) {
        // Connected to the system before the fake started: link and services are up.
        setup_.connected = false;
        link_ = Link::Connected;
        scale_.connected(emulatorNow());
        context_.tree.set(path_, kDeviceInterface, "Connected", true);
        exportGatt();
        servicesReady();
    }
}

// --- calls ---------------------------------------------------------------------------

void FakeDevice::handleCall(const CallPtr& call) {
    if (call->path() == path_) {
        if (call->interface() != kDeviceInterface) {
            call->replyError(kUnknownMethod, "Unknown method " + call->member());
        } else if (call->member() == "Connect") {
            connect(call);
        } else if (call->member() == "Disconnect") {
            disconnect(call);
        } else {
            call->replyError(kUnknownMethod, "Unknown method " + call->member());
        }
        return;
    }
    if (auto* characteristic = findCharacteristic(call->path());
        characteristic != nullptr && call->interface() == kCharacteristicInterface) {
        handleCharacteristicCall(*characteristic, call);
        return;
    }
    if (context_.tree.has(call->path())) {
        call->replyError(kUnknownMethod, "Unknown method " + call->member());
    } else {
        call->replyError(kUnknownObject, "No such object path '" + call->path() + "'");
    }
}

void FakeDevice::clientGone(const std::string& client) {
    for (auto& characteristic : characteristics_) {
        if (characteristic.sessions.erase(client) > 0) updateNotifying(characteristic);
        if (characteristic.acquiredBy == client) releaseAcquired(characteristic);
    }
    updateStream();
}

void FakeDevice::remove() {
    linkDown(nullptr, "le-connection-abort-by-local");
    unexportGatt();
    serviceUuids_.clear();
    context_.tree.remove(path_);
    temporary_ = true;
}

// --- link ----------------------------------------------------------------------------

void FakeDevice::connect(const CallPtr& call) {
    if (!context_.adapterPowered(adapterPath_)) {
        call->replyError(kBluezError + std::string("NotReady"), "Resource Not Ready");
        return;
    }
    switch (link_) {
        case Link::Connected:
        case Link::Disconnecting:
            call->replyEmpty();
            return;
        case Link::Connecting:
            call->replyError(kBluezError + std::string("InProgress"), "Operation already in progress");
            return;
        case Link::Disconnected:
            break;
    }
    temporary_ = false;
    link_ = Link::Connecting;
    pendingConnect_ = call;
    if (!connectFaults_.empty()) {
        const auto fault = connectFaults_.front();
        connectFaults_.pop_front();
        const std::string text = fault.text;
        timeoutTimer_ = after(fault.hangFor.value_or(context_.timings.connectLatency),
                              [this, text] { failPendingConnect(text); });
        return;
    }
    startLink();
}

void FakeDevice::startLink() {
    if (advertising()) {
        waiting_ = false;
        cancelTimer(timeoutTimer_);
        connectTimer_ = after(context_.timings.connectLatency, [this] { linkUp(); });
        return;
    }
    // The controller keeps trying until the device advertises or it gives up.
    waiting_ = true;
    timeoutTimer_ = after(context_.timings.connectTimeout,
                          [this] { failPendingConnect("le-connection-abort-by-local"); });
}

void FakeDevice::failPendingConnect(const std::string& text) {
    cancelTimer(connectTimer_);
    cancelTimer(timeoutTimer_);
    waiting_ = false;
    if (link_ == Link::Connecting) link_ = Link::Disconnected;
    if (pendingConnect_) {
        pendingConnect_->replyError(kBluezError + std::string("Failed"), text);
        pendingConnect_.reset();
    }
}

void FakeDevice::linkUp() {
    connectTimer_ = 0;
    cancelTimer(timeoutTimer_);
    link_ = Link::Connected;
    scale_.connected(emulatorNow());
    context_.tree.set(path_, kDeviceInterface, "Connected", true);
    if (pendingConnect_) {
        pendingConnect_->replyEmpty();
        pendingConnect_.reset();
    }
    resolveTimer_ = after(context_.timings.servicesResolvedDelay, [this] { resolveServices(); });
}

void FakeDevice::resolveServices() {
    resolveTimer_ = 0;
    const auto late = context_.timings.lateServicesResolved;
    switch (resolveMode_) {
        case ResolveMode::Normal:
            exportGatt();
            servicesReady();
            return;
        case ResolveMode::Never:
            exportGatt();
            registerSessions();
            return;
        case ResolveMode::Late:
            exportGatt();
            registerSessions();
            resolveTimer_ = after(late, [this] {
                resolveTimer_ = 0;
                servicesReady();
            });
            return;
        case ResolveMode::BeforeObjects:
            servicesResolved_ = true;
            context_.tree.set(path_, kDeviceInterface, "ServicesResolved", true);
            resolveTimer_ = after(late, [this] {
                resolveTimer_ = 0;
                exportGatt();
                registerSessions();
            });
            return;
    }
}

void FakeDevice::servicesReady() {
    servicesResolved_ = true;
    context_.tree.set(path_, kDeviceInterface, "ServicesResolved", true);
    registerSessions();
}

void FakeDevice::disconnect(const CallPtr& call) {
    switch (link_) {
        case Link::Disconnected:
            call->replyEmpty();
            return;
        case Link::Connecting:
            failPendingConnect("br-connection-canceled");
            call->replyEmpty();
            return;
        case Link::Connected:
            link_ = Link::Disconnecting;
            pendingDisconnects_.push_back(call);
            disconnectTimer_ = after(context_.timings.disconnectLatency, [this] {
                disconnectTimer_ = 0;
                linkDown(nullptr, "br-connection-canceled");
            });
            return;
        case Link::Disconnecting:
            pendingDisconnects_.push_back(call);
            return;
    }
}

void FakeDevice::linkLost() {
    linkDown(nullptr, "le-connection-abort-by-local");
}

void FakeDevice::linkDown(const CallPtr& disconnectCall, const std::string& connectError) {
    if (disconnectCall) pendingDisconnects_.push_back(disconnectCall);
    if (link_ == Link::Connecting) failPendingConnect(connectError);
    if (link_ == Link::Disconnected) {
        for (auto& call : pendingDisconnects_) call->replyEmpty();
        pendingDisconnects_.clear();
        return;
    }
    cancelTimer(resolveTimer_);
    cancelTimer(disconnectTimer_);
    for (auto& characteristic : characteristics_) failPending(characteristic);
    if (servicesResolved_) {
        servicesResolved_ = false;
        context_.tree.set(path_, kDeviceInterface, "ServicesResolved", false);
    }
    for (auto& call : pendingDisconnects_) call->replyEmpty();
    pendingDisconnects_.clear();
    link_ = Link::Disconnected;
    scale_.disconnected(emulatorNow());
    context_.tree.set(path_, kDeviceInterface, "Connected", false);
    for (auto& characteristic : characteristics_) {
        if (characteristic.notifyFd >= 0 || characteristic.pendingAcquire) releaseAcquired(characteristic);
        // StartNotify sessions survive: bluetoothd subscribes them again on the next connection.
        for (auto& [client, session] : characteristic.sessions) session.registered = false;
    }
    updateStream();
}

void FakeDevice::setInRange(bool inRange) {
    setup_.inRange = inRange;
    if (!inRange && link_ == Link::Connecting && connectTimer_ != 0) {
        // Gone before the link came up: the attempt waits for it again.
        cancelTimer(connectTimer_);
        startLink();
    } else if (!inRange) {
        linkLost();
    } else if (link_ == Link::Connecting && waiting_) {
        startLink();  // back in range: the waiting Connect() proceeds
    }
}

void FakeDevice::daemonStopped() {
    for (auto* timer : {&connectTimer_, &timeoutTimer_, &resolveTimer_, &disconnectTimer_})
        cancelTimer(*timer);
    pendingConnect_.reset();
    pendingDisconnects_.clear();
    waiting_ = false;
    if (link_ != Link::Disconnected) scale_.disconnected(emulatorNow());
    link_ = Link::Disconnected;
    servicesResolved_ = false;
    closeNotifySockets();
    characteristics_.clear();
    servicePaths_.clear();
    updateStream();
}

}  // namespace plenk::fakebluez
