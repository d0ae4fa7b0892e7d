#include "ScanTable.h"

#include <algorithm>

namespace plenk::cli {

namespace {

// Longer names are cut, so the identifier column stays in view.
constexpr int kMaxNameColumns = 24;
// The platform's value for an advertisement that carried no signal strength.
constexpr int kRssiNotAvailable = 127;

std::string rssiText(const std::optional<int>& rssi) {
    return rssi ? std::to_string(*rssi) + " dBm" : std::string("--");
}

}  // namespace

std::optional<int> signalStrength(const Peripheral& peripheral) {
    const auto rssi = peripheral.rssi();
    if (rssi && *rssi == kRssiNotAvailable) return std::nullopt;
    return rssi;
}

std::string describeAge(Clock::Duration age) {
    // A device in range is reported again at every restart: up to one
    // interval (and an advertisement) can pass between two reports.
    if (age < kScanRestartInterval + std::chrono::seconds(1)) return "now";
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(age).count();
    if (seconds < 120) return std::to_string(seconds) + " s ago";
    return std::to_string(seconds / 60) + " min ago";
}

bool ScanTable::shows(const Peripheral& peripheral) const {
    if (all_) return true;
    const auto name = peripheral.name();
    return name && (name->find("Coffee") != std::string::npos || name->find("Plenk") != std::string::npos);
}

std::string ScanTable::noun(std::size_t count) const {
    return std::string(all_ ? "device" : "scale") + (count == 1 ? "" : "s");
}

ScanUpdate ScanTable::add(const PeripheralPtr& peripheral, Clock::TimePoint seen) {
    ScanRow row{peripheral, peripheral->identifier().toString(), peripheral->name(),
                signalStrength(*peripheral), seen};
    index_.emplace(row.identifier, rows_.size());
    rows_.push_back(std::move(row));
    return {rows_.size() - 1, true};
}

std::optional<ScanUpdate> ScanTable::report(const PeripheralPtr& peripheral, Clock::TimePoint now) {
    if (!peripheral) return std::nullopt;
    const std::string identifier = peripheral->identifier().toString();
    if (const auto found = index_.find(identifier); found != index_.end()) {
        ScanRow& row = rows_[found->second];
        // The same device may come back as a new handle (the system forgot it
        // and heard it again): follow the newest.
        row.peripheral = peripheral;
        row.name = peripheral->name();
        row.rssi = signalStrength(*peripheral);
        row.lastSeen = now;
        return ScanUpdate{found->second, false};
    }
    if (!shows(*peripheral)) {
        hidden_[identifier] = {peripheral, now};
        return std::nullopt;
    }
    hidden_.erase(identifier);
    return add(peripheral, now);
}

std::vector<ScanUpdate> ScanTable::refresh() {
    std::vector<ScanUpdate> updates;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        ScanRow& row = rows_[i];
        auto name = row.peripheral->name();
        const auto rssi = signalStrength(*row.peripheral);
        // A name that went away (the system forgot the device) is kept.
        if (!name) name = row.name;
        if (name == row.name && rssi == row.rssi) continue;
        row.name = std::move(name);
        row.rssi = rssi;
        updates.push_back({i, false});
    }
    for (auto it = hidden_.begin(); it != hidden_.end();) {
        if (shows(*it->second.first)) {
            updates.push_back(add(it->second.first, it->second.second));
            it = hidden_.erase(it);
        } else {
            ++it;
        }
    }
    return updates;
}

std::vector<std::string> ScanTable::render(Clock::TimePoint now, const TerminalText& text, int columns,
                                           std::size_t maxRows) const {
    struct Cells {
        std::string name, rssi, age;
    };
    std::vector<Cells> cells;
    int nameWidth = 4;  // "NAME"
    int rssiWidth = 4;  // "RSSI"
    for (std::size_t i = 0; i < rows_.size() && i < maxRows; ++i) {
        const ScanRow& row = rows_[i];
        Cells c{row.name ? text.fit(text.clean(*row.name), kMaxNameColumns) : "(no name)", rssiText(row.rssi),
                describeAge(now - row.lastSeen)};
        nameWidth = std::max(nameWidth, text.width(c.name));
        rssiWidth = std::max(rssiWidth, text.width(c.rssi));
        cells.push_back(std::move(c));
    }
    int idWidth = 10;  // "IDENTIFIER"
    for (const auto& row : rows_) idWidth = std::max(idWidth, text.width(text.clean(row.identifier)));
    const auto line = [&](const std::string& name, const std::string& id, const std::string& rssi,
                          const std::string& age) {
        std::string out = text.pad(name, nameWidth) + "  " + text.pad(id, idWidth) + "  " +
                          text.pad(rssi, rssiWidth) + "  " + age;
        return text.fit(out, columns);
    };
    std::vector<std::string> lines{line("NAME", "IDENTIFIER", "RSSI", "LAST SEEN")};
    for (std::size_t i = 0; i < cells.size(); ++i) {
        lines.push_back(line(cells[i].name, text.clean(rows_[i].identifier), cells[i].rssi, cells[i].age));
    }
    if (rows_.size() > cells.size()) {
        const std::size_t more = rows_.size() - cells.size();
        lines.push_back(text.fit("(" + std::to_string(more) + " more " + noun(more) + ")", columns));
    }
    return lines;
}

}  // namespace plenk::cli
