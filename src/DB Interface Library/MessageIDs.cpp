#include "DB Interface Library/MessageIDs.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/TimeSource.h"

namespace quelm {

namespace {

constexpr std::int64_t fileTimeOf1970 = 116'444'736'000'000'000;
constexpr std::int64_t fileTimePerMillisecond = 10'000;

std::uint64_t present() {
    const std::int64_t since1970 = std::max<std::int64_t>(timeSource().fileTimeNow() - fileTimeOf1970, 0);
    const std::int64_t milliseconds = since1970 / fileTimePerMillisecond;
    const std::int64_t part = since1970 % fileTimePerMillisecond * 4096 / fileTimePerMillisecond;
    return static_cast<std::uint64_t>(milliseconds) << 12 | static_cast<std::uint64_t>(part);
}

}  // namespace

std::string MessageIDs::next() {
    last_ = std::max(present(), last_ + 1);
    const std::uint64_t random = static_cast<std::uint64_t>(random_()) << 32 | random_();
    // The digits 7 and 8 to b stand for the version and the form of UUID.
    return fmt::format("{:08x}-{:04x}-7{:03x}-{:04x}-{:012x}", last_ >> 28 & 0xFFFF'FFFF, last_ >> 12 & 0xFFFF,
                       last_ & 0xFFF, 0x8000 | (random >> 48 & 0x3FFF), random & 0xFFFF'FFFF'FFFF);
}

}  // namespace quelm
