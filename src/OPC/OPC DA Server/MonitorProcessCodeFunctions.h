#pragma once

// The product's monitor codes (the status of a value, 0 to 84) and process codes (0 to 99): which monitor codes mean
// good data, which mean a monitor that is down, and how the codes rank.

#include <cstdint>

namespace quelm {

constexpr std::int32_t MinMonitorCode() {
    return 0;
}
constexpr std::int32_t MaxMonitorCode() {
    return 84;
}
constexpr std::int32_t MaxProcessCode() {
    return 99;
}

// Any number may be asked; codes outside 0 to 84 are neither down nor good nor ranked.
bool IsDownMonitorCode(std::int32_t lngCode);
bool IsGoodMonitorCode(std::int32_t lngCode);
bool IsRankedMonitorCode(std::int32_t lngCode);

}  // namespace quelm
