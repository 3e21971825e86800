#pragma once

// What threads need that call libraries which may never return: they take no signals, and a process can end while one
// of them still hangs.

#include <csignal>
#include <future>
#include <vector>

namespace quelm {

// Signals are the business of the thread that waits for them: a thread that is started meanwhile takes none.
class SignalsBlocked {
 public:
    SignalsBlocked();
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked();

 private:
    sigset_t before_{};
};

// Libraries take themselves apart when the process ends, which must not happen under the hands of a thread that is
// still inside of one. As long as there is such a thread the process ends without that.
class LeftBehind {
 public:
    // end becomes ready when the thread has left the library for good. On the main thread.
    static void add(std::future<void> end);

 private:
    static bool isReady(const std::future<void>& end);
    static void endProcess(int status, void* self);

    std::vector<std::future<void>> ends_;
};

}  // namespace quelm
