#include "ScanPrinter.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "JsonWriter.h"

namespace plenk::cli {

namespace {

struct TerminalSize {
    int columns = 80;
    int rows = 24;
};

TerminalSize terminalSize() {
    winsize size{};
    TerminalSize result;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0) {
        result.columns = size.ws_col;
        result.rows = size.ws_row;
    }
    return result;
}

double secondsBetween(Clock::TimePoint from, Clock::TimePoint to) {
    const double seconds = std::chrono::duration<double>(to - from).count();
    return std::round(std::max(0.0, seconds) * 1000) / 1000;  // milliseconds are plenty
}

}  // namespace

ScanPrinter::ScanPrinter(Mode mode)
    : mode_(mode), text_(mode == Mode::Terminal ? TerminalText::fromLocale() : TerminalText(true)) {}

void ScanPrinter::update(const ScanTable& table, const ScanUpdate& update, Clock::TimePoint scanStart) {
    std::lock_guard lock(mutex_);
    const ScanRow& row = table.rows().at(update.row);
    if (mode_ == Mode::Json) {
        JsonObject object;
        object.string("event", "scale");
        row.name ? object.string("name", *row.name) : object.null("name");
        object.string("identifier", row.identifier);
        row.rssi ? object.integer("rssi", *row.rssi) : object.null("rssi");
        object.number("lastSeen", secondsBetween(scanStart, row.lastSeen));
        write(object.str() + "\n");
    } else if (mode_ == Mode::Lines && update.added) {
        const std::string name = row.name ? text_.clean(*row.name) : "(no name)";
        const std::string rssi = row.rssi ? ", " + std::to_string(*row.rssi) + " dBm" : std::string();
        write("found " + name + ", " + row.identifier + rssi + "\n");
    }
}

void ScanPrinter::draw(const ScanTable& table, Clock::TimePoint now, const std::string& status) {
    if (mode_ != Mode::Terminal) return;
    std::lock_guard lock(mutex_);
    const std::string spinner(text_.spinner(frame_));
    ++frame_;
    const std::size_t found = table.rows().size();
    const std::string count =
        found == 0 ? std::string() : "  " + std::to_string(found) + " " + table.noun(found) + " found";
    render(table, now, spinner + " " + status + text_.ellipsis() + count);
}

void ScanPrinter::finish(const ScanTable& table, Clock::TimePoint now) {
    std::lock_guard lock(mutex_);
    const std::size_t found = table.rows().size();
    const std::string none = "no " + table.noun(0) + " found";
    if (mode_ == Mode::Terminal) {
        render(
            table, now,
            found == 0 ? none : "scan done: " + std::to_string(found) + " " + table.noun(found) + " found");
        drawnLines_ = 0;  // stays on the screen
    } else if (mode_ == Mode::Lines) {
        if (found == 0) return write(none + "\n");
        std::string out = "\n";
        const auto lines = table.render(now, text_, std::numeric_limits<int>::max(),
                                        std::numeric_limits<std::size_t>::max());
        for (const auto& line : lines) out += line + "\n";
        write(out);
    }
}

void ScanPrinter::abandon() {
    std::lock_guard lock(mutex_);
    if (mode_ != Mode::Terminal || drawnLines_ == 0) return;
    erase();
    drawnLines_ = 0;
    std::fflush(stdout);
}

// Redraws over the last drawing; the rows never shrink, and whatever landed
// below (a "^C" the terminal echoed) is cleared.
void ScanPrinter::render(const ScanTable& table, Clock::TimePoint now, const std::string& status) {
    const TerminalSize size = terminalSize();
    // One column spare: a line exactly as wide as the terminal would wrap on
    // some terminals and break the count of lines to go back over.
    const int columns = std::max(10, size.columns - 1);
    // Status, column header, "(n more)" and the line the cursor rests on.
    const auto maxRows = static_cast<std::size_t>(std::max(1, size.rows - 4));
    std::vector<std::string> lines{text_.fit(status, columns)};
    if (!table.rows().empty()) {
        for (auto& line : table.render(now, text_, columns, maxRows)) lines.push_back(std::move(line));
    }
    std::string drawing;
    for (const auto& line : lines) drawing += "\x1b[2K" + line + "\n";
    erase();
    drawing_ = drawing;
    drawnLines_ = lines.size();
    write(drawing_);
}

void ScanPrinter::erase() {
    std::string out = "\r";
    if (drawnLines_ > 0) out += "\x1b[" + std::to_string(drawnLines_) + "A";
    out += "\x1b[J";
    std::fputs(out.c_str(), stdout);
}

void ScanPrinter::diagnostic(std::string_view text) {
    std::lock_guard lock(mutex_);
    const bool redraw = mode_ == Mode::Terminal && drawnLines_ > 0;
    if (redraw) {
        erase();
        std::fflush(stdout);
    }
    while (!text.empty()) {
        const auto end = text.find('\n');
        auto line = text.substr(0, end);
        const auto first = line.find_first_not_of(" \t\r");
        if (first != std::string_view::npos) {
            line = line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
            std::fprintf(stderr, "plenk: library: %.*s\n", static_cast<int>(line.size()), line.data());
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    std::fflush(stderr);
    if (redraw) write(drawing_);
}

void ScanPrinter::write(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace plenk::cli
