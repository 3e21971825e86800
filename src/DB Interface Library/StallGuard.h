#pragma once

// Bounds a call into a database's client library, which may wait for a frozen or vanished machine for ever: when the
// time is up, the connection's sockets are shut down, and the library's wait ends with a lost connection.

#include <chrono>
#include <vector>

namespace quelm {

// The sockets that a library opens while this object lives.
class SocketWatch {
 public:
    SocketWatch();
    std::vector<int> opened() const;
    const std::vector<int>& before() const { return before_; }

 private:
    std::vector<int> before_;
};

// One at a time in the whole program.
class StallGuard {
 public:
    // Cuts these sockets.
    StallGuard(std::chrono::milliseconds limit, const std::vector<int>& sockets);
    // Cuts every socket that was not there when the watch began.
    StallGuard(std::chrono::milliseconds limit, const SocketWatch& watch);
    StallGuard(const StallGuard&) = delete;
    StallGuard& operator=(const StallGuard&) = delete;
    ~StallGuard();
    // True once the time was up and the sockets were cut.
    bool hasCut() const;

 private:
    void start(std::chrono::milliseconds limit);
};

}  // namespace quelm
