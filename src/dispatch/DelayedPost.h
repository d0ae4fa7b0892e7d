#pragma once

#include <chrono>
#include <memory>
#include <utility>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Task.h>

namespace plenk::dispatch {

// Posts `task` to `target` once `delay` has passed on `clock` (at once for a
// delay of zero or less). A target gone by then receives nothing.
template <typename Target>
void postWhenDue(Clock& clock, std::chrono::nanoseconds delay, const std::shared_ptr<Target>& target,
                 Task task) {
    if (delay <= std::chrono::nanoseconds::zero()) {
        target->post(std::move(task));
        return;
    }
    clock.callAfter(delay, [weak = std::weak_ptr<Target>(target), task = std::move(task)]() mutable {
        if (auto alive = weak.lock()) alive->post(std::move(task));
    });
}

}  // namespace plenk::dispatch
