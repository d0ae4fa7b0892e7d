#include <PlenkKitGtk/WindowPresenter.h>

#include <thread>
#include <utility>

#include "ui/gtk/GtkThread.h"
#include "ui/gtk/InputGate.h"
#include "ui/gtk/PickerWindow.h"

namespace plenk::gtk {

struct WindowPresenter::State {
    GtkWindow* host = nullptr;  // a reference held
    std::thread::id gtkThread = std::this_thread::get_id();
    std::shared_ptr<InputGate> gate = std::make_shared<InputGate>();
    std::weak_ptr<PickerWindow> picker;  // the controller holds it
};

std::shared_ptr<WindowPresenter> WindowPresenter::create(GtkWindow* host) {
    return std::shared_ptr<WindowPresenter>(new WindowPresenter(host));
}

WindowPresenter::WindowPresenter(GtkWindow* host) : state_(std::make_shared<State>()) {
    state_->host = GTK_WINDOW(g_object_ref(host));
    state_->gate->guard(host);
}

WindowPresenter::~WindowPresenter() {
    onGtkThread(state_->gtkThread, [host = state_->host] { g_object_unref(host); });
}

void WindowPresenter::beginIgnoringInteractionEvents() {
    state_->gate->close();
}

void WindowPresenter::endIgnoringInteractionEvents() {
    state_->gate->open();
}

bool WindowPresenter::isIgnoringInteractionEvents() const {
    return state_->gate->isClosed();
}

void WindowPresenter::presentViewController(const std::shared_ptr<CSRSelectDeviceViewController>& picker,
                                            bool animated, std::function<void()> completion) {
    if (!picker) return;
    auto view = PickerWindow::create(state_->host, picker, state_->gate);
    state_->picker = view;
    picker->setView(view);
    view->present(animated, std::move(completion));
}

void WindowPresenter::dismissViewController(bool animated, std::function<void()> completion) {
    if (auto view = state_->picker.lock()) {
        view->dismiss(animated, std::move(completion));
    } else if (completion) {
        completion();
    }
}

GtkWindow* WindowPresenter::hostWindow() const {
    return state_->host;
}

GtkWindow* WindowPresenter::pickerWindow() const {
    const auto view = state_->picker.lock();
    return view ? view->window() : nullptr;
}

}  // namespace plenk::gtk
