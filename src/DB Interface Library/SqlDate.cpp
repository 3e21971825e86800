#include "DB Interface Library/SqlDate.h"

#include <cstdint>
#include <cstring>
#include <optional>

#include "Shared Types/Conversion.h"
#include "Shared Types/Text.h"

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

// "yyyy-MM-dd HH:mm:ss", with a fraction or not.
std::optional<Date> fixedForm(std::string_view text) {
    if (text.size() < 19 || text[4] != '-' || text[7] != '-' || (text[10] != ' ' && text[10] != 'T') ||
        text[13] != ':' || text[16] != ':' || (text.size() > 19 && text[19] != '.')) {
        return std::nullopt;
    }
    const char* at = text.data();
    const int year = digits(at, 4);
    const int month = digits(at + 5, 2);
    const int day = digits(at + 8, 2);
    const int hour = digits(at + 11, 2);
    const int minute = digits(at + 14, 2);
    const int second = digits(at + 17, 2);
    const int microseconds = text.size() > 19 ? fraction(text.substr(20)) : 0;
    if (year < 100 || month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour < 0 || hour > 23 ||
        minute < 0 || minute > 59 || second < 0 || second > 59 || microseconds < 0) {
        return std::nullopt;
    }
    const std::int64_t seconds = (hour * 60 + minute) * 60 + second;
    const auto timeOfDay = static_cast<double>(seconds * microsecondsPerSecond + microseconds);
    return dateFromLinearDays(dayNumber(year, month, day), timeOfDay / microsecondsPerDay);
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
    std::optional<Date> date = fixedForm(text);
    if (!date) {
        date = parseDate(text);
    }
    lastDate_ = date.value_or(Date{});
    lastLength_ = text.copy(lastText_.data(), lastText_.size());
    return lastDate_;
}

}  // namespace quelm
