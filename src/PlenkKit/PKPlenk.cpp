#include <PlenkKit/PKPlenk.h>

#include <mutex>
#include <utility>

#include "RostaKit/RKRostaKitCore.h"
#include "dispatch/Guarded.h"

namespace plenk {

PKPlenkDelegate::~PKPlenkDelegate() = default;
void PKPlenkDelegate::plenkDidConnected(PKPlenk&) {}
void PKPlenkDelegate::plenkDidDisconnected(PKPlenk&) {}
void PKPlenkDelegate::plenkDidErrorOccur(PKPlenk&, const ErrorPtr&) {}
void PKPlenkDelegate::plenkWeightDidUpdate(float) {}
void PKPlenkDelegate::plenkDeviceDidClickButton(std::uint64_t) {}

PKPlenkDataSource::~PKPlenkDataSource() = default;
std::optional<std::string> PKPlenkDataSource::titleForSelectAccessoryModalViewController() {
    return std::nullopt;
}
std::optional<std::string> PKPlenkDataSource::deviceStringForSelectAccessoryModalViewController() {
    return std::nullopt;
}
std::optional<Color> PKPlenkDataSource::backgroundColorForSelectAccessoryModalViewController() {
    return std::nullopt;
}
std::optional<Color> PKPlenkDataSource::navigationBarColorForSelectAccessoryModalViewController() {
    return std::nullopt;
}

// --- Creation and destruction -------------------------------------------------------------------

struct PKPlenk::State {
    explicit State(const std::shared_ptr<Executor>& queue) : mainQueue(queue) {}

    // The host's main queue, held weakly: queued work holds the facade, so a
    // strong hold here would keep a dropped loop and the facade alive together.
    const std::weak_ptr<Executor> mainQueue;
    mutable std::mutex mutex;
    bool isAutoConnectEnabled = false;
    std::weak_ptr<PKPlenkDataSource> dataSource;
    std::weak_ptr<PKPlenkDelegate> delegate;
    std::shared_ptr<RKRostaKit> rosta;
};

PKPlenk::PKPlenk(Token, const Context& context) : state_(std::make_unique<State>(context.mainQueue)) {}

struct PKPlenk::Bridge {
    // Runs `call` with the facade and the host's delegate read at that moment.
    // Inside the kit's own main-queue delivery to this facade the call is made
    // in that task (the kit's task keeps the facade alive); from anywhere else
    // it is queued on the main queue, keeping the facade alive until it has run.
    template <typename F>
    static void toHost(PKPlenk& plenk, F call) {
        if (RKRostaKitCore::isDeliveringTo(&plenk)) {
            if (auto d = plenk.delegate()) call(*d, plenk);
            return;
        }
        auto self = plenk.weak_from_this().lock();
        auto queue = plenk.state_->mainQueue.lock();
        if (!self || !queue) return;
        auto task = [self = std::move(self), call = std::move(call)] {
            if (auto d = self->delegate()) call(*d, *self);
        };
        static_assert(sizeof(task) <= Task::kInlineSize, "the weight path must not allocate");
        queue->post(std::move(task));
    }
};

std::shared_ptr<PKPlenk> PKPlenk::create(const Context& context) {
    const Context resolved = context.resolved();
    auto plenk = std::make_shared<PKPlenk>(Token{}, resolved);
    auto kit = RKRostaKit::create(resolved);
    plenk->state_->rosta = kit;
    // Held weakly by the kit: it never keeps its facade alive.
    kit->setDelegate(std::weak_ptr<RKRostaDelegate>(plenk));
    kit->setDataSource(std::weak_ptr<RKRostaDataSource>(plenk));
    // The facade's own auto-connect flag stays NO: it is not forwarded here.
    return plenk;
}

PKPlenk::~PKPlenk() {
    // The data source is left pointing here; it expires with this object.
    if (state_->rosta) state_->rosta->setDelegate({});
}

// --- Host operations ------------------------------------------------------------------------------

bool PKPlenk::isAutoConnectEnabled() const {
    return dispatch::loadLocked(state_->mutex, state_->isAutoConnectEnabled);
}

void PKPlenk::setIsAutoConnectEnabled(bool enabled) {
    {
        std::lock_guard lock(state_->mutex);
        state_->isAutoConnectEnabled = enabled;
    }
    if (auto kit = rosta()) kit->setIsAutoConnectEnabled(enabled);
}

bool PKPlenk::isConnected() const {
    auto kit = rosta();
    return kit && kit->isConnected();
}

void PKPlenk::showDevicePickerOnViewContoller(const std::shared_ptr<PickerPresenter>& viewController,
                                              RKRostaKit::PickerCompletion completion) {
    if (auto kit = rosta()) kit->showDevicePickerOnViewContoller(viewController, std::move(completion));
}

void PKPlenk::readPlenkBatteryLifeWithCompletion(RKRostaKit::BatteryCompletion completion) {
    if (auto kit = rosta()) kit->readRostaBatteryLifeWithCompletion(std::move(completion));
}

void PKPlenk::disconnect() {
    if (auto kit = rosta()) {
        kit->setIsContinuousConnectionEnabled(false);
        kit->disconnect();
    }
}

void PKPlenk::fakeInterrupt() {
    if (auto kit = rosta()) {
        kit->setIsContinuousConnectionEnabled(true);
        kit->disconnect();
    }
}

void PKPlenk::tare() {
    if (auto kit = rosta()) kit->tare();
}

void PKPlenk::setLEDDisplayOn(bool on) {
    if (auto kit = rosta()) kit->setLEDDisplayOn(on);
}

std::shared_ptr<PKPlenkDelegate> PKPlenk::delegate() const {
    return dispatch::loadLocked(state_->mutex, state_->delegate).lock();
}

void PKPlenk::setDelegate(std::weak_ptr<PKPlenkDelegate> delegate) {
    dispatch::storeLocked(state_->mutex, state_->delegate, std::move(delegate));
}

std::shared_ptr<PKPlenkDataSource> PKPlenk::dataSource() const {
    return dispatch::loadLocked(state_->mutex, state_->dataSource).lock();
}

void PKPlenk::setDataSource(std::weak_ptr<PKPlenkDataSource> dataSource) {
    dispatch::storeLocked(state_->mutex, state_->dataSource, std::move(dataSource));
}

std::shared_ptr<RKRostaKit> PKPlenk::rosta() const {
    return dispatch::loadLocked(state_->mutex, state_->rosta);
}

void PKPlenk::setRosta(std::shared_ptr<RKRostaKit> rosta) {
    {
        std::lock_guard lock(state_->mutex);
        std::swap(state_->rosta, rosta);
    }
    // The old kit, if this was its last owner, is released unlocked.
}

// --- Kit events ---------------------------------------------------------------------------------
//
// The kit already calls these on the main queue; passing them on in that same
// task gives delegate events the one main-queue hop that completions take, so
// the host hears everything in the order it happened.

void PKPlenk::rostaDidConnected(RKRostaKit&) {
    Bridge::toHost(*this, [](PKPlenkDelegate& d, PKPlenk& p) { d.plenkDidConnected(p); });
}

void PKPlenk::rostaDidDisconnected(RKRostaKit&) {
    Bridge::toHost(*this, [](PKPlenkDelegate& d, PKPlenk& p) { d.plenkDidDisconnected(p); });
}

void PKPlenk::rostaDidErrorOccur(RKRostaKit&, const ErrorPtr& error) {
    Bridge::toHost(*this, [error](PKPlenkDelegate& d, PKPlenk& p) { d.plenkDidErrorOccur(p, error); });
}

void PKPlenk::rostaWeightDidUpdate(float weight) {
    Bridge::toHost(*this, [weight](PKPlenkDelegate& d, PKPlenk&) { d.plenkWeightDidUpdate(weight); });
}

void PKPlenk::rostaDeviceDidClickButton(std::uint64_t button) {
    Bridge::toHost(*this, [button](PKPlenkDelegate& d, PKPlenk&) { d.plenkDeviceDidClickButton(button); });
}

// --- Kit questions: the host data source's answer, at once ----------------------------------------

std::optional<std::string> PKPlenk::titleForSelectAccessoryModalViewController() {
    auto source = dataSource();
    return source ? source->titleForSelectAccessoryModalViewController() : std::nullopt;
}

std::optional<std::string> PKPlenk::deviceStringForSelectAccessoryModalViewController() {
    auto source = dataSource();
    return source ? source->deviceStringForSelectAccessoryModalViewController() : std::nullopt;
}

std::optional<Color> PKPlenk::backgroundColorForSelectAccessoryModalViewController() {
    auto source = dataSource();
    return source ? source->backgroundColorForSelectAccessoryModalViewController() : std::nullopt;
}

std::optional<Color> PKPlenk::navigationBarColorForSelectAccessoryModalViewController() {
    auto source = dataSource();
    return source ? source->navigationBarColorForSelectAccessoryModalViewController() : std::nullopt;
}

}  // namespace plenk
