#pragma once

// The message list on the main window: report layout with the one column "Message". It follows its end unless the
// operator has scrolled up; lines are selected by mouse and keyboard and copied as text.

#include <FL/Fl_Table.H>

#include <cstddef>
#include <string>
#include <vector>

#include "window/ListSelection.h"

namespace quelm {

class MessageTable final : public Fl_Table {
 public:
    // lines outlive the table. textSize in pixels; every other measure derives from it. A display must be open.
    MessageTable(int x, int y, int w, int h, const std::vector<std::string>& lines, int textSize);

    // Takes in the lines that came since the last call, and the first time all.
    void takeNewLines();

    void resize(int x, int y, int w, int h) override;

 protected:
    int handle(int event) override;
    void draw_cell(TableContext context, int row, int column, int x, int y, int w, int h) override;

 private:
    bool atEnd() const;
    void goToEnd();
    void fitColumn();
    int widthOf(const std::string& line) const;
    void drawHeader(int x, int y, int w, int h) const;
    void drawLine(std::size_t line, int x, int y, int w, int h) const;

    bool handleMouse(int event);
    void press(std::size_t line);
    void dragTo(std::size_t line);
    std::size_t lineUnderMouse();
    bool handleKey();
    void moveCursor(long by);
    void makeVisible(std::size_t line);
    int visibleLines() const;
    void copySelected() const;

    const std::vector<std::string>& lines_;
    ListSelection selection_;
    int textSize_;
    int lineHeight_;
    int widest_ = 0;
    bool dragging_ = false;  // the mouse button went down on a line
};

}  // namespace quelm
