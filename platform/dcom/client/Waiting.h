#pragma once

// Waits for something by running the loop, which callbacks and timers come on meanwhile. One wait at a time: what is
// called by the loop may not wait for the loop.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "loop/AsioLoop.h"

namespace quelm::dcom::client {

class Waiting {
 public:
    explicit Waiting(AsioLoop& loop) : loop_(loop), timer_(loop.makeTimer([this] { isLate_ = true; })) {}

    // Until the condition holds, which is looked at before and after every handler. False: the limit was up. Throws
    // Trouble(Interrupted) after interrupt(), std::logic_error from within another wait, and what a handler throws.
    bool until(const std::function<bool()>& condition, std::optional<std::chrono::milliseconds> limit = std::nullopt);
    // Until what had happened already when this was called has been told of: ends of connections, most of all.
    void settle();

    void interrupt() { isInterrupted_ = true; }
    // For what has to be tidied up whatever the user asked for.
    void forgetInterruption() { isInterrupted_ = false; }
    bool isWaiting() const { return isWaiting_; }

 private:
    AsioLoop& loop_;
    std::unique_ptr<ITimer> timer_;
    bool isWaiting_ = false;
    bool isLate_ = false;
    bool isInterrupted_ = false;
};

}  // namespace quelm::dcom::client
