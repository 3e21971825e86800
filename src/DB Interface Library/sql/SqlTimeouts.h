#pragma once

#include <chrono>

namespace quelm {

// How long a database may keep its callers waiting.
struct SqlTimeouts {
    std::chrono::milliseconds connect{5'000};
    std::chrono::milliseconds query{10'000};  // one statement, or all statements of one read
    // What a database and its library get beyond that to say so themselves, before nobody waits any longer.
    std::chrono::milliseconds grace{1'000};
    // For so long after a connection that failed the next calls fail at once, for the same reason: all that is due in
    // one tick waits for a dead database once. Much shorter than a tick, so that the next one connects again.
    std::chrono::milliseconds holdOff{1'000};
};

}  // namespace quelm
