#pragma once

#include <chrono>

namespace quelm {

// How long a database may keep the server waiting. The whole server stands still meanwhile.
struct SqlTimeouts {
    std::chrono::milliseconds connect{5'000};
    std::chrono::milliseconds query{10'000};  // one statement
};

}  // namespace quelm
