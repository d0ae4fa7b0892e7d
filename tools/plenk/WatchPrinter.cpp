#include "WatchPrinter.h"

#include <cstdio>

#include "JsonWriter.h"
#include "TextLines.h"

namespace plenk::cli {

namespace {
std::string formatGrams(float grams) {
    char text[32];
    std::snprintf(text, sizeof text, "%8.1f g", static_cast<double>(grams));
    return text;
}
}  // namespace

void WatchPrinter::connected() {
    event("connected");
}

void WatchPrinter::disconnected() {
    event("disconnected");
}

void WatchPrinter::linkState(const std::string& state) {
    std::lock_guard lock(mutex_);
    if (state == state_) return;
    state_ = state;
    if (json_) return emit(JsonObject().string("event", "state").string("value", state).str());
    status();
}

void WatchPrinter::weight(float grams) {
    std::lock_guard lock(mutex_);
    weight_ = grams;
    haveWeight_ = true;
    if (json_) return emit(JsonObject().string("event", "weight").number("value", grams).str());
    status();
}

void WatchPrinter::battery(std::int64_t level) {
    std::lock_guard lock(mutex_);
    battery_ = level;
    if (json_) return emit(JsonObject().string("event", "battery").integer("value", level).str());
    status();
}

void WatchPrinter::button(std::uint64_t number) {
    std::lock_guard lock(mutex_);
    if (json_) return emit(JsonObject().string("event", "button").unsignedInteger("value", number).str());
    note("button " + std::to_string(number));
}

void WatchPrinter::error(const Error& e) {
    std::lock_guard lock(mutex_);
    if (json_) {
        return emit(JsonObject()
                        .string("event", "error")
                        .string("domain", e.domain())
                        .integer("code", e.code())
                        .string("description", e.localizedDescription())
                        .str());
    }
    note("error " + e.domain() + " " + std::to_string(e.code()) + ": " + e.localizedDescription());
}

void WatchPrinter::finish() {
    std::lock_guard lock(mutex_);
    if (!json_ && tty_ && drawn_) std::fputc('\n', stdout);
    drawn_ = false;
    std::fflush(stdout);
}

void WatchPrinter::diagnostic(std::string_view text) {
    std::lock_guard lock(mutex_);
    const bool redraw = tty_ && drawn_;
    if (redraw) {
        std::fputs("\r\x1b[K", stdout);
        std::fflush(stdout);
        drawn_ = false;
    }
    forEachTrimmedLine(text, [](std::string_view line) {
        std::fprintf(stderr, "plenk: library: %.*s\n", static_cast<int>(line.size()), line.data());
    });
    std::fflush(stderr);
    if (redraw) status();
}

// connected/disconnected are their own JSON events; in text the state column
// shows them (the link monitor reports the same change as a state).
void WatchPrinter::event(const char* name) {
    std::lock_guard lock(mutex_);
    if (json_) emit(JsonObject().string("event", name).str());
}

void WatchPrinter::emit(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void WatchPrinter::note(const std::string& text) {
    if (tty_ && drawn_) std::fputs("\r\x1b[K", stdout);
    emit(text);
    drawn_ = false;
    status();
}

void WatchPrinter::status() {
    char line[160];
    const std::string grams = haveWeight_ ? formatGrams(weight_) : std::string("    --.- g");
    const std::string battery = battery_ >= 0 ? std::to_string(battery_) + "%" : std::string("--");
    std::snprintf(line, sizeof line, "%s  %-21s battery %s", grams.c_str(), state_.c_str(), battery.c_str());
    if (tty_) {
        std::fputs("\r\x1b[K", stdout);
        std::fputs(line, stdout);
        std::fflush(stdout);
        drawn_ = true;
    } else {
        emit(line);
    }
}

}  // namespace plenk::cli
