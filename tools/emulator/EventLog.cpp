#include "EventLog.h"

#include <chrono>

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
    details += hex(value);
    line(event, details);
}

std::string EventLog::hex(const bt::Bytes& value) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (i != 0) out += ' ';
        out += kDigits[value[i] >> 4];
        out += kDigits[value[i] & 0x0F];
    }
    return out;
}

}  // namespace plenk::emulator_tool
