#pragma once

// A message loop of the running program, over one asio io_context. Sockets share the context; everybody else
// sees only IMessageLoop.

#include <functional>
#include <initializer_list>
#include <memory>
#include <vector>

#include "loop/MessageLoop.h"

namespace asio {
class io_context;
}

namespace quelm {

// A watch over a file descriptor. Gone with its object: after destruction the handler is never called again.
class IDescriptorWatch {
 public:
    virtual ~IDescriptorWatch() = default;
};

class AsioLoop final : public IMessageLoop {
 public:
    AsioLoop();
    ~AsioLoop() override;

    std::unique_ptr<ITimer> makeTimer(std::function<void()> onExpiry) override;
    void post(std::function<void()> task) override;
    void afterHandler(std::function<void()> task) override { after_.push_back(std::move(task)); }

    // Runs handlers until stop(), on the calling thread. What a handler throws leaves run(), which may then be called
    // again.
    void run();
    // Waits for one handler and runs it, for a program of one thread that has something to wait for. False where stop()
    // came instead. Not from within a handler.
    bool runOne();
    // Lets run() return after the handler that is running now; a stop() before run() counts too. May be called from
    // another thread.
    void stop();
    // From now on these signals call the handler, on the loop like any other, with the signal's number. A second
    // call replaces the first one's signals and handler. Throws std::system_error for a signal that cannot be caught.
    void onSignal(std::initializer_list<int> signals, std::function<void(int)> handler);

    // Calls the handler whenever the descriptor has something to read or is at its end. The descriptor stays the
    // caller's, who closes it after the watch is gone. onReadable may destroy the watch that calls it. Throws
    // std::system_error for a descriptor that cannot be waited on.
    std::unique_ptr<IDescriptorWatch> watch(int descriptor, std::function<void()> onReadable);

    asio::io_context& context();

 private:
    void runAfter();

    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::vector<std::function<void()>> after_;
};

}  // namespace quelm
