#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/NotificationCenter.h>
#include <PlenkKit/PKPlenk.h>
#include <PlenkKit/RunLoop.h>

namespace plenk::cli {

// What a user needs to tell whether data is flowing: the link's state, worked
// out on the main loop from the kit's radio state and connecting peripheral,
// the facade's connect and disconnect events, and the kit's "Reconnect" and
// "Connect" notifications (a held link coming back is otherwise silent).
class LinkMonitor : public std::enable_shared_from_this<LinkMonitor> {
public:
    enum class State {
        WaitingForBluetooth,  // no radio report yet (no bluetoothd on the bus)
        BluetoothOff,
        NoAdapter,
        NotAllowed,
        Scanning,
        Connecting,
        Connected,
        Reconnecting,
        Disconnected,
    };
    static const char* describe(State state);

    using Listener = std::function<void(State)>;
    // `listener` hears every change, on the loop.
    LinkMonitor(std::shared_ptr<PKPlenk> plenk, std::shared_ptr<RunLoop> loop, Listener listener);
    ~LinkMonitor();
    LinkMonitor(const LinkMonitor&) = delete;
    LinkMonitor& operator=(const LinkMonitor&) = delete;

    // Observes `center` (the facade's) and starts looking at the kit.
    void start(const std::shared_ptr<NotificationCenter>& center);
    // From the facade's delegate. A link lost without being asked to end is
    // being brought back while auto-connect is on: shown as reconnecting.
    void connected();
    void disconnected(bool asked);

    State state() const { return reported_.value_or(State::WaitingForBluetooth); }
    // How long the radio has been unusable (no report, no adapter, not allowed).
    std::chrono::steady_clock::duration unavailableFor() const;

private:
    void refresh();
    void set(State state);
    void schedule();

    const std::shared_ptr<PKPlenk> plenk_;
    const std::shared_ptr<RunLoop> loop_;
    const Listener listener_;
    std::shared_ptr<NotificationCenter> center_;
    NotificationCenter::Token reconnectToken_ = 0;
    NotificationCenter::Token connectToken_ = 0;
    std::optional<State> reported_;
    bool linked_ = false;        // the facade said connected and not since disconnected
    bool reconnecting_ = false;  // a lost link is being brought back
    std::chrono::steady_clock::time_point unavailableSince_ = std::chrono::steady_clock::now();
    bool unavailable_ = true;
};

}  // namespace plenk::cli
