#pragma once

// What the operator sees of the main window, where there is a display: the list, drawn, and the help box. The main
// window decides what is shown; the display draws it and reports what the operator does.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

// What a display reports. It does so from the message loop only, never from within one of its own operations.
struct DisplayEvents {
    std::function<void()> closeRequested;  // the operator closes the main window, which stays until it is hidden
    std::function<void()> boxDismissed;
    std::function<void()> lost;  // the display is gone; its operations do nothing from now on
};

class IWindowDisplay {
 public:
    virtual ~IWindowDisplay() = default;
    virtual void Show() = 0;
    virtual void Hide() = 0;
    // The list has one more line. It is drawn with the next Refresh or, without one, as soon as the loop is free.
    virtual void LineAdded() = 0;
    virtual void Refresh() = 0;
    // The line below the list. It is drawn as soon as the loop is free.
    virtual void ShowStatus(std::string_view strText) = 0;
    // Returns at once. One box at a time; lines are separated by CR LF.
    virtual void ShowInformationBox(std::string_view strTitle, std::string_view strText) = 0;
};

// Opens the display that draws these lines, which outlive it; nothing when there is none to be opened.
using OpenDisplay =
    std::function<std::unique_ptr<IWindowDisplay>(const std::vector<std::string>& lines, DisplayEvents events)>;

}  // namespace quelm
