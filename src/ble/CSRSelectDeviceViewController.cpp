#include "ble/CSRSelectDeviceViewController.h"

#include <utility>

namespace plenk {

CSRSelectDeviceViewControllerDataSource::~CSRSelectDeviceViewControllerDataSource() = default;

std::optional<std::string> CSRSelectDeviceViewControllerDataSource::titleForViewController(
    CSRSelectDeviceViewController&) {
    return std::nullopt;
}

std::optional<std::string> CSRSelectDeviceViewControllerDataSource::deviceStringForViewController(
    CSRSelectDeviceViewController&) {
    return std::nullopt;
}

std::optional<Color> CSRSelectDeviceViewControllerDataSource::backgroundColorViewController(
    CSRSelectDeviceViewController&) {
    return std::nullopt;
}

std::optional<Color> CSRSelectDeviceViewControllerDataSource::navigationBarColorViewController(
    CSRSelectDeviceViewController&) {
    return std::nullopt;
}

CSRSelectDeviceViewControllerDelegate::~CSRSelectDeviceViewControllerDelegate() = default;
void CSRSelectDeviceViewControllerDelegate::viewControllerDidSelectRowAtIndexPath(
    CSRSelectDeviceViewController&, const IndexPath&) {}
void CSRSelectDeviceViewControllerDelegate::viewControllerDidDismiss(CSRSelectDeviceViewController&) {}

PickerView::~PickerView() = default;

std::shared_ptr<CSRSelectDeviceViewController> CSRSelectDeviceViewController::create() {
    return std::make_shared<CSRSelectDeviceViewController>(Token{});
}

CSRSelectDeviceViewController::~CSRSelectDeviceViewController() = default;

std::shared_ptr<CSRSelectDeviceViewControllerDataSource> CSRSelectDeviceViewController::dataSource() const {
    std::lock_guard lock(mutex_);
    return dataSource_.lock();
}

void CSRSelectDeviceViewController::setDataSource(
    std::weak_ptr<CSRSelectDeviceViewControllerDataSource> dataSource) {
    std::lock_guard lock(mutex_);
    dataSource_ = std::move(dataSource);
}

std::shared_ptr<CSRSelectDeviceViewControllerDelegate> CSRSelectDeviceViewController::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void CSRSelectDeviceViewController::setDelegate(
    std::weak_ptr<CSRSelectDeviceViewControllerDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

double CSRSelectDeviceViewController::navigationBarHeight() const {
    std::lock_guard lock(mutex_);
    return navigationBarHeight_;
}

void CSRSelectDeviceViewController::setNavigationBarHeight(double height) {
    std::lock_guard lock(mutex_);
    navigationBarHeight_ = height;
}

std::shared_ptr<PickerView> CSRSelectDeviceViewController::view() const {
    std::lock_guard lock(mutex_);
    return view_;
}

void CSRSelectDeviceViewController::setView(std::shared_ptr<PickerView> view) {
    std::lock_guard lock(mutex_);
    view_ = std::move(view);
}

void CSRSelectDeviceViewController::reloadData() {
    if (auto v = view()) v->reloadData();
}

void CSRSelectDeviceViewController::dismiss(bool animated, std::function<void()> completion) {
    if (auto v = view()) {
        v->dismiss(animated, std::move(completion));
    } else if (completion) {
        completion();
    }
}

std::string CSRSelectDeviceViewController::title() {
    auto source = dataSource();
    auto text = source ? source->titleForViewController(*this) : std::nullopt;
    return text ? *text : std::string(kDefaultTitle);
}

std::string CSRSelectDeviceViewController::deviceString() {
    auto source = dataSource();
    auto text = source ? source->deviceStringForViewController(*this) : std::nullopt;
    return text ? *text : std::string(kDefaultDeviceString);
}

Color CSRSelectDeviceViewController::backgroundColor() {
    auto source = dataSource();
    auto color = source ? source->backgroundColorViewController(*this) : std::nullopt;
    return color ? *color : kDefaultBackgroundColor;
}

std::optional<Color> CSRSelectDeviceViewController::navigationBarTintColor() {
    auto source = dataSource();
    return source ? source->navigationBarColorViewController(*this) : std::nullopt;
}

std::int64_t CSRSelectDeviceViewController::tableViewNumberOfRowsInSection(std::int64_t section) {
    auto source = dataSource();
    return source ? source->viewControllerNumberOfRowsInSection(*this, section) : 0;
}

std::string CSRSelectDeviceViewController::tableViewTitleForRowAtIndexPath(const IndexPath& indexPath) {
    auto source = dataSource();
    return source ? source->viewControllerTitleForRowAtIndexPath(*this, indexPath) : std::string();
}

bool CSRSelectDeviceViewController::allowsSelection() const {
    std::lock_guard lock(mutex_);
    return allowsSelection_;
}

void CSRSelectDeviceViewController::tableViewDidSelectRowAtIndexPath(const IndexPath& indexPath) {
    {
        std::lock_guard lock(mutex_);
        if (!allowsSelection_) return;
        allowsSelection_ = false;
    }
    if (auto d = delegate()) d->viewControllerDidSelectRowAtIndexPath(*this, indexPath);
}

void CSRSelectDeviceViewController::didClickCancelBarItem() {
    // The picker stays alive until its dismissal has finished and the
    // delegate has heard of it.
    dismiss(true, [self = shared_from_this()] {
        if (auto d = self->delegate()) d->viewControllerDidDismiss(*self);
    });
}

}  // namespace plenk
