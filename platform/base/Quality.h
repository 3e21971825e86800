#pragma once

// The quality words of OPC Data Access that this system gives: quality and substatus in the low byte.

#include <cstdint>

namespace quelm::quality {

inline constexpr std::uint16_t bad = 0x00;
inline constexpr std::uint16_t badDeviceFailure = 0x0C;
inline constexpr std::uint16_t badCommFailure = 0x18;
inline constexpr std::uint16_t badOutOfService = 0x1C;
inline constexpr std::uint16_t uncertain = 0x40;
inline constexpr std::uint16_t uncertainLastUsable = 0x44;
inline constexpr std::uint16_t uncertainSensor = 0x50;
inline constexpr std::uint16_t uncertainUnitsExceeded = 0x54;
inline constexpr std::uint16_t uncertainSubNormal = 0x58;
inline constexpr std::uint16_t good = 0xC0;

// By the two bits that say which of the three a quality is.
constexpr bool isGood(std::uint16_t word) {
    return (word & good) == good;
}
constexpr bool isBad(std::uint16_t word) {
    return (word & good) == bad;
}

}  // namespace quelm::quality
