#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Context.h>
#include <PlenkKit/Error.h>
#include <PlenkKit/Export.h>
#include <PlenkKit/LogSink.h>
#include <PlenkKit/PlatformErrors.h>
#include <PlenkKit/RadioState.h>
#include <PlenkKit/RunLoop.h>
#include <PlenkKit/Uuid.h>

namespace plenk {

namespace sim {
class VirtualPeripheral;
struct SimulatorAccess;
}  // namespace sim

// A simulated Bluetooth world for testing a host application without a scale:
// a radio, emulated scales that behave as the real firmware does, and scripted
// faults. Facades and kits made on context() talk to it through the same
// Bluetooth port as to real hardware.
//
//     plenk::Simulator sim;                           // virtual time, radio on
//     auto scale = sim.addScale();                    // "Plenk Scale", 10 Hz
//     auto plenk = plenk::PKPlenk::create(sim.context());
//     plenk->setDelegate(host);
//     plenk->setIsAutoConnectEnabled(true);
//     sim.advance(std::chrono::seconds(5));           // connects, tares, pours
//     scale.dropLink(plenk::platformError(plenk::kPlatformConnectionTimeout));
//
// Time: on virtual time (the default) nothing moves until advance() or
// runUntil(); both fire every timer on the way in order and run the main queue,
// so a test is instant and gives the same result every run. On a real clock
// the simulated radio keeps its real latencies and runUntil() waits.
//
// Threads: settle(), advance() and runUntil() run the main queue on the calling
// thread; call them from one thread (the test's). Every other method, and
// every method of Scale, may be called from any thread and returns at once;
// what the host's objects see of a change arrives later through the main queue.
class PLENK_EXPORT Simulator {
public:
    using RadioState = plenk::RadioState;

    // How a scale sends weights. Clients pick the decoder by the advertised
    // name: names containing "Coffee" are decoded as text, "Plenk" names as
    // binary, so choose the name to match.
    enum class WeightFormat {
        Binary,  // "Plenk ..." names
        Text,    // "Coffee ..." names
    };

    // A scale's GATT services and characteristics by role, for scripted faults.
    enum class Service { Scale, Battery, DeviceInformation };
    enum class Characteristic {
        Command,        // commands to the scale (tare, configuration, DFU)
        Weight,         // weight notifications
        Button,         // button notifications
        Configuration,  // the configuration record
        BatteryLevel,
        ManufacturerName,
        ModelNumber,
        HardwareRevision,
        FirmwareRevision,
        SoftwareRevision,
    };

    // What a connection attempt to a scale does once the connect latency passed.
    struct ConnectOutcome {
        enum class Kind { Succeed, Fail, Hang };
        Kind kind = Kind::Succeed;
        ErrorPtr error;  // for Fail; null is a failure without error

        static ConnectOutcome succeed() { return {}; }
        static ConnectOutcome fail(ErrorPtr error) { return {Kind::Fail, std::move(error)}; }
        // A failure with an error of the platform's link domain (kPlatformConnectionFailed...).
        static ConnectOutcome failWithCode(PlatformCode code) { return fail(platformError(code)); }
        // Stays connecting until the client cancels it.
        static ConnectOutcome hang() { return {Kind::Hang, nullptr}; }
    };

    struct Options {
        // Null: a VirtualClock of the simulator's own. Clock::steady() runs on
        // real time; a VirtualClock of the host's is shared (advance it through
        // the simulator, which runs what falls due).
        std::shared_ptr<Clock> clock;
        // The radio at start; nullopt: the platform has reported nothing yet.
        std::optional<RadioState> radio = RadioState::PoweredOn;
        // From a connect request to its result, and from a GATT request
        // (discovery, read, write, notification switch) to its result.
        Clock::Duration connectLatency = std::chrono::milliseconds(30);
        Clock::Duration gattLatency = std::chrono::milliseconds(2);
        // The library's diagnostics for objects made on context(); null: the
        // process default (standard output).
        std::shared_ptr<LogSink> log;
    };

    struct ScaleOptions {
        std::string name = "Plenk Scale";
        WeightFormat format = WeightFormat::Binary;
        int notificationRateHz = 10;  // weight notifications per second, 10 to 1000
        int batteryLevel = 85;        // percent
        // Unconfigured scales report an unconfigured record until a client
        // sends the default configuration; configured ones start configured.
        bool configured = false;
        std::string firmwareRevision = "1.2.3";
        // A 36 g shot starts 1.5 s after the first tare of every connection
        // (clients tare on connecting); off: the cup fills only on startPour().
        bool pourOnConnect = true;
        // Uniform sensor noise, plus or minus this many grams.
        double noiseGrams = 0.04;
        // The identifier clients see (Peripheral::identifier()); nil: a random
        // one. A real scale keeps its identifier across runs: give one here to
        // do the same.
        Uuid identifier{};
    };

    // The script handle of one simulated scale; copies name the same scale.
    // Once the simulator is gone every method does nothing (or answers a
    // default).
    class PLENK_EXPORT Scale {
    public:
        // An empty handle (for a test fixture's member): does nothing until
        // assigned from addScale().
        Scale() = default;

        std::string name() const;
        // The identifier clients see on the scale's peripheral handle
        // (Peripheral::identifier()); nil for an empty handle.
        Uuid identifier() const;
        // Renames the scale; connected clients are told.
        void setName(const std::string& name);

        // --- radio and link ---------------------------------------------------
        // Out of range: links drop with a supervision timeout
        // (kPlatformConnectionTimeout), nothing is advertised and connection
        // attempts wait until it is back in range.
        void setInRange(bool inRange);
        // The scale drops every link; clients hear a disconnection with `error`
        // (null: a disconnection without error).
        void dropLink(ErrorPtr error = nullptr);
        bool isConnected() const;
        // The outcome of every connection attempt (default: succeed), and of the
        // next attempt(s) before that default, first in first out.
        void setConnectOutcome(ConnectOutcome outcome);
        void queueConnectOutcome(ConnectOutcome outcome);

        // --- GATT faults (until cleared with a null error) ---------------------
        void failServiceDiscovery(ErrorPtr error);
        void failCharacteristicDiscovery(Service service, ErrorPtr error);
        // Reads and writes are answered with the error (e.g. attError(kAttReadNotPermitted)).
        void failReads(Characteristic characteristic, ErrorPtr error);
        void failWrites(Characteristic characteristic, ErrorPtr error);
        // The characteristic is missing from the next discovery on.
        void removeCharacteristic(Characteristic characteristic);

        // --- the scale ----------------------------------------------------------
        // A press of button 0 or 1.
        void pressButton(int button);
        void setBatteryLevel(int percent);
        // A shot starts now and ends at `grams` after about 30 s (earlier
        // shots keep what they poured); stopPour() stops every shot where it
        // stands. addLoad() puts grams on the platform (negative: takes off).
        void startPour(double grams = 36.0);
        void stopPour();
        void addLoad(double grams);
        // What the display shows now: load minus tare, without noise.
        double displayedGrams() const;
        // Tare commands received since the scale was added.
        std::size_t tareCount() const;
        // The frames written to the command characteristic, oldest first: every
        // write that arrived, also one answered with a scripted error (the most
        // recent few thousand are kept).
        std::vector<std::vector<std::uint8_t>> receivedCommands() const;
        bool isConfigured() const;
        // The scale restarts as its firmware-update target ("DfuTarg"), as
        // after a client's DFU command: links drop, name and services change.
        // finishFirmwareUpdate() restarts it as the scale.
        void restartIntoUpdateMode();
        void finishFirmwareUpdate();
        bool inUpdateMode() const;

    private:
        friend class Simulator;
        friend struct sim::SimulatorAccess;
        explicit Scale(std::shared_ptr<sim::VirtualPeripheral> device) : device_(std::move(device)) {}

        std::shared_ptr<sim::VirtualPeripheral> device_;
    };

    Simulator();
    explicit Simulator(const Options& options);
    // Drops the timers still pending (a timer that holds its owner would keep
    // it alive) and runs what that releases, on the calling thread.
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // What PKPlenk::create / RKRostaKit::create need to run on this world: the
    // main queue is mainLoop(), the notification centre a fresh one of this
    // simulator (post the application-state notifications there), the clock
    // and log those of the options, and the simulated Bluetooth backend. A host
    // may replace the main queue with its own; settle() then does not run it.
    Context context() const;
    const std::shared_ptr<RunLoop>& mainLoop() const;
    // The clock everything here runs on.
    std::shared_ptr<Clock> clock() const;
    bool hasVirtualTime() const;

    void setRadioState(RadioState state);
    std::optional<RadioState> radioState() const;

    Scale addScale();
    Scale addScale(ScaleOptions options);
    // The scale is gone for good: links drop with a supervision timeout.
    void removeScale(const Scale& scale);

    // Runs everything that is ready now, without moving time: the simulated
    // radio's queues and the main loop, until both are idle. Throws
    // std::runtime_error if they keep waking each other without end.
    void settle();
    // Moves virtual time forward, stopping at every timer on the way and
    // settling, so delayed results and weight samples arrive in time order.
    // Throws std::logic_error on real time.
    void advance(Clock::Duration duration);
    // Settles and moves time (virtual) or waits (real) until `done()` holds or
    // `timeout` has passed; returns done(). done() runs on the calling thread
    // between tasks.
    bool runUntil(const std::function<bool()>& done, Clock::Duration timeout = std::chrono::seconds(10));

private:
    friend struct sim::SimulatorAccess;
    struct Impl;
    explicit Simulator(std::unique_ptr<Impl> impl);

    std::unique_ptr<Impl> impl_;
};

}  // namespace plenk
