#pragma once

#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace plenk::cli {

// Options of the top-level app, usable before or after any verb.
struct GlobalOptions {
    bool json = false;     // one JSON object per line instead of text
    bool sim = false;      // the simulated scales instead of a radio
    std::string simFault;  // how the simulated scales misbehave (testing)
    std::string backend;   // "bluez", "sim"; empty: PLENK_BACKEND, else the default
    std::string adapter;   // "hci1" or "/org/bluez/hci1"; empty: PLENK_ADAPTER, else the first powered
    bool verbose = false;  // the library's diagnostics and notifications on stderr
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
// The help text lists them (kExitStatusHelp); scripts rely on them.
inline constexpr int kExitNoBluetooth = 3;       // no usable adapter, no bluetoothd, Bluetooth off
inline constexpr int kExitNoScale = 4;           // no matching scale found in time
inline constexpr int kExitConnectionFailed = 5;  // the link failed or the scale failed its set-up
inline constexpr int kExitTimedOut = 6;          // connecting or the scale's answer took too long
inline constexpr int kExitCommandFailed = 7;     // the scale refused a command or a read
inline constexpr int kExitCancelled = 8;         // the person cancelled (the picker, dfu's question)
inline constexpr int kExitInterrupted = 130;     // Ctrl-C or SIGTERM before a one-shot verb was done
inline constexpr const char* kExitStatusHelp =
    "Exit status: 0 done; 1 internal error; 2 bad usage or input; 3 no usable Bluetooth\n"
    "(no adapter, no bluetoothd, not allowed, or switched off); 4 no matching scale found;\n"
    "5 connection failed (the error's kind, domain and code are printed); 6 timed out\n"
    "(connecting, or the scale did not answer); 7 the scale refused the command or read;\n"
    "8 cancelled (Esc or q in the picker, no to dfu's question); 130 interrupted by Ctrl-C or SIGTERM.";

// What --json prints, for the help text.
inline constexpr const char* kJsonHelp =
    "JSON output: with --json every line is one JSON object; its \"event\" field names it:\n"
    "  watch: state {value}, connected, disconnected, weight {value}, battery {value},\n"
    "         button {value}, error {kind, domain, code, description}\n"
    "  scan: scale {name, identifier, rssi, lastSeen}\n"
    "  pick: picked {name, identifier}\n"
    "  commands: sent {command, scale}\n"
    "  battery: battery {value, scale}; info: info {name, identifier, firmwareRevision,\n"
    "         manufacturer, model, hardwareRevision, softwareRevision} (null: not known)\n"
    "  config read: configuration {timerOn ... byte12Low} or {raw}; config init and sync:\n"
    "         initializing {configured}, write {exchange, index, success[, domain, code]},\n"
    "         initialized {configured}\n"
    "  any verb that fails: failed {status, message}\n"
    "decode and frame print their own objects (see their help).";

// One registration function per verb. Each adds its subcommand to `app` and runs
// from the subcommand's callback; `options` is read when the callback runs, after
// the whole command line has been parsed.
void addDecodeCommand(CLI::App& app, const GlobalOptions& options);
void addFrameCommand(CLI::App& app, const GlobalOptions& options);
void addWatchCommand(CLI::App& app, const GlobalOptions& options);
void addScanCommand(CLI::App& app, const GlobalOptions& options);
void addPickCommand(CLI::App& app, const GlobalOptions& options);
void addScaleCommands(CLI::App& app, const GlobalOptions& options);
void addReadCommands(CLI::App& app, const GlobalOptions& options);
// `completion SHELL` and the hidden `manpage`: both read the finished app tree.
void addCompletionCommand(CLI::App& app);

}  // namespace plenk::cli
