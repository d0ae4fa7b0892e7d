#include "TerminalMode.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <system_error>

#include "Commands.h"

namespace plenk::cli {

namespace {

// Leave the alternate screen, show the cursor.
constexpr std::string_view kLeaveScreen = "\x1b[?25h\x1b[?1049l";
constexpr std::string_view kEnterScreen = "\x1b[?1049h\x1b[?25l\x1b[H\x1b[2J";

void writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the terminal is gone: nothing left to draw on
        text.remove_prefix(static_cast<std::size_t>(n));
    }
}

// The settings to go back to, for the last-resort paths (exit, terminate)
// that cannot reach the TerminalMode object. `activeFd` is published after
// `saved` is written, and only async-signal-safe calls use them.
struct LastResort {
    termios saved{};
    std::atomic<int> activeFd{-1};
};
LastResort& lastResort() {
    static LastResort state;
    return state;
}

void restoreLastResort() {
    const int fd = lastResort().activeFd.exchange(-1);
    if (fd < 0) return;
    tcsetattr(fd, TCSANOW, &lastResort().saved);
    writeAll(fd, kLeaveScreen);
}

std::terminate_handler previousTerminate = nullptr;

void installLastResort() {
    static std::once_flag once;
    std::call_once(once, [] {
        lastResort();  // built before the hook is registered, so it outlives it
        std::atexit(restoreLastResort);
        previousTerminate = std::set_terminate([] {
            restoreLastResort();
            if (previousTerminate) previousTerminate();
            std::abort();
        });
    });
}

}  // namespace

std::shared_ptr<TerminalMode> TerminalMode::open(const std::string& verb) {
    const int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        throw UsageError(verb + " needs a terminal to show the list of scales on (/dev/tty: " +
                         std::generic_category().message(error) +
                         "); scripts can use --name or --id with the other commands");
    }
    return std::shared_ptr<TerminalMode>(new TerminalMode(fd));
}

TerminalMode::~TerminalMode() {
    restore();
    ::close(fd_);
}

void TerminalMode::enterRaw() {
    if (raw_) return;
    termios saved{};
    if (tcgetattr(fd_, &saved) != 0) {
        const int error = errno;
        throw RunError(1, "cannot read the terminal's settings: " + std::generic_category().message(error));
    }
    termios raw = saved;
    // Keys one by one, unechoed; Ctrl-C, Ctrl-Z, Ctrl-S reach the picker as bytes.
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
    raw.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL | INLCR | IGNCR);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    installLastResort();
    lastResort().saved = saved;
    lastResort().activeFd.store(fd_);
    if (tcsetattr(fd_, TCSANOW, &raw) != 0) {
        const int error = errno;
        lastResort().activeFd.store(-1);
        throw RunError(1, "cannot set up the terminal: " + std::generic_category().message(error));
    }
    raw_ = true;
    write(kEnterScreen);
}

void TerminalMode::restore() {
    if (!raw_) return;
    raw_ = false;
    restoreLastResort();
}

void TerminalMode::write(std::string_view text) const {
    writeAll(fd_, text);
}

TerminalMode::Size TerminalMode::size() const {
    winsize window{};
    if (ioctl(fd_, TIOCGWINSZ, &window) != 0 || window.ws_row == 0 || window.ws_col == 0) return {24, 80};
    return {window.ws_row, window.ws_col};
}

}  // namespace plenk::cli
