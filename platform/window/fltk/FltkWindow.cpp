#include "window/fltk/FltkWindow.h"

#include <FL/Fl.H>
#include <FL/Fl_Box.H>
#include <FL/Fl_Double_Window.H>
#include <FL/Fl_Return_Button.H>
#include <FL/Fl_Tooltip.H>
#include <FL/fl_draw.H>
#include <FL/x.H>
#include <X11/Xlib.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "window/fltk/MessageTable.h"

namespace quelm {
namespace {

constexpr const char* windowCaption = "Quelm 5 OPC Server";
constexpr const char* windowClass = "Q5OPCServer";

// A scroll bar's button that is held down repeats by FLTK's own timers, which need FLTK to be called.
constexpr std::chrono::milliseconds heldButtonPeriod{25};
// A display whose connection is full hangs or is far behind: whoever drew on would wait for it, and the OPC clients
// with it. It is looked at again after this time.
constexpr std::chrono::milliseconds behindPeriod{250};
// How long a window that was just shown is waited for, so that it already shows what start-up reports: 40 times 25 ms.
constexpr int showAttempts = 40;
constexpr double showAttemptSeconds = 0.025;

// An error of one request, say to a window of another program that has just gone, is no reason to end.
int reportError(Display* display, XErrorEvent* error) {
    char text[128] = "";
    XGetErrorText(display, error->error_code, text, sizeof text);
    std::fprintf(stderr, "The display refused request %d: %s\n", error->request_code, text);
    return 0;
}

// What follows is for the exit handler.
int ignoreLoss(Display*) {
    return 0;
}

// Pixels per pixel of an ordinary screen, for texts of readable size: from the resolution that the desktop sets, or
// else from the screen's size, which counts only when it is plainly a fine one, because small displays often invent it.
double scaleOf(Display* display) {
    constexpr double ordinary = 96;
    constexpr double plainlyFine = 144;
    const char* setting = XGetDefault(display, "Xft", "dpi");
    double dotsPerInch = setting != nullptr ? std::atof(setting) : 0;
    if (dotsPerInch <= 0 && DisplayHeightMM(display, DefaultScreen(display)) > 0) {
        dotsPerInch =
            25.4 * DisplayHeight(display, DefaultScreen(display)) / DisplayHeightMM(display, DefaultScreen(display));
        dotsPerInch = dotsPerInch < plainlyFine ? ordinary : dotsPerInch;
    }
    return std::clamp(dotsPerInch / ordinary, 1.0, 4.0);
}

// A text as a label draws it: no carriage returns, and an @ is no symbol.
std::string labelText(std::string_view strText) {
    std::string text;
    for (const char c : strText) {
        if (c == '@') {
            text += '@';
        }
        if (c != '\r') {
            text += c;
        }
    }
    return text;
}

// Knows when it has been drawn for the first time.
class DrawnWindow final : public Fl_Double_Window {
 public:
    using Fl_Double_Window::Fl_Double_Window;
    bool drawn() const { return drawn_; }

 protected:
    void draw() override {
        Fl_Double_Window::draw();
        drawn_ = true;
    }

 private:
    bool drawn_ = false;
};

class FltkWindow final : public IWindowDisplay {
 public:
    FltkWindow(AsioLoop& loop, Display* display, const std::vector<std::string>& lines, DisplayEvents events);
    FltkWindow(const FltkWindow&) = delete;
    FltkWindow& operator=(const FltkWindow&) = delete;
    ~FltkWindow() override;

    void Show() override;
    void Hide() override;
    void LineAdded() override;
    void Refresh() override;
    void ShowStatus(std::string_view strText) override;
    void ShowInformationBox(std::string_view strTitle, std::string_view strText) override;

 private:
    int scaled(int pixels) const { return static_cast<int>(std::lround(pixels * scale_)); }
    void makeMainWindow(const std::vector<std::string>& lines);
    void present(DrawnWindow& window);
    void work();
    void workSoon();
    bool displayBehind() const;
    void takeNewLines();
    void displayGone();
    static void closeAsked(Fl_Widget*, void* self);
    static void okPressed(Fl_Widget*, void* self);

    AsioLoop& loop_;
    Display* display_;
    DisplayEvents events_;
    double scale_;
    bool lost_ = false;
    bool workPosted_ = false;
    bool linesPending_ = false;
    DrawnWindow* main_ = nullptr;
    MessageTable* table_ = nullptr;  // the main window's
    Fl_Box* status_ = nullptr;       // the same
    DrawnWindow* box_ = nullptr;
    std::unique_ptr<IDescriptorWatch> watch_;
    std::unique_ptr<ITimer> workAgain_;
};

FltkWindow::FltkWindow(AsioLoop& loop, Display* display, const std::vector<std::string>& lines, DisplayEvents events)
    : loop_(loop),
      display_(display),
      events_(std::move(events)),
      scale_(scaleOf(display)),
      workAgain_(loop.makeTimer([this] { work(); })) {
    XSetErrorHandler(reportError);
    XSetIOErrorHandler(ignoreLoss);
    XSetIOErrorExitHandler(
        display, [](Display*, void* self) { static_cast<FltkWindow*>(self)->displayGone(); }, this);
    fl_open_display(display);
    // Tool tips would need timers of FLTK's at any time.
    Fl_Tooltip::disable();
    Fl::scheme("gleam");
    Fl::background(0xE8, 0xE8, 0xE8);
    Fl::background2(0xFF, 0xFF, 0xFF);
    Fl::set_color(FL_SELECTION_COLOR, 0x2A, 0x62, 0xB8);
    Fl::scrollbar_size(scaled(16));
    FL_NORMAL_SIZE = scaled(14);
    makeMainWindow(lines);
    watch_ = loop_.watch(ConnectionNumber(display), [this] { work(); });
}

// What belongs to a display that is gone stays in memory: there is nobody to be told that it is destroyed.
FltkWindow::~FltkWindow() {
    if (!lost_) {
        delete box_;
        delete main_;
        XSetIOErrorExitHandler(
            display_, [](Display*, void*) {}, nullptr);
        XFlush(display_);
    }
}

void FltkWindow::makeMainWindow(const std::vector<std::string>& lines) {
    main_ = new DrawnWindow(std::min(scaled(940), Fl::w()), std::min(scaled(500), Fl::h()), windowCaption);
    const int listHeight = main_->h() - scaled(24);
    table_ = new MessageTable(0, 0, main_->w(), listHeight, lines, FL_NORMAL_SIZE);
    status_ = new Fl_Box(FL_FLAT_BOX, 0, listHeight, main_->w(), main_->h() - listHeight, nullptr);
    status_->align(FL_ALIGN_LEFT | FL_ALIGN_INSIDE | FL_ALIGN_CLIP);
    main_->end();
    main_->resizable(table_);
    main_->size_range(scaled(240), scaled(120));
    main_->xclass(windowClass);
    main_->callback(closeAsked, this);
}

void FltkWindow::Show() {
    if (!lost_) {
        takeNewLines();
        present(*main_);
        table_->take_focus();
    }
}

void FltkWindow::Hide() {
    if (!lost_) {
        main_->hide();
        work();
    }
}

void FltkWindow::LineAdded() {
    linesPending_ = true;
    workSoon();
}

void FltkWindow::Refresh() {
    work();
}

void FltkWindow::ShowStatus(std::string_view strText) {
    if (!lost_) {
        status_->copy_label((' ' + labelText(strText)).c_str());
        workSoon();
    }
}

void FltkWindow::ShowInformationBox(std::string_view strTitle, std::string_view strText) {
    if (lost_) {
        return;
    }
    const std::string text = labelText(strText);
    int textWidth = 0;
    int textHeight = 0;
    fl_font(FL_HELVETICA, FL_NORMAL_SIZE);
    fl_measure(text.c_str(), textWidth, textHeight);
    const int margin = scaled(16);
    const int icon = scaled(40);
    const int buttonHeight = scaled(28);
    const int buttonWidth = scaled(96);
    const int upper = std::max(textHeight, icon);
    delete box_;
    box_ = new DrawnWindow(icon + textWidth + 3 * margin, upper + buttonHeight + 3 * margin);
    // What is made before end() belongs to the box.  NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
    auto* mark = new Fl_Box(FL_OFLAT_BOX, margin, margin, icon, icon, "i");
    mark->color(fl_rgb_color(0x1f, 0x5f, 0xbf));
    mark->labelcolor(FL_WHITE);
    mark->labelfont(FL_TIMES_BOLD);
    mark->labelsize(scaled(30));
    auto* label = new Fl_Box(icon + 2 * margin, margin, textWidth, upper);
    label->copy_label(text.c_str());
    label->align(FL_ALIGN_LEFT | FL_ALIGN_TOP | FL_ALIGN_INSIDE);
    auto* ok = new Fl_Return_Button((box_->w() - buttonWidth) / 2, upper + 2 * margin, buttonWidth, buttonHeight, "OK");
    ok->callback(okPressed, this);
    box_->end();
    // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
    box_->copy_label(std::string(strTitle).c_str());
    box_->xclass(windowClass);
    box_->callback(okPressed, this);
    box_->position(Fl::x() + (Fl::w() - box_->w()) / 2, Fl::y() + (Fl::h() - box_->h()) / 2);
    box_->set_modal();
    present(*box_);
}

// Start-up keeps the loop busy after this, and its lines are to be seen as they come.
void FltkWindow::present(DrawnWindow& window) {
    window.show();
    for (int i = 0; i < showAttempts && !window.drawn() && !lost_; ++i) {
        Fl::wait(showAttemptSeconds);
    }
    work();
}

void FltkWindow::work() {
    if (lost_) {
        return;
    }
    if (displayBehind()) {
        workAgain_->start(behindPeriod);
        return;
    }
    if (linesPending_) {
        takeNewLines();
    }
    Fl::check();
    if (lost_) {
        return;
    }
    // What Xlib has already read makes its descriptor readable no more.
    if (XEventsQueued(display_, QueuedAlready) > 0) {
        workSoon();
    }
    if (Fl::pushed() != nullptr && !workAgain_->pending()) {
        workAgain_->start(heldButtonPeriod);
    }
}

void FltkWindow::workSoon() {
    if (!std::exchange(workPosted_, true)) {
        loop_.post([this] {
            workPosted_ = false;
            work();
        });
    }
}

// A connection takes more only while most of its buffer is free, so one drawing of everything always fits.
bool FltkWindow::displayBehind() const {
    pollfd connection{.fd = ConnectionNumber(display_), .events = POLLOUT, .revents = 0};
    return poll(&connection, 1, 0) == 0;
}

void FltkWindow::takeNewLines() {
    linesPending_ = false;
    table_->takeNewLines();
}

// Called from inside Xlib, which goes on with what it was doing.
void FltkWindow::displayGone() {
    if (std::exchange(lost_, true)) {
        return;
    }
    loop_.post([this] {
        watch_.reset();
        workAgain_->stop();
        events_.lost();
    });
}

void FltkWindow::closeAsked(Fl_Widget*, void* self) {
    // Escape is FLTK's other way to close a window; this one closes by its frame alone.
    if (Fl::event() == FL_SHORTCUT || Fl::event() == FL_KEYBOARD) {
        return;
    }
    auto& window = *static_cast<FltkWindow*>(self);
    window.loop_.post([&window] { window.events_.closeRequested(); });
}

void FltkWindow::okPressed(Fl_Widget*, void* self) {
    auto& window = *static_cast<FltkWindow*>(self);
    window.box_->hide();
    window.loop_.post([&window] { window.events_.boxDismissed(); });
}

}  // namespace

std::unique_ptr<IWindowDisplay> openFltkWindow(AsioLoop& loop, const std::vector<std::string>& lines,
                                               DisplayEvents events) {
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        return nullptr;
    }
    return std::make_unique<FltkWindow>(loop, display, lines, std::move(events));
}

}  // namespace quelm
