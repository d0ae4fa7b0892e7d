#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/PlenkKit.h>

#include "Commands.h"
#include "JsonWriter.h"
#include "ScaleConnector.h"
#include "Session.h"

namespace plenk::cli {

// One verb's work on one scale: connect, let the writes of the connection
// settle, do the work, print the result, disconnect. The work and every
// callback below run on the session's loop.
class ScaleRun {
public:
    // Throws UsageError for bad options.
    ScaleRun(const GlobalOptions& global, const ConnectOptions& connect);

    // Connects, then calls `work` once nothing the connection sent is still
    // in flight (the kit tares every fresh connection); returns when the verb
    // is over. Throws RunError for a failed run.
    void run(const std::function<void(ScaleRun&)>& work);

    Session& session() { return session_; }
    std::shared_ptr<RKRostaKit> kit() const { return session_.kit(); }
    std::shared_ptr<RKDevice> device() const { return session_.kit()->currentDevice(); }
    std::string scaleName() const { return connector_.scaleName(); }
    bool json() const { return session_.global().json; }

    // What the verb waits for, for the time-out message ("the battery level").
    void waitFor(std::string what) { waitingFor_ = std::move(what); }
    // `next` runs once the scale has answered every request sent before: a
    // read of the configuration record, which the scale answers after the
    // writes before it. The record read (or nothing, if the read failed).
    void afterPendingWrites(std::function<void(const RKConfigurationRecord* record)> next);
    // The record the last afterPendingWrites read (the work starts after one),
    // or null when that read failed.
    const RKConfigurationRecord* lastRecord() const { return lastRecord_ ? &*lastRecord_ : nullptr; }
    // Sends `writes` command writes through `send`, then calls `done` with
    // the result of each, stopping at the first failure: (true, null) or
    // (false, the platform's error).
    void sendCommand(int writes, const std::function<void()>& send,
                     std::function<void(bool success, const ErrorPtr& error)> done);

    // Wraps a completion the library calls on its Bluetooth queue so that
    // `f` runs on the loop (and not at all once the verb has finished).
    template <typename F>
    auto onLoop(F f) {
        return [loop = session_.sharedLoop(), this, f = std::move(f)](auto... args) {
            loop->post([this, f, args...] {
                if (!session_.finishing()) f(args...);
            });
        };
    }

    // Prints one result: `text` on a line, or the JSON object with --json.
    void print(const std::string& text, const JsonObject& object) const;
    // Ends the verb successfully.
    void done() { session_.finish(0); }
    // Ends the verb with the scale's refusal.
    void refused(const std::string& what, const ErrorPtr& error);

private:
    void onError(const ErrorPtr& error);

    Session session_;
    ScaleConnector connector_;
    std::string waitingFor_ = "its answer";
    bool settled_ = false;  // the connection's own writes are answered
    // A read of the record is outstanding: read errors answer it.
    std::function<void(const RKConfigurationRecord*)> pendingBarrier_;
    std::optional<RKConfigurationRecord> lastRecord_;
};

}  // namespace plenk::cli
