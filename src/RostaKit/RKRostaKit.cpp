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

namespace {
// The context as the kit keeps it: the host's main queue is held weakly (see
// dispatch::HostQueue), so the stored copy drops it.
Context withoutMainQueue(Context context) {
    context.mainQueue = nullptr;
    return context;
}

thread_local const RKRostaDelegate* deliveringTo = nullptr;  // NOLINT: per-thread marker
}  // namespace

RKRostaKitCore::RKRostaKitCore(Token, const Context& resolvedContext)
    : context_(withoutMainQueue(resolvedContext)), mainQueue_(resolvedContext.mainQueue) {}

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
    if (!connecter_) return;
    connecter_->setDelegate({});
    // The last owner may let go inside an event of the Bluetooth queue (a
    // picker-mode failure completion, say). The connecter and its central may
    // die there; what the host gave the kit (the picker and its view, the
    // host's closures, the device holding exchange completions) is released on
    // the main queue instead, where the host's toolkit expects it.
    const auto central = connecter_->cbManager();
    if (!central || !central->isOnQueue()) return;
    mainQueue_.post([picker = std::move(scanViewController_), device = std::move(currentDevice_),
                     picked = std::move(pickerCompletion_), battery = std::move(batteryCompletion_),
                     wait = std::move(waitBlock_), progress = std::move(progressBlock_),
                     done = std::move(completionBlock_), discovered = std::move(discoeredBlock_),
                     connected = std::move(connectedBlock_)] {});
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

void RKRostaKitCore::later(Task call) const {
    assert(outbox_ != nullptr && "later() outside a Scope");
    outbox_->push_back(std::move(call));
}

void RKRostaKitCore::postLater(Task task) const {
    // The task's place is fixed now, under the lock; the host's executor is
    // only called once the lock is released.
    if (mainQueue_.enqueue(task)) {
        later([queue = mainQueue_] { queue.pump(); });
    } else {
        later([dropped = std::move(task)] {});  // the host's loop is gone
    }
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

RKRostaKitCore::Delivery::Delivery(const RKRostaDelegate* delegate) : previous_(deliveringTo) {
    deliveringTo = delegate;
}

RKRostaKitCore::Delivery::~Delivery() {
    deliveringTo = previous_;
}

bool RKRostaKitCore::isDeliveringTo(const RKRostaDelegate* delegate) {
    return delegate != nullptr && deliveringTo == delegate;
}

void RKRostaKitCore::sendConnected() {
    postLater(
        toDelegate(weak_from_this(), [](RKRostaDelegate& d, RKRostaKit& kit) { d.rostaDidConnected(kit); }));
}

void RKRostaKitCore::sendDisconnected() {
    postLater(toDelegate(weak_from_this(),
                         [](RKRostaDelegate& d, RKRostaKit& kit) { d.rostaDidDisconnected(kit); }));
}

void RKRostaKitCore::sendError(ErrorPtr error) {
    postLater(toDelegate(weak_from_this(), [error = std::move(error)](RKRostaDelegate& d, RKRostaKit& kit) {
        d.rostaDidErrorOccur(kit, error);
    }));
}

// --- Properties ------------------------------------------------------------------------------

bool RKRostaKitCore::isAutoConnectEnabled() const {
    return locked(isAutoConnectEnabled_);
}

bool RKRostaKitCore::isContinuousConnectionEnabled() const {
    return locked(isContinuousConnectionEnabled_);
}

void RKRostaKitCore::setIsContinuousConnectionEnabled(bool enabled) {
    replace(isContinuousConnectionEnabled_, enabled);
}

bool RKRostaKitCore::isConnected() const {
    return locked(isConnected_);
}

std::uint64_t RKRostaKitCore::leState() const {
    return locked(leState_);
}

std::shared_ptr<RKRostaDelegate> RKRostaKitCore::delegate() const {
    return locked(delegate_).lock();
}

void RKRostaKitCore::setDelegate(std::weak_ptr<RKRostaDelegate> delegate) {
    replace(delegate_, std::move(delegate));
}

std::shared_ptr<RKRostaDataSource> RKRostaKitCore::dataSource() const {
    return locked(dataSource_).lock();
}

void RKRostaKitCore::setDataSource(std::weak_ptr<RKRostaDataSource> dataSource) {
    replace(dataSource_, std::move(dataSource));
}

std::shared_ptr<BLEConnecter> RKRostaKitCore::connecter() const {
    return locked(connecter_);
}

std::vector<RKRostaKit::PeripheralPtr> RKRostaKitCore::discoveredResults() const {
    return locked(discoveredResults_);
}

std::shared_ptr<CSRSelectDeviceViewController> RKRostaKitCore::scanViewController() const {
    return locked(scanViewController_);
}

std::shared_ptr<RKDevice> RKRostaKitCore::currentDevice() const {
    return locked(currentDevice_);
}

RKRostaKit::PeripheralPtr RKRostaKitCore::connectingPeripheral() const {
    return locked(connectingPeripheral_);
}

RKRostaKit::PickerCompletion RKRostaKitCore::pickerCompletion() const {
    return locked(pickerCompletion_);
}

void RKRostaKitCore::setPickerCompletion(PickerCompletion completion) {
    replace(pickerCompletion_, std::move(completion));
}

RKRostaKit::BatteryCompletion RKRostaKitCore::batteryCompletion() const {
    return locked(batteryCompletion_);
}

void RKRostaKitCore::setBatteryCompletion(BatteryCompletion completion) {
    replace(batteryCompletion_, std::move(completion));
}

std::function<void()> RKRostaKitCore::discoeredBlock() const {
    return locked(discoeredBlock_);
}

void RKRostaKitCore::setDiscoeredBlock(std::function<void()> block) {
    replace(discoeredBlock_, std::move(block));
}

RKRostaKit::ConnectedBlock RKRostaKitCore::connectedBlock() const {
    return locked(connectedBlock_);
}

void RKRostaKitCore::setConnectedBlock(ConnectedBlock block) {
    replace(connectedBlock_, std::move(block));
}

RKRostaKit::PeripheralPtr RKRostaKitCore::dfuPeripheral() const {
    return locked(dfuPeripheral_);
}

std::function<void()> RKRostaKitCore::waitBlock() const {
    return locked(waitBlock_);
}

void RKRostaKitCore::setWaitBlock(std::function<void()> block) {
    replace(waitBlock_, std::move(block));
}

std::function<void(std::int32_t)> RKRostaKitCore::progressBlock() const {
    return locked(progressBlock_);
}

void RKRostaKitCore::setProgressBlock(std::function<void(std::int32_t)> block) {
    replace(progressBlock_, std::move(block));
}

RKRostaKit::ResultCompletion RKRostaKitCore::completionBlock() const {
    return locked(completionBlock_);
}

void RKRostaKitCore::setCompletionBlock(ResultCompletion block) {
    replace(completionBlock_, std::move(block));
}

}  // namespace plenk
