#pragma once

#include <PlenkKit/PlenkKit.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "EmulatorLog.h"

// What the scenario's client has heard from the kit, in order, on the main queue.
struct Heard : plenk::RKRostaDelegate {
    int connected = 0;
    int disconnected = 0;
    int reconnects = 0;  // "Reconnect" notifications: a held link was lost
    int relinks = 0;     // "Connect" notifications: characteristics discovered
    std::vector<float> weights;
    std::vector<std::string> errors;
    std::chrono::steady_clock::time_point lastConnected, lastReconnect, lastRelink, firstWeightAfterConnect;
    // The first "didDiscoverPeripheral" since discovered was cleared.
    std::optional<std::chrono::steady_clock::time_point> discovered;
    bool awaitingFirstWeight = false;

    void rostaDidConnected(plenk::RKRostaKit&) override;
    void rostaDidDisconnected(plenk::RKRostaKit&) override;
    void rostaDidErrorOccur(plenk::RKRostaKit&, const plenk::ErrorPtr& error) override;
    void rostaWeightDidUpdate(float weight) override;
};

// The end-to-end run against plenk-emulator on a real BlueZ stack: each step
// drives the kit through its public API and compares what the kit reported
// with what the emulator logged. Prints "ok STEP", "FAIL STEP: why" and
// "timing NAME SECONDS" lines; passes when no step failed.
class Scenario {
public:
    struct Options {
        std::string adapter = "hci0";
        std::string name = "Plenk Scale";
        std::string emulatorLog;
        int battery = 85;
        bool weightsOnly = false;  // connect, tare, weights, disconnect
    };

    explicit Scenario(Options options);
    ~Scenario();
    int run();

private:
    using Clock = std::chrono::steady_clock;

    bool check(bool condition, const std::string& step, const std::string& why);
    bool waitFor(const std::function<bool()>& done, std::chrono::seconds timeout);
    void timing(const std::string& name, Clock::time_point from, Clock::time_point to);

    bool connectByName();
    bool tareOnce(std::size_t logMark, const std::string& step);
    bool weightsMatch();
    bool battery();
    bool configuration();
    bool hostDisconnectReconnects();
    bool pickerConnects();
    bool firmwareDropIsHeld();
    bool disconnectAtEnd();

    Options options_;
    EmulatorLog log_;
    std::shared_ptr<plenk::RunLoop> loop_;
    std::shared_ptr<Heard> heard_;
    std::shared_ptr<plenk::NotificationCenter> notifications_;
    std::vector<plenk::NotificationCenter::Token> observers_;
    std::shared_ptr<plenk::RKRostaKit> kit_;
    int failures_ = 0;
};
