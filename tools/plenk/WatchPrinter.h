#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include <PlenkKit/Error.h>

namespace plenk::cli {

// Prints what the host hears: one updating line on a terminal, one line per
// event otherwise, or one JSON object per event. Events come from the main
// loop; the library's diagnostics (with --verbose) from any thread, so every
// entry takes the printer's lock.
class WatchPrinter {
public:
    WatchPrinter(bool json, bool tty) : json_(json), tty_(tty) {}

    void connected();
    void disconnected();
    // The link's state as a person reads it ("scanning", "reconnecting"...).
    void linkState(const std::string& state);
    void weight(float grams);
    void battery(std::int64_t level);
    void button(std::uint64_t number);
    void error(const Error& e);
    void finish();
    // A diagnostic text of the library: its lines go to standard error, each
    // on a line of its own, with the live line cleared first and drawn again
    // after, so the two never run together on a terminal.
    void diagnostic(std::string_view text);

private:
    void event(const char* name);
    void emit(const std::string& line);
    void note(const std::string& text);
    void status();

    std::mutex mutex_;
    const bool json_;
    const bool tty_;
    bool drawn_ = false;
    bool haveWeight_ = false;
    float weight_ = 0;
    std::int64_t battery_ = -1;
    std::string state_ = "starting";
};

}  // namespace plenk::cli
