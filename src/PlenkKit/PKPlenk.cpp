#include <PlenkKit/PKPlenk.h>

#include <utility>

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

PKPlenk::PKPlenk(Token, const Context& context) : mainQueue_(context.mainQueue) {}

std::shared_ptr<PKPlenk> PKPlenk::create(const Context& context) {
    const Context resolved = context.resolved();
    auto plenk = std::make_shared<PKPlenk>(Token{}, resolved);
    auto kit = RKRostaKit::create(resolved);
    plenk->rosta_ = kit;
    // Held weakly by the kit: it never keeps its facade alive.
    kit->setDelegate(std::weak_ptr<RKRostaDelegate>(plenk));
    kit->setDataSource(std::weak_ptr<RKRostaDataSource>(plenk));
    // The facade's own auto-connect flag stays NO: it is not forwarded here.
    return plenk;
}

PKPlenk::~PKPlenk() {
    // The data source is left pointing here; it expires with this object.
    if (rosta_) rosta_->setDelegate({});
}

// --- Host operations ------------------------------------------------------------------------------

bool PKPlenk::isAutoConnectEnabled() const {
    std::lock_guard lock(mutex_);
    return isAutoConnectEnabled_;
}

void PKPlenk::setIsAutoConnectEnabled(bool enabled) {
    {
        std::lock_guard lock(mutex_);
        isAutoConnectEnabled_ = enabled;
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
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void PKPlenk::setDelegate(std::weak_ptr<PKPlenkDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<PKPlenkDataSource> PKPlenk::dataSource() const {
    std::lock_guard lock(mutex_);
    return dataSource_.lock();
}

void PKPlenk::setDataSource(std::weak_ptr<PKPlenkDataSource> dataSource) {
    std::lock_guard lock(mutex_);
    dataSource_ = std::move(dataSource);
}

std::shared_ptr<RKRostaKit> PKPlenk::rosta() const {
    std::lock_guard lock(mutex_);
    return rosta_;
}

void PKPlenk::setRosta(std::shared_ptr<RKRostaKit> rosta) {
    {
        std::lock_guard lock(mutex_);
        std::swap(rosta_, rosta);
    }
    // The old kit, if this was its last owner, is released unlocked.
}

// --- Kit events: each queued once more on the main queue --------------------------------------------
//
// Each task keeps the facade alive until it has run and reads the host's
// delegate only then, so a delegate released in between hears nothing.

void PKPlenk::rostaDidConnected(RKRostaKit&) {
    auto self = weak_from_this().lock();
    if (!self) return;
    mainQueue_->post([self = std::move(self)] {
        if (auto d = self->delegate()) d->plenkDidConnected(*self);
    });
}

void PKPlenk::rostaDidDisconnected(RKRostaKit&) {
    auto self = weak_from_this().lock();
    if (!self) return;
    mainQueue_->post([self = std::move(self)] {
        if (auto d = self->delegate()) d->plenkDidDisconnected(*self);
    });
}

void PKPlenk::rostaDidErrorOccur(RKRostaKit&, const ErrorPtr& error) {
    auto self = weak_from_this().lock();
    if (!self) return;
    mainQueue_->post([self = std::move(self), error] {
        if (auto d = self->delegate()) d->plenkDidErrorOccur(*self, error);
    });
}

void PKPlenk::rostaWeightDidUpdate(float weight) {
    auto self = weak_from_this().lock();
    if (!self) return;
    auto task = [self = std::move(self), weight] {
        if (auto d = self->delegate()) d->plenkWeightDidUpdate(weight);
    };
    static_assert(sizeof(task) <= Task::kInlineSize, "the weight path must not allocate");
    mainQueue_->post(std::move(task));
}

void PKPlenk::rostaDeviceDidClickButton(std::uint64_t button) {
    auto self = weak_from_this().lock();
    if (!self) return;
    mainQueue_->post([self = std::move(self), button] {
        if (auto d = self->delegate()) d->plenkDeviceDidClickButton(button);
    });
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
