#pragma once

// The whole library (PKPlenk on the bluez backend) against the fake
// bluetoothd on a private bus. The main queue is a RunLoop the test thread
// runs while it waits, so the host's callbacks run on the test thread.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <PlenkKit/PKPlenk.h>
#include <PlenkKit/RunLoop.h>

#include "FakeBluez.h"
#include "PrivateBus.h"
#include "backends/bluez/BluezBackend.h"
#include "support/RecordingDelegate.h"

namespace plenk::test {

using namespace std::chrono_literals;

inline constexpr const char* kScaleAddress = "C0:FF:EE:00:00:01";

// A captured diagnostics stream: shows what the backend said when a test fails.
struct CapturedLog : LogSink {
    std::mutex mutex;
    std::string text;
    void write(std::string_view line) override {
        std::lock_guard lock(mutex);
        text.append(line).push_back('\n');
    }
};

struct BluezRigOptions {
    bluez::NotifyMode notify = bluez::NotifyMode::Socket;  // the library's default
    fakebluez::Timings timings{};
    std::chrono::milliseconds discoveryTimeout{2000};
    std::string adapter{};  // Context::adapter
};

class BluezRig {
public:
    using Options = BluezRigOptions;
    explicit BluezRig(Options options = {});
    ~BluezRig();

    // The facade on the bluez backend with auto-connect on.
    void start();
    // Runs the main queue until `done` holds (false after `timeout`); `done`
    // may look at the fake.
    bool waitFor(const std::function<bool()>& done, std::chrono::nanoseconds timeout = 5s);
    // Runs the main queue for `duration`.
    void runFor(std::chrono::nanoseconds duration);
    std::string log();
    // The fake's call log as "member path-tail" lines, from this client only.
    std::vector<std::string> calls(const std::string& member = "") const;

    Options options;
    fakebluez::PrivateBus bus;
    fakebluez::ScopedSystemBus systemBus{bus.address()};
    fakebluez::FakeBluez fake{bus.address(), options.timings};
    std::shared_ptr<RunLoop> loop = std::make_shared<RunLoop>();
    std::shared_ptr<CapturedLog> captured = std::make_shared<CapturedLog>();
    std::shared_ptr<NotificationCenter> notifications = std::make_shared<NotificationCenter>();
    std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>(loop);
    std::shared_ptr<PKPlenk> plenk;
};

}  // namespace plenk::test
