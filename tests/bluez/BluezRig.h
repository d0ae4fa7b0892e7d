#pragma once

// The whole library (PKPlenk on the bluez backend) against the fake
// bluetoothd on a private bus. The main queue is a RunLoop the test thread
// runs while it waits, so the host's callbacks run on the test thread.

#include <gtest/gtest.h>

#include <PlenkKit/Context.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <PlenkKit/PKPlenk.h>
#include <PlenkKit/RunLoop.h>

#include "FakeBluez.h"
#include "PrivateBus.h"
#include "backends/bluez/BluezBackend.h"
#include "support/RecordingDelegate.h"
#include "support/SimHarness.h"

namespace plenk::test {

using namespace std::chrono_literals;

inline constexpr const char* kScaleAddress = "C0:FF:EE:00:00:01";

struct BluezRigOptions {
    bluez::NotifyMode notify = bluez::NotifyMode::Socket;  // the library's default
    std::chrono::milliseconds discoveryTimeout{2000};
    std::string adapter{};  // Context::adapter
};

class BluezRig {
public:
    using Options = BluezRigOptions;
    explicit BluezRig(Options o = {}) : options(std::move(o)) {}
    ~BluezRig() {
        plenk.reset();
        loop->runUntilIdle();
    }

    // hci0 and the scale at kScaleAddress on it.
    void addScale(fakebluez::ScaleSetup setup = {}) {
        fake.addAdapter({});
        setup.address = kScaleAddress;
        fake.addScale(setup);
    }
    // The facade on the bluez backend with auto-connect on.
    void start() {
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
    // Runs the main queue until `done` holds (false after `timeout`); `done`
    // may look at the fake, whose changes the main queue does not wake for.
    bool waitFor(const std::function<bool()>& done, std::chrono::nanoseconds timeout = 5s) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!loop->runUntil(done, 10ms)) {
            if (std::chrono::steady_clock::now() >= deadline) return done();
        }
        return true;
    }
    void runFor(std::chrono::nanoseconds duration) { loop->runFor(duration); }
    // What the backend said, for a failure message.
    std::string log() const {
        std::string text;
        for (const auto& line : captured->lines()) text.append(line).push_back('\n');
        return text;
    }
    // How many calls of `member` the fake received, from every client.
    std::size_t callCount(const std::string& member) const {
        const auto calls = fake.calls();
        return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), member));
    }

    Options options;
    fakebluez::PrivateBus bus;
    fakebluez::ScopedSystemBus systemBus{bus.address()};
    fakebluez::FakeBluez fake{bus.address()};
    std::shared_ptr<RunLoop> loop = std::make_shared<RunLoop>();
    std::shared_ptr<CapturingLogSink> captured = std::make_shared<CapturingLogSink>();
    std::shared_ptr<NotificationCenter> notifications = std::make_shared<NotificationCenter>();
    std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>(loop);
    std::shared_ptr<PKPlenk> plenk;
};

}  // namespace plenk::test
