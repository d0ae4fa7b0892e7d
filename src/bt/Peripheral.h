#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/Error.h>
#include <PlenkKit/Peripheral.h>

#include "bt/Bytes.h"
#include "bt/CharacteristicProperty.h"
#include "bt/Uuid.h"

namespace plenk::bt {

class Peripheral;
class Service;
class Characteristic;
using PeripheralPtr = std::shared_ptr<Peripheral>;
using ServicePtr = std::shared_ptr<Service>;
using CharacteristicPtr = std::shared_ptr<Characteristic>;

using PeripheralState = plenk::PeripheralState;

enum class WriteType : int { WithResponse = 0, WithoutResponse = 1 };

// A GATT characteristic as the backend last saw it. Identity (the object) is
// stable for one discovery: events pass the very objects discovery returned
// (the device compares them by identity); a new discovery may hand out new
// objects. All accessors are thread-safe.
class Characteristic {
public:
    virtual ~Characteristic();
    virtual Uuid uuid() const = 0;
    // The last value read or notified (empty before any). Inside a value-update
    // event it is the value that event reports: the backend stores it on the
    // queue just before the call, so two fast notifications are two readings.
    // Nothing above reads it outside the event that reports it.
    virtual Bytes value() const = 0;
    virtual std::uint32_t properties() const = 0;
    virtual bool isNotifying() const = 0;
    virtual std::shared_ptr<Service> service() const = 0;
};

class Service {
public:
    virtual ~Service();
    virtual Uuid uuid() const = 0;
    virtual bool isPrimary() const = 0;
    // Characteristics discovered so far, in the order the peripheral lists them.
    virtual std::vector<CharacteristicPtr> characteristics() const = 0;
    virtual std::shared_ptr<Peripheral> peripheral() const = 0;
};

// Events of one peripheral. All arrive on the central's serial queue
// ("Corebluetooth"), one at a time, in the order of the operations that caused
// them (the device's completion slots depend on it; a backend that allows one
// pending write per characteristic queues the rest itself). A read is answered
// by exactly one value-update event. Every method has an empty default:
// implementing one is responding to it. The whole contract a backend honours
// is written down in docs/port-contract.md.
class PeripheralDelegate {
public:
    virtual ~PeripheralDelegate();
    virtual void peripheralDidUpdateName(Peripheral& peripheral);
    virtual void peripheralDidModifyServices(Peripheral& peripheral,
                                             const std::vector<ServicePtr>& invalidatedServices);
    virtual void peripheralDidUpdateRSSIError(Peripheral& peripheral, const ErrorPtr& error);
    virtual void peripheralDidReadRSSIError(Peripheral& peripheral, int rssi, const ErrorPtr& error);
    virtual void peripheralDidDiscoverServices(Peripheral& peripheral, const ErrorPtr& error);
    virtual void peripheralDidDiscoverCharacteristicsForServiceError(Peripheral& peripheral,
                                                                     const ServicePtr& service,
                                                                     const ErrorPtr& error);
    virtual void peripheralDidUpdateValueForCharacteristicError(Peripheral& peripheral,
                                                                const CharacteristicPtr& characteristic,
                                                                const ErrorPtr& error);
    virtual void peripheralDidWriteValueForCharacteristicError(Peripheral& peripheral,
                                                               const CharacteristicPtr& characteristic,
                                                               const ErrorPtr& error);
    virtual void peripheralDidUpdateNotificationStateForCharacteristicError(
        Peripheral& peripheral, const CharacteristicPtr& characteristic, const ErrorPtr& error);
};

// A remote peripheral: the public read-only handle (name, identifier, state,
// signal strength) plus its GATT operations. Operations may be called from any
// thread; they never call the delegate inline: every result arrives later on
// the central's queue. Operations on a peripheral that is not connected are
// dropped, as the platform does (with a diagnostic from the backend). A
// backend records the signal strength of every advertisement it reports and
// of every RSSI read on the handle before it delivers the event.
class Peripheral : public plenk::Peripheral, public std::enable_shared_from_this<Peripheral> {
public:
    ~Peripheral() override;

    // Services discovered so far (empty before the first discovery).
    virtual std::vector<ServicePtr> services() const = 0;

    // Non-owning, as the platform's delegate property.
    virtual void setDelegate(std::weak_ptr<PeripheralDelegate> delegate) = 0;
    virtual std::shared_ptr<PeripheralDelegate> delegate() const = 0;

    // nullopt discovers every service / characteristic.
    virtual void discoverServices(const std::optional<std::vector<Uuid>>& serviceUUIDs) = 0;
    virtual void discoverCharacteristics(const std::optional<std::vector<Uuid>>& characteristicUUIDs,
                                         const ServicePtr& service) = 0;
    virtual void readValueForCharacteristic(const CharacteristicPtr& characteristic) = 0;
    virtual void writeValue(const Bytes& data, const CharacteristicPtr& characteristic, WriteType type) = 0;
    virtual void setNotifyValue(bool enabled, const CharacteristicPtr& characteristic) = 0;
    virtual void readRSSI() = 0;
};

// The port's peripheral behind a public handle; null for a handle this library
// did not hand out.
inline PeripheralPtr portPeripheral(const std::shared_ptr<plenk::Peripheral>& handle) {
    return std::dynamic_pointer_cast<Peripheral>(handle);
}

}  // namespace plenk::bt
