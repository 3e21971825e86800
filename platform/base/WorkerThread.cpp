#include "base/WorkerThread.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace quelm {

SignalsBlocked::SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

SignalsBlocked::~SignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void LeftBehind::add(std::future<void> end) {
    static LeftBehind all;
    // Behind the object, so that it runs before the object goes.
    [[maybe_unused]] static const int isSet = on_exit(&LeftBehind::endProcess, &all);
    std::erase_if(all.ends_, isReady);
    all.ends_.push_back(std::move(end));
}

bool LeftBehind::isReady(const std::future<void>& end) {
    return end.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

void LeftBehind::endProcess(int status, void* self) {
    const auto& ends = static_cast<LeftBehind*>(self)->ends_;
    if (!std::all_of(ends.begin(), ends.end(), isReady)) {
        std::fflush(nullptr);
        _exit(status);
    }
}

}  // namespace quelm
