#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/PlenkKit.h>

#include "TerminalText.h"

namespace plenk::cli {

// How often the scan is restarted: a scan reports each advertiser once, so
// each restart is what tells that a device is still there.
inline constexpr auto kScanRestartInterval = std::chrono::seconds(2);

// One device a scan reported, as the table shows it.
struct ScanRow {
    PeripheralPtr peripheral;  // stays valid when the system forgets the device
    std::string identifier;
    std::optional<std::string> name;
    std::optional<int> rssi;  // dBm; none when not known
    // "Last seen" is the last report of the device by a scan: the scan is
    // restarted every few seconds, and each restart reports every advertiser
    // still in range again.
    Clock::TimePoint lastSeen;
};

// What changed in the table: the row, and whether it just appeared.
struct ScanUpdate {
    std::size_t row;
    bool added;
};

// The devices found, in the order they were first seen (rows keep their
// place, which a table redrawn in place needs). Without `all`, only scales:
// the kit's own rule, a name containing "Coffee" or "Plenk". Used on one thread.
class ScanTable {
public:
    explicit ScanTable(bool all) : all_(all) {}

    // A scan reported `peripheral` at `now`: an update for a shown device
    // (every report is one, so a device's "last seen" moves).
    std::optional<ScanUpdate> report(const PeripheralPtr& peripheral, Clock::TimePoint now);
    // Reads names and signal strengths from the handles again: rows whose
    // name or signal changed, and devices whose late name makes them scales.
    std::vector<ScanUpdate> refresh();

    const std::vector<ScanRow>& rows() const { return rows_; }
    bool all() const { return all_; }
    // "scale" or "device", with "s" for a count other than one.
    std::string noun(std::size_t count) const;

    // The column header and one line per row (at most `maxRows`, then a line
    // counting the rest), each at most `columns` wide. "Last seen" is told
    // relative to `now`.
    std::vector<std::string> render(Clock::TimePoint now, const TerminalText& text, int columns,
                                    std::size_t maxRows) const;

private:
    bool shows(const Peripheral& peripheral) const;
    ScanUpdate add(const PeripheralPtr& peripheral, Clock::TimePoint seen);

    const bool all_;
    std::vector<ScanRow> rows_;
    std::map<std::string, std::size_t> index_;  // identifier → row
    // Devices heard that are not shown (yet): a name may arrive later.
    std::map<std::string, std::pair<PeripheralPtr, Clock::TimePoint>> hidden_;
};

// The signal strength a handle reports, none for "not available" (127, as
// the platform writes it when the advertisement carried none).
std::optional<int> signalStrength(const Peripheral& peripheral);
// "now" within a restart of the scan, else "3 s ago", "2 min ago".
std::string describeAge(Clock::Duration age);

}  // namespace plenk::cli
