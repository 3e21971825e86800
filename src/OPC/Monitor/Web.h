#pragma once

// The monitor's HTTP server. Requests are taken by threads of its own, which share nothing: each hands its question to
// the loop, where one thread alone talks to the server, and waits for the reply.

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "OPC/Monitor/Answers.h"
#include "OPC/Monitor/Settings.h"
#include "loop/MessageLoop.h"

namespace quelm::monitor {

class Web {
 public:
    // answers: asked on the loop alone. Both must outlive this object.
    Web(const Settings& settings, IMessageLoop& loop, Answers& answers);
    ~Web();
    Web(const Web&) = delete;
    Web& operator=(const Web&) = delete;

    // The port that it listens on; -1 where address or port cannot be had (errno says why).
    int listen();
    // Requests are taken from now on. onEnd is called on the loop once the last reply is out, after stop().
    void start(std::function<void()> onEnd);
    void stop();

 private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quelm::monitor
