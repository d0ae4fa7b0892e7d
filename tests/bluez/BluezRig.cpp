#include "bluez/BluezRig.h"

#include <PlenkKit/Context.h>

namespace plenk::test {

BluezRig::BluezRig(Options o) : options(o) {}

BluezRig::~BluezRig() {
    plenk.reset();
    loop->runUntilIdle();
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

void BluezRig::runFor(std::chrono::nanoseconds duration) {
    loop->runFor(duration);
}

std::string BluezRig::log() {
    std::lock_guard lock(captured->mutex);
    return captured->text;
}

std::vector<std::string> BluezRig::calls(const std::string& member) const {
    std::vector<std::string> out;
    for (const auto& call : fake.calls()) {
        if (!member.empty() && call.member != member) continue;
        const auto slash = call.path.rfind('/');
        out.push_back(call.member + " " + call.path.substr(slash + 1));
    }
    return out;
}

}  // namespace plenk::test
