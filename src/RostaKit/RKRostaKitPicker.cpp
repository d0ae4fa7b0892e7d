// The device picker bridge: opening the picker, feeding it rows, texts and
// colours, and turning the user's choice or cancel into a connection or an
// error for the picker completion.

#include <utility>

#include "RostaKit/RKRostaKitCore.h"

namespace plenk {

namespace {

// The opening error for a radio that is not powered on; none before the first
// state report.
ErrorPtr radioStateError(std::uint64_t leState) {
    switch (leState) {
        case RKRostaKit::kLEStateUnknown:
            return Error::make<RKErrorLENotAvailableCUnknown>(RKErrorDomain, kRKErrorCodeNotAvailable);
        case RKRostaKit::kLEStatePoweredOff:
            return Error::make<RKErrorLENotAvailableCOff>(RKErrorDomain, kRKErrorCodeNotAvailable);
        case RKRostaKit::kLEStateNotSupported:
            return Error::make<RKErrorLENotAvailableCNotSupport>(RKErrorDomain, kRKErrorCodeNotAvailable);
        case RKRostaKit::kLEStateUnauthorized:
            return Error::make<RKErrorLENotAvailableCUnauthorized>(RKErrorDomain, kRKErrorCodeNotAvailable);
        default:
            return nullptr;
    }
}

}  // namespace

void RKRostaKitCore::showDevicePickerOnViewContoller(const std::shared_ptr<PickerPresenter>& viewController,
                                                     PickerCompletion completion) {
    Scope scope(*this);
    // With auto-connect on there is nothing to pick; the completion is dropped.
    if (isAutoConnectEnabled_) return;

    if (leState_ != kLEStatePoweredOn) {
        auto error = radioStateError(leState_);
        if (error && completion) later([completion = std::move(completion), error] { completion(error); });
        return;
    }
    if (currentDevice_) {
        if (completion) {
            later([completion = std::move(completion)] {
                completion(Error::make<RKErrorLEDeviceAllreadyConnectedC>(RKErrorDomain,
                                                                          kRKErrorCodeAlreadyConnected));
            });
        }
        return;
    }

    scanDeivces();
    auto picker = CSRSelectDeviceViewController::create();
    picker->setDataSource(std::weak_ptr<CSRSelectDeviceViewControllerDataSource>(weak_from_this()));
    picker->setDelegate(std::weak_ptr<CSRSelectDeviceViewControllerDelegate>(weak_from_this()));
    later([replaced = std::move(scanViewController_)] {});
    scanViewController_ = picker;
    if (viewController) {
        // Input is ignored while the picker slides in.
        later([presenter = viewController, picker] {
            presenter->beginIgnoringInteractionEvents();
            presenter->presentViewController(picker, true,
                                             [weak = std::weak_ptr<PickerPresenter>(presenter)] {
                                                 if (auto p = weak.lock()) p->endIgnoringInteractionEvents();
                                             });
        });
    }
    std::swap(pickerCompletion_, completion);
    later([replaced = std::move(completion)] {});
}

// --- Picker data source ------------------------------------------------------------------------

std::int64_t RKRostaKitCore::viewControllerNumberOfRowsInSection(CSRSelectDeviceViewController&,
                                                                 std::int64_t) {
    std::lock_guard lock(mutex_);
    return static_cast<std::int64_t>(discoveredResults_.size());
}

std::string RKRostaKitCore::viewControllerTitleForRowAtIndexPath(CSRSelectDeviceViewController&,
                                                                 const IndexPath& indexPath) {
    PeripheralPtr peripheral;
    {
        std::lock_guard lock(mutex_);
        if (indexPath.row < 0 || indexPath.row >= static_cast<std::int64_t>(discoveredResults_.size()))
            return {};
        peripheral = discoveredResults_[static_cast<std::size_t>(indexPath.row)];
    }
    return peripheral->name().value_or(std::string());
}

std::optional<std::string> RKRostaKitCore::titleForViewController(CSRSelectDeviceViewController&) {
    auto source = dataSource();
    return source ? source->titleForSelectAccessoryModalViewController() : std::nullopt;
}

std::optional<std::string> RKRostaKitCore::deviceStringForViewController(CSRSelectDeviceViewController&) {
    auto source = dataSource();
    return source ? source->deviceStringForSelectAccessoryModalViewController() : std::nullopt;
}

std::optional<Color> RKRostaKitCore::backgroundColorViewController(CSRSelectDeviceViewController&) {
    auto source = dataSource();
    return source ? source->backgroundColorForSelectAccessoryModalViewController() : std::nullopt;
}

std::optional<Color> RKRostaKitCore::navigationBarColorViewController(CSRSelectDeviceViewController&) {
    auto source = dataSource();
    return source ? source->navigationBarColorForSelectAccessoryModalViewController() : std::nullopt;
}

// --- Picker delegate -----------------------------------------------------------------------------

void RKRostaKitCore::viewControllerDidSelectRowAtIndexPath(CSRSelectDeviceViewController&,
                                                           const IndexPath& indexPath) {
    Scope scope(*this);
    if (indexPath.row < 0 || indexPath.row >= static_cast<std::int64_t>(discoveredResults_.size())) return;
    // The picker stays open until the scale is connected (or the user cancels).
    connectLocked(discoveredResults_[static_cast<std::size_t>(indexPath.row)]);
}

void RKRostaKitCore::viewControllerDidDismiss(CSRSelectDeviceViewController&) {
    Scope scope(*this);
    stopScanLocked();
    // The closed picker stays in scanViewController, so discovery keeps
    // collecting rows instead of connecting by itself.
    postLater([weak = weak_from_this()] {
        auto kit = weak.lock();
        if (!kit) return;
        if (auto completion = kit->pickerCompletion()) {
            completion(Error::make<RKErrorLECancelC>(RKErrorDomain, kRKErrorCodeCancel));
        }
    });
}

}  // namespace plenk
