#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

#include <PlenkKit/Export.h>

namespace plenk {

// A move-only `void()` callable with inline storage large enough for the
// closures on the weight path (a couple of shared pointers and a value), so
// posting work to a queue does not allocate. Larger closures spill to the heap.
class Task {
public:
    static constexpr std::size_t kInlineSize = 64;

    Task() noexcept = default;
    Task(std::nullptr_t) noexcept {}

    template <typename F, typename D = std::decay_t<F>,
              typename = std::enable_if_t<!std::is_same_v<D, Task> && std::is_invocable_r_v<void, D&>>>
    Task(F&& f) {  // NOLINT(google-explicit-constructor): implicit like std::function
        // NOLINTNEXTLINE(misc-redundant-expression): true for some D, not all
        if constexpr (sizeof(D) <= kInlineSize && alignof(D) <= alignof(std::max_align_t) &&
                      std::is_nothrow_move_constructible_v<D>) {
            ::new (static_cast<void*>(storage_)) D(std::forward<F>(f));
            ops_ = &inlineOps<D>;
        } else {
            *reinterpret_cast<D**>(storage_) = new D(std::forward<F>(f));
            ops_ = &heapOps<D>;
        }
    }

    Task(Task&& other) noexcept { moveFrom(other); }
    Task& operator=(Task&& other) noexcept {
        if (this != &other) {
            reset();
            moveFrom(other);
        }
        return *this;
    }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() { reset(); }

    explicit operator bool() const noexcept { return ops_ != nullptr; }
    void operator()() { ops_->invoke(storage_); }

    void reset() noexcept {
        if (ops_ != nullptr) {
            ops_->destroy(storage_);
            ops_ = nullptr;
        }
    }

private:
    struct Ops {
        void (*invoke)(void*);
        void (*move)(void* from, void* to) noexcept;
        void (*destroy)(void*) noexcept;
    };

    template <typename D>
    static constexpr Ops inlineOps{[](void* p) { (*static_cast<D*>(p))(); },
                                   [](void* from, void* to) noexcept {
                                       ::new (to) D(std::move(*static_cast<D*>(from)));
                                       static_cast<D*>(from)->~D();
                                   },
                                   [](void* p) noexcept { static_cast<D*>(p)->~D(); }};

    template <typename D>
    static constexpr Ops heapOps{
        [](void* p) { (**static_cast<D**>(p))(); },
        [](void* from, void* to) noexcept { *static_cast<D**>(to) = *static_cast<D**>(from); },
        [](void* p) noexcept { delete *static_cast<D**>(p); }};

    void moveFrom(Task& other) noexcept {
        if (other.ops_ != nullptr) {
            other.ops_->move(other.storage_, storage_);
            ops_ = other.ops_;
            other.ops_ = nullptr;
        }
    }

    alignas(std::max_align_t) unsigned char storage_[kInlineSize]{};
    const Ops* ops_ = nullptr;
};

}  // namespace plenk
