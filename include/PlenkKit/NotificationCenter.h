#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <PlenkKit/Export.h>

namespace plenk {

// Names of the notifications the library posts or observes.
inline constexpr std::string_view kLogNotification = "log";
inline constexpr std::string_view kReconnectNotification = "Reconnect";
inline constexpr std::string_view kConnectNotification = "Connect";
// The host posts these when its application becomes active / goes to the background.
inline constexpr std::string_view UIApplicationDidBecomeActiveNotification =
    "UIApplicationDidBecomeActiveNotification";
inline constexpr std::string_view UIApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";

struct Notification {
    std::string name;
    std::optional<std::string> object;  // the "log" text; empty for the others
};

// Named notifications with observers, called synchronously on the posting
// thread, in the order they were added. Observers may add or remove observers
// and post from inside a call. Once removeObserver() has returned, the observer
// is never called again: it waits for calls running on other threads to end
// (an observer removing itself from inside its own call does not wait for that
// call), so an observer may remove itself in its destructor.
class PLENK_EXPORT NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;
    using Token = std::uint64_t;

    NotificationCenter();
    ~NotificationCenter();

    static std::shared_ptr<NotificationCenter> defaultCenter();

    // An empty name observes every notification.
    Token addObserver(std::string_view name, Observer observer);
    void removeObserver(Token token);
    void post(std::string_view name, std::optional<std::string> object = std::nullopt);

private:
    struct Entry;
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace plenk
