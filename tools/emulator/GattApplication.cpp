#include "GattApplication.h"

#include "backends/bluez/BluezProperties.h"
#include "backends/bluez/GattFlags.h"

namespace plenk::emulator_tool {

namespace {

using bluez::kCharacteristicInterface;
using bluez::kServiceInterface;
constexpr std::uint32_t kNotifyOrIndicate = emulator::kGattNotify | emulator::kGattIndicate;

using Options = std::map<std::string, sdbus::Variant>;

// The errors bluetoothd maps onto ATT error responses.
[[noreturn]] void refuse(const char* name, const char* text) {
    throw sdbus::Error(std::string("org.bluez.Error.") + name, text);
}

std::uint16_t offsetOf(const Options& options) {
    const auto found = options.find("offset");
    if (found == options.end()) return 0;
    try {
        return found->second.get<std::uint16_t>();
    } catch (const sdbus::Error&) {
        refuse("InvalidArguments", "offset must be a uint16");
    }
}

}  // namespace

GattApplication::GattApplication(sdbus::IConnection& connection, std::string root,
                                 const emulator::GattProfile& profile, Handlers handlers)
    : root_(std::move(root)), handlers_(std::move(handlers)) {
    // The objects exist before the manager answers bluetoothd's
    // GetManagedObjects, so registering finds the whole table at once.
    for (std::size_t i = 0; i < profile.services.size(); ++i)
        exportService(connection, profile.services[i], i);
    manager_ = sdbus::createObject(connection, root_);
    manager_->addObjectManager();
    manager_->finishRegistration();
}

GattApplication::~GattApplication() {
    manager_.reset();
    characteristics_.clear();
    services_.clear();
}

// clang-analyzer reports a leak inside std::function's assignment in
// sdbus-c++'s registrators (the callbacks live as long as the object): a false
// positive, silenced for the registering functions only.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
void GattApplication::exportService(sdbus::IConnection& connection,
                                    const emulator::ServiceDefinition& service, std::size_t index) {
    const std::string path = root_ + "/service" + std::to_string(index);
    auto object = sdbus::createObject(connection, path);
    // Not const: a getter returns its copy, which must not look like a const local to move.
    std::string uuid = service.uuid.fullString();
    const bool primary = service.primary;
    object->registerProperty("UUID").onInterface(kServiceInterface).withGetter([uuid] { return uuid; });
    object->registerProperty("Primary").onInterface(kServiceInterface).withGetter([primary] {
        return primary;
    });
    object->finishRegistration();
    services_.push_back(std::move(object));
    for (std::size_t i = 0; i < service.characteristics.size(); ++i) {
        const auto& definition = service.characteristics[i];
        auto characteristic = std::make_unique<Characteristic>();
        characteristic->uuid = definition.uuid;
        characteristic->properties = definition.properties;
        characteristic->value = definition.value.toVector();
        exportCharacteristic(connection, *characteristic, path, i);
        characteristics_.push_back(std::move(characteristic));
    }
}

void GattApplication::exportCharacteristic(sdbus::IConnection& connection, Characteristic& characteristic,
                                           const std::string& servicePath, std::size_t index) {
    auto object = sdbus::createObject(connection, servicePath + "/char" + std::to_string(index));
    std::string uuid = characteristic.uuid.fullString();
    sdbus::ObjectPath service{servicePath};
    auto flags = bluez::flagsFromProperties(characteristic.properties);
    auto* c = &characteristic;
    object->registerProperty("UUID").onInterface(kCharacteristicInterface).withGetter([uuid] {
        return uuid;
    });
    object->registerProperty("Service").onInterface(kCharacteristicInterface).withGetter([service] {
        return service;
    });
    object->registerProperty("Flags").onInterface(kCharacteristicInterface).withGetter([flags] {
        return flags;
    });
    object->registerProperty("Value").onInterface(kCharacteristicInterface).withGetter([c] {
        return c->value;
    });
    object->registerMethod("ReadValue")
        .onInterface(kCharacteristicInterface)
        .withInputParamNames("options")
        .withOutputParamNames("value")
        .implementedAs([this, c](const Options& options) { return readValue(*c, options); });
    object->registerMethod("WriteValue")
        .onInterface(kCharacteristicInterface)
        .withInputParamNames("value", "options")
        .implementedAs([this, c](const std::vector<std::uint8_t>& value, const Options& options) {
            writeValue(*c, value, options);
        });
    if ((characteristic.properties & kNotifyOrIndicate) != 0) {
        object->registerProperty("Notifying").onInterface(kCharacteristicInterface).withGetter([c] {
            return c->notifying;
        });
        object->registerMethod("StartNotify").onInterface(kCharacteristicInterface).implementedAs([this, c] {
            setNotifying(*c, true);
        });
        object->registerMethod("StopNotify").onInterface(kCharacteristicInterface).implementedAs([this, c] {
            setNotifying(*c, false);
        });
    }
    object->finishRegistration();
    characteristic.object = std::move(object);
}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

std::vector<std::uint8_t> GattApplication::readValue(Characteristic& characteristic, const Options& options) {
    if ((characteristic.properties & emulator::kGattRead) == 0) refuse("NotPermitted", "Read not permitted");
    const auto value = handlers_.read(characteristic.uuid);
    if (!value) refuse("NotPermitted", "Read not permitted");
    characteristic.value = value->toVector();
    const auto offset = offsetOf(options);
    if (offset > characteristic.value.size()) refuse("InvalidOffset", "Invalid offset");
    return {characteristic.value.begin() + offset, characteristic.value.end()};
}

void GattApplication::writeValue(Characteristic& characteristic, const std::vector<std::uint8_t>& value,
                                 const Options& options) {
    constexpr std::uint32_t kWritable = emulator::kGattWrite | emulator::kGattWriteWithoutResponse;
    if ((characteristic.properties & kWritable) == 0) refuse("NotPermitted", "Write not permitted");
    // The scale's frames are one or two bytes: a long write in parts is not for it.
    if (offsetOf(options) != 0) refuse("InvalidOffset", "Invalid offset");
    if (!handlers_.write(characteristic.uuid, value)) refuse("Failed", "Write refused");
}

void GattApplication::setNotifying(Characteristic& characteristic, bool on) {
    if (characteristic.notifying == on) return;
    characteristic.notifying = on;
    characteristic.object->emitPropertiesChangedSignal(kCharacteristicInterface, {"Notifying"});
    handlers_.subscription(characteristic.uuid, on);
}

GattApplication::Characteristic* GattApplication::find(const bt::Uuid& uuid) {
    for (auto& characteristic : characteristics_) {
        if (characteristic->uuid == uuid) return characteristic.get();
    }
    return nullptr;
}

bool GattApplication::isNotifying(const bt::Uuid& characteristic) const {
    for (const auto& c : characteristics_) {
        if (c->uuid == characteristic) return c->notifying;
    }
    return false;
}

void GattApplication::notify(const bt::Uuid& characteristic, const bt::Bytes& value) {
    auto* c = find(characteristic);
    if (c == nullptr || !c->notifying) return;
    c->value = value.toVector();
    c->object->emitPropertiesChangedSignal(kCharacteristicInterface, {"Value"});
}

}  // namespace plenk::emulator_tool
