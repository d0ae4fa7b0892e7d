#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <PlenkKit/Clock.h>
#include <PlenkKit/RKConfiguration.h>

#include "bt/Bytes.h"
#include "bt/Uuid.h"
#include "emulator/GattProfile.h"
#include "emulator/PourProfile.h"

// A model of the scale's firmware: command frames in; weight, button,
// battery, device-information and configuration values out. It knows nothing
// of any Bluetooth stack: the simulator, the fake bluetoothd and the BLE
// peripheral tool each put it behind their own GATT server. Time is always an
// explicit argument, so its output is a pure function of the inputs and the
// seed. Not thread-safe: the owner serialises calls.
namespace plenk::emulator {

// How weights travel on the data characteristic. Clients pick the decoder by
// the advertised name: "Plenk" names are binary, "Coffee" names are text.
enum class WeightFormat {
    Binary,  // 9 bytes: mantissa/exponent (exponent -1), second value = untared load
    Text,    // ASCII decimal of weight × 10, no terminator ("364" is 36.4 g)
};

struct DeviceInformation {
    std::string manufacturer = "Plenk Instruments";
    std::string model = "PS-1";
    std::string hardware = "B2";
    std::string firmware = "1.2.3";
    std::string software = "1.0.0";
};

struct ScaleOptions {
    std::string name = "Plenk Scale";
    WeightFormat format = WeightFormat::Binary;
    int sampleRateHz = 10;  // clamped to 10..1000
    // A shot starts pourDelay after the first tare of every fresh connection,
    // so a client that tares on connecting sees a pour straight away.
    bool autoPour = true;
    Clock::Duration pourDelay = std::chrono::milliseconds(1500);
    ShotParameters shot{};
    double noiseGrams = 0.04;  // uniform sensor noise, ± this
    std::uint64_t seed = 1;
    double initialLoadGrams = 0.0;  // what stands on the platform at power-up
    int batteryLevel = 85;          // percent; any byte value is allowed for tests
    double batteryDrainPerHour = 0.0;
    bool startConfigured = false;         // skip the unconfigured state
    bool cacheDeviceInformation = false;  // clients see the texts at discovery
    DeviceInformation info{};
};

// Everything the commands set.
struct ScaleSettings {
    std::uint8_t unitCode = 0x03;
    std::uint8_t timerByte = 0x00;
    std::array<std::uint8_t, 2> sleepLevel{};        // by mode 0, 1
    std::array<std::uint8_t, 2> advertisingLevel{};  // by mode 0, 1
    std::uint8_t opcode09Data = 0x00;
    bool powerEnhanced = false;
    bool indicationLed = false;
    bool engineeringMode = false;
    bool displayOn = true;
    bool displayHeldByClient = false;  // seven-segment commands took the display; EC hands it back
    std::array<std::uint8_t, 8> segmentBlocks{};
    std::uint8_t segmentPreset = 0x00;
    std::uint8_t calibration = 0x00;
    std::uint32_t segmentUpdates = 0;
};

struct ScaleCounters {
    std::uint32_t frames = 0;   // command frames accepted
    std::uint32_t ignored = 0;  // empty, too long, unknown or missing their data byte
    std::uint32_t tares = 0;
    std::uint32_t syncs = 0;
    std::uint32_t calibrations = 0;
    std::uint32_t versionRequests = 0;
};

class ScaleEmulator {
public:
    // What the firmware asks of its link after a command.
    enum class Effect {
        None,
        Disconnect,        // F1: drop the link
        RestartForUpdate,  // AA 55: drop the link, restart as "DfuTarg"
    };

    explicit ScaleEmulator(ScaleOptions options = {}, Clock::TimePoint powerOn = {});

    const ScaleOptions& options() const noexcept { return options_; }

    // --- link ---------------------------------------------------------------
    // A client connected: the next tare counts as the fresh connection's tare.
    void connected(Clock::TimePoint now);
    void disconnected(Clock::TimePoint now);

    // --- GATT ---------------------------------------------------------------
    // The GATT table in the current mode (scale, or update target).
    GattProfile profile() const;
    std::string advertisedName() const;
    std::vector<bt::Uuid> advertisedServices() const;
    // The value a read of `characteristic` returns, if the firmware serves it.
    std::optional<bt::Bytes> read(const bt::Uuid& characteristic, Clock::TimePoint now) const;
    // A write reaching `characteristic`; only the command characteristic acts.
    Effect write(const bt::Uuid& characteristic, std::span<const std::uint8_t> value, Clock::TimePoint now);
    // One command frame (opcode, optional data byte).
    Effect handleCommand(std::span<const std::uint8_t> frame, Clock::TimePoint now);

    // --- weight -------------------------------------------------------------
    Clock::Duration samplePeriod() const noexcept { return samplePeriod_; }
    void setSampleRate(int hertz) noexcept;
    void setFormat(WeightFormat format) noexcept { options_.format = format; }
    // Load on the platform without noise or tare.
    double grossAt(Clock::TimePoint t) const noexcept;
    // What the scale shows: load minus tare, plus the sensor noise of the sample at t.
    double weightAt(Clock::TimePoint t) const noexcept;
    double noiseAt(Clock::TimePoint t) const noexcept;
    // The data-characteristic packet for the sample at t.
    bt::Bytes packetAt(Clock::TimePoint t) const noexcept;
    // A caller-given weight in the current format, e.g. a sequence number for
    // benchmarks. Integral values up to ±838860 decode back exactly in both formats.
    bt::Bytes encodeWeightPacket(float grams) const noexcept;
    // Starts a shot at `at` (earlier shots keep what they poured), of the
    // options' shot or one of the same shape that ends at `grams`.
    void startPour(Clock::TimePoint at);
    void startPour(Clock::TimePoint at, double grams);
    // Every running shot stops where it stands at `at` (what is in the cup stays).
    void stopPour(Clock::TimePoint at) noexcept;
    // Puts grams on (or, negative, takes them off) the platform at once.
    void addLoad(double grams) noexcept { baseLoad_ += grams; }
    double tareOffset() const noexcept { return tareOffset_; }
    std::optional<Clock::TimePoint> pourStart() const noexcept;
    const PourProfile& pourProfile() const noexcept { return pour_; }

    // --- state --------------------------------------------------------------
    const ScaleSettings& settings() const noexcept { return settings_; }
    const ScaleCounters& counters() const noexcept { return counters_; }
    bool isConfigured() const noexcept { return configured_; }
    // Back to the factory state: unconfigured, default settings.
    void factoryReset() noexcept;
    // The 15-byte record of the info characteristic: bytes 10..12 read FF FF FF
    // until the default configuration sequence and a synchronise arrived, then
    // hold unit, sleep, advertising and power settings in their nibbles (byte 12
    // high nibble 1 with enhanced power); byte 9 is the last timer data byte.
    // The full layout is documented at the definition.
    RKConfigurationRecord configurationRecord(Clock::TimePoint now) const noexcept;
    bt::Bytes configurationValue(Clock::TimePoint now) const noexcept;

    // --- battery, buttons, device information -------------------------------
    void setBatteryLevel(int level, Clock::TimePoint now) noexcept;
    int batteryLevelAt(Clock::TimePoint now) const noexcept;
    // The control-characteristic packet of a button press: button 0 → 01, 1 → 02.
    static bt::Bytes buttonPacket(int button) noexcept;
    const DeviceInformation& deviceInformation() const noexcept { return options_.info; }

    // --- firmware update ----------------------------------------------------
    bool inUpdateMode() const noexcept { return updateMode_; }
    // Restarts as the update target (what the DFU command frame does).
    void enterUpdateMode() noexcept;
    // The update finished (or was abandoned): restart as a scale.
    void finishUpdate(Clock::TimePoint now);

private:
    // Frames of the default configuration sequence seen since power-up.
    enum SequenceBit : std::uint8_t {
        kSeenUnit = 1 << 0,
        kSeenTimer = 1 << 1,
        kSeenSleep0 = 1 << 2,
        kSeenSleep1 = 1 << 3,
        kSeenAdvertising0 = 1 << 4,
        kSeenAdvertising1 = 1 << 5,
        kSeen09 = 1 << 6,
        kSeenAll = 0x7F,
    };

    // A shot of the options' shape, its mass scaled to its own final grams.
    struct Shot {
        Clock::TimePoint start;
        double scale = 1.0;
    };

    double secondsSince(Clock::TimePoint from, Clock::TimePoint to) const noexcept;
    double shotMassAt(const Shot& shot, Clock::TimePoint t) const noexcept;

    ScaleOptions options_;
    Clock::TimePoint powerOn_;
    Clock::Duration samplePeriod_;
    PourProfile pour_;
    ScaleSettings settings_;
    ScaleCounters counters_;
    std::uint8_t sequenceSeen_ = 0;
    bool configured_ = false;
    bool updateMode_ = false;
    bool freshConnection_ = false;
    double baseLoad_ = 0.0;  // load not coming from a tracked shot
    double tareOffset_ = 0.0;
    std::vector<Shot> shots_;  // shots still pouring (at most a few)
    int batteryLevel_ = 0;
    Clock::TimePoint batterySetAt_;
};

}  // namespace plenk::emulator
