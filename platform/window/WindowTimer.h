#pragma once

// The window's timer over the message loop: once set it fires every interval until it is disabled or its interval
// is 0. Setting the interval starts the count anew, as does enabling.

#include <cstdint>
#include <functional>
#include <memory>

#include "loop/MessageLoop.h"
#include "window/IMainWindow.h"

namespace quelm {

class WindowTimer final : public IWindowTimer {
 public:
    // Disabled, with interval 0. The loop must outlive the timer.
    explicit WindowTimer(IMessageLoop& loop);

    void OnTimer(std::function<void()> handler) override { handler_ = std::move(handler); }
    void SetEnabled(bool blnEnabled) override;
    void SetInterval(std::int32_t lngMilliseconds) override;

 private:
    void restart();
    void fire();

    std::function<void()> handler_;
    bool enabled_ = false;
    std::int32_t interval_ = 0;
    std::unique_ptr<ITimer> timer_;
};

}  // namespace quelm
