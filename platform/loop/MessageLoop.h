#pragma once

// A message loop, which one thread runs on: timers, sockets, window events, signals and what other threads post are all
// handlers called by it, one after the other. The plant has one (the main thread), the network another. Nothing here
// but post() may be used from another thread.

#include <chrono>
#include <functional>
#include <memory>

namespace quelm {

// A one-shot timer. Gone with its object: after stop() or destruction the handler is never called again.
class ITimer {
 public:
    // Stops the timer.
    virtual ~ITimer() = default;
    // Calls the handler once, the given time from now (elapsed time, untouched by changes of the clock; zero or less:
    // as soon as the loop is free). A start that is still pending is replaced. The handler itself may start again.
    virtual void start(std::chrono::milliseconds after) = 0;
    virtual void stop() = 0;
    // Whether the handler is still to be called.
    virtual bool pending() const = 0;
};

class IMessageLoop {
 public:
    virtual ~IMessageLoop() = default;
    // A stopped timer, which may outlive neither the loop nor what onExpiry refers to. onExpiry may destroy the
    // timer that calls it.
    virtual std::unique_ptr<ITimer> makeTimer(std::function<void()> onExpiry) = 0;
    // Calls task once, after the handler that is running now and everything posted before.
    // From another thread that is the only way in.
    virtual void post(std::function<void()> task) = 0;
    // Calls task once, right after the handler that is running now and before any other; also when the handler lets a
    // failure out.
    virtual void afterHandler(std::function<void()> task) = 0;
};

}  // namespace quelm
