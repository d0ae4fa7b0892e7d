// The kit's creation, destruction, properties and the plumbing shared by its
// other parts: the lock scope, the calls made once it is released, and the
// delegate calls posted to the main queue.

#include <PlenkKit/RKRostaKit.h>

#include <cassert>
#include <utility>

#include "RostaKit/RKRostaKitCore.h"
#include "wire/GattUuids.h"

extern "C" {
std::int32_t dfu = 0;
}

namespace plenk {

// --- Protocol defaults: an empty body is "does not respond" ---------------------------

RKRostaDelegate::~RKRostaDelegate() = default;
void RKRostaDelegate::rostaDidConnected(RKRostaKit&) {}
void RKRostaDelegate::rostaDidDisconnected(RKRostaKit&) {}
void RKRostaDelegate::rostaDidErrorOccur(RKRostaKit&, const ErrorPtr&) {}
void RKRostaDelegate::rostaWeightDidUpdate(float) {}
void RKRostaDelegate::rostaDeviceDidClickButton(std::uint64_t) {}
void RKRostaDelegate::firmwareUpdateDidStart() {}
void RKRostaDelegate::firmwareUpdateProgress(std::int32_t) {}
void RKRostaDelegate::firmwareUpdateDidComplete() {}

RKRostaDataSource::~RKRostaDataSource() = default;
std::optional<std::string> RKRostaDataSource::titleForSelectAccessoryModalViewController() {
    return std::nullopt;
}
std::optional<std::string> RKRostaDataSource::deviceStringForSelectAccessoryModalViewController() {
    return std::nullopt;
}
std::optional<Color> RKRostaDataSource::backgroundColorForSelectAccessoryModalViewController() {
    return std::nullopt;
}
std::optional<Color> RKRostaDataSource::navigationBarColorForSelectAccessoryModalViewController() {
    return std::nullopt;
}

PickerPresenter::~PickerPresenter() = default;
void PickerPresenter::beginIgnoringInteractionEvents() {}
void PickerPresenter::endIgnoringInteractionEvents() {}

RKRostaKit::~RKRostaKit() = default;

std::shared_ptr<RKRostaKit> RKRostaKit::create(const Context& context) {
    return RKRostaKitCore::make(context);
}

// --- Creation and destruction ----------------------------------------------------------

const bt::Uuid& RKRostaKitCore::scaleServiceUuid() {
    return wire::kScaleService;
}

RKRostaKitCore::RKRostaKitCore(Token, const Context& resolvedContext)
    : context_(resolvedContext), mainQueue_(resolvedContext.mainQueue) {}

std::shared_ptr<RKRostaKitCore> RKRostaKitCore::make(const Context& context) {
    auto kit = std::make_shared<RKRostaKitCore>(Token{}, context.resolved());
    kit->start();
    return kit;
}

void RKRostaKitCore::start() {
    const std::weak_ptr<RKRostaKitCore> weak = weak_from_this();
    {
        // The radio state may be reported before the connecter is stored: the
        // handler then waits for this scope.
        Scope scope(*this);
        connecter_ = BLEConnecterCore::create(std::weak_ptr<BLEConnecterDelegate>(weak), context_);
    }
    didBecomeActiveToken_ = context_.notifications->addObserver(UIApplicationDidBecomeActiveNotification,
                                                                [weak](const Notification& n) {
                                                                    if (auto kit = weak.lock())
                                                                        kit->didActive(n);
                                                                });
    didEnterBackgroundToken_ = context_.notifications->addObserver(
        UIApplicationDidEnterBackgroundNotification, [weak](const Notification& n) {
            if (auto kit = weak.lock()) kit->didEnterInBackground(n);
        });
}

RKRostaKitCore::~RKRostaKitCore() {
    context_.notifications->removeObserver(didBecomeActiveToken_);
    context_.notifications->removeObserver(didEnterBackgroundToken_);
    if (currentDevice_) currentDevice_->setDelegate({});
    if (connecter_) {
        connecter_->setDelegate({});
        // The last owner may be an event of the connecter's own queue; the
        // central is then released from the main queue rather than from inside
        // its own event.
        auto central = connecter_->cbManager();
        if (central && central->isOnQueue()) mainQueue_->post([connecter = std::move(connecter_)] {});
    }
}

// --- Lock scope and deferred calls -------------------------------------------------------

RKRostaKitCore::Scope::Scope(const RKRostaKitCore& kit) : kit_(kit), lock_(kit.mutex_) {
    if (kit_.depth_++ == 0) kit_.outbox_ = &own_;
}

RKRostaKitCore::Scope::~Scope() {
    const bool outermost = --kit_.depth_ == 0;
    if (outermost) kit_.outbox_ = nullptr;
    lock_.unlock();
    if (!outermost) return;
    for (auto& call : own_) call();
}

void RKRostaKitCore::later(Call call) const {
    assert(outbox_ != nullptr && "later() outside a Scope");
    outbox_->push_back(std::move(call));
}

void RKRostaKitCore::postNotification(std::string_view name, std::optional<std::string> object) const {
    later([center = context_.notifications, name = std::string(name), object = std::move(object)] {
        center->post(name, object);
    });
}

void RKRostaKitCore::writeLog(std::string text) const {
    later([log = context_.log, text = std::move(text)] { log->write(text); });
}

// --- Delegate calls on the main queue ------------------------------------------------------

void RKRostaKitCore::sendConnected() {
    mainQueue_->post([weak = weak_from_this()] {
        auto kit = weak.lock();
        if (!kit) return;
        if (auto d = kit->delegate()) d->rostaDidConnected(*kit);
    });
}

void RKRostaKitCore::sendDisconnected() {
    mainQueue_->post([weak = weak_from_this()] {
        auto kit = weak.lock();
        if (!kit) return;
        if (auto d = kit->delegate()) d->rostaDidDisconnected(*kit);
    });
}

void RKRostaKitCore::sendError(ErrorPtr error) {
    mainQueue_->post([weak = weak_from_this(), error = std::move(error)] {
        auto kit = weak.lock();
        if (!kit) return;
        if (auto d = kit->delegate()) d->rostaDidErrorOccur(*kit, error);
    });
}

// --- Properties ------------------------------------------------------------------------------

bool RKRostaKitCore::isAutoConnectEnabled() const {
    std::lock_guard lock(mutex_);
    return isAutoConnectEnabled_;
}

bool RKRostaKitCore::isContinuousConnectionEnabled() const {
    std::lock_guard lock(mutex_);
    return isContinuousConnectionEnabled_;
}

void RKRostaKitCore::setIsContinuousConnectionEnabled(bool enabled) {
    std::lock_guard lock(mutex_);
    isContinuousConnectionEnabled_ = enabled;
}

bool RKRostaKitCore::isConnected() const {
    std::lock_guard lock(mutex_);
    return isConnected_;
}

std::uint64_t RKRostaKitCore::leState() const {
    std::lock_guard lock(mutex_);
    return leState_;
}

std::shared_ptr<RKRostaDelegate> RKRostaKitCore::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void RKRostaKitCore::setDelegate(std::weak_ptr<RKRostaDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<RKRostaDataSource> RKRostaKitCore::dataSource() const {
    std::lock_guard lock(mutex_);
    return dataSource_.lock();
}

void RKRostaKitCore::setDataSource(std::weak_ptr<RKRostaDataSource> dataSource) {
    std::lock_guard lock(mutex_);
    dataSource_ = std::move(dataSource);
}

std::shared_ptr<BLEConnecter> RKRostaKitCore::connecter() const {
    std::lock_guard lock(mutex_);
    return connecter_;
}

std::vector<RKRostaKit::PeripheralPtr> RKRostaKitCore::discoveredResults() const {
    std::lock_guard lock(mutex_);
    return discoveredResults_;
}

std::shared_ptr<CSRSelectDeviceViewController> RKRostaKitCore::scanViewController() const {
    std::lock_guard lock(mutex_);
    return scanViewController_;
}

std::shared_ptr<RKDevice> RKRostaKitCore::currentDevice() const {
    std::lock_guard lock(mutex_);
    return currentDevice_;
}

RKRostaKit::PeripheralPtr RKRostaKitCore::connectingPeripheral() const {
    std::lock_guard lock(mutex_);
    return connectingPeripheral_;
}

RKRostaKit::PickerCompletion RKRostaKitCore::pickerCompletion() const {
    std::lock_guard lock(mutex_);
    return pickerCompletion_;
}

void RKRostaKitCore::setPickerCompletion(PickerCompletion completion) {
    Scope scope(*this);
    std::swap(pickerCompletion_, completion);
    later([old = std::move(completion)] {});  // the old block is released unlocked
}

RKRostaKit::BatteryCompletion RKRostaKitCore::batteryCompletion() const {
    std::lock_guard lock(mutex_);
    return batteryCompletion_;
}

void RKRostaKitCore::setBatteryCompletion(BatteryCompletion completion) {
    Scope scope(*this);
    std::swap(batteryCompletion_, completion);
    later([old = std::move(completion)] {});
}

std::function<void()> RKRostaKitCore::discoeredBlock() const {
    std::lock_guard lock(mutex_);
    return discoeredBlock_;
}

void RKRostaKitCore::setDiscoeredBlock(std::function<void()> block) {
    Scope scope(*this);
    std::swap(discoeredBlock_, block);
    later([old = std::move(block)] {});
}

RKRostaKit::ConnectedBlock RKRostaKitCore::connectedBlock() const {
    std::lock_guard lock(mutex_);
    return connectedBlock_;
}

void RKRostaKitCore::setConnectedBlock(ConnectedBlock block) {
    Scope scope(*this);
    std::swap(connectedBlock_, block);
    later([old = std::move(block)] {});
}

RKRostaKit::PeripheralPtr RKRostaKitCore::dfuPeripheral() const {
    std::lock_guard lock(mutex_);
    return dfuPeripheral_;
}

std::function<void()> RKRostaKitCore::waitBlock() const {
    std::lock_guard lock(mutex_);
    return waitBlock_;
}

void RKRostaKitCore::setWaitBlock(std::function<void()> block) {
    Scope scope(*this);
    std::swap(waitBlock_, block);
    later([old = std::move(block)] {});
}

std::function<void(std::int32_t)> RKRostaKitCore::progressBlock() const {
    std::lock_guard lock(mutex_);
    return progressBlock_;
}

void RKRostaKitCore::setProgressBlock(std::function<void(std::int32_t)> block) {
    Scope scope(*this);
    std::swap(progressBlock_, block);
    later([old = std::move(block)] {});
}

RKRostaKit::ResultCompletion RKRostaKitCore::completionBlock() const {
    std::lock_guard lock(mutex_);
    return completionBlock_;
}

void RKRostaKitCore::setCompletionBlock(ResultCompletion block) {
    Scope scope(*this);
    std::swap(completionBlock_, block);
    later([old = std::move(block)] {});
}

}  // namespace plenk
