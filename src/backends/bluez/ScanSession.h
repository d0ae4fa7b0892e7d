#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "bt/Uuid.h"

namespace plenk::bluez {

// Which advertisements one scan reports. bluetoothd merges the filters of all
// its clients, so each device is checked against this scan's own filter; a
// device is reported once per scan, or on every advertisement when duplicates
// are allowed. Devices bluetoothd already knew from earlier scans are reported
// only once this scan has heard them (their RSSI changed during it).
class ScanSession {
public:
    // Starts a new session (forgetting what the last one reported).
    void start(std::optional<std::vector<bt::Uuid>> filter, bool allowDuplicates);
    void stop();
    bool active() const { return active_; }
    bool allowsDuplicates() const { return allowDuplicates_; }
    const std::optional<std::vector<bt::Uuid>>& filter() const { return filter_; }

    // The device at `path`, advertising `services`, changed while scanning:
    // `heard` when the change came from an advertisement (a new device, or an
    // RSSI update). True when this change is to be reported.
    bool offer(const std::string& path, const std::vector<bt::Uuid>& services, bool heard);

    // True when `services` passes this scan's service filter.
    bool matches(const std::vector<bt::Uuid>& services) const;

private:
    bool active_ = false;
    bool allowDuplicates_ = false;
    std::optional<std::vector<bt::Uuid>> filter_;
    std::set<std::string> heard_;     // devices heard in this session
    std::set<std::string> reported_;  // devices reported in this session
};

}  // namespace plenk::bluez
