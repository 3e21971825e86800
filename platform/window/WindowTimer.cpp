#include "window/WindowTimer.h"

#include <chrono>

namespace quelm {

WindowTimer::WindowTimer(IMessageLoop& loop) : timer_(loop.makeTimer([this] { fire(); })) {}

void WindowTimer::SetEnabled(bool blnEnabled) {
    if (enabled_ != blnEnabled) {
        enabled_ = blnEnabled;
        restart();
    }
}

void WindowTimer::SetInterval(std::int32_t lngMilliseconds) {
    interval_ = lngMilliseconds;
    restart();
}

void WindowTimer::restart() {
    if (enabled_ && interval_ > 0) {
        timer_->start(std::chrono::milliseconds(interval_));
    } else {
        timer_->stop();
    }
}

// The next expiry is set first: the handler may stop the timer.
void WindowTimer::fire() {
    restart();
    if (handler_) {
        handler_();
    }
}

}  // namespace quelm
