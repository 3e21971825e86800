#include "DB Interface Library/sql/SqlDate.h"

#include <cstdint>
#include <cstring>
#include <optional>

#include "base/Conversion.h"
#include "base/Text.h"

namespace quelm {

namespace {

constexpr std::int64_t microsecondsPerSecond = 1'000'000;
constexpr double microsecondsPerDay = 86'400.0 * 1'000'000;

Date fromDayNumber(double days) {
    return days > minDateDays && days < maxDateDays ? Date{days} : Date{};
}

// A number of exactly so many digits; -1 where there is another character.
int digits(const char* text, int count) {
    int value = 0;
    for (int i = 0; i < count; ++i) {
        const int digit = text[i] - '0';
        if (digit < 0 || digit > 9) {
            return -1;
        }
        value = value * 10 + digit;
    }
    return value;
}

// The digits behind a second's point as microseconds; -1 when they are none or too many. A Date cannot tell
// smaller parts apart.
int fraction(std::string_view text) {
    if (text.empty() || text.size() > 9) {
        return -1;
    }
    const int shown = digits(text.data(), static_cast<int>(text.size() < 6 ? text.size() : 6));
    if (shown < 0 || (text.size() > 6 && digits(text.data() + 6, static_cast<int>(text.size()) - 6) < 0)) {
        return -1;
    }
    int microseconds = shown;
    for (std::size_t i = text.size(); i < 6; ++i) {
        microseconds *= 10;
    }
    return microseconds;
}

// "yyyy-MM-dd", the first ten characters.
std::optional<std::int64_t> datePart(const char* text) {
    const int year = digits(text, 4);
    const int month = digits(text + 5, 2);
    const int day = digits(text + 8, 2);
    if (text[4] != '-' || text[7] != '-' || year < 100 || month < 1 || month > 12 || day < 1 ||
        day > daysInMonth(year, month)) {
        return std::nullopt;
    }
    return dayNumber(year, month, day);
}

// "HH:mm:ss", with a fraction or not, as part of a day.
std::optional<double> timePart(std::string_view text) {
    const int hour = digits(text.data(), 2);
    const int minute = digits(text.data() + 3, 2);
    const int second = digits(text.data() + 6, 2);
    const int microseconds = text.size() > 8 ? fraction(text.substr(9)) : 0;
    if (text[2] != ':' || text[5] != ':' || (text.size() > 8 && text[8] != '.') || hour < 0 || hour > 23 ||
        minute < 0 || minute > 59 || second < 0 || second > 59 || microseconds < 0) {
        return std::nullopt;
    }
    const std::int64_t seconds = (hour * 60 + minute) * 60 + second;
    return static_cast<double>(seconds * microsecondsPerSecond + microseconds) / microsecondsPerDay;
}

}  // namespace

Date SqlDateReader::read(const SqlValue& value) {
    switch (value.type) {
        case SqlType::Text:
            return readText(value.text);
        case SqlType::Integer:
            return fromDayNumber(static_cast<double>(value.integer));
        case SqlType::Real:
        case SqlType::Date:
            return fromDayNumber(value.real);
        case SqlType::Decimal:
            return fromDayNumber(parseNumber(value.text).value_or(0));
        case SqlType::Null:
        case SqlType::Blob:
            break;
    }
    return {};
}

Date SqlDateReader::readText(std::string_view text) {
    if (text.size() > lastText_.size()) {
        return {};
    }
    if (text.size() == lastLength_ && std::memcmp(text.data(), lastText_.data(), text.size()) == 0) {
        return lastDate_;
    }
    std::optional<Date> date = readFixedForm(text);
    if (!date) {
        date = parseDate(text);
    }
    lastDate_ = date.value_or(Date{});
    lastLength_ = text.copy(lastText_.data(), lastText_.size());
    return lastDate_;
}

std::optional<Date> SqlDateReader::readFixedForm(std::string_view text) {
    constexpr std::size_t dateLength = 10;
    if (text.size() < 19 || (text[dateLength] != ' ' && text[dateLength] != 'T')) {
        return std::nullopt;
    }
    // Of the stamps that differ, nearly all are of the same day.
    if (std::memcmp(text.data(), lastDay_.data(), dateLength) != 0) {
        const std::optional<std::int64_t> day = datePart(text.data());
        if (!day) {
            return std::nullopt;
        }
        lastDayNumber_ = *day;
        text.copy(lastDay_.data(), dateLength);
    }
    const std::optional<double> time = timePart(text.substr(dateLength + 1));
    return time ? std::optional(dateFromLinearDays(lastDayNumber_, *time)) : std::nullopt;
}

}  // namespace quelm
