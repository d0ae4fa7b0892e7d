#include "TerminalPicker.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string_view>
#include <vector>

namespace plenk::cli {

namespace {

constexpr auto kSpinnerInterval = std::chrono::milliseconds(120);
constexpr std::array<std::string_view, 10> kUtf8Spinner = {"⠋", "⠙", "⠹", "⠸", "⠼", "⠴", "⠦", "⠧", "⠇", "⠏"};
constexpr std::array<std::string_view, 4> kAsciiSpinner = {"|", "/", "-", "\\"};
constexpr std::string_view kCancelHint = "Esc/q: Cancel";
constexpr std::string_view kReverse = "\x1b[7m";
constexpr std::string_view kPlain = "\x1b[0m";
// Bar, blank line, header above the rows; blank line and key help below.
constexpr int kLinesAroundRows = 5;

// Scale names come from the air: they may hold escape sequences, control
// characters or malformed UTF-8. What reaches the terminal is printable text
// of at most `columns` characters (each counted as one column), with '?' for
// anything else; without UTF-8 only ASCII is printed.
std::string terminalText(std::string_view text, std::size_t columns, bool utf8) {
    std::string out;
    std::size_t used = 0;
    for (std::size_t i = 0; i < text.size() && used < columns; ++used) {
        const auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = 1;
        char32_t code = byte;
        if (byte >= 0xc2 && byte <= 0xf4) {
            length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : 2;
            code = byte & (0x3f >> (length - 1));
            for (std::size_t k = 1; k < length; ++k) {
                const auto next = i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0;
                if ((next & 0xc0) != 0x80) {
                    length = k;  // cut short: the bytes so far are one bad character
                    code = 0xfffd;
                    break;
                }
                code = (code << 6) | (next & 0x3f);
            }
        }
        const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
        const bool bad = byte >= 0x80 && (length == 1 || code == 0xfffd || overlong || code > 0x10ffff ||
                                          (code >= 0xd800 && code <= 0xdfff));
        const bool control = code < 0x20 || code == 0x7f || (code >= 0x80 && code <= 0x9f);
        if (bad || control || (!utf8 && byte >= 0x80)) {
            out += '?';
        } else {
            out.append(text.substr(i, length));
        }
        i += length;
    }
    return out;
}

std::string padded(std::string text, std::size_t printed, std::size_t width) {
    if (printed < width) text.append(width - printed, ' ');
    return text;
}

// Printed width of text that terminalText made: one column per character.
std::size_t columnsOf(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

}  // namespace

TerminalPicker::TerminalPicker(std::shared_ptr<TerminalMode> terminal, std::shared_ptr<RunLoop> loop,
                               Hooks hooks)
    : terminal_(std::move(terminal)),
      loop_(std::move(loop)),
      hooks_(std::move(hooks)),
      utf8_(TerminalMode::utf8()) {}

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
    const auto width = static_cast<std::size_t>(size.columns);
    const std::string_view spinner =
        utf8_ ? kUtf8Spinner[frame_ % kUtf8Spinner.size()] : kAsciiSpinner[frame_ % kAsciiSpinner.size()];
    const std::int64_t rows = std::max<std::int64_t>(controller->tableViewNumberOfRowsInSection(0), 0);
    if (!chosen_) cursor_ = std::clamp<std::int64_t>(cursor_, 0, std::max<std::int64_t>(rows - 1, 0));

    std::vector<std::string> lines;
    // The bar: the title on the left, the Cancel key on the right, reversed.
    {
        const std::size_t hintColumns = width > kCancelHint.size() + 2 ? kCancelHint.size() + 1 : 0;
        const std::string title =
            terminalText(controller->title(), width > hintColumns + 1 ? width - hintColumns - 1 : 0, utf8_);
        std::string bar = padded(" " + title, columnsOf(title) + 1, width - hintColumns);
        if (hintColumns > 0) bar += std::string(kCancelHint) + " ";
        lines.push_back(std::string(kReverse) + bar + std::string(kPlain));
    }
    lines.emplace_back();
    const std::string header = terminalText(controller->deviceString(), width > 4 ? width - 4 : 0, utf8_);
    lines.push_back(" " + header + " " + std::string(spinner));

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
        const std::size_t room = width > 6 ? width - 6 : 0;
        std::string text = terminalText(controller->tableViewTitleForRowAtIndexPath({0, row}), room, utf8_);
        if (busy) text += " " + std::string(spinner);
        lines.push_back(atCursor ? std::string(kReverse) + " > " + text + " " + std::string(kPlain)
                                 : "   " + text);
    }
    lines.emplace_back();
    if (!message_.empty()) lines.push_back(" " + terminalText(message_, width > 1 ? width - 1 : 0, utf8_));
    lines.push_back(terminalText(
        chosen_ ? " Esc/q: Cancel" : " Up/Down or k/j: move   Enter: connect   Esc/q: Cancel", width, utf8_));

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
