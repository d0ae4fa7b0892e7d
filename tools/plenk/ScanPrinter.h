#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

#include "ScanTable.h"
#include "TerminalText.h"

namespace plenk::cli {

// Prints what a scan finds: a table redrawn in place under a status line with
// a spinner on a terminal; a line per new device and the table at the end
// otherwise; or one JSON object per update. Called on the session's loop; the
// library's diagnostics (with --verbose) come from any thread, so every entry
// takes the printer's lock.
class ScanPrinter {
public:
    enum class Mode { Json, Lines, Terminal };
    explicit ScanPrinter(Mode mode);

    Mode mode() const { return mode_; }
    // A row appeared or changed; `scanStart` is when the scan started
    // (lastSeen counts from there).
    void update(const ScanTable& table, const ScanUpdate& update, Clock::TimePoint scanStart);
    // Terminal only: the status line (the next spinner frame, `status` as in
    // "scanning" or "waiting for Bluetooth", the count found) and the table.
    void draw(const ScanTable& table, Clock::TimePoint now, const std::string& status);
    // The scan is over: the table once more (or "no scales found").
    void finish(const ScanTable& table, Clock::TimePoint now);
    // The scan failed (the error line follows): the drawing goes away.
    void abandon();
    // A diagnostic text of the library: its lines go to standard error, with
    // the drawing taken away first and put back after.
    void diagnostic(std::string_view text);

private:
    void render(const ScanTable& table, Clock::TimePoint now, const std::string& status);
    void erase();
    void write(const std::string& text);

    std::mutex mutex_;
    const Mode mode_;
    const TerminalText text_;
    std::size_t frame_ = 0;
    std::string drawing_;  // what is on the terminal now
    std::size_t drawnLines_ = 0;
};

}  // namespace plenk::cli
