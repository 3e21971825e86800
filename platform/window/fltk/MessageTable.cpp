#include "window/fltk/MessageTable.h"

#include <FL/Fl.H>
#include <FL/fl_draw.H>
#include <FL/fl_utf8.h>

#include <algorithm>
#include <string_view>

namespace quelm {
namespace {

// Start-up lists its items in columns, which only letters of one width keep in line.
constexpr Fl_Font lineFont = FL_COURIER;
constexpr Fl_Font headerFont = FL_HELVETICA;
// Bytes of a line that are drawn; copying gives all. X counts pixels in 16 bits.
constexpr std::size_t drawnBytes = 1000;

std::string_view drawnPart(const std::string& line) {
    if (line.size() <= drawnBytes) {
        return line;
    }
    const char* end = fl_utf8back(line.data() + drawnBytes, line.data(), line.data() + line.size());
    return {line.data(), static_cast<std::size_t>(end - line.data())};
}

bool shiftHeld() {
    return Fl::event_state(FL_SHIFT) != 0;
}

bool controlHeld() {
    return Fl::event_state(FL_CTRL) != 0;
}

}  // namespace

MessageTable::MessageTable(int x, int y, int w, int h, const std::vector<std::string>& lines, int textSize)
    : Fl_Table(x, y, w, h), lines_(lines), textSize_(textSize) {
    fl_font(lineFont, textSize_);
    lineHeight_ = fl_height() + textSize_ / 4;
    box(FL_THIN_DOWN_FRAME);
    color(FL_BACKGROUND2_COLOR);
    cols(1);
    col_header(1);
    col_header_height(lineHeight_ + textSize_ / 2);
    col_resize(0);
    vscrollbar->linesize(lineHeight_);
    hscrollbar->linesize(lineHeight_);
    end();
    takeNewLines();
}

void MessageTable::takeNewLines() {
    const bool follow = atEnd();
    fl_font(lineFont, textSize_);
    for (std::size_t line = static_cast<std::size_t>(rows()); line < lines_.size(); ++line) {
        rows(static_cast<int>(line) + 1);
        row_height(static_cast<int>(line), lineHeight_);
        widest_ = std::max(widest_, widthOf(lines_[line]));
    }
    selection_.grow(lines_.size());
    fitColumn();
    if (follow) {
        goToEnd();
    }
    redraw();
}

void MessageTable::resize(int x, int y, int w, int h) {
    const bool follow = atEnd();
    Fl_Table::resize(x, y, w, h);
    fitColumn();
    if (follow) {
        goToEnd();
    }
}

bool MessageTable::atEnd() const {
    return vscrollbar->visible() == 0 || vscrollbar->value() >= vscrollbar->maximum();
}

void MessageTable::goToEnd() {
    row_position(rows() - 1);
}

// First to the text alone, so that the table knows which scroll bars it needs, then over what they leave.
void MessageTable::fitColumn() {
    col_width(0, std::max(widest_, 1));
    col_width(0, std::max(widest_, tiw));
}

int MessageTable::widthOf(const std::string& line) const {
    const std::string_view text = drawnPart(line);
    return static_cast<int>(fl_width(text.data(), static_cast<int>(text.size()))) + textSize_;
}

// ---- drawing

void MessageTable::draw_cell(TableContext context, int row, int, int x, int y, int w, int h) {
    if (context == CONTEXT_COL_HEADER) {
        drawHeader(x, y, w, h);
    } else if (context == CONTEXT_CELL) {
        drawLine(static_cast<std::size_t>(row), x, y, w, h);
    }
}

void MessageTable::drawHeader(int x, int y, int w, int h) const {
    fl_draw_box(FL_THIN_UP_BOX, x, y, w, h, FL_BACKGROUND_COLOR);
    fl_font(headerFont, textSize_);
    fl_color(FL_FOREGROUND_COLOR);
    fl_draw("Message", x + textSize_ / 2, y, w - textSize_, h, FL_ALIGN_LEFT, nullptr, 0);
}

void MessageTable::drawLine(std::size_t line, int x, int y, int w, int h) const {
    const bool selected = selection_.contains(line);
    const Fl_Color background = selected ? FL_SELECTION_COLOR : FL_BACKGROUND2_COLOR;
    const std::string_view text = drawnPart(lines_[line]);
    fl_font(lineFont, textSize_);
    fl_push_clip(x, y, w, h);
    fl_rectf(x, y, w, h, background);
    fl_color(fl_contrast(FL_FOREGROUND_COLOR, background));
    fl_draw(text.data(), static_cast<int>(text.size()), x + textSize_ / 2, y + (h + fl_height()) / 2 - fl_descent());
    fl_pop_clip();
}

// ---- what the operator does

int MessageTable::handle(int event) {
    switch (event) {
        case FL_PUSH:
        case FL_DRAG:
        case FL_RELEASE:
            return handleMouse(event) ? 1 : Fl_Table::handle(event);
        case FL_KEYBOARD:
            return handleKey() ? 1 : 0;
        default:
            return Fl_Table::handle(event);
    }
}

bool MessageTable::handleMouse(int event) {
    const bool pressed = event == FL_PUSH && Fl::event_inside(tix, tiy, tiw, tih) != 0;
    if (Fl::event_button() != FL_LEFT_MOUSE || !(pressed || dragging_)) {
        return pressed;
    }
    const std::size_t line = lineUnderMouse();
    if (pressed) {
        take_focus();
        press(line);
    } else {
        dragTo(std::min(line, lines_.size() - 1));
    }
    dragging_ = dragging_ && event != FL_RELEASE;
    redraw();
    return true;
}

void MessageTable::press(std::size_t line) {
    dragging_ = line < lines_.size();
    if (!dragging_) {
        selection_.clear();
    } else if (shiftHeld()) {
        selection_.extendTo(line);
    } else if (controlHeld()) {
        selection_.toggle(line);
    } else {
        selection_.only(line);
    }
}

// A button that goes up again where it went down leaves what the press did.
void MessageTable::dragTo(std::size_t line) {
    if (selection_.cursor() != line) {
        selection_.extendTo(line);
        makeVisible(line);
    }
}

// Above the list it is the line before the first that is seen, so that dragging scrolls; below the last line, one
// beyond it.
std::size_t MessageTable::lineUnderMouse() {
    const int top = static_cast<int>(vscrollbar->visible() != 0 ? vscrollbar->value() : 0);
    const int y = std::max(0, top + Fl::event_y() - tiy);
    return static_cast<std::size_t>(y / lineHeight_);
}

bool MessageTable::handleKey() {
    const int key = Fl::event_key();
    if (controlHeld() && (key == 'c' || key == FL_Insert)) {
        copySelected();
    } else if (controlHeld() && key == 'a') {
        selection_.all();
    } else if (key == FL_Up) {
        moveCursor(-1);
    } else if (key == FL_Down) {
        moveCursor(1);
    } else if (key == FL_Page_Up) {
        moveCursor(1 - visibleLines());
    } else if (key == FL_Page_Down) {
        moveCursor(visibleLines() - 1);
    } else if (key == FL_Home) {
        moveCursor(-static_cast<long>(lines_.size()));
    } else if (key == FL_End) {
        moveCursor(static_cast<long>(lines_.size()));
    } else if ((key == FL_Left || key == FL_Right) && hscrollbar->visible() != 0) {
        hscrollbar->handle(FL_KEYBOARD);
    } else {
        return false;
    }
    redraw();
    return true;
}

// Without a cursor yet it starts where the operator looks.
void MessageTable::moveCursor(long by) {
    if (lines_.empty()) {
        return;
    }
    const long last = static_cast<long>(lines_.size()) - 1;
    const long from = selection_.cursor() ? static_cast<long>(*selection_.cursor()) : (by < 0 ? botrow : toprow);
    const auto line = static_cast<std::size_t>(std::clamp(from + by, 0L, last));
    if (shiftHeld()) {
        selection_.extendTo(line);
    } else {
        selection_.only(line);
    }
    makeVisible(line);
}

void MessageTable::makeVisible(std::size_t line) {
    const int row = static_cast<int>(line);
    const int first = static_cast<int>(vscrollbar->value()) / lineHeight_;
    if (row + 1 == rows()) {
        goToEnd();
    } else if (row < first || (row == first && static_cast<int>(vscrollbar->value()) % lineHeight_ != 0)) {
        row_position(row);
    } else if (row >= first + visibleLines()) {
        row_position(row - visibleLines() + 1);
    }
}

int MessageTable::visibleLines() const {
    return std::max(2, tih / lineHeight_);
}

void MessageTable::copySelected() const {
    const std::string text = selection_.text(lines_);
    if (!text.empty()) {
        Fl::copy(text.data(), static_cast<int>(text.size()), 1);
    }
}

}  // namespace quelm
