#pragma once

// How old a cached value may be for a client that says so: its age is the time since the pass that set it, which is the
// pass of its time stamp.

#include <cstddef>
#include <cstdint>
#include <span>

namespace quelm::opcda {

// Milliseconds. The cache's value is taken, however old; and never, so that the plant is asked.
inline constexpr std::uint32_t anyAge = 0xFFFFFFFF;
inline constexpr std::uint32_t noAge = 0;

// fileTime: the value's time stamp, 0 for none; now: both UTC, FILETIME. maxAge: milliseconds.
constexpr bool isYoungEnough(std::int64_t fileTime, std::uint32_t maxAge, std::int64_t now) {
    constexpr std::int64_t unitsPerMillisecond = 10'000;
    return maxAge == anyAge || (maxAge != noAge && now - fileTime <= maxAge * unitsPerMillisecond);
}

// The maximum ages of the items of one call: one for all, or one for each.
class MaxAges {
 public:
    explicit constexpr MaxAges(std::uint32_t ofAll) : ofAll_(ofAll) {}
    explicit constexpr MaxAges(std::span<const std::uint32_t> each) : each_(each) {}
    constexpr std::uint32_t operator[](std::size_t item) const { return each_.empty() ? ofAll_ : each_[item]; }

 private:
    std::span<const std::uint32_t> each_;
    std::uint32_t ofAll_ = noAge;
};

}  // namespace quelm::opcda
