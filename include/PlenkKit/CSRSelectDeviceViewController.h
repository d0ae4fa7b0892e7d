#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <PlenkKit/Color.h>
#include <PlenkKit/Export.h>

namespace plenk {

class CSRSelectDeviceViewController;

// A row of the picker's one section.
struct IndexPath {
    std::int64_t section = 0;
    std::int64_t row = 0;

    friend bool operator==(const IndexPath&, const IndexPath&) = default;
};

// Supplies the picker's rows, texts and colours. The two row questions are
// required; the four others may go unanswered (nullopt keeps the default).
// Asked on the main thread, whenever a view asks the picker.
class PLENK_EXPORT CSRSelectDeviceViewControllerDataSource {
public:
    virtual ~CSRSelectDeviceViewControllerDataSource();
    virtual std::int64_t viewControllerNumberOfRowsInSection(CSRSelectDeviceViewController& viewController,
                                                             std::int64_t section) = 0;
    virtual std::string viewControllerTitleForRowAtIndexPath(CSRSelectDeviceViewController& viewController,
                                                             const IndexPath& indexPath) = 0;
    virtual std::optional<std::string> titleForViewController(CSRSelectDeviceViewController& viewController);
    virtual std::optional<std::string> deviceStringForViewController(
        CSRSelectDeviceViewController& viewController);
    virtual std::optional<Color> backgroundColorViewController(CSRSelectDeviceViewController& viewController);
    virtual std::optional<Color> navigationBarColorViewController(
        CSRSelectDeviceViewController& viewController);
};

// Hears the user's choice, on the main thread. Empty defaults: overriding one
// is responding to it.
class PLENK_EXPORT CSRSelectDeviceViewControllerDelegate {
public:
    virtual ~CSRSelectDeviceViewControllerDelegate();
    // The first tap on a row; later taps are ignored.
    virtual void viewControllerDidSelectRowAtIndexPath(CSRSelectDeviceViewController& viewController,
                                                       const IndexPath& indexPath);
    // After the cancel button's dismissal has finished.
    virtual void viewControllerDidDismiss(CSRSelectDeviceViewController& viewController);
};

// What a toolkit implements to draw a picker: a window, the terminal, or
// nothing at all (headless). The controller calls it on the main thread; the
// view calls back the controller's "what a view shows" and "what a view
// reports" operations, also on the main thread.
//
// Layout of a picker: a bar 44 points high with title() and a Cancel button
// (didClickCancelBarItem), and below it a grouped table of one section whose
// header shows deviceString() beside a turning spinner, on backgroundColor();
// one row per tableViewNumberOfRowsInSection(0), titled by
// tableViewTitleForRowAtIndexPath. A tapped row shows a turning spinner.
class PLENK_EXPORT PickerView {
public:
    virtual ~PickerView();
    // The rows changed: the view asks the controller for them again.
    virtual void reloadData() = 0;
    // Takes the picker off screen and calls `completion` once it is gone.
    virtual void dismiss(bool animated, std::function<void()> completion) = 0;
};

// The modal list of discovered scales, independent of any toolkit: it answers
// a view's questions from its data source and turns the view's row taps and
// cancel into delegate calls. The data source and delegate are held weakly;
// the view is held.
//
// The kit creates one for every showDevicePickerOnViewContoller and is its
// data source and delegate; a host toolkit receives it in
// PickerPresenter::presentViewController, attaches its PickerView with
// setView and draws it. Meant for the main thread; every operation is
// nevertheless safe from any thread.
class PLENK_EXPORT CSRSelectDeviceViewController {
public:
    static constexpr std::string_view kDefaultTitle = "Connect An Accessory";
    static constexpr std::string_view kDefaultDeviceString = "Device";
    static constexpr Color kDefaultBackgroundColor{0.8118, 0.7843, 0.7451, 1.0};
    static constexpr double kNavigationBarHeight = 44.0;

    // A picker with no data source, delegate or view.
    static std::shared_ptr<CSRSelectDeviceViewController> create();
    virtual ~CSRSelectDeviceViewController();

    virtual std::shared_ptr<CSRSelectDeviceViewControllerDataSource> dataSource() const = 0;
    virtual void setDataSource(std::weak_ptr<CSRSelectDeviceViewControllerDataSource> dataSource) = 0;
    virtual std::shared_ptr<CSRSelectDeviceViewControllerDelegate> delegate() const = 0;
    virtual void setDelegate(std::weak_ptr<CSRSelectDeviceViewControllerDelegate> delegate) = 0;
    // Stored and returned only: the bar is always kNavigationBarHeight high.
    virtual double navigationBarHeight() const = 0;
    virtual void setNavigationBarHeight(double height) = 0;

    // The view that draws this picker, attached by whoever presents it.
    virtual std::shared_ptr<PickerView> view() const = 0;
    virtual void setView(std::shared_ptr<PickerView> view) = 0;

    // Tells the view to reload its rows.
    virtual void reloadData() = 0;
    // Takes the picker off screen; without a view the completion runs at once.
    virtual void dismiss(bool animated, std::function<void()> completion) = 0;

    // What a view shows: the data source's answers or the defaults.
    virtual std::string title() = 0;
    virtual std::string deviceString() = 0;
    virtual Color backgroundColor() = 0;
    // The bar's tint; nullopt keeps the toolkit's default.
    virtual std::optional<Color> navigationBarTintColor() = 0;
    // 0 without a data source.
    virtual std::int64_t tableViewNumberOfRowsInSection(std::int64_t section) = 0;
    // Empty without a data source.
    virtual std::string tableViewTitleForRowAtIndexPath(const IndexPath& indexPath) = 0;
    // Off after the first tap, for good: one choice per picker.
    virtual bool allowsSelection() const = 0;

    // What a view reports: a row tapped (ignored once selection is off) and
    // the cancel button (dismisses, then tells the delegate).
    virtual void tableViewDidSelectRowAtIndexPath(const IndexPath& indexPath) = 0;
    virtual void didClickCancelBarItem() = 0;

protected:
    CSRSelectDeviceViewController() = default;
    CSRSelectDeviceViewController(const CSRSelectDeviceViewController&) = delete;
    CSRSelectDeviceViewController& operator=(const CSRSelectDeviceViewController&) = delete;
};

}  // namespace plenk
