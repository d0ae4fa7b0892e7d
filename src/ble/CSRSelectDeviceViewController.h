#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <PlenkKit/Color.h>

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
class CSRSelectDeviceViewControllerDataSource {
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

// Hears the user's choice. Empty defaults: overriding one is responding to it.
class CSRSelectDeviceViewControllerDelegate {
public:
    virtual ~CSRSelectDeviceViewControllerDelegate();
    virtual void viewControllerDidSelectRowAtIndexPath(CSRSelectDeviceViewController& viewController,
                                                       const IndexPath& indexPath);
    // After the cancel button's dismissal has finished.
    virtual void viewControllerDidDismiss(CSRSelectDeviceViewController& viewController);
};

// What draws a picker: a toolkit window, the terminal, or nothing (headless).
// Called on the main thread.
class PickerView {
public:
    virtual ~PickerView();
    // The rows changed: the view asks the controller for them again.
    virtual void reloadData() = 0;
    // Takes the picker off screen and calls `completion` once it is gone.
    virtual void dismiss(bool animated, std::function<void()> completion) = 0;
};

// The modal list of discovered scales, independent of any toolkit: it answers
// a view's questions from its data source and turns the view's row taps and
// cancel into delegate calls. The data source and delegate are held weakly.
// Meant for the main thread; its fields are nevertheless guarded.
class CSRSelectDeviceViewController : public std::enable_shared_from_this<CSRSelectDeviceViewController> {
public:
    static constexpr std::string_view kDefaultTitle = "Connect An Accessory";
    static constexpr std::string_view kDefaultDeviceString = "Device";
    static constexpr Color kDefaultBackgroundColor{0.8118, 0.7843, 0.7451, 1.0};
    static constexpr double kNavigationBarHeight = 44.0;

    static std::shared_ptr<CSRSelectDeviceViewController> create();
    ~CSRSelectDeviceViewController();
    CSRSelectDeviceViewController(const CSRSelectDeviceViewController&) = delete;
    CSRSelectDeviceViewController& operator=(const CSRSelectDeviceViewController&) = delete;

    std::shared_ptr<CSRSelectDeviceViewControllerDataSource> dataSource() const;
    void setDataSource(std::weak_ptr<CSRSelectDeviceViewControllerDataSource> dataSource);
    std::shared_ptr<CSRSelectDeviceViewControllerDelegate> delegate() const;
    void setDelegate(std::weak_ptr<CSRSelectDeviceViewControllerDelegate> delegate);
    // Stored and returned only: the bar is always kNavigationBarHeight high.
    double navigationBarHeight() const;
    void setNavigationBarHeight(double height);

    // The view that draws this picker, attached by whoever presents it.
    std::shared_ptr<PickerView> view() const;
    void setView(std::shared_ptr<PickerView> view);

    // Tells the view to reload its rows.
    void reloadData();
    // Takes the picker off screen; without a view the completion runs at once.
    void dismiss(bool animated, std::function<void()> completion);

    // What a view shows: the data source's answers or the defaults.
    std::string title();
    std::string deviceString();
    Color backgroundColor();
    // The bar's tint; nullopt keeps the toolkit's default.
    std::optional<Color> navigationBarTintColor();
    std::int64_t tableViewNumberOfRowsInSection(std::int64_t section);
    std::string tableViewTitleForRowAtIndexPath(const IndexPath& indexPath);
    // Off after the first tap, for good: one choice per picker.
    bool allowsSelection() const;

    // What a view reports: a row tapped (ignored once selection is off) and
    // the cancel button (dismisses, then tells the delegate).
    void tableViewDidSelectRowAtIndexPath(const IndexPath& indexPath);
    void didClickCancelBarItem();

private:
    struct Token {};

public:
    explicit CSRSelectDeviceViewController(Token) {}

private:
    mutable std::mutex mutex_;
    std::weak_ptr<CSRSelectDeviceViewControllerDataSource> dataSource_;
    std::weak_ptr<CSRSelectDeviceViewControllerDelegate> delegate_;
    double navigationBarHeight_ = kNavigationBarHeight;
    std::shared_ptr<PickerView> view_;
    bool allowsSelection_ = true;
};

}  // namespace plenk
