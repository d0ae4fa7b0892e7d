#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <thread>

namespace plenk::cli {

// The keys a list on the terminal understands.
enum class Key {
    Up,         // arrow up, k
    Down,       // arrow down, j
    Enter,      // Return, Enter
    Cancel,     // Esc, q
    Interrupt,  // Ctrl-C (a byte in raw mode), or the terminal went away
};

// Turns the bytes of a raw-mode terminal into keys. An Esc byte also starts
// the sequences the arrows send (ESC [ A); a lone Esc is told apart by the
// silence after it: timeout() is called when no byte followed within
// kEscapeWait.
class KeyDecoder {
public:
    static constexpr auto kEscapeWait = std::chrono::milliseconds(50);

    std::optional<Key> feed(unsigned char byte);
    std::optional<Key> timeout();
    // Whether a byte is awaited to finish a sequence (then wait kEscapeWait at most).
    bool pending() const { return state_ != State::Ground; }

private:
    enum class State { Ground, Escape, Sequence };
    State state_ = State::Ground;
};

// Reads keys from a terminal on a thread of its own and hands each to
// `listener` there (which posts it to the loop that acts on it). Reading
// stops when the terminal is gone (after one Interrupt) or on destruction.
class KeyReader {
public:
    using Listener = std::function<void(Key)>;
    KeyReader(int fd, Listener listener);
    ~KeyReader();
    KeyReader(const KeyReader&) = delete;
    KeyReader& operator=(const KeyReader&) = delete;

private:
    void run(int fd, const Listener& listener);

    int wake_[2] = {-1, -1};  // a pipe: writing to it ends run()
    std::thread thread_;
};

}  // namespace plenk::cli
