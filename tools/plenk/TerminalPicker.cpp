#include "TerminalPicker.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string_view>
#include <vector>

namespace plenk::cli {

namespace {

constexpr auto kSpinnerInterval = std::chrono::milliseconds(120);
constexpr std::string_view kCancelHint = "Esc/q: Cancel";
constexpr std::string_view kReverse = "\x1b[7m";
constexpr std::string_view kPlain = "\x1b[0m";
// Bar, blank line, header above the rows; blank line and key help below.
constexpr int kLinesAroundRows = 5;

}  // namespace

TerminalPicker::TerminalPicker(std::shared_ptr<TerminalMode> terminal, std::shared_ptr<RunLoop> loop,
                               Hooks hooks)
    : terminal_(std::move(terminal)),
      loop_(std::move(loop)),
      hooks_(std::move(hooks)),
      text_(TerminalText::fromLocale()) {}

TerminalPicker::~TerminalPicker() {
    close();
}

void TerminalPicker::presentViewController(const std::shared_ptr<CSRSelectDeviceViewController>& picker,
                                           bool /*animated*/, std::function<void()> completion) {
    close();  // a picker replacing an open one takes its place on the screen
    controller_ = picker;
    picker->setView(shared_from_this());
    try {
        terminal_->enterRaw();
        const std::weak_ptr<TerminalPicker> weak = weak_from_this();
        keys_ = std::make_unique<KeyReader>(terminal_->fd(), [weak, loop = loop_](Key key) {
            loop->post([weak, key] {
                if (auto self = weak.lock()) self->onKey(key);
            });
        });
    } catch (const std::exception& e) {
        terminal_->restore();
        if (hooks_.failed) hooks_.failed(e.what());
        return;
    }
    shown_ = true;
    frame_ = 0;
    cursor_ = 0;
    top_ = 0;
    chosen_.reset();
    message_.clear();
    draw();
    loop_->postAfter(kSpinnerInterval, [weak = weak_from_this(), generation = ++generation_] {
        if (auto self = weak.lock()) self->tick(generation);
    });
    // Drawn at once: the presentation is over when the loop comes back to it.
    if (completion) loop_->post(std::move(completion));
}

void TerminalPicker::reloadData() {
    draw();
}

void TerminalPicker::dismiss(bool /*animated*/, std::function<void()> completion) {
    close();
    if (completion) loop_->post(std::move(completion));
}

void TerminalPicker::showMessage(std::string message) {
    message_ = std::move(message);
    draw();
}

void TerminalPicker::close() {
    if (!shown_) return;
    shown_ = false;
    ++generation_;
    keys_.reset();
    terminal_->restore();
}

void TerminalPicker::onKey(Key key) {
    if (!shown_) return;
    if (key == Key::Interrupt) {
        close();
        if (hooks_.interrupted) hooks_.interrupted();
        return;
    }
    const auto controller = controller_.lock();
    if (!controller || ignoringInput_) return;
    if (key == Key::Cancel) return controller->didClickCancelBarItem();  // the controller dismisses

    // One choice per picker: once made, the cursor stays where it was.
    if (chosen_ || !controller->allowsSelection()) return;
    const std::int64_t rows = controller->tableViewNumberOfRowsInSection(0);
    if (key == Key::Up) {
        cursor_ = std::max<std::int64_t>(cursor_ - 1, 0);
    } else if (key == Key::Down) {
        cursor_ = std::clamp<std::int64_t>(cursor_ + 1, 0, std::max<std::int64_t>(rows - 1, 0));
    } else if (key == Key::Enter && cursor_ < rows) {
        const std::int64_t row = cursor_;
        controller->tableViewDidSelectRowAtIndexPath({0, row});
        if (!controller->allowsSelection()) {
            chosen_ = row;
            if (hooks_.chosen) hooks_.chosen(row);
        }
    }
    draw();
}

void TerminalPicker::tick(std::uint64_t generation) {
    if (!shown_ || generation != generation_) return;
    ++frame_;
    draw();
    loop_->postAfter(kSpinnerInterval, [weak = weak_from_this(), generation] {
        if (auto self = weak.lock()) self->tick(generation);
    });
}

void TerminalPicker::draw() {
    const auto controller = controller_.lock();
    if (!shown_ || !controller) return;
    const auto size = terminal_->size();
    const int width = size.columns;
    const std::string spinner(text_.spinner(frame_));
    // Scale names come from the air: only printable text of the width given
    // reaches the terminal ('?' for anything else).
    const auto fitted = [this](std::string_view text, int columns) {
        return text_.fit(text_.clean(text), std::max(columns, 0));
    };
    const std::int64_t rows = std::max<std::int64_t>(controller->tableViewNumberOfRowsInSection(0), 0);
    if (!chosen_) cursor_ = std::clamp<std::int64_t>(cursor_, 0, std::max<std::int64_t>(rows - 1, 0));

    std::vector<std::string> lines;
    // The bar: the title on the left, the Cancel key on the right, reversed.
    {
        const int hint = static_cast<int>(kCancelHint.size());
        const int hintColumns = width > hint + 2 ? hint + 1 : 0;
        const std::string title = fitted(controller->title(), width - hintColumns - 1);
        std::string bar = text_.pad(" " + title, width - hintColumns);
        if (hintColumns > 0) bar += std::string(kCancelHint) + " ";
        lines.push_back(std::string(kReverse) + bar + std::string(kPlain));
    }
    lines.emplace_back();
    lines.push_back(" " + fitted(controller->deviceString(), width - 4) + " " + spinner);

    // The rows, scrolled so that the cursor (or the chosen row) is on screen.
    const int extra = message_.empty() ? 0 : 1;
    const std::int64_t visible = std::max(size.rows - kLinesAroundRows - extra, 1);
    const std::int64_t focus = chosen_.value_or(cursor_);
    if (focus < top_) top_ = focus;
    if (focus >= top_ + visible) top_ = focus - visible + 1;
    top_ = std::clamp<std::int64_t>(top_, 0, std::max<std::int64_t>(rows - visible, 0));
    for (std::int64_t row = top_; row < rows && row < top_ + visible; ++row) {
        const bool atCursor = !chosen_ && row == cursor_;
        const bool busy = chosen_ == row;
        std::string text = fitted(controller->tableViewTitleForRowAtIndexPath({0, row}), width - 6);
        if (busy) text += " " + spinner;
        lines.push_back(atCursor ? std::string(kReverse) + " > " + text + " " + std::string(kPlain)
                                 : "   " + text);
    }
    lines.emplace_back();
    if (!message_.empty()) lines.push_back(" " + fitted(message_, width - 1));
    lines.push_back(
        fitted(chosen_ ? " Esc/q: Cancel" : " Up/Down or k/j: move   Enter: connect   Esc/q: Cancel", width));

    // Drawn over the last frame; the last line gets no line feed, so a
    // full screen never scrolls.
    std::string out = "\x1b[H";
    const std::size_t count = std::min(lines.size(), static_cast<std::size_t>(std::max(size.rows, 1)));
    for (std::size_t i = 0; i < count; ++i) {
        out += lines[i];
        out += "\x1b[K";
        if (i + 1 < count) out += "\r\n";
    }
    out += "\x1b[J";
    terminal_->write(out);
}

}  // namespace plenk::cli
