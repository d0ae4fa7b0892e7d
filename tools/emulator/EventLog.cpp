#include "EventLog.h"

#include <chrono>

#include "HexText.h"

namespace plenk::emulator_tool {

namespace {
double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
}  // namespace

EventLog::EventLog(std::FILE* out) : out_(out), start_(monotonicSeconds()) {}

void EventLog::line(std::string_view event, std::string_view details) {
    std::fprintf(out_, "%8.3f %.*s%s%.*s\n", monotonicSeconds() - start_, static_cast<int>(event.size()),
                 event.data(), details.empty() ? "" : " ", static_cast<int>(details.size()), details.data());
    std::fflush(out_);
}

void EventLog::bytes(std::string_view event, std::string_view prefix, const bt::Bytes& value) {
    std::string details(prefix);
    if (!details.empty() && !value.empty()) details += ' ';
    details += cli::formatHex(value.span());
    line(event, details);
}

}  // namespace plenk::emulator_tool
