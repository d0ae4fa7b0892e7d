#pragma once

#include <functional>
#include <memory>

#include "Commands.h"
#include "LinkMonitor.h"
#include "Session.h"
#include "WatchPrinter.h"

namespace plenk::cli {

// What `plenk watch` shows of a scale once it is linked: the session's weight,
// button, error and link events through a WatchPrinter, the link's state as
// the LinkMonitor works it out, and the battery level read on every
// connection. Used on the session's loop; outlived by the session.
class LiveWatch {
public:
    // The printer for standard output: JSON lines, one live line on a
    // terminal, or one line per event.
    static std::shared_ptr<WatchPrinter> makePrinter(const GlobalOptions& global);

    LiveWatch(Session& session, std::shared_ptr<WatchPrinter> printer);
    // Ends the printer's live line.
    ~LiveWatch();
    LiveWatch(const LiveWatch&) = delete;
    LiveWatch& operator=(const LiveWatch&) = delete;

    // Takes the session's events over and starts showing the link's state.
    // `afterDisconnect` runs after each disconnection while the verb goes on.
    void start(std::function<void()> afterDisconnect = {});
    // The scale is linked and set up: shows it and reads its battery level.
    void connected();
    bool everConnected() const { return everConnected_; }

private:
    Session& session_;
    const std::shared_ptr<WatchPrinter> printer_;
    const std::shared_ptr<LinkMonitor> monitor_;
    bool everConnected_ = false;
};

}  // namespace plenk::cli
