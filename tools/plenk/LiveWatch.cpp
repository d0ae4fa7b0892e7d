#include "LiveWatch.h"

#include <unistd.h>

namespace plenk::cli {

std::shared_ptr<WatchPrinter> LiveWatch::makePrinter(const GlobalOptions& global) {
    return std::make_shared<WatchPrinter>(global.json, !global.json && isatty(STDOUT_FILENO) == 1);
}

LiveWatch::LiveWatch(Session& session, std::shared_ptr<WatchPrinter> printer)
    : session_(session),
      printer_(std::move(printer)),
      monitor_(std::make_shared<LinkMonitor>(session.plenk(), session.sharedLoop(),
                                             [printer = printer_](LinkMonitor::State state) {
                                                 printer->linkState(LinkMonitor::describe(state));
                                             })) {}

LiveWatch::~LiveWatch() {
    printer_->finish();
}

void LiveWatch::start(std::function<void()> afterDisconnect) {
    auto& events = session_.events();
    events.disconnected = [this, afterDisconnect = std::move(afterDisconnect)] {
        printer_->disconnected();
        monitor_->disconnected(session_.finishing());
        if (afterDisconnect && !session_.finishing()) afterDisconnect();
    };
    events.error = [printer = printer_](const ErrorPtr& error) {
        if (error) printer->error(*error);
    };
    events.weight = [printer = printer_](float grams) { printer->weight(grams); };
    events.button = [printer = printer_](std::uint64_t button) { printer->button(button); };
    monitor_->start(session_.context().notifications);
}

void LiveWatch::connected() {
    everConnected_ = true;
    printer_->connected();
    monitor_->connected();
    session_.plenk()->readPlenkBatteryLifeWithCompletion(
        [printer = printer_](std::int64_t level) { printer->battery(level); });
}

}  // namespace plenk::cli
