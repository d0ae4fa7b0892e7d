#include "bluez/BluezRig.h"

#include <PlenkKit/Context.h>

#include <algorithm>

namespace plenk::test {

BluezRig::BluezRig(Options o) : options(o) {}

BluezRig::~BluezRig() {
    plenk.reset();
    loop->runUntilIdle();
}

void BluezRig::addScale(fakebluez::ScaleSetup setup) {
    fake.addAdapter({});
    setup.address = kScaleAddress;
    fake.addScale(setup);
}

void BluezRig::start() {
    bluez::BluezBackend::Options backend;
    backend.notifyMode = options.notify;
    backend.discoveryTimeout = options.discoveryTimeout;
    Context context;
    context.mainQueue = loop;
    context.log = captured;
    context.adapter = options.adapter;
    context.notifications = notifications;
    context.backend = std::make_shared<bluez::BluezBackend>(backend);
    plenk = PKPlenk::create(context);
    plenk->setDelegate(host);
    plenk->setIsAutoConnectEnabled(true);
}

bool BluezRig::waitFor(const std::function<bool()>& done, std::chrono::nanoseconds timeout) {
    // The main queue wakes only for its own tasks: conditions on the fake's
    // state are polled.
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!loop->runUntil(done, 10ms)) {
        if (std::chrono::steady_clock::now() >= deadline) return done();
    }
    return true;
}

std::string BluezRig::log() const {
    std::string text;
    for (const auto& line : captured->lines()) text.append(line).push_back('\n');
    return text;
}

std::size_t BluezRig::callCount(const std::string& member) const {
    const auto calls = fake.calls();
    return static_cast<std::size_t>(
        std::count_if(calls.begin(), calls.end(), [&](const auto& call) { return call.member == member; }));
}

}  // namespace plenk::test
