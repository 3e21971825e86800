#include "OPC/OPC DA Server/PIDFunctions.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

bool isWithin(std::int32_t value, std::int32_t high) {
    return value >= 0 && value <= high;
}

bool isParameterNumber(std::int32_t pid) {
    if (pid < 100'000 || pid >= 2'000'000'000) {
        return false;
    }
    const std::int32_t c = GetPIDPart(pid, 5);
    return c != 6 && c != 9;
}

// What stands between the brackets; "" for a channel reference ("[@") or without brackets.
std::string_view insideBrackets(std::string_view text) {
    text = trimBlanks(text);
    if (!text.starts_with('[')) {
        return {};
    }
    text = trimLeftBlanks(text.substr(1));
    const std::size_t end = text.find(']');
    return text.starts_with('@') || end == std::string_view::npos ? std::string_view() : text.substr(0, end);
}

}  // namespace

std::int32_t TakeTrailingNumber(std::string_view& strText, std::int32_t lngMaxDigits) {
    std::int64_t value = 0;
    std::int64_t power = 1;
    std::int32_t count = 0;
    bool complete = strText.empty();
    while (!complete) {
        const char last = strText.back();
        strText.remove_suffix(1);
        if (last >= '0' && last <= '9') {
            value += (last - '0') * power;
            if (value > std::numeric_limits<std::int32_t>::max()) {
                throw RuntimeError(errors::overflow);
            }
            // Beyond this any digit but 0 overflows.
            power = std::min<std::int64_t>(power * 10, 10'000'000'000);
            complete = ++count == lngMaxDigits;
        } else {
            complete = count > 0;
        }
        complete = complete || strText.empty();
    }
    return count > 0 ? static_cast<std::int32_t>(value) : -1;
}

std::int32_t ParsePID(std::string_view strText, bool blnBracketed) {
    std::string_view text = blnBracketed ? insideBrackets(strText) : strText;
    const std::int32_t e = TakeTrailingNumber(text, 2);
    const std::int32_t d = TakeTrailingNumber(text, 2);
    const std::int32_t c = TakeTrailingNumber(text, 1);
    const std::int32_t b = TakeTrailingNumber(text, 3);
    const std::int32_t a = text.empty() ? 0 : TakeTrailingNumber(text, 2);
    return MakePID(a, b, c, d, e);
}

std::string PIDToText(std::int32_t lngPID) {
    if (!isParameterNumber(lngPID)) {
        return {};
    }
    return fmt::format("{}-{:03}-{}-{:02}-{:02}", GetPIDPart(lngPID, 1), GetPIDPart(lngPID, 2), GetPIDPart(lngPID, 5),
                       GetPIDPart(lngPID, 4), GetPIDPart(lngPID, 3));
}

bool IsValidPID(const Variant& varValue) {
    return IsValidIdentifier(varValue, isParameterNumber, ParsePID);
}

std::int32_t MakePID(std::int32_t lngA, std::int32_t lngB, std::int32_t lngC, std::int32_t lngD, std::int32_t lngE) {
    const bool inRange =
        isWithin(lngA, 19) && isWithin(lngB, 999) && isWithin(lngC, 9) && isWithin(lngD, 99) && isWithin(lngE, 99);
    if (!inRange) {
        return 0;
    }
    const std::int32_t pid = lngA * 100'000'000 + lngB * 100'000 + lngC * 10'000 + lngD * 100 + lngE;
    return isParameterNumber(pid) ? pid : 0;
}

std::int32_t GetPIDPart(std::int32_t lngPID, std::int32_t lngPart) {
    switch (lngPart) {
        case 1:
            return lngPID / 100'000'000;
        case 2:
            return lngPID % 100'000'000 / 100'000;
        case 3:
            return lngPID % 100;
        case 4:
            return lngPID % 10'000 / 100;
        case 5:
            return lngPID % 100'000 / 10'000;
        case -5: {
            const std::int32_t c = GetPIDPart(lngPID, 5);
            return c == 7 ? 8 : c;
        }
        default:
            return 0;
    }
}

}  // namespace quelm
