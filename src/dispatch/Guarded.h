#pragma once

#include <mutex>
#include <utility>

namespace plenk::dispatch {

// The one way a field guarded by its owner's mutex is read or replaced. A
// replaced value (often a host's closure or a shared object) is released after
// the lock is let go: its destructor may be host code.
template <typename Mutex, typename T>
T loadLocked(Mutex& mutex, const T& field) {
    std::lock_guard lock(mutex);
    return field;
}

template <typename Mutex, typename T, typename V>
void storeLocked(Mutex& mutex, T& field, V&& value) {
    T old(std::forward<V>(value));
    {
        std::lock_guard lock(mutex);
        std::swap(field, old);
    }
}

}  // namespace plenk::dispatch
