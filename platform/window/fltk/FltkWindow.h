#pragma once

// The main window and the help box on an X display, drawn with FLTK, whose events run inside the message loop: FLTK
// works when the display has sent something, when there is something to draw, and while a mouse button is held.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "loop/AsioLoop.h"
#include "window/IWindowDisplay.h"

namespace quelm {

// Opens the display that the environment names (DISPLAY); nothing when it cannot be opened. Once per process. The loop
// and the lines must outlive the window.
std::unique_ptr<IWindowDisplay> openFltkWindow(AsioLoop& loop, const std::vector<std::string>& lines,
                                               DisplayEvents events);

}  // namespace quelm
