#pragma once

// A time limit that is set anew for every call: most of them are kept, and then setting and clearing it costs no timer.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "base/TimeSource.h"
#include "loop/MessageLoop.h"

namespace quelm::dcom::outgoing {

class Deadline {
 public:
    // onExpiry may destroy the deadline.
    Deadline(IMessageLoop& loop, std::function<void()> onExpiry)
        : onExpiry_(std::move(onExpiry)), timer_(loop.makeTimer([this] { onTimer(); })) {}

    void set(std::chrono::milliseconds limit) {
        due_ = now() + limit;
        if (!timer_->pending() || due_ < fires_) {
            fires_ = due_;
            timer_->start(limit);
        }
    }
    // The timer may still fire once, and finds nothing due.
    void clear() { due_ = none; }

 private:
    static constexpr std::chrono::milliseconds none{0};
    static std::chrono::milliseconds now() { return std::chrono::milliseconds(timeSource().monotonicMilliseconds()); }

    void onTimer() {
        if (due_ == none) {
            return;
        }
        const auto left = due_ - now();
        if (left > std::chrono::milliseconds(0)) {
            fires_ = due_;
            timer_->start(left);
            return;
        }
        due_ = none;
        onExpiry_();
    }

    std::function<void()> onExpiry_;
    std::unique_ptr<ITimer> timer_;
    std::chrono::milliseconds due_ = none;
    std::chrono::milliseconds fires_ = none;
};

}  // namespace quelm::dcom::outgoing
