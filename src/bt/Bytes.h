#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <span>
#include <vector>

namespace plenk::bt {

// A characteristic value: up to kInline bytes live inside the object (weight,
// button and command frames never allocate); longer values (up to the ATT
// maximum of 512) spill to the heap.
class Bytes {
public:
    static constexpr std::size_t kInline = 24;

    Bytes() noexcept = default;
    Bytes(std::span<const std::uint8_t> data) { assign(data); }  // NOLINT(google-explicit-constructor)
    Bytes(std::initializer_list<std::uint8_t> data) { assign({data.begin(), data.size()}); }
    explicit Bytes(const std::vector<std::uint8_t>& data) { assign(data); }
    Bytes(const Bytes& other) { assign(other.span()); }
    Bytes(Bytes&& other) noexcept { steal(other); }
    Bytes& operator=(const Bytes& other) {
        if (this != &other) assign(other.span());
        return *this;
    }
    Bytes& operator=(Bytes&& other) noexcept {
        if (this != &other) {
            heap_.reset();
            steal(other);
        }
        return *this;
    }
    ~Bytes() = default;

    void assign(std::span<const std::uint8_t> data) {
        if (data.size() <= kInline) {
            heap_.reset();
            if (!data.empty()) std::memcpy(inline_, data.data(), data.size());
        } else {
            heap_ = spill(data);
        }
        size_ = data.size();
    }

    const std::uint8_t* data() const noexcept { return heap_ ? heap_.get() : inline_; }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::span<const std::uint8_t> span() const noexcept { return {data(), size_}; }
    operator std::span<const std::uint8_t>() const noexcept { return span(); }  // NOLINT
    std::uint8_t operator[](std::size_t i) const noexcept { return data()[i]; }
    std::vector<std::uint8_t> toVector() const { return {data(), data() + size_}; }

    friend bool operator==(const Bytes& a, const Bytes& b) noexcept {
        return std::equal(a.data(), a.data() + a.size_, b.data(), b.data() + b.size_);
    }

private:
    // Out of line: keeps gcc's bounds analysis from following small callers'
    // buffers into the branch they never take.
    [[gnu::noinline]] static std::unique_ptr<std::uint8_t[]> spill(std::span<const std::uint8_t> data) {
        auto block = std::make_unique<std::uint8_t[]>(data.size());
        std::memcpy(block.get(), data.data(), data.size());
        return block;
    }

    void steal(Bytes& other) noexcept {
        size_ = other.size_;
        if (other.heap_) {
            heap_ = std::move(other.heap_);
        } else {
            std::memcpy(inline_, other.inline_, kInline);  // whole buffer: fixed size, no branch
        }
        other.size_ = 0;
    }

    std::unique_ptr<std::uint8_t[]> heap_;
    std::size_t size_ = 0;
    std::uint8_t inline_[kInline]{};
};

}  // namespace plenk::bt
