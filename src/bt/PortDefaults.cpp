// Out-of-line destructors and the empty default bodies of the port's delegate
// protocols: a delegate that does not override a method does not respond to it.
#include "bt/Central.h"
#include "bt/Peripheral.h"

namespace plenk {
Peripheral::~Peripheral() = default;
}  // namespace plenk

namespace plenk::bt {

Characteristic::~Characteristic() = default;
Service::~Service() = default;
Peripheral::~Peripheral() = default;
Central::~Central() = default;
PeripheralDelegate::~PeripheralDelegate() = default;
CentralDelegate::~CentralDelegate() = default;

void PeripheralDelegate::peripheralDidUpdateName(Peripheral&) {}
void PeripheralDelegate::peripheralDidModifyServices(Peripheral&, const std::vector<ServicePtr>&) {}
void PeripheralDelegate::peripheralDidUpdateRSSIError(Peripheral&, const ErrorPtr&) {}
void PeripheralDelegate::peripheralDidReadRSSIError(Peripheral&, int, const ErrorPtr&) {}
void PeripheralDelegate::peripheralDidDiscoverServices(Peripheral&, const ErrorPtr&) {}
void PeripheralDelegate::peripheralDidDiscoverCharacteristicsForServiceError(Peripheral&, const ServicePtr&,
                                                                             const ErrorPtr&) {}
void PeripheralDelegate::peripheralDidUpdateValueForCharacteristicError(Peripheral&, const CharacteristicPtr&,
                                                                        const ErrorPtr&) {}
void PeripheralDelegate::peripheralDidWriteValueForCharacteristicError(Peripheral&, const CharacteristicPtr&,
                                                                       const ErrorPtr&) {}
void PeripheralDelegate::peripheralDidUpdateNotificationStateForCharacteristicError(Peripheral&,
                                                                                    const CharacteristicPtr&,
                                                                                    const ErrorPtr&) {}

void CentralDelegate::centralManagerDidUpdateState(Central&) {}
void CentralDelegate::centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(Central&, const PeripheralPtr&,
                                                                               const AdvertisementData&,
                                                                               int) {}
void CentralDelegate::centralManagerDidConnectPeripheral(Central&, const PeripheralPtr&) {}
void CentralDelegate::centralManagerDidDisconnectPeripheralError(Central&, const PeripheralPtr&,
                                                                 const ErrorPtr&) {}
void CentralDelegate::centralManagerDidFailToConnectPeripheralError(Central&, const PeripheralPtr&,
                                                                    const ErrorPtr&) {}
void CentralDelegate::centralManagerDidRetrievePeripherals(Central&, const std::vector<PeripheralPtr>&) {}
void CentralDelegate::centralManagerDidRetrieveConnectedPeripherals(Central&,
                                                                    const std::vector<PeripheralPtr>&) {}

}  // namespace plenk::bt
