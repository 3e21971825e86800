#pragma once

// The IDs of command message records: unique among all programs and computers that write to a realtime database, and
// ascending in the order in which they are made, so that the I/O servers can carry commands out in that order.

#include <cstdint>
#include <random>
#include <string>

namespace quelm {

class MessageIDs {
 public:
    // A UUID of version 7 in its usual text form, lower case. A clock that is set back doesn't break the order. Raises
    // std::runtime_error when the system gives no random numbers.
    std::string next();

 private:
    // Milliseconds since 1970, UTC, in the upper 48 bits of 60; 1/4096 of one in the lower 12.
    std::uint64_t last_ = 0;
    std::random_device random_;
};

}  // namespace quelm
