#pragma once

#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace plenk::cli {

// Options of the top-level app, usable before or after any verb.
struct GlobalOptions {
    bool json = false;  // one JSON object per line instead of text
};

// Bad input from the user (an unparsable argument, malformed hex...): main prints
// the message as one line on standard error and exits with status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A verb that could not do its work for a reason outside the command line:
// main prints the message as one line on standard error and exits with `status`.
class RunError : public std::runtime_error {
public:
    RunError(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
    int status() const noexcept { return status_; }

private:
    int status_;
};

// Exit statuses besides 0 (done), 1 (internal error) and 2 (bad usage or input).
inline constexpr int kExitNoBluetooth = 3;  // no usable adapter, or no bluetoothd

// One registration function per verb. Each adds its subcommand to `app` and runs
// from the subcommand's callback; `options` is read when the callback runs, after
// the whole command line has been parsed.
void addDecodeCommand(CLI::App& app, const GlobalOptions& options);
void addFrameCommand(CLI::App& app, const GlobalOptions& options);
void addWatchCommand(CLI::App& app, const GlobalOptions& options);
// `completion SHELL` and the hidden `manpage`: both read the finished app tree.
void addCompletionCommand(CLI::App& app);

}  // namespace plenk::cli
