#include "base/DateText.h"

#include <array>
#include <cstdint>

#include "base/Text.h"

namespace quelm {

namespace {

constexpr int microsecondDigits = 6;

struct TimeOfDay {
    int hour = 0;
    int minute = 0;
    int second = 0;
    int microsecond = 0;

    // 0 to below 1.
    double dayPart() const {
        constexpr double microsecondsPerDay = 86'400.0 * 1'000'000;
        const std::int64_t seconds = (hour * 60 + minute) * 60 + second;
        return static_cast<double>(seconds * 1'000'000 + microsecond) / microsecondsPerDay;
    }
};

// Fixed-width decimal digits for the fields of a date text.
void appendPadded(std::string& out, int value, int width) {
    std::array<char, 8> digits{};
    for (int i = width - 1; i >= 0; --i) {
        digits[static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    out.append(digits.data(), static_cast<std::size_t>(width));
}

std::string textOf(const CivilTime& civil, DatePattern pattern) {
    std::string out;
    if (pattern != DatePattern::time) {
        appendPadded(out, civil.year, 4);
        out += '-';
        appendPadded(out, civil.month, 2);
        out += '-';
        appendPadded(out, civil.day, 2);
    }
    if (pattern != DatePattern::date) {
        out += out.empty() ? "" : " ";
        appendPadded(out, civil.hour, 2);
        out += ':';
        appendPadded(out, civil.minute, 2);
        out += ':';
        appendPadded(out, civil.second, 2);
    }
    return out;
}

// Takes an unsigned whole number of so many digits from the front of a text.
std::optional<int> takeNumber(std::string_view& text, std::size_t minDigits, std::size_t maxDigits) {
    std::size_t digits = 0;
    int value = 0;
    for (; digits < text.size() && isDigit(text[digits]); ++digits) {
        if (digits == maxDigits) {
            return std::nullopt;
        }
        value = value * 10 + (text[digits] - '0');
    }
    if (digits < minDigits) {
        return std::nullopt;
    }
    text.remove_prefix(digits);
    return value;
}

bool takeCharacter(std::string_view& text, char wanted) {
    if (!text.starts_with(wanted)) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

// The digits behind a second's point.
std::optional<int> takeMicroseconds(std::string_view& text) {
    constexpr std::size_t mostDigits = 9;
    std::size_t digits = 0;
    int value = 0;
    for (; digits < text.size() && isDigit(text[digits]); ++digits) {
        value = digits < microsecondDigits ? value * 10 + (text[digits] - '0') : value;
    }
    for (std::size_t i = digits; i < microsecondDigits; ++i) {
        value *= 10;
    }
    text.remove_prefix(digits);
    return digits >= 1 && digits <= mostDigits ? std::optional(value) : std::nullopt;
}

// "AM" or "PM" at the end of a time, whose hour then counts from 1 to 12. True also without it.
bool takeHalfOfDay(std::string_view& text, int& hour) {
    const std::string_view half = trimLeftBlanks(text);
    const bool isMorning = equalsIgnoringCase(half, "AM");
    if (!isMorning && !equalsIgnoringCase(half, "PM")) {
        return true;
    }
    if (hour < 1 || hour > 12) {
        return false;
    }
    hour = hour % 12 + (isMorning ? 0 : 12);
    text = {};
    return true;
}

std::optional<TimeOfDay> takeTime(std::string_view& text) {
    TimeOfDay time;
    const auto hour = takeNumber(text, 1, 2);
    const auto minute = hour && takeCharacter(text, ':') ? takeNumber(text, 1, 2) : std::nullopt;
    if (!minute) {
        return std::nullopt;
    }
    time.hour = *hour;
    time.minute = *minute;
    if (takeCharacter(text, ':')) {
        const auto second = takeNumber(text, 1, 2);
        const auto fraction = second && takeCharacter(text, '.') ? takeMicroseconds(text) : std::optional(0);
        if (!second || !fraction) {
            return std::nullopt;
        }
        time.second = *second;
        time.microsecond = *fraction;
    }
    const bool isSound = takeHalfOfDay(text, time.hour) && time.hour < 24 && time.minute < 60 && time.second < 60;
    return isSound ? std::optional(time) : std::nullopt;
}

// Day and month stand in either order behind or before a year; only a day above 12, or equal numbers, leave no doubt.
bool setDayAndMonth(CivilTime& civil, int first, int second) {
    if (first > 12 || first == second) {
        civil.day = first;
        civil.month = second;
        return true;
    }
    civil.month = first;
    civil.day = second;
    return second > 12;
}

// As a day number.
std::optional<std::int64_t> takeDate(std::string_view& text) {
    const std::size_t separatorAt = text.find_first_of("-/.");
    if (separatorAt == std::string_view::npos) {
        return std::nullopt;
    }
    const char separator = text[separatorAt];
    const bool yearFirst = separatorAt == 4;
    const auto first = yearFirst ? takeNumber(text, 4, 4) : takeNumber(text, 1, 2);
    const auto second = first && takeCharacter(text, separator) ? takeNumber(text, 1, 2) : std::nullopt;
    const auto third = second && takeCharacter(text, separator)
                           ? (yearFirst ? takeNumber(text, 1, 2) : takeNumber(text, 4, 4))
                           : std::nullopt;
    if (!third) {
        return std::nullopt;
    }
    CivilTime civil;
    if (yearFirst) {
        civil.year = *first;
        civil.month = *second;
        civil.day = *third;
    } else {
        civil.year = *third;
        if (!setDayAndMonth(civil, *first, *second)) {
            return std::nullopt;
        }
    }
    const bool isSound = civil.year >= 100 && civil.month >= 1 && civil.month <= 12 && civil.day >= 1 &&
                         civil.day <= daysInMonth(civil.year, civil.month);
    return isSound ? std::optional(dayNumber(civil.year, civil.month, civil.day)) : std::nullopt;
}

// What parts the time from the date before it.
bool takeTimeMark(std::string_view& text) {
    if (takeCharacter(text, 'T')) {
        return true;
    }
    const std::size_t length = text.size();
    text = trimLeftBlanks(text);
    return text.size() < length;
}

}  // namespace

std::string dateText(Date date) {
    const CivilTime civil = civilTimeSeconds(date);
    const bool hasDate = dayNumber(civil.year, civil.month, civil.day) != 0;
    const bool hasTime = civil.hour != 0 || civil.minute != 0 || civil.second != 0;
    return textOf(civil, !hasDate ? DatePattern::time : hasTime ? DatePattern::dateAndTime : DatePattern::date);
}

std::string dateText(Date date, DatePattern pattern) {
    return textOf(civilTimeSeconds(date), pattern);
}

std::optional<Date> parseDate(std::string_view text) {
    std::string_view rest = trimBlanks(text);
    std::string_view attempt = rest;
    if (const auto time = takeTime(attempt); time && attempt.empty()) {
        return dateFromLinearDays(0, time->dayPart());
    }
    const auto day = takeDate(rest);
    if (!day) {
        return std::nullopt;
    }
    if (rest.empty()) {
        return dateFromLinearDays(*day, 0);
    }
    const auto time = takeTimeMark(rest) ? takeTime(rest) : std::nullopt;
    return time && rest.empty() ? std::optional(dateFromLinearDays(*day, time->dayPart())) : std::nullopt;
}

}  // namespace quelm
