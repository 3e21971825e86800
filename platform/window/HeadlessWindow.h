#pragma once

// The main window of a server without a display: keeps the message list and runs the window timer. A shown window
// prints its list to standard error; a box goes to standard output.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "loop/MessageLoop.h"
#include "window/IMainWindow.h"
#include "window/WindowTimer.h"

namespace quelm {

class HeadlessWindow final : public IMainWindow {
 public:
    // onClose: called once, by the first Close. The loop must outlive the window.
    HeadlessWindow(IMessageLoop& loop, std::function<void()> onClose);

    IMessageList& lvMessages() override { return list_; }
    IWindowTimer& tmrDisconnect() override { return timer_; }
    // Prints the lines that the list holds and, from then on, every line that it gets.
    void Show() override;
    void Hide() override { list_.printing = false; }
    void Refresh() override {}
    void ShowInformationBox(std::string_view strTitle, std::string_view strText) override;
    void Close() override;

    // The message list's lines, oldest first.
    const std::vector<std::string>& lines() const { return list_.lines; }
    bool isPrinting() const { return list_.printing; }

 private:
    struct MessageList final : IMessageList {
        std::int32_t Count() const override { return static_cast<std::int32_t>(lines.size()); }
        void Add(std::string_view strText) override;
        void printRest();

        std::vector<std::string> lines;
        std::size_t printed = 0;
        bool printing = false;
    };

    MessageList list_;
    WindowTimer timer_;
    std::function<void()> onClose_;
};

}  // namespace quelm
