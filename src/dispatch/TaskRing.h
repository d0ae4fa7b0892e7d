#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include <PlenkKit/Task.h>

namespace plenk::dispatch {

// FIFO of tasks on a power-of-two ring: pushing and popping do not allocate
// once the ring has grown to the queue's working depth.
class TaskRing {
public:
    bool empty() const noexcept { return count_ == 0; }
    std::size_t size() const noexcept { return count_; }

    void push(Task task) {
        if (count_ == slots_.size()) grow();
        slots_[(head_ + count_) & (slots_.size() - 1)] = std::move(task);
        ++count_;
    }

    Task pop() noexcept {
        Task task = std::move(slots_[head_]);
        head_ = (head_ + 1) & (slots_.size() - 1);
        --count_;
        return task;
    }

    void clear() noexcept {
        while (!empty()) pop();
    }

private:
    void grow() {
        std::vector<Task> bigger(slots_.empty() ? 16 : slots_.size() * 2);
        for (std::size_t i = 0; i < count_; ++i)
            bigger[i] = std::move(slots_[(head_ + i) & (slots_.size() - 1)]);
        slots_ = std::move(bigger);
        head_ = 0;
    }

    std::vector<Task> slots_;
    std::size_t head_ = 0;
    std::size_t count_ = 0;
};

}  // namespace plenk::dispatch
