#include "OPC/OPC DA Server/MonitorProcessCodeFunctions.h"

#include <array>
#include <cstddef>
#include <initializer_list>

namespace quelm {

namespace {

constexpr std::size_t monitorCodes = static_cast<std::size_t>(MaxMonitorCode()) + 1;
constexpr std::size_t processCodes = static_cast<std::size_t>(MaxProcessCode()) + 1;
constexpr std::int16_t unranked = 2999;
constexpr std::int16_t unlistedProcessCode = 299;

using MonitorCodeSet = std::array<bool, monitorCodes>;

constexpr MonitorCodeSet setOf(std::initializer_list<std::size_t> codes) {
    MonitorCodeSet set{};
    for (const std::size_t code : codes) {
        set[code] = true;
    }
    return set;
}

constexpr MonitorCodeSet downMonitorCodes = setOf({13, 23, 29, 32, 39, 60, 64, 65, 68});
constexpr MonitorCodeSet goodMonitorCodes = setOf({0,  26, 35, 36, 38, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50,
                                                   51, 52, 53, 54, 55, 56, 57, 61, 73, 75, 80, 81, 82, 83, 84});

bool isMonitorCode(std::int32_t code) {
    return code >= MinMonitorCode() && code <= MaxMonitorCode();
}

bool contains(const MonitorCodeSet& set, std::int32_t code) {
    return isMonitorCode(code) && set[static_cast<std::size_t>(code)];
}

struct CodeRank {
    std::size_t code;
    std::int16_t rank;
};

// The thousands are the category: 1 down, 2 neither down nor good, 3 good.
constexpr CodeRank listedMonitorCodes[] = {
    {13, 1999}, {23, 1040}, {29, 1030}, {32, 1020}, {39, 1010}, {60, 1000}, {64, 1005}, {65, 1007}, {68, 1002},
    {11, 2070}, {12, 2080}, {14, 2060}, {15, 2030}, {16, 2090}, {17, 2100}, {18, 2990}, {19, 2110}, {20, 2040},
    {21, 2940}, {22, 2960}, {24, 2010}, {25, 2050}, {27, 2130}, {28, 2950}, {30, 2020}, {31, 2160}, {33, 2140},
    {34, 2170}, {37, 2120}, {58, 2150}, {59, 2005}, {62, 2154}, {63, 2156}, {66, 2152}, {67, 2165}, {70, 2980},
    {71, 2970}, {72, 2965}, {74, 2065}, {77, 2967}, {78, 2003}, {79, 2063}, {0, 3999},  {26, 3020}, {35, 3150},
    {36, 3160}, {38, 3980}, {40, 3130}, {41, 3120}, {42, 3110}, {43, 3100}, {44, 3090}, {45, 3140}, {46, 3080},
    {47, 3070}, {48, 3050}, {49, 3060}, {50, 3040}, {51, 3030}, {52, 3025}, {53, 3200}, {54, 3210}, {55, 3190},
    {56, 3180}, {57, 3170}, {61, 3240}, {73, 3990}, {75, 3230}, {80, 3037}, {81, 3034}, {82, 3165}, {83, 3117},
    {84, 3114},
};

std::array<std::int16_t, monitorCodes> malngMonitorCodeRank;
// Filled like the product's other programs do; this server ranks no process codes.
std::array<std::int16_t, processCodes> malngProcessCodeRank;
bool mblnCodeRanksLoaded = false;

void loadProcessCodeRanks() {
    malngProcessCodeRank.fill(unlistedProcessCode);
    const auto rank = [](std::size_t first, std::size_t last, std::size_t base) {
        for (std::size_t code = first; code <= last; ++code) {
            malngProcessCodeRank[code] = static_cast<std::int16_t>(base + code);
        }
    };
    rank(1, 7, 100);
    rank(90, 99, 100);
    rank(8, 9, 200);
    rank(13, 13, 200);
}

void loadCodeRanks() {
    malngMonitorCodeRank.fill(unranked);
    for (const CodeRank& listed : listedMonitorCodes) {
        malngMonitorCodeRank[listed.code] = listed.rank;
    }
    loadProcessCodeRanks();
    mblnCodeRanksLoaded = true;
}

}  // namespace

bool IsDownMonitorCode(std::int32_t lngCode) {
    return contains(downMonitorCodes, lngCode);
}

bool IsGoodMonitorCode(std::int32_t lngCode) {
    return contains(goodMonitorCodes, lngCode);
}

bool IsRankedMonitorCode(std::int32_t lngCode) {
    if (!mblnCodeRanksLoaded) {
        loadCodeRanks();
    }
    return isMonitorCode(lngCode) && malngMonitorCodeRank[static_cast<std::size_t>(lngCode)] != unranked;
}

}  // namespace quelm
