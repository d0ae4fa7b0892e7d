#include <PlenkKit/CSRSelectDeviceViewController.h>

#include <mutex>
#include <utility>

#include "dispatch/Guarded.h"

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

CSRSelectDeviceViewController::~CSRSelectDeviceViewController() = default;

namespace {

// The picker's state. Data source, delegate and view are read under the lock
// and called outside it, so a view or delegate may call back in.
class PickerController final : public CSRSelectDeviceViewController,
                               public std::enable_shared_from_this<PickerController> {
public:
    std::shared_ptr<CSRSelectDeviceViewControllerDataSource> dataSource() const override {
        return dispatch::loadLocked(mutex_, dataSource_).lock();
    }
    void setDataSource(std::weak_ptr<CSRSelectDeviceViewControllerDataSource> dataSource) override {
        dispatch::storeLocked(mutex_, dataSource_, std::move(dataSource));
    }
    std::shared_ptr<CSRSelectDeviceViewControllerDelegate> delegate() const override {
        return dispatch::loadLocked(mutex_, delegate_).lock();
    }
    void setDelegate(std::weak_ptr<CSRSelectDeviceViewControllerDelegate> delegate) override {
        dispatch::storeLocked(mutex_, delegate_, std::move(delegate));
    }
    double navigationBarHeight() const override { return dispatch::loadLocked(mutex_, navigationBarHeight_); }
    void setNavigationBarHeight(double height) override {
        dispatch::storeLocked(mutex_, navigationBarHeight_, height);
    }
    std::shared_ptr<PickerView> view() const override { return dispatch::loadLocked(mutex_, view_); }
    void setView(std::shared_ptr<PickerView> view) override {
        dispatch::storeLocked(mutex_, view_, std::move(view));
    }

    void reloadData() override {
        if (auto v = view()) v->reloadData();
    }

    void dismiss(bool animated, std::function<void()> completion) override {
        if (auto v = view()) {
            v->dismiss(animated, std::move(completion));
        } else if (completion) {
            completion();
        }
    }

    std::string title() override {
        auto source = dataSource();
        auto text = source ? source->titleForViewController(*this) : std::nullopt;
        return text ? *text : std::string(kDefaultTitle);
    }
    std::string deviceString() override {
        auto source = dataSource();
        auto text = source ? source->deviceStringForViewController(*this) : std::nullopt;
        return text ? *text : std::string(kDefaultDeviceString);
    }
    Color backgroundColor() override {
        auto source = dataSource();
        auto color = source ? source->backgroundColorViewController(*this) : std::nullopt;
        return color ? *color : kDefaultBackgroundColor;
    }
    std::optional<Color> navigationBarTintColor() override {
        auto source = dataSource();
        return source ? source->navigationBarColorViewController(*this) : std::nullopt;
    }
    std::int64_t tableViewNumberOfRowsInSection(std::int64_t section) override {
        auto source = dataSource();
        return source ? source->viewControllerNumberOfRowsInSection(*this, section) : 0;
    }
    std::string tableViewTitleForRowAtIndexPath(const IndexPath& indexPath) override {
        auto source = dataSource();
        return source ? source->viewControllerTitleForRowAtIndexPath(*this, indexPath) : std::string();
    }
    bool allowsSelection() const override { return dispatch::loadLocked(mutex_, allowsSelection_); }

    void tableViewDidSelectRowAtIndexPath(const IndexPath& indexPath) override {
        {
            std::lock_guard lock(mutex_);
            if (!allowsSelection_) return;
            allowsSelection_ = false;
        }
        if (auto d = delegate()) d->viewControllerDidSelectRowAtIndexPath(*this, indexPath);
    }

    void didClickCancelBarItem() override {
        // The picker stays alive until its dismissal has finished and the
        // delegate has heard of it.
        dismiss(true, [self = shared_from_this()] {
            if (auto d = self->delegate()) d->viewControllerDidDismiss(*self);
        });
    }

private:
    mutable std::mutex mutex_;
    std::weak_ptr<CSRSelectDeviceViewControllerDataSource> dataSource_;
    std::weak_ptr<CSRSelectDeviceViewControllerDelegate> delegate_;
    double navigationBarHeight_ = kNavigationBarHeight;
    std::shared_ptr<PickerView> view_;
    bool allowsSelection_ = true;
};

}  // namespace

std::shared_ptr<CSRSelectDeviceViewController> CSRSelectDeviceViewController::create() {
    return std::make_shared<PickerController>();
}

}  // namespace plenk
