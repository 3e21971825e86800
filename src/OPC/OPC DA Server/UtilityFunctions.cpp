#include "OPC/OPC DA Server/UtilityFunctions.h"

#include <algorithm>
#include <cmath>

#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/Text.h"
#include "base/TimeSource.h"
#include "base/Utf.h"

namespace quelm {

namespace {

constexpr std::int64_t millisecondsPerSecond = 1000;
constexpr std::int64_t millisecondsPerDay = 86'400 * millisecondsPerSecond;

std::int64_t floorTo(std::int64_t value, std::int64_t step) {
    const std::int64_t rest = value % step;
    return value - (rest < 0 ? rest + step : rest);
}

struct Unit {
    std::string_view code;
    std::int64_t months;
    std::int64_t milliseconds;
    bool wholeSeconds;
};

constexpr Unit units[] = {
    {"yyyy", 12, 0, false},
    {"q", 3, 0, false},
    {"m", 1, 0, false},
    {"ww", 0, 7 * millisecondsPerDay, false},
    {"d", 0, millisecondsPerDay, false},
    {"h", 0, 3'600'000, true},
    {"n", 0, 60'000, true},
    {"s", 0, 1000, true},
};

const Unit& unitOf(std::string_view code) {
    const std::string_view wanted = code == "w" ? "ww" : code;
    const auto found = std::find_if(std::begin(units), std::end(units),
                                    [wanted](const Unit& unit) { return equalsIgnoringCase(unit.code, wanted); });
    return found != std::end(units) ? *found : throw RuntimeError(errors::invalidCall);
}

// An amount times a unit as a whole number, refused where no Date could hold the result anyway.
std::int64_t wholeAmount(double amount, std::int64_t unit, double limit) {
    const double product = std::nearbyint(amount * static_cast<double>(unit));
    if (!(std::fabs(product) <= limit)) {
        throw RuntimeError(errors::invalidCall);
    }
    return static_cast<std::int64_t>(product);
}

Date addMonths(Date date, std::int64_t months) {
    CivilTime civil = civilTime(date);
    const std::int64_t month = civil.year * std::int64_t{12} + civil.month - 1 + months;
    civil.year = static_cast<int>(floorTo(month, 12) / 12);
    civil.month = static_cast<int>(month - floorTo(month, 12)) + 1;
    civil.day = std::min(civil.day, daysInMonth(civil.year, civil.month));
    return makeDate(civil);
}

Date firstOfMonth(Date date, int (*monthOf)(int)) {
    const CivilTime civil = civilTime(date);
    return makeDate(civil.year, monthOf(civil.month), 1);
}

std::u32string codePoints(std::string_view text, CompareMode mode) {
    std::u32string out;
    for (std::size_t position = 0; position < text.size();) {
        const char32_t codePoint = nextCodePoint(text, position);
        out += mode == CompareMode::IgnoreCase ? foldCase(codePoint) : codePoint;
    }
    return out;
}

// Characters first to last - 1 of a text, by 1-based position.
std::string_view charactersBetween(std::string_view text, std::size_t first, std::size_t last) {
    const std::size_t from = leftCharacters(text, first - 1).size();
    return leftCharacters(text.substr(from), last - first);
}

}  // namespace

Date CurrentTime() {
    return localNow();
}

Date DateAddEx(std::string_view strUnit, double dblAmount, Date dtmDate) {
    const Unit& unit = unitOf(strUnit);
    if (unit.months != 0) {
        constexpr double mostMonths = 12 * 10'000;
        return addMonths(dtmDate, wholeAmount(dblAmount, unit.months, mostMonths));
    }
    constexpr double mostMilliseconds = static_cast<double>(millisecondsPerDay) * 366 * 10'000;
    const std::int64_t sum = linearMilliseconds(dtmDate) + wholeAmount(dblAmount, unit.milliseconds, mostMilliseconds);
    return dateFromLinearMilliseconds(unit.wholeSeconds ? floorTo(sum, millisecondsPerSecond) : sum);
}

Date StartOfInterval(Date dtmDate, std::int32_t lngSeconds, bool blnPrevious) {
    if (lngSeconds < 1 || lngSeconds > 86'400) {
        return Date{};
    }
    const std::int64_t now = linearMilliseconds(dtmDate);
    const std::int64_t midnight = floorTo(now, millisecondsPerDay);
    const std::int64_t length = lngSeconds * millisecondsPerSecond;
    const std::int64_t index = (now - midnight) / length - (blnPrevious ? 1 : 0);
    return dateFromLinearMilliseconds(midnight + index * length);
}

Date StartOfMonth(Date dtmDate) {
    return firstOfMonth(dtmDate, [](int month) { return month; });
}

Date StartOfQuarter(Date dtmDate) {
    return firstOfMonth(dtmDate, [](int month) { return (month - 1) / 3 * 3 + 1; });
}

Date StartOfHalfYear(Date dtmDate) {
    return firstOfMonth(dtmDate, [](int month) { return month <= 6 ? 1 : 7; });
}

Date StartOfYear(Date dtmDate) {
    return firstOfMonth(dtmDate, [](int) { return 1; });
}

std::int32_t FindText(std::int32_t lngStart, std::string_view strText, std::string_view strWanted, CompareMode mode) {
    if (lngStart < 1) {
        throw RuntimeError(errors::invalidCall);
    }
    const std::u32string text = codePoints(strText, mode);
    const auto from = static_cast<std::size_t>(lngStart) - 1;
    if (from >= text.size()) {
        return 0;
    }
    const std::size_t found = text.find(codePoints(strWanted, mode), from);
    return found == std::u32string::npos ? 0 : static_cast<std::int32_t>(found) + 1;
}

std::string GetTextBetween(std::string_view strText, std::string_view strStartMarker, std::string_view strEndMarker,
                           std::int32_t lngStart, CompareMode mode, std::int32_t& lngNextPosition,
                           std::int32_t& lngStartPosition) {
    lngNextPosition = 0;
    lngStartPosition = FindText(lngStart, strText, strStartMarker, mode);
    if (lngStartPosition == 0) {
        return {};
    }
    const std::int32_t first = lngStartPosition + static_cast<std::int32_t>(characterCount(strStartMarker));
    const std::int32_t last = FindText(first, strText, strEndMarker.empty() ? strStartMarker : strEndMarker, mode);
    lngNextPosition = last == 0 ? 0 : last + 1;
    const std::size_t end = last == 0 ? characterCount(strText) + 1 : static_cast<std::size_t>(last);
    return std::string(charactersBetween(strText, static_cast<std::size_t>(first), end));
}

std::string GetTextBetween(std::string_view strText, std::string_view strStartMarker, std::string_view strEndMarker,
                           std::int32_t lngStart, CompareMode mode) {
    std::int32_t next = 0;
    std::int32_t start = 0;
    return GetTextBetween(strText, strStartMarker, strEndMarker, lngStart, mode, next, start);
}

std::string_view StripQuotes(std::string_view strText) {
    if (strText.starts_with('"')) {
        strText.remove_prefix(1);
    }
    if (strText.ends_with('"')) {
        strText.remove_suffix(1);
    }
    return strText;
}

std::string PadText(std::string_view strText, std::int32_t lngWidth, bool blnAlignLeft, bool blnTruncate) {
    const std::size_t width = lngWidth > 0 ? static_cast<std::size_t>(lngWidth) : 0;
    const std::size_t count = characterCount(strText);
    if (count >= width) {
        return std::string(blnTruncate ? leftCharacters(strText, width) : strText);
    }
    const std::string filling(width - count, ' ');
    return blnAlignLeft ? std::string(strText) + filling : filling + std::string(strText);
}

std::string TruncateText(std::string_view strText, std::int32_t lngLength) {
    const std::size_t length = lngLength > 0 ? static_cast<std::size_t>(lngLength) : 0;
    const std::string_view left = leftCharacters(strText, length);
    return left.size() < strText.size() ? std::string(left) + "..." : std::string(strText);
}

bool IsValidIdentifier(const Variant& varValue, bool (*isValidNumber)(std::int32_t),
                       std::int32_t (*parse)(std::string_view strText, bool blnBracketed)) {
    try {
        switch (varValue.kind()) {
            case VariantKind::Int16:
            case VariantKind::Int32:
            case VariantKind::Single:
            case VariantKind::Double:
            case VariantKind::Decimal:
                return isValidNumber(toInt32(varValue));
            case VariantKind::Text:
                return parse(varValue.text(), false) != 0;
            default:
                return false;
        }
    } catch (const RuntimeError&) {
        return false;
    }
}

}  // namespace quelm
