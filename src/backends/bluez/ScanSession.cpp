#include "backends/bluez/ScanSession.h"

#include <algorithm>

namespace plenk::bluez {

void ScanSession::start(std::optional<std::vector<bt::Uuid>> filter, bool allowDuplicates) {
    active_ = true;
    allowDuplicates_ = allowDuplicates;
    filter_ = std::move(filter);
    heard_.clear();
    reported_.clear();
}

void ScanSession::stop() {
    active_ = false;
    heard_.clear();
    reported_.clear();
}

bool ScanSession::matches(const std::vector<bt::Uuid>& services) const {
    if (!filter_ || filter_->empty()) return true;
    return std::any_of(services.begin(), services.end(), [&](const bt::Uuid& uuid) {
        return std::find(filter_->begin(), filter_->end(), uuid) != filter_->end();
    });
}

bool ScanSession::offer(const std::string& path, const std::vector<bt::Uuid>& services, bool heard) {
    if (!active_) return false;
    if (heard) heard_.insert(path);
    // A device cached from an earlier scan has not been heard in this one yet.
    if (!heard_.contains(path) || !matches(services)) return false;
    if (reported_.insert(path).second) return true;
    return allowDuplicates_ && heard;
}

}  // namespace plenk::bluez
