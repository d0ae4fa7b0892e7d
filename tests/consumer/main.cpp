// A small host program built against the installed library only, through the
// CMake package and through pkg-config. On a simulated scale it picks the
// scale through the device picker with a headless view, reads its firmware
// revision and arms firmware-update mode.
#include <PlenkKit/PlenkKit.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace {

using namespace std::chrono_literals;

// A value handed over from whichever thread a callback runs on.
template <typename T>
class Box {
public:
    void set(T value) {
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }
    std::optional<T> get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }

private:
    mutable std::mutex mutex_;
    std::optional<T> value_;
};

// A picker view that draws nothing: once a row shows, the "user" taps the
// first one (after the redraw, as a real tap comes).
class HeadlessPickerView final : public plenk::PickerView {
public:
    HeadlessPickerView(std::weak_ptr<plenk::CSRSelectDeviceViewController> picker,
                       std::shared_ptr<plenk::Executor> mainQueue)
        : picker_(std::move(picker)), mainQueue_(std::move(mainQueue)) {}

    void reloadData() override {
        auto picker = picker_.lock();
        if (!picker || !chosenRow.empty() || picker->tableViewNumberOfRowsInSection(0) == 0) return;
        chosenRow = picker->tableViewTitleForRowAtIndexPath({0, 0});
        mainQueue_->post([weak = picker_] {
            if (auto p = weak.lock()) p->tableViewDidSelectRowAtIndexPath({0, 0});
        });
    }
    void dismiss(bool, std::function<void()> completion) override {
        dismissed = true;
        if (completion) completion();
    }

    std::string chosenRow;
    bool dismissed = false;

private:
    std::weak_ptr<plenk::CSRSelectDeviceViewController> picker_;
    std::shared_ptr<plenk::Executor> mainQueue_;
};

// Shows a picker by attaching a headless view to it.
class HeadlessPresenter final : public plenk::PickerPresenter {
public:
    explicit HeadlessPresenter(std::shared_ptr<plenk::Executor> mainQueue)
        : mainQueue_(std::move(mainQueue)) {}

    void presentViewController(const std::shared_ptr<plenk::CSRSelectDeviceViewController>& picker, bool,
                               std::function<void()> completion) override {
        title = picker->title();
        view = std::make_shared<HeadlessPickerView>(picker, mainQueue_);
        picker->setView(view);
        if (completion) completion();
        view->reloadData();
    }

    std::string title;
    std::shared_ptr<HeadlessPickerView> view;

private:
    std::shared_ptr<plenk::Executor> mainQueue_;
};

int fail(const char* what) {
    std::printf("FAILED: %s\n", what);
    return 1;
}

// Picks the scale, reads its firmware revision and arms DFU mode; prints
// "picked <row>|<title>|rssi <0/1>|firmware <text>|dfu <0/1>".
int useAScale() {
    plenk::Simulator::Options options;
    options.radio = std::nullopt;  // no radio report until the host is set up
    options.log = plenk::LogSink::discard();
    plenk::Simulator sim(options);
    sim.addScale();  // "Plenk Scale"
    // What callbacks hand over; they outlive the facade that may call them.
    Box<plenk::ErrorPtr> picked;
    Box<std::optional<std::string>> firmware;
    Box<bool> armed;

    auto host = plenk::PKPlenk::create(sim.context());
    host->setIsAutoConnectEnabled(false);  // the user picks
    sim.setRadioState(plenk::Simulator::RadioState::PoweredOn);
    if (!sim.runUntil([&] { return host->rosta()->leState() == plenk::RKRostaKit::kLEStatePoweredOn; }))
        return fail("radio");

    auto presenter = std::make_shared<HeadlessPresenter>(sim.mainLoop());
    host->showDevicePickerOnViewContoller(presenter,
                                          [&](const plenk::ErrorPtr& error) { picked.set(error); });
    if (!sim.runUntil([&] { return picked.get().has_value(); })) return fail("picker outcome");
    if (*picked.get() != nullptr) return fail((*picked.get())->localizedDescription().c_str());
    if (!host->isConnected() || !presenter->view || !presenter->view->dismissed) return fail("picked scale");

    const std::shared_ptr<plenk::RKDevice> device = host->rosta()->currentDevice();
    if (!device) return fail("current device");
    const plenk::PeripheralPtr peripheral = device->peripheral();
    if (!peripheral || peripheral->name() != presenter->view->chosenRow ||
        peripheral->state() != plenk::PeripheralState::Connected || peripheral->identifier().isNil())
        return fail("peripheral handle");

    // Device completions run on the Bluetooth queue.
    device->readFirmwareVersionWithCompletion([&](std::optional<std::string> version, plenk::ErrorPtr error) {
        firmware.set(error ? std::nullopt : std::move(version));
    });
    if (!sim.runUntil([&] { return firmware.get().has_value(); })) return fail("firmware revision");

    device->enableDFUMode([&](bool success, plenk::ErrorPtr error) { armed.set(success && !error); });
    if (!sim.runUntil([&] { return armed.get().has_value(); })) return fail("DFU mode");

    std::printf("picked %s|%s|rssi %d|firmware %s|dfu %d\n", presenter->view->chosenRow.c_str(),
                presenter->title.c_str(), peripheral->rssi().has_value() ? 1 : 0,
                firmware.get()->value_or("?").c_str(), *armed.get() ? 1 : 0);
    return 0;
}

}  // namespace

int main() {
    unsigned char out[2] = {0, 0};
    stringToHexConverter("0A1B", out);
    auto error = plenk::Error::make<plenk::RKErrorLENotAvailableCOff>(RKErrorDomain, 101);
    std::printf("%s|%.1f|%02x%02x|%s|%d\n", reinterpret_cast<const char*>(PlenkKitVersionString),
                PlenkKitVersionNumber, out[0], out[1], error->localizedDescription().c_str(),
                plenk::isKind<plenk::RKErrorLENotAvailableC>(error) ? 1 : 0);
    if (std::strcmp(LEDeviceErrorDomain, "DeviceErrorDomain") != 0) return 1;
    return useAScale();
}
