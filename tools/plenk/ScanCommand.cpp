// plenk scan: lists the scales in range, live, with their identifiers and
// signal strengths, for --duration seconds or until Ctrl-C.

#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/PlenkKit.h>
#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Commands.h"
#include "ScanPrinter.h"
#include "ScanTable.h"
#include "Session.h"

namespace plenk::cli {
namespace {

// Spinner frames and "last seen" move a few times per second; each tick also
// reads the signal strengths from the handles again.
constexpr auto kTick = std::chrono::milliseconds(125);
// How often to look whether the kit has heard the radio's state.
constexpr auto kKitPoll = std::chrono::milliseconds(20);

struct ScanOptions {
    std::string duration = "10";
    bool all = false;
};

// A plain scan on a connecter of its own, on the session's context: the
// kit's connection logic (its list, auto-connect, reconnects) stays out of
// it, and the kit itself stays idle. Runs on the session's loop; the
// connecter's events arrive on its Bluetooth queue and are posted over.
class Scanner : public std::enable_shared_from_this<Scanner> {
public:
    Scanner(Session& session, ScanTable& table, ScanPrinter& printer)
        : session_(session), table_(table), printer_(printer) {}

    // Starts the display; the scan starts when the radio is reported on.
    void start() {
        tick();
        createConnecter();
    }
    // Leaves no scan running (the loop has stopped; any thread may command).
    void stop() {
        if (connecter_) connecter_->stopScan();
        scanning_ = false;
    }
    Clock::TimePoint now() const { return session_.loop().clock()->now(); }

private:
    // Holds the scanner weakly: events still queued when the scan is over
    // find it gone and do nothing.
    class Listener final : public BLEConnecterDelegate {
    public:
        Listener(std::weak_ptr<Scanner> scanner, std::shared_ptr<RunLoop> loop)
            : scanner_(std::move(scanner)), loop_(std::move(loop)) {}

        void connecterDidDiscoverPeripheral(BLEConnecter&, const PeripheralPtr& peripheral) override {
            post([peripheral](Scanner& s) { s.discovered(peripheral); });
        }
        void connecterDidDidUpdateStateWithUserInfo(BLEConnecter&,
                                                    const std::optional<ConnecterUserInfo>& info) override {
            const bool on = info && info->has(kBlePowerOn);
            post([on](Scanner& s) { s.radioChanged(on); });
        }

    private:
        template <typename F>
        void post(F f) {
            loop_->post([scanner = scanner_, f = std::move(f)] {
                if (auto s = scanner.lock()) f(*s);
            });
        }
        std::weak_ptr<Scanner> scanner_;
        std::shared_ptr<RunLoop> loop_;
    };

    // The connecter comes once the kit has heard from its own: its central
    // has then set up the backend's shared parts (on BlueZ, sdbus-c++ makes
    // one message factory for every bus thread on first use), so the second
    // central's thread starts after that, visibly ordered also for the thread
    // checker, which cannot see inside the D-Bus library.
    void createConnecter() {
        if (session_.finishing()) return;
        if (session_.kit()->leState() == 0) {
            session_.loop().postAfter(kKitPoll, [weak = weak_from_this()] {
                if (auto s = weak.lock()) s->createConnecter();
            });
            return;
        }
        listener_ = std::make_shared<Listener>(weak_from_this(), session_.sharedLoop());
        connecter_ = BLEConnecter::create(listener_, session_.context());
    }

    // Some backends ignore a scan asked for before the radio is on: the scan
    // starts with the "powered on" report, and again after the radio was off.
    void radioChanged(bool on) {
        if (session_.finishing()) return;
        radioOn_ = on;
        if (!on) {
            scanning_ = false;  // the radio took the scan with it
            return;
        }
        if (scanning_) return;
        if (!scanStart_) scanStart_ = now();
        connecter_->scanDevices();
        scanning_ = true;
        const auto generation = ++generation_;
        session_.loop().postAfter(kScanRestartInterval, [weak = weak_from_this(), generation] {
            if (auto s = weak.lock()) s->restart(generation);
        });
    }

    // A scan reports each advertiser once: a new scan every few seconds hears
    // every device in range again, which keeps "last seen" and the signal
    // strength current.
    void restart(std::uint64_t generation) {
        if (session_.finishing() || !scanning_ || generation != generation_) return;
        connecter_->stopScan();
        connecter_->scanDevices();
        session_.loop().postAfter(kScanRestartInterval, [weak = weak_from_this(), generation] {
            if (auto s = weak.lock()) s->restart(generation);
        });
    }

    void discovered(const PeripheralPtr& peripheral) {
        if (session_.finishing() || !scanStart_) return;
        if (const auto update = table_.report(peripheral, now()))
            printer_.update(table_, *update, *scanStart_);
    }

    void tick() {
        if (session_.finishing()) return;
        for (const auto& update : table_.refresh())
            printer_.update(table_, update, scanStart_.value_or(now()));
        printer_.draw(table_, now(), radioOn_ ? "scanning" : "waiting for Bluetooth");
        session_.loop().postAfter(kTick, [weak = weak_from_this()] {
            if (auto s = weak.lock()) s->tick();
        });
    }

    Session& session_;
    ScanTable& table_;
    ScanPrinter& printer_;
    std::shared_ptr<Listener> listener_;
    std::shared_ptr<BLEConnecter> connecter_;
    bool radioOn_ = false;
    bool scanning_ = false;
    std::uint64_t generation_ = 0;  // one per scan the radio allowed; stale restarts drop out
    std::optional<Clock::TimePoint> scanStart_;
};

void runScan(const ScanOptions& options, const GlobalOptions& global) {
    const double seconds = parseDurationArgument(options.duration, "--duration");
    const auto mode = global.json                  ? ScanPrinter::Mode::Json
                      : isatty(STDOUT_FILENO) == 1 ? ScanPrinter::Mode::Terminal
                                                   : ScanPrinter::Mode::Lines;
    ScanPrinter printer(mode);
    Session session(global, [&printer](std::string_view text) { printer.diagnostic(text); });
    // The session's kit has auto-connect off from the start; should a real
    // radio report before that took hold, the link the kit made is let go at
    // once, so the scan leaves every scale free.
    session.events().connected = [&session] { session.releaseUnwantedLink(); };
    ScanTable table(options.all);
    auto scanner = std::make_shared<Scanner>(session, table, printer);
    scanner->start();

    // The end of a scan is its normal end, also by Ctrl-C; a radio that
    // never became usable is still an error (the session's deadline check).
    session.setInterruptStatus(0);
    session.setDeadline(toDuration(seconds), [&session] { session.finish(0); });
    struct Finally {
        Scanner& scanner;
        ~Finally() { scanner.stop(); }
    } finally{*scanner};
    try {
        session.run();
    } catch (const RunError&) {
        printer.abandon();
        throw;
    }
    printer.finish(table, scanner->now());
}

}  // namespace

void addScanCommand(CLI::App& app, const GlobalOptions& options) {
    auto scanOptions = std::make_shared<ScanOptions>();
    auto* scan = app.add_subcommand("scan", "List the scales in range, live");
    scan->add_option("--duration", scanOptions->duration,
                     "Scan for this many seconds, e.g. 10 or 2.5 (default 10)")
        ->type_name("SECONDS");
    scan->add_flag("--all", scanOptions->all, "List every Bluetooth LE device heard, not only scales");
    scan->footer(
        "Shows each scale's name, identifier (for --id), signal strength in dBm and when it was\n"
        "last seen, in the order found; on a terminal the table is redrawn in place. Scales are\n"
        "devices whose name contains \"Coffee\" or \"Plenk\". Finding none is not an error.\n"
        "With --json one object each time a scale is found or heard again:\n"
        "  {\"event\":\"scale\",\"name\":\"Plenk "
        "Scale\",\"identifier\":\"...\",\"rssi\":-58,\"lastSeen\":0.12}\n"
        "  rssi: dBm, or null when not known; name: null for a nameless device (--all);\n"
        "  lastSeen: seconds from the start of the scan to the last report of the scale.\n"
        "The scan restarts every 2 s, so a scale in range is reported at least that often.\n"
        "Ctrl-C ends the scan early (exit status 0).\n"
        "Examples: plenk --sim scan --duration 3\n"
        "          plenk scan --all --adapter hci1");
    scan->callback([scanOptions, &options] { runScan(*scanOptions, options); });
}

}  // namespace plenk::cli
