#include "emulator/ScaleEmulator.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "wire/Frames.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace plenk::emulator {

namespace {

constexpr std::int32_t kMaxMantissa = 0x7FFFFF;  // signed 24 bits
constexpr std::size_t kMaxShots = 8;

std::int32_t clampMantissa(double value) noexcept {
    if (!std::isfinite(value)) return 0;
    const double rounded = std::round(std::clamp(value, -double{kMaxMantissa}, double{kMaxMantissa}));
    return static_cast<std::int32_t>(rounded);
}

// Deterministic per-sample randomness: splitmix64 of (seed, sample index).
std::uint64_t mix(std::uint64_t x) noexcept {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

bt::Bytes textBytes(std::string_view text) {
    return bt::Bytes(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

// "1.2.3" → {1, 2, 3}; missing or odd parts are 0, parts saturate at 255.
std::array<std::uint8_t, 3> versionParts(std::string_view text) noexcept {
    std::array<std::uint8_t, 3> parts{};
    std::size_t part = 0;
    unsigned value = 0;
    for (char c : text) {
        if (c >= '0' && c <= '9') {
            value = std::min(255u, value * 10 + static_cast<unsigned>(c - '0'));
        } else if (c == '.') {
            parts[part] = static_cast<std::uint8_t>(value);
            value = 0;
            if (++part == parts.size()) return parts;
        } else {
            break;
        }
    }
    parts[part] = static_cast<std::uint8_t>(value);
    return parts;
}

}  // namespace

ScaleEmulator::ScaleEmulator(ScaleOptions options, Clock::TimePoint powerOn)
    : options_(std::move(options)),
      powerOn_(powerOn),
      samplePeriod_(std::chrono::milliseconds(100)),
      pour_(options_.shot),
      baseLoad_(std::isfinite(options_.initialLoadGrams) ? options_.initialLoadGrams : 0.0),
      batteryLevel_(std::clamp(options_.batteryLevel, 0, 255)),
      batterySetAt_(powerOn) {
    setSampleRate(options_.sampleRateHz);
    if (!std::isfinite(options_.noiseGrams) || options_.noiseGrams < 0) options_.noiseGrams = 0;
    if (options_.startConfigured) {
        sequenceSeen_ = kSeenAll;
        configured_ = true;
    }
}

// --- link --------------------------------------------------------------------

void ScaleEmulator::connected(Clock::TimePoint /*now*/) {
    freshConnection_ = options_.autoPour;
}

void ScaleEmulator::disconnected(Clock::TimePoint /*now*/) {
    freshConnection_ = false;
}

// --- GATT --------------------------------------------------------------------

GattProfile ScaleEmulator::profile() const {
    GattProfile profile;
    if (updateMode_) {
        profile.services.push_back(
            ServiceDefinition{wire::kDfuService,
                              true,
                              {
                                  {wire::kDfuControlPoint, kGattWrite | kGattNotify, {}, false},
                                  {wire::kDfuPacket, kGattWriteWithoutResponse, {}, false},
                                  {wire::kDfuVersion, kGattRead, bt::Bytes{0x08, 0x00}, false},
                              }});
        return profile;
    }
    const auto& info = options_.info;
    const bool cached = options_.cacheDeviceInformation;
    profile.services.push_back(
        ServiceDefinition{wire::kBatteryService,
                          true,
                          {{wire::kBatteryLevel, kGattRead | kGattNotify,
                            bt::Bytes{static_cast<std::uint8_t>(batteryLevel_)}, false}}});
    profile.services.push_back(
        ServiceDefinition{wire::kDeviceInformationService,
                          true,
                          {
                              {wire::kManufacturerName, kGattRead, textBytes(info.manufacturer), cached},
                              {wire::kModelNumber, kGattRead, textBytes(info.model), cached},
                              {wire::kHardwareRevision, kGattRead, textBytes(info.hardware), cached},
                              {wire::kFirmwareRevision, kGattRead, textBytes(info.firmware), cached},
                              {wire::kSoftwareRevision, kGattRead, textBytes(info.software), cached},
                          }});
    profile.services.push_back(ServiceDefinition{
        wire::kScaleService,
        true,
        {
            {wire::kCommandCharacteristic, kGattWrite | kGattWriteWithoutResponse, {}, false},
            {wire::kDataCharacteristic, kGattNotify, {}, false},
            {wire::kControlCharacteristic, kGattNotify, {}, false},
            {wire::kInfoCharacteristic, kGattRead, {}, false},
        }});
    return profile;
}

std::string ScaleEmulator::advertisedName() const {
    return updateMode_ ? std::string(wire::kDfuTargetName) : options_.name;
}

std::vector<bt::Uuid> ScaleEmulator::advertisedServices() const {
    return {updateMode_ ? wire::kDfuService : wire::kScaleService};
}

std::optional<bt::Bytes> ScaleEmulator::read(const bt::Uuid& characteristic, Clock::TimePoint now) const {
    if (updateMode_) {
        if (characteristic == wire::kDfuVersion) return bt::Bytes{0x08, 0x00};
        return std::nullopt;
    }
    const auto& info = options_.info;
    if (characteristic == wire::kBatteryLevel)
        return bt::Bytes{static_cast<std::uint8_t>(batteryLevelAt(now))};
    if (characteristic == wire::kInfoCharacteristic) return configurationValue(now);
    if (characteristic == wire::kManufacturerName) return textBytes(info.manufacturer);
    if (characteristic == wire::kModelNumber) return textBytes(info.model);
    if (characteristic == wire::kHardwareRevision) return textBytes(info.hardware);
    if (characteristic == wire::kFirmwareRevision) return textBytes(info.firmware);
    if (characteristic == wire::kSoftwareRevision) return textBytes(info.software);
    return std::nullopt;
}

ScaleEmulator::Effect ScaleEmulator::write(const bt::Uuid& characteristic,
                                           std::span<const std::uint8_t> value, Clock::TimePoint now) {
    if (updateMode_ || characteristic != wire::kCommandCharacteristic) return Effect::None;
    return handleCommand(value, now);
}

ScaleEmulator::Effect ScaleEmulator::handleCommand(std::span<const std::uint8_t> frame,
                                                   Clock::TimePoint now) {
    // One write carries one frame: an opcode and at most one data byte.
    if (updateMode_ || frame.empty() || frame.size() > 2) {
        ++counters_.ignored;
        return Effect::None;
    }
    const std::uint8_t op = frame[0];
    const bool hasData = frame.size() == 2;
    const std::uint8_t data = hasData ? frame[1] : 0;
    const auto needsData = [&] {
        if (!hasData) ++counters_.ignored;
        return hasData;
    };
    const auto accept = [&] { ++counters_.frames; };
    auto& s = settings_;

    switch (op) {
        case wire::kOpFirmwareVersion:
            ++counters_.versionRequests;  // answered nowhere on this service
            accept();
            return Effect::None;
        case wire::kOpDisplayControl:
            if (!needsData()) return Effect::None;
            if (data == 0x00 || data == 0x01) {
                s.indicationLed = data == 0x01;
            } else if (data == 0x10 || data == 0x11) {
                s.engineeringMode = data == 0x11;
            } else {
                ++counters_.ignored;
                return Effect::None;
            }
            accept();
            return Effect::None;
        case wire::kOpUnit2:
        case wire::kOpUnit3:
            s.unitCode = op;
            sequenceSeen_ |= kSeenUnit;
            accept();
            return Effect::None;
        case wire::kOpSynchronize:
            ++counters_.syncs;
            if (sequenceSeen_ == kSeenAll) configured_ = true;
            accept();
            return Effect::None;
        case wire::kOpSleepMode0:
        case wire::kOpSleepMode1:
            if (!needsData()) return Effect::None;
            s.sleepLevel[op == wire::kOpSleepMode1 ? 1 : 0] = data;
            sequenceSeen_ |= op == wire::kOpSleepMode1 ? kSeenSleep1 : kSeenSleep0;
            accept();
            return Effect::None;
        case wire::kOpAdvertisingMode0:
        case wire::kOpAdvertisingMode1:
            if (!needsData()) return Effect::None;
            s.advertisingLevel[op == wire::kOpAdvertisingMode1 ? 1 : 0] = data;
            sequenceSeen_ |= op == wire::kOpAdvertisingMode1 ? kSeenAdvertising1 : kSeenAdvertising0;
            accept();
            return Effect::None;
        case wire::kOpDefaultConfig09:
            if (!needsData()) return Effect::None;
            s.opcode09Data = data;
            sequenceSeen_ |= kSeen09;
            accept();
            return Effect::None;
        case wire::kOpTimer:
            if (!needsData()) return Effect::None;
            s.timerByte = data;
            sequenceSeen_ |= kSeenTimer;
            accept();
            return Effect::None;
        case wire::kOpPowerEnhanced:
            if (!needsData()) return Effect::None;
            s.powerEnhanced = data != 0x00;
            accept();
            return Effect::None;
        case wire::kOpTare:
            tareOffset_ = grossAt(now);
            ++counters_.tares;
            if (freshConnection_) {
                freshConnection_ = false;
                startPour(now + options_.pourDelay);
            }
            accept();
            return Effect::None;
        case wire::kOpDfu:
            if (!needsData()) return Effect::None;
            if (data != wire::kDfuMagic) {
                ++counters_.ignored;
                return Effect::None;
            }
            accept();
            enterUpdateMode();
            return Effect::RestartForUpdate;
        case wire::kOpCalibrate:
            if (!needsData()) return Effect::None;
            s.calibration = data;
            ++counters_.calibrations;
            accept();
            return Effect::None;
        case wire::kOpSegmentUpdate:
            ++s.segmentUpdates;
            s.displayHeldByClient = true;
            accept();
            return Effect::None;
        case wire::kOpSegmentPreset:
            if (!needsData()) return Effect::None;
            s.segmentPreset = data;
            s.displayHeldByClient = true;
            accept();
            return Effect::None;
        case wire::kOpSegmentRelease:
            s.displayHeldByClient = false;
            accept();
            return Effect::None;
        case wire::kOpSegmentOn:
        case wire::kOpSegmentOff:
            s.displayOn = op == wire::kOpSegmentOn;
            accept();
            return Effect::None;
        case wire::kOpFirmwareDisconnect:
            accept();
            return Effect::Disconnect;
        default:
            if ((op & 0xF8) == wire::kOpSegmentBlockBase) {
                if (!needsData()) return Effect::None;
                s.segmentBlocks[op & 0x07] = data;
                s.displayHeldByClient = true;
                accept();
                return Effect::None;
            }
            ++counters_.ignored;
            return Effect::None;
    }
}

// --- weight ------------------------------------------------------------------

void ScaleEmulator::setSampleRate(int hertz) noexcept {
    hertz = std::clamp(hertz, 10, 1000);
    options_.sampleRateHz = hertz;
    samplePeriod_ = std::chrono::nanoseconds(1'000'000'000LL / hertz);
}

double ScaleEmulator::secondsSince(Clock::TimePoint from, Clock::TimePoint to) const noexcept {
    return std::chrono::duration<double>(to - from).count();
}

double ScaleEmulator::grossAt(Clock::TimePoint t) const noexcept {
    double load = baseLoad_;
    for (const Shot& shot : shots_) load += shotMassAt(shot, t);
    return load;
}

double ScaleEmulator::noiseAt(Clock::TimePoint t) const noexcept {
    if (options_.noiseGrams <= 0) return 0.0;
    const auto elapsed = (t - powerOn_).count();
    const auto period = samplePeriod_.count();
    // Floor division, so samples before power-up are numbered too.
    const std::int64_t index = elapsed >= 0 ? elapsed / period : -((-elapsed + period - 1) / period);
    const std::uint64_t bits = mix(options_.seed ^ mix(static_cast<std::uint64_t>(index)));
    const double unit = static_cast<double>(bits >> 11) * 0x1.0p-53;  // [0, 1)
    return (2.0 * unit - 1.0) * options_.noiseGrams;
}

double ScaleEmulator::weightAt(Clock::TimePoint t) const noexcept {
    return grossAt(t) - tareOffset_ + noiseAt(t);
}

bt::Bytes ScaleEmulator::packetAt(Clock::TimePoint t) const noexcept {
    const double weight = weightAt(t);
    if (options_.format == WeightFormat::Text) return encodeWeightPacket(static_cast<float>(weight));
    const auto packet =
        wire::encodeBinaryWeight(clampMantissa(weight * 10.0), -1, clampMantissa(grossAt(t) * 10.0), -1);
    return bt::Bytes(std::span<const std::uint8_t>(packet));
}

bt::Bytes ScaleEmulator::encodeWeightPacket(float grams) const noexcept {
    if (options_.format == WeightFormat::Text) {
        char text[16];
        const auto tenths = static_cast<std::int64_t>(clampMantissa(static_cast<double>(grams) * 10.0));
        const auto result = std::to_chars(text, text + sizeof text, tenths);
        return bt::Bytes(std::span(reinterpret_cast<const std::uint8_t*>(text),
                                   static_cast<std::size_t>(result.ptr - text)));
    }
    // Integral values go with exponent 0 so they decode back bit-exactly.
    const double value = grams;
    if (std::isfinite(value) && std::nearbyint(value) == value && std::fabs(value) <= kMaxMantissa) {
        const auto packet = wire::encodeBinaryWeight(static_cast<std::int32_t>(value), 0);
        return bt::Bytes(std::span<const std::uint8_t>(packet));
    }
    const auto packet = wire::encodeBinaryWeight(clampMantissa(value * 10.0), -1);
    return bt::Bytes(std::span<const std::uint8_t>(packet));
}

double ScaleEmulator::shotMassAt(const Shot& shot, Clock::TimePoint t) const noexcept {
    return shot.scale * pour_.massAt(secondsSince(shot.start, t));
}

void ScaleEmulator::startPour(Clock::TimePoint at) {
    startPour(at, pour_.parameters().finalGrams);
}

void ScaleEmulator::startPour(Clock::TimePoint at, double grams) {
    // One profile serves every shot: its mass is proportional to its final grams.
    const double full = pour_.parameters().finalGrams;
    const double scale = std::isfinite(grams) && grams > 0 && full > 0 ? grams / full : 0.0;
    // Shots that have settled by `at` become plain load.
    const double settled = pour_.settledAfterSeconds() + 1.0;
    std::erase_if(shots_, [&](const Shot& shot) {
        if (secondsSince(shot.start, at) < settled) return false;
        baseLoad_ += shot.scale * pour_.massAt(1e9);
        return true;
    });
    if (shots_.size() >= kMaxShots) {  // abandon the oldest shot where it stands
        baseLoad_ += shotMassAt(shots_.front(), at);
        shots_.erase(shots_.begin());
    }
    shots_.push_back(Shot{at, scale});
}

void ScaleEmulator::stopPour(Clock::TimePoint at) noexcept {
    for (const Shot& shot : shots_) baseLoad_ += shotMassAt(shot, at);
    shots_.clear();
}

std::optional<Clock::TimePoint> ScaleEmulator::pourStart() const noexcept {
    if (shots_.empty()) return std::nullopt;
    return shots_.back().start;
}

// --- state -------------------------------------------------------------------

void ScaleEmulator::factoryReset() noexcept {
    settings_ = ScaleSettings{};
    sequenceSeen_ = 0;
    configured_ = false;
}

// Record layout (15 bytes):
//   0      layout version, 0x01
//   1..3   firmware version major, minor, patch (from the firmware revision text)
//   4      battery level
//   5      last calibration parameter
//   6      data byte of the last opcode 09 frame
//   7      flags: bit 0 display on, bit 1 indication LED, bit 2 engineering mode,
//          bit 3 display held by seven-segment commands
//   8      seven-segment preset
//   9      timer byte: the data byte of the last timer (0A) frame
//   10     high nibble unit code (2 or 3), low nibble sleep level of mode 0
//   11     high nibble sleep level of mode 1, low nibble advertising level of mode 0
//   12     high nibble 1 while enhanced radio power is on (else 0),
//          low nibble advertising level of mode 1
//   13     tares since power-up (low byte)
//   14     XOR of bytes 0..13
// Until the scale has received the default configuration sequence and a
// synchronise, bytes 10..12 read FF FF FF (unconfigured).
RKConfigurationRecord ScaleEmulator::configurationRecord(Clock::TimePoint now) const noexcept {
    const auto& s = settings_;
    const auto version = versionParts(options_.info.firmware);
    const auto nibbles = [](std::uint8_t high, std::uint8_t low) {
        return static_cast<std::uint8_t>((high & 0x0F) << 4 | (low & 0x0F));
    };
    std::array<std::uint8_t, 15> b{};
    b[0] = 0x01;
    b[1] = version[0];
    b[2] = version[1];
    b[3] = version[2];
    b[4] = static_cast<std::uint8_t>(batteryLevelAt(now));
    b[5] = s.calibration;
    b[6] = s.opcode09Data;
    b[7] = static_cast<std::uint8_t>((s.displayOn ? 0x01 : 0) | (s.indicationLed ? 0x02 : 0) |
                                     (s.engineeringMode ? 0x04 : 0) | (s.displayHeldByClient ? 0x08 : 0));
    b[8] = s.segmentPreset;
    b[9] = s.timerByte;
    if (configured_) {
        b[10] = nibbles(s.unitCode, s.sleepLevel[0]);
        b[11] = nibbles(s.sleepLevel[1], s.advertisingLevel[0]);
        b[12] = nibbles(s.powerEnhanced ? 1 : 0, s.advertisingLevel[1]);
    } else {
        b[10] = b[11] = b[12] = 0xFF;
    }
    b[13] = static_cast<std::uint8_t>(counters_.tares);
    for (std::size_t i = 0; i < 14; ++i) b[14] ^= b[i];
    RKConfigurationRecord record;
    static_assert(sizeof record == b.size());
    std::memcpy(&record, b.data(), b.size());
    return record;
}

bt::Bytes ScaleEmulator::configurationValue(Clock::TimePoint now) const noexcept {
    const RKConfigurationRecord record = configurationRecord(now);
    return bt::Bytes(std::span(reinterpret_cast<const std::uint8_t*>(&record), sizeof record));
}

// --- battery, buttons ----------------------------------------------------------

void ScaleEmulator::setBatteryLevel(int level, Clock::TimePoint now) noexcept {
    batteryLevel_ = std::clamp(level, 0, 255);
    batterySetAt_ = now;
}

int ScaleEmulator::batteryLevelAt(Clock::TimePoint now) const noexcept {
    const double drain = options_.batteryDrainPerHour;
    if (!(drain > 0) || now <= batterySetAt_) return batteryLevel_;
    const double hours = std::chrono::duration<double, std::ratio<3600>>(now - batterySetAt_).count();
    const double level = static_cast<double>(batteryLevel_) - drain * hours;
    return level <= 0 ? 0 : static_cast<int>(std::ceil(level));
}

bt::Bytes ScaleEmulator::buttonPacket(int button) noexcept {
    return bt::Bytes{static_cast<std::uint8_t>(button == 0 ? 0x01 : 0x02)};
}

void ScaleEmulator::enterUpdateMode() noexcept {
    updateMode_ = true;
    freshConnection_ = false;
}

void ScaleEmulator::finishUpdate(Clock::TimePoint /*now*/) {
    updateMode_ = false;
    freshConnection_ = false;
}

}  // namespace plenk::emulator
