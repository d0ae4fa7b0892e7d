#include "Console.h"

#include <poll.h>
#include <unistd.h>

#include <charconv>
#include <sstream>

namespace plenk::emulator_tool {

namespace {

template <typename Number>
std::optional<Number> number(const std::string& text) {
    Number value{};
    const auto* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || rest != end) return std::nullopt;
    return value;
}

constexpr const char* kHelp = "button 0|1, pour [GRAMS], load GRAMS, battery PERCENT, drop";

}  // namespace

Console::Console(dispatch::PollLoop& loop, int fd, PeripheralScale& scale, EventLog& log)
    : loop_(loop), fd_(fd), scale_(scale), log_(log) {
    loop_.watch(fd_, POLLIN, [this](short) { readable(); });
}

Console::~Console() {
    if (fd_ >= 0) loop_.unwatch(fd_);
}

void Console::readable() {
    char buffer[256];
    const auto got = ::read(fd_, buffer, sizeof buffer);
    if (got <= 0) {
        loop_.unwatch(fd_);
        fd_ = -1;
        return;
    }
    pending_.append(buffer, static_cast<std::size_t>(got));
    for (auto newline = pending_.find('\n'); newline != std::string::npos; newline = pending_.find('\n')) {
        const std::string line = pending_.substr(0, newline);
        pending_.erase(0, newline + 1);
        if (!line.empty() && !execute(line)) log_.line("unknown-command", line + " (try: " + kHelp + ")");
    }
    if (pending_.size() > 1024) pending_.clear();  // not a console: no line ends
}

bool Console::execute(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    std::string argument;
    std::string extra;
    words >> verb >> argument >> extra;
    if (!extra.empty()) return false;
    if (verb == "help" && argument.empty()) {
        log_.line("help", kHelp);
    } else if (verb == "button") {
        const auto button = number<int>(argument);
        if (!button || (*button != 0 && *button != 1)) return false;
        scale_.pressButton(*button);
    } else if (verb == "pour") {
        const auto grams = number<double>(argument);
        if (!argument.empty() && (!grams || *grams <= 0)) return false;
        scale_.startPour(grams);
    } else if (verb == "load") {
        const auto grams = number<double>(argument);
        if (!grams) return false;
        scale_.addLoad(*grams);
    } else if (verb == "battery") {
        const auto percent = number<int>(argument);
        if (!percent || *percent < 0 || *percent > 100) return false;
        scale_.setBatteryLevel(*percent);
    } else if (verb == "drop" && argument.empty()) {
        scale_.dropLink();
    } else {
        return false;
    }
    return true;
}

}  // namespace plenk::emulator_tool
