#pragma once

// The main window as the server host sees it: a list of messages, a timer, a help box. It may have no display at all.

#include <cstdint>
#include <functional>
#include <string_view>

namespace quelm {

// A list view in report layout with the one column "Message". Items are only ever appended.
class IMessageList {
 public:
    virtual ~IMessageList() = default;
    virtual std::int32_t Count() const = 0;
    virtual void Add(std::string_view strText) = 0;
};

// A window timer: while enabled and its interval is above 0 it fires every interval.
class IWindowTimer {
 public:
    virtual ~IWindowTimer() = default;
    virtual void OnTimer(std::function<void()> handler) = 0;
    virtual void SetEnabled(bool blnEnabled) = 0;
    virtual void SetInterval(std::int32_t lngMilliseconds) = 0;
};

class IMainWindow {
 public:
    virtual ~IMainWindow() = default;
    virtual IMessageList& lvMessages() = 0;
    virtual IWindowTimer& tmrDisconnect() = 0;
    virtual void Show() = 0;
    virtual void Hide() = 0;
    // Draws what changed at once.
    virtual void Refresh() = 0;
    // A message box with information icon and one OK button; lines are separated by CR LF.
    virtual void ShowInformationBox(std::string_view strTitle, std::string_view strText) = 0;
    // Closes the window for good, which ends the message loop.
    virtual void Close() = 0;
};

}  // namespace quelm
