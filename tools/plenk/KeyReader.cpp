#include "KeyReader.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "Commands.h"

namespace plenk::cli {

namespace {
constexpr unsigned char kEsc = 0x1b;
constexpr unsigned char kCtrlC = 0x03;
}  // namespace

std::optional<Key> KeyDecoder::feed(unsigned char byte) {
    switch (state_) {
        case State::Ground:
            switch (byte) {
                case kEsc:
                    state_ = State::Escape;
                    return std::nullopt;
                case kCtrlC:
                    return Key::Interrupt;
                case '\r':
                case '\n':
                    return Key::Enter;
                case 'q':
                case 'Q':
                    return Key::Cancel;
                case 'k':
                    return Key::Up;
                case 'j':
                    return Key::Down;
                default:
                    return std::nullopt;
            }
        case State::Escape:
            if (byte == '[' || byte == 'O') {
                state_ = State::Sequence;
                return std::nullopt;
            }
            if (byte == kEsc) return Key::Cancel;  // Esc pressed twice: the first is whole
            state_ = State::Ground;                // Alt and a key: not ours
            return byte == kCtrlC ? std::optional(Key::Interrupt) : std::nullopt;
        case State::Sequence:
            // Parameters and intermediates until the final byte (0x40..0x7e).
            if (byte < 0x40 || byte > 0x7e) return std::nullopt;
            state_ = State::Ground;
            if (byte == 'A') return Key::Up;
            if (byte == 'B') return Key::Down;
            return std::nullopt;
    }
    return std::nullopt;
}

std::optional<Key> KeyDecoder::timeout() {
    const bool lone = state_ == State::Escape;
    state_ = State::Ground;  // a sequence cut short is dropped
    return lone ? std::optional(Key::Cancel) : std::nullopt;
}

KeyReader::KeyReader(int fd, Listener listener) {
    if (pipe2(wake_, O_CLOEXEC) != 0) {
        const int error = errno;
        throw RunError(1, "cannot read the keyboard: " + std::generic_category().message(error));
    }
    thread_ = std::thread([this, fd, listener = std::move(listener)] { run(fd, listener); });
}

KeyReader::~KeyReader() {
    const char stop = 0;
    while (::write(wake_[1], &stop, 1) < 0 && errno == EINTR) {
    }
    thread_.join();
    ::close(wake_[0]);
    ::close(wake_[1]);
}

void KeyReader::run(int fd, const Listener& listener) {
    KeyDecoder decoder;
    pollfd fds[2] = {{fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    for (;;) {
        const int wait = decoder.pending() ? static_cast<int>(KeyDecoder::kEscapeWait.count()) : -1;
        const int ready = poll(fds, 2, wait);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0 || (fds[1].revents & POLLIN) != 0) return;
        if (ready == 0) {
            if (const auto key = decoder.timeout()) listener(*key);
            continue;
        }
        unsigned char bytes[64];
        const ssize_t n = ::read(fd, bytes, sizeof bytes);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) {  // hung up: nobody is left to choose
            listener(Key::Interrupt);
            return;
        }
        for (ssize_t i = 0; i < n; ++i) {
            if (const auto key = decoder.feed(bytes[i])) listener(*key);
        }
    }
}

}  // namespace plenk::cli
