#include "window/MainWindow.h"

#include <utility>

namespace quelm {

MainWindow::MainWindow(IMessageLoop& loop, OpenDisplay openDisplay, MainWindowEvents events)
    : printed_(loop, std::move(events.closed)), openDisplay_(std::move(openDisplay)), events_(std::move(events)) {}

void MainWindow::Show() {
    const bool firstTime = !displayTried_;
    shown_ = true;
    if (IWindowDisplay* display = needDisplay()) {
        display->Show();
        return;
    }
    if (firstTime && openDisplay_) {
        events_.noDisplay("There is no display for the main window; its messages follow here");
    }
    printed_.Show();
}

void MainWindow::Hide() {
    shown_ = false;
    printed_.Hide();
    if (displayUsable_) {
        display_->Hide();
    }
}

void MainWindow::Refresh() {
    if (displayUsable_) {
        display_->Refresh();
    }
}

void MainWindow::ShowInformationBox(std::string_view strTitle, std::string_view strText) {
    if (IWindowDisplay* display = needDisplay()) {
        boxOpen_ = true;
        display->ShowInformationBox(strTitle, strText);
    } else {
        printed_.ShowInformationBox(strTitle, strText);
    }
}

void MainWindow::Close() {
    Hide();
    printed_.Close();
}

void MainWindow::ShowStatus(std::string_view strText) {
    if (status_ == strText) {
        return;
    }
    status_ = strText;
    if (displayUsable_) {
        display_->ShowStatus(status_);
    }
}

void MainWindow::add(std::string_view strText) {
    printed_.lvMessages().Add(strText);
    if (displayUsable_) {
        display_->LineAdded();
    }
}

IWindowDisplay* MainWindow::needDisplay() {
    if (!std::exchange(displayTried_, true) && openDisplay_) {
        display_ = openDisplay_(printed_.lines(), {.closeRequested = [this] { events_.closeRequested(); },
                                                   .boxDismissed = [this] { boxDismissed(); },
                                                   .lost = [this] { displayLost(); }});
        displayUsable_ = display_ != nullptr;
        if (displayUsable_) {
            display_->ShowStatus(status_);
        }
    }
    return displayUsable_ ? display_.get() : nullptr;
}

void MainWindow::boxDismissed() {
    boxOpen_ = false;
    if (!shown_) {
        events_.closeRequested();
    }
}

// The display's object stays: it is what has just called.
void MainWindow::displayLost() {
    displayUsable_ = false;
    if (shown_) {
        printed_.Show();
        events_.displayLost("[Window] The display is gone; the messages go to standard error from now on");
    }
    if (boxOpen_) {
        boxDismissed();
    }
}

}  // namespace quelm
