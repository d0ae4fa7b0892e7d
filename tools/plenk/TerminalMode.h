#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace plenk::cli {

// The controlling terminal, opened as /dev/tty so that a verb can draw on it
// and read keys from it while its standard output goes to a pipe.
// enterRaw() switches it to single keys without echo (Ctrl-C arrives as the
// byte 0x03, not as a signal), on the alternate screen with the cursor hidden;
// restore() puts everything back as it was. The destructor restores, and so
// do exit() and std::terminate while raw mode is on: a tool that leaves the
// terminal without echo is worse than one that crashes.
// Used from one thread (the main loop); a KeyReader may read fd() meanwhile.
class TerminalMode {
public:
    // Throws UsageError naming `verb` when the process has no terminal.
    static std::shared_ptr<TerminalMode> open(const std::string& verb);
    ~TerminalMode();
    TerminalMode(const TerminalMode&) = delete;
    TerminalMode& operator=(const TerminalMode&) = delete;

    int fd() const { return fd_; }
    // Throws RunError when the terminal refuses the settings.
    void enterRaw();
    void restore();
    bool isRaw() const { return raw_; }

    // Writes all of `text` (escape sequences included) to the terminal.
    void write(std::string_view text) const;

    struct Size {
        int rows;
        int columns;
    };
    // The window's size now (it may change between two draws); 24x80 if unknown.
    Size size() const;
    // Whether the locale says the terminal takes UTF-8 (else plain ASCII is drawn).

private:
    explicit TerminalMode(int fd) : fd_(fd) {}

    int fd_;
    bool raw_ = false;
};

}  // namespace plenk::cli
