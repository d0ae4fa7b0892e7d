#include "PeripheralScale.h"

#include <cstdio>

#include "backends/bluez/BluezProperties.h"
#include "wire/GattUuids.h"

namespace plenk::emulator_tool {

namespace {

using bluez::kAdapterInterface;
using bluez::kDeviceInterface;
constexpr const char* kGattManager = "org.bluez.GattManager1";
constexpr const char* kAdvertisingManager = "org.bluez.LEAdvertisingManager1";
constexpr const char* kRoot = "/org/plenkkit/emulator";

std::string describe(const sdbus::Error& error) {
    return error.getName() + ": " + error.getMessage();
}

std::string grams(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

}  // namespace

PeripheralScale::PeripheralScale(dispatch::PollLoop& loop, std::string adapterPath,
                                 emulator::ScaleOptions options, std::chrono::milliseconds readvertiseEvery,
                                 EventLog& log, Finished finished)
    : loop_(loop),
      adapterPath_(std::move(adapterPath)),
      log_(log),
      finished_(std::move(finished)),
      clock_(Clock::steady()),
      scale_(std::move(options), clock_->now()),
      readvertiseEvery_(readvertiseEvery) {}

PeripheralScale::~PeripheralScale() {
    stopStream();
    // Objects first, then the connection they were exported on; closing it
    // makes bluetoothd drop the application and the advertisement.
    advertisement_.reset();
    application_.reset();
    bus_.reset();
}

Clock::TimePoint PeripheralScale::now() const {
    return clock_->now();
}

void PeripheralScale::fail(int status, const std::string& why) {
    if (auto finished = std::exchange(finished_, nullptr)) finished(status, why);
}

void PeripheralScale::start() {
    try {
        bus_ = std::make_unique<PeripheralBus>(
            loop_, adapterPath_,
            [this](const std::string& device, bool connected) { linkChanged(device, connected); },
            [this] { fail(1, "the system bus connection failed"); });
    } catch (const sdbus::Error& e) {
        fail(3, "no system bus: " + describe(e));
        return;
    }
    bus_->setProperty(adapterPath_, kAdapterInterface, "Powered", sdbus::Variant(true),
                      [this](const sdbus::Error* error) {
                          if (error != nullptr) {
                              fail(3, "cannot use adapter " + adapterPath_ + ": " + describe(*error));
                              return;
                          }
                          publish();
                          bus_->reportConnectedDevices();
                          scheduleReadvertise();
                      });
}

// Centrals name the scale by the adapter's GAP name once connected, so the
// adapter takes the advertised name too.
void PeripheralScale::publish() {
    const std::string name = scale_.advertisedName();
    const std::string root = std::string(kRoot) + "/app" + std::to_string(++generation_);
    application_ = std::make_unique<GattApplication>(
        bus_->connection(), root, scale_.profile(),
        GattApplication::Handlers{
            [this](const bt::Uuid& c) { return read(c); },
            [this](const bt::Uuid& c, const std::vector<std::uint8_t>& value) { return write(c, value); },
            [this](const bt::Uuid& c, bool on) { subscription(c, on); }});
    advertisement_ = makeAdvertisement();
    pendingRegistrations_ = 3;
    const auto done = [this, alive = std::weak_ptr<bool>(alive_)](const char* what) {
        return [this, alive, what](const sdbus::Error* error) {
            if (alive.lock()) registered(what, error);
        };
    };
    bus_->setProperty(adapterPath_, kAdapterInterface, "Alias", sdbus::Variant(name), done("alias"));
    bus_->call(
        adapterPath_, kGattManager, "RegisterApplication",
        [&](sdbus::MethodCall& call) {
            call << sdbus::ObjectPath(root) << std::map<std::string, sdbus::Variant>{};
        },
        done("application"));
    bus_->call(
        adapterPath_, kAdvertisingManager, "RegisterAdvertisement",
        [&](sdbus::MethodCall& call) {
            call << sdbus::ObjectPath(advertisement_->path()) << std::map<std::string, sdbus::Variant>{};
        },
        done("advertisement"));
}

std::shared_ptr<Advertisement> PeripheralScale::makeAdvertisement() {
    return std::make_shared<Advertisement>(
        bus_->connection(), application_->root() + "/advertisement" + std::to_string(advertisements_++),
        scale_.advertisedName(), scale_.advertisedServices(),
        [this] { log_.line("advertisement-released"); });
}

void PeripheralScale::scheduleReadvertise() {
    if (readvertiseEvery_.count() <= 0) return;
    loop_.postAfter(readvertiseEvery_, [this, alive = std::weak_ptr<bool>(alive_)] {
        if (!alive.lock()) return;
        readvertise();
        scheduleReadvertise();
    });
}

// Make before break: the new advertisement is registered before the old one
// goes, so the scale never stops advertising and a central connecting in
// between still finds it connectable.
void PeripheralScale::readvertise() {
    if (!central_.empty() || !advertisement_ || readvertising_ || pendingRegistrations_ != 0) return;
    readvertising_ = true;
    auto previous = advertisement_;
    auto fresh = makeAdvertisement();
    bus_->call(
        adapterPath_, kAdvertisingManager, "RegisterAdvertisement",
        [&](sdbus::MethodCall& call) {
            call << sdbus::ObjectPath(fresh->path()) << std::map<std::string, sdbus::Variant>{};
        },
        [this, alive = std::weak_ptr<bool>(alive_), previous, fresh](const sdbus::Error* error) {
            if (!alive.lock()) return;
            readvertising_ = false;
            if (error != nullptr) {
                log_.line("readvertise-failed", describe(*error));
                return;
            }
            // Republished meanwhile (an update restart): the fresh one is the stale one.
            const bool current = advertisement_ == previous;
            const std::string stale = current ? previous->path() : fresh->path();
            if (current) advertisement_ = fresh;
            bus_->call(
                adapterPath_, kAdvertisingManager, "UnregisterAdvertisement",
                [&](sdbus::MethodCall& call) { call << sdbus::ObjectPath(stale); },
                [](const sdbus::Error*) {});
        });
}

void PeripheralScale::registered(const char* what, const sdbus::Error* error) {
    if (error != nullptr) {
        fail(3,
             std::string("registering the ") + what + " on " + adapterPath_ + " failed: " + describe(*error));
        return;
    }
    if (--pendingRegistrations_ != 0) return;
    const bool text = scale_.options().format == emulator::WeightFormat::Text;
    log_.line("advertising",
              "\"" + scale_.advertisedName() + "\" on " + adapterPath_ +
                  (scale_.inUpdateMode()
                       ? " (update target)"
                       : std::string(text ? " (text" : " (binary") + " weights, " +
                             std::to_string(1'000'000'000 / scale_.samplePeriod().count()) + " Hz)"));
}

void PeripheralScale::unpublish() {
    if (!application_) return;
    const std::string root = application_->root();
    const std::string advertisement = advertisement_->path();
    const auto ignore = [](const sdbus::Error*) {};
    bus_->call(
        adapterPath_, kAdvertisingManager, "UnregisterAdvertisement",
        [&](sdbus::MethodCall& call) { call << sdbus::ObjectPath(advertisement); }, ignore);
    bus_->call(
        adapterPath_, kGattManager, "UnregisterApplication",
        [&](sdbus::MethodCall& call) { call << sdbus::ObjectPath(root); }, ignore);
    advertisement_.reset();
    application_.reset();
}

void PeripheralScale::linkChanged(const std::string& devicePath, bool connected) {
    if (connected) {
        if (!central_.empty()) return;  // one central at a time, as the scale has
        central_ = devicePath;
        centralOfUpdateTarget_ = scale_.inUpdateMode();
        scale_.connected(now());
        log_.line("connected", devicePath);
        return;
    }
    if (devicePath != central_) return;
    central_.clear();
    stopStream();
    scale_.disconnected(now());
    log_.line("disconnected", devicePath);
    if (std::exchange(centralOfUpdateTarget_, false)) {
        // Nothing flashes an image here: the update target gives up and the scale restarts.
        scale_.finishUpdate(now());
        loop_.post([this, alive = std::weak_ptr<bool>(alive_)] {
            if (!alive.lock()) return;
            unpublish();
            publish();
        });
    }
}

std::optional<bt::Bytes> PeripheralScale::read(const bt::Uuid& characteristic) {
    auto value = scale_.read(characteristic, now());
    if (value) log_.bytes("read", characteristic.toString(), *value);
    return value;
}

bool PeripheralScale::write(const bt::Uuid& characteristic, const std::vector<std::uint8_t>& value) {
    const bt::Bytes bytes(value);
    if (characteristic == wire::kCommandCharacteristic) {
        log_.bytes("frame", "", bytes);
    } else {
        log_.bytes("write", characteristic.toString(), bytes);
    }
    const auto effect = scale_.write(characteristic, value, now());
    // After the reply to this write has gone out.
    loop_.post([this, alive = std::weak_ptr<bool>(alive_), effect] {
        if (alive.lock()) apply(effect);
    });
    return true;
}

void PeripheralScale::apply(emulator::ScaleEmulator::Effect effect) {
    if (effect == emulator::ScaleEmulator::Effect::None) return;
    if (effect == emulator::ScaleEmulator::Effect::RestartForUpdate) {
        log_.line("restarting", "as the update target \"" + scale_.advertisedName() + "\"");
        stopStream();
        dropLink();
        unpublish();
        publish();
        return;
    }
    dropLink();
}

void PeripheralScale::dropLink() {
    if (central_.empty()) return;
    log_.line("dropping", central_);
    bus_->call(
        central_, kDeviceInterface, "Disconnect", [](sdbus::MethodCall&) {},
        [this](const sdbus::Error* error) {
            if (error != nullptr) log_.line("drop-failed", describe(*error));
        });
}

void PeripheralScale::subscription(const bt::Uuid& characteristic, bool on) {
    log_.line(on ? "subscribed" : "unsubscribed", characteristic.toString());
    if (characteristic != wire::kDataCharacteristic) return;
    if (!on) {
        stopStream();
        return;
    }
    if (sampleTimer_) return;
    nextSample_ = now();
    scheduleSample();
}

void PeripheralScale::scheduleSample() {
    sampleTimer_ = loop_.postAt(nextSample_, [this, alive = std::weak_ptr<bool>(alive_)] {
        if (!alive.lock()) return;
        sampleTimer_.reset();
        sendSample();
    });
}

void PeripheralScale::sendSample() {
    if (!application_ || !application_->isNotifying(wire::kDataCharacteristic)) return;
    const auto packet = scale_.packetAt(nextSample_);
    application_->notify(wire::kDataCharacteristic, packet);
    log_.bytes("weight", grams(scale_.weightAt(nextSample_)), packet);
    // On a fixed grid; after a stall it starts again from now rather than bursting.
    const auto period = scale_.samplePeriod();
    nextSample_ += period;
    if (nextSample_ + 10 * period < now()) nextSample_ = now() + period;
    scheduleSample();
}

void PeripheralScale::stopStream() {
    if (sampleTimer_) loop_.cancel(*sampleTimer_);
    sampleTimer_.reset();
}

void PeripheralScale::pressButton(int button) {
    const auto packet = emulator::ScaleEmulator::buttonPacket(button);
    if (!application_ || !application_->isNotifying(wire::kControlCharacteristic)) {
        log_.line("button-not-sent", "no central subscribed to EF82");
        return;
    }
    application_->notify(wire::kControlCharacteristic, packet);
    log_.bytes("button", std::to_string(button), packet);
}

void PeripheralScale::startPour(std::optional<double> grams) {
    if (grams) {
        scale_.startPour(now(), *grams);
    } else {
        scale_.startPour(now());
    }
    log_.line("pour");
}

void PeripheralScale::addLoad(double grams) {
    scale_.addLoad(grams);
    log_.line("load", emulator_tool::grams(grams));
}

void PeripheralScale::setBatteryLevel(int percent) {
    scale_.setBatteryLevel(percent, now());
    const auto level = scale_.read(wire::kBatteryLevel, now());
    if (application_ && level) application_->notify(wire::kBatteryLevel, *level);
    log_.line("battery", std::to_string(percent));
}

}  // namespace plenk::emulator_tool
