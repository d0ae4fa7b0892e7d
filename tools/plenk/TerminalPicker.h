#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/CSRSelectDeviceViewController.h>
#include <PlenkKit/RKRostaKit.h>
#include <PlenkKit/RunLoop.h>

#include "KeyReader.h"
#include "TerminalMode.h"
#include "TerminalText.h"

namespace plenk::cli {

// The device picker drawn on a terminal: presenter and view in one, as the
// kit presents it. A bar with the title and the Cancel key, the header with a
// turning spinner, one row per scale with a cursor moved by the arrows (or
// j/k); Enter chooses the cursor's row, Esc or q cancels. After the choice the
// cursor stays put and a spinner turns on the chosen row position (it belongs
// to the position, not to the scale: a reload that reorders rows leaves it
// where it was), until the kit dismisses the picker.
//
// Everything runs on the loop: the kit calls the presenter and the view
// there, the keys are read on a thread of their own and handed over.
class TerminalPicker final : public PickerPresenter,
                             public PickerView,
                             public std::enable_shared_from_this<TerminalPicker> {
public:
    struct Hooks {
        // A row was chosen (selection is now off), after the controller heard of it.
        std::function<void(std::int64_t row)> chosen;
        // Ctrl-C, or the terminal went away: the picker is already closed.
        std::function<void()> interrupted;
        // The terminal could not be set up for the picker: why.
        std::function<void(const std::string& why)> failed;
    };

    TerminalPicker(std::shared_ptr<TerminalMode> terminal, std::shared_ptr<RunLoop> loop, Hooks hooks);
    ~TerminalPicker() override;
    TerminalPicker(const TerminalPicker&) = delete;
    TerminalPicker& operator=(const TerminalPicker&) = delete;

    // PickerPresenter: input is ignored until the picker is drawn.
    void beginIgnoringInteractionEvents() override { ignoringInput_ = true; }
    void endIgnoringInteractionEvents() override { ignoringInput_ = false; }
    void presentViewController(const std::shared_ptr<CSRSelectDeviceViewController>& picker, bool animated,
                               std::function<void()> completion) override;

    // PickerView.
    void reloadData() override;
    // Restores the terminal, then runs `completion` on the loop.
    void dismiss(bool animated, std::function<void()> completion) override;

    // A line under the list, e.g. why the chosen scale did not connect.
    void showMessage(std::string message);
    // Takes the picker off the terminal at once and restores it (for an
    // interrupt, a time-out, an error); the controller is not told.
    void close();
    bool isShown() const { return shown_; }

private:
    void onKey(Key key);
    void tick(std::uint64_t generation);
    void draw();

    const std::shared_ptr<TerminalMode> terminal_;
    const std::shared_ptr<RunLoop> loop_;
    const Hooks hooks_;
    const TerminalText text_;
    std::weak_ptr<CSRSelectDeviceViewController> controller_;  // it holds this view
    std::unique_ptr<KeyReader> keys_;
    bool shown_ = false;
    bool ignoringInput_ = false;
    std::uint64_t generation_ = 0;  // one spinner timer per presentation
    std::size_t frame_ = 0;
    std::int64_t cursor_ = 0;
    std::int64_t top_ = 0;  // the first row on screen when the list is taller
    std::optional<std::int64_t> chosen_;
    std::string message_;
};

}  // namespace plenk::cli
