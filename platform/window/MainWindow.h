#pragma once

// The operator's main window. It starts without a display and opens one only when there is something to be shown; where
// none is to be had, or when it goes away, the messages are printed instead. A server that stays hidden touches none.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "loop/MessageLoop.h"
#include "window/HeadlessWindow.h"
#include "window/IMainWindow.h"
#include "window/IWindowDisplay.h"

namespace quelm {

struct MainWindowEvents {
    // The operator wants the window closed; whoever agrees calls Close.
    std::function<void()> closeRequested;
    // The first Close.
    std::function<void()> closed;
    // A line for standard error: there is no display to show the window on. Once, at the first Show.
    std::function<void(std::string_view)> noDisplay;
    // A line for the log: the display is gone while the window was shown.
    std::function<void(std::string_view)> displayLost;
};

class MainWindow final : public IMainWindow {
 public:
    // openDisplay: empty for a server that is built without displays. The loop must outlive the window.
    MainWindow(IMessageLoop& loop, OpenDisplay openDisplay, MainWindowEvents events);

    IMessageList& lvMessages() override { return list_; }
    IWindowTimer& tmrDisconnect() override { return printed_.tmrDisconnect(); }
    void Show() override;
    void Hide() override;
    void Refresh() override;
    // On a display it returns at once, and its OK closes a window that isn't shown: nobody else could.
    void ShowInformationBox(std::string_view strTitle, std::string_view strText) override;
    void Close() override;
    // The line below the list, on a display: where the messages are printed there is none.
    void ShowStatus(std::string_view strText);

    // Whether the operator sees it, and can close it.
    bool onDisplay() const { return shown_ && displayUsable_; }
    // Whether the message list goes to standard error.
    bool isPrinting() const { return printed_.isPrinting(); }
    // Whether a box waits for the operator.
    bool boxOpen() const { return boxOpen_; }

 private:
    struct MessageList final : IMessageList {
        explicit MessageList(MainWindow& owner) : window(owner) {}
        std::int32_t Count() const override { return window.printed_.lvMessages().Count(); }
        void Add(std::string_view strText) override { window.add(strText); }

        MainWindow& window;
    };

    void add(std::string_view strText);
    IWindowDisplay* needDisplay();
    void boxDismissed();
    void displayLost();

    HeadlessWindow printed_;
    MessageList list_{*this};
    OpenDisplay openDisplay_;
    MainWindowEvents events_;
    std::unique_ptr<IWindowDisplay> display_;
    std::string status_;
    bool displayTried_ = false;
    bool displayUsable_ = false;
    bool shown_ = false;
    bool boxOpen_ = false;
};

}  // namespace quelm
