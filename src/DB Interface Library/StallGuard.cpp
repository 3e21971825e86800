#include "DB Interface Library/StallGuard.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string>

namespace quelm {

namespace {

// Beyond these a file number is not looked at.
constexpr int fileLimit = 4096;

// What the signal handler works on: plain data, filled before the timer runs and left alone until it is stopped.
volatile sig_atomic_t isCut = 0;
std::array<bool, fileLimit> toCut;

void cut(int) {
    const int kept = errno;
    for (int file = 0; file < fileLimit; ++file) {
        if (toCut[static_cast<std::size_t>(file)]) {
            // On anything but a socket this does nothing.
            ::shutdown(file, SHUT_RDWR);
        }
    }
    isCut = 1;
    errno = kept;
}

timer_t makeTimer() {
    struct sigaction action {};
    action.sa_handler = cut;
    action.sa_flags = SA_RESTART;
    const int number = SIGRTMIN + 4;
    sigaction(number, &action, nullptr);
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = number;
    timer_t timer{};
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    return timer;
}

timer_t timer() {
    static const timer_t made = makeTimer();
    return made;
}

void setTimer(std::chrono::milliseconds limit) {
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(limit.count() / 1000);
    when.it_value.tv_nsec = static_cast<long>(limit.count() % 1000 * 1'000'000);
    timer_settime(timer(), 0, &when, nullptr);
}

std::vector<int> openSockets() {
    std::vector<int> found;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
        const std::string name = entry.path().filename().string();
        int file = -1;
        std::from_chars(name.data(), name.data() + name.size(), file);
        struct stat status {};
        if (file >= 0 && file < fileLimit && fstat(file, &status) == 0 && S_ISSOCK(status.st_mode)) {
            found.push_back(file);
        }
    }
    return found;
}

}  // namespace

SocketWatch::SocketWatch() : before_(openSockets()) {}

std::vector<int> SocketWatch::opened() const {
    std::vector<int> sockets = openSockets();
    std::erase_if(sockets,
                  [this](int file) { return std::find(before_.begin(), before_.end(), file) != before_.end(); });
    return sockets;
}

StallGuard::StallGuard(std::chrono::milliseconds limit, const std::vector<int>& sockets) {
    toCut.fill(false);
    for (const int file : sockets) {
        toCut[static_cast<std::size_t>(file)] = true;
    }
    start(limit);
}

StallGuard::StallGuard(std::chrono::milliseconds limit, const SocketWatch& watch) {
    toCut.fill(true);
    for (const int file : watch.before()) {
        toCut[static_cast<std::size_t>(file)] = false;
    }
    start(limit);
}

void StallGuard::start(std::chrono::milliseconds limit) {
    isCut = 0;
    setTimer(limit);
}

StallGuard::~StallGuard() {
    setTimer(std::chrono::milliseconds(0));
}

bool StallGuard::hasCut() const {
    return isCut != 0;
}

}  // namespace quelm
