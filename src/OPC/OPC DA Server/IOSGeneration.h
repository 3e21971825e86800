#pragma once

// For the files of IOSSimpleManager alone: what tells the two generations of I/O servers apart, and how their reads
// are counted.

#include <cstdint>
#include <optional>
#include <string_view>

#include "DB Interface Library/IDBIL.h"
#include "OPC/OPC DA Server/IOSSimpleManager.h"
#include "base/RuntimeError.h"

namespace quelm {

constexpr std::uint8_t noGeneration = 0;
constexpr std::uint8_t generation5 = 5;
constexpr std::uint8_t generation6 = 6;

// The generation that owns channels of that definition type.
constexpr std::uint8_t generationOfType(std::int32_t lngDefinitionType) {
    switch (lngDefinitionType) {
        case definitiontype::ios5Channel:
        case definitiontype::ios5Implicit:
            return generation5;
        case definitiontype::ios6Channel:
        case definitiontype::ios6MultiValueCSV:
        case definitiontype::ios6MultiValueUDT:
            return generation6;
        default:
            return noGeneration;
    }
}

// The count only tells one log line from the next; having passed its limit it goes on at 1000, not 0 or 1, so that it
// doesn't look like a fresh start. Deliberate: the limit itself may be passed by one.
constexpr std::int32_t nextReadCount(std::int32_t lngReadCount) {
    constexpr std::int32_t limit = 0x3FFFFFFF;
    return lngReadCount > limit ? 1000 : lngReadCount + 1;
}

// Raises RuntimeError 6 when the sum does not fit.
inline std::int32_t addChecked(std::int32_t left, std::int32_t right) {
    std::int32_t sum = 0;
    if (__builtin_add_overflow(left, right, &sum)) {
        throw RuntimeError(errors::overflow);
    }
    return sum;
}

// What differs between the two generations: the keys of their records (IOS5's carry no digit), the codes of their
// messages and the fields that belong to them.
struct IOSSimpleManager::Generation {
    std::uint8_t number;
    std::string_view label;
    std::string_view heartbeatKey;
    std::string_view refreshedKey;
    std::string_view codeNoHeartbeat;
    std::string_view codeNoRefreshed;
    std::string_view codeUpdateFailed;
    std::string_view codePolling;
    std::string_view codePollingFailed;
    std::string_view codeUsedFailed;
    std::string_view queue;
    std::string_view codeAllDataAsked;
    std::string_view codeAllDataNotAsked;
    Date IOSSimpleManager::*dtmAllCommsOkTStamp;
    Variant IOSSimpleManager::*varAllCommsOk;
    std::int32_t IOSSimpleManager::*lngElapsed;
    Date IOSSimpleManager::*dtmAllDataRefreshedStart;
    Date IOSSimpleManager::*dtmAllDataRefreshedFinish;
    bool IOSSimpleManager::*blnAllDataRefreshedInit;
    std::int32_t IOSSimpleManager::*lngReadCount;
    std::optional<bool> IOSSimpleManager::*varIsUsed;
    bool IOSSimpleManager::*blnLastPolling;
};

}  // namespace quelm
