#include "base/Date.h"

#include <algorithm>
#include <cmath>

#include "base/RuntimeError.h"

namespace quelm {

namespace {

constexpr std::int64_t millisecondsPerDay = 86'400'000;

void setCalendarDay(CivilTime& civil, std::int64_t day) {
    // Years counted from March, so that the leap day is a year's last day.
    constexpr std::int64_t daysFromMarchOfYear0 = 693'899;
    constexpr std::int64_t daysPerEra = 146'097;
    const std::int64_t shifted = day + daysFromMarchOfYear0;
    const std::int64_t era = (shifted >= 0 ? shifted : shifted - daysPerEra + 1) / daysPerEra;
    const std::int64_t dayOfEra = shifted - era * daysPerEra;
    const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t marchMonth = (5 * dayOfYear + 2) / 153;
    civil.day = static_cast<int>(dayOfYear - (153 * marchMonth + 2) / 5 + 1);
    civil.month = static_cast<int>(marchMonth < 10 ? marchMonth + 3 : marchMonth - 9);
    civil.year = static_cast<int>(yearOfEra + era * 400 + (civil.month <= 2 ? 1 : 0));
}

CivilTime civilFromMilliseconds(std::int64_t milliseconds) {
    const std::int64_t whole = milliseconds / millisecondsPerDay - (milliseconds % millisecondsPerDay < 0 ? 1 : 0);
    auto rest = static_cast<int>(milliseconds - whole * millisecondsPerDay);
    CivilTime civil;
    setCalendarDay(civil, whole);
    civil.millisecond = rest % 1000;
    rest /= 1000;
    civil.second = rest % 60;
    civil.minute = rest / 60 % 60;
    civil.hour = rest / 3600;
    return civil;
}

bool isWithin(int value, int low, int high) {
    return value >= low && value <= high;
}

}  // namespace

bool isLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int daysInMonth(int year, int month) {
    constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeapYear(year) ? 29 : days[month - 1];
}

std::int64_t dayNumber(int year, int month, int day) {
    const std::int64_t marchYear = static_cast<std::int64_t>(year) - (month <= 2 ? 1 : 0);
    const std::int64_t era = (marchYear >= 0 ? marchYear : marchYear - 399) / 400;
    const std::int64_t yearOfEra = marchYear - era * 400;
    const std::int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146'097 + dayOfEra - 693'899;
}

std::int64_t linearMilliseconds(Date date) {
    if (!(date.days > minDateDays - 1 && date.days < maxDateDays)) {
        throw RuntimeError(errors::invalidCall);
    }
    const double whole = std::trunc(date.days);
    const double dayPart = std::fabs(date.days - whole);
    return static_cast<std::int64_t>(whole) * millisecondsPerDay +
           std::llround(dayPart * static_cast<double>(millisecondsPerDay));
}

Date dateFromLinearDays(std::int64_t wholeDays, double dayPart) {
    const auto whole = static_cast<double>(wholeDays);
    return Date{wholeDays < 0 ? whole - dayPart : whole + dayPart};
}

Date dateFromLinearMilliseconds(std::int64_t milliseconds) {
    const std::int64_t whole = milliseconds / millisecondsPerDay - (milliseconds % millisecondsPerDay < 0 ? 1 : 0);
    const auto rest = static_cast<double>(milliseconds - whole * millisecondsPerDay);
    const Date date = dateFromLinearDays(whole, rest / static_cast<double>(millisecondsPerDay));
    if (!(date.days > minDateDays - 1 && date.days < maxDateDays)) {
        throw RuntimeError(errors::invalidCall);
    }
    return date;
}

Date makeDate(const CivilTime& civil) {
    const bool valid = isWithin(civil.year, 100, 9999) && isWithin(civil.month, 1, 12) &&
                       isWithin(civil.day, 1, daysInMonth(civil.year, civil.month)) && isWithin(civil.hour, 0, 23) &&
                       isWithin(civil.minute, 0, 59) && isWithin(civil.second, 0, 59) &&
                       isWithin(civil.millisecond, 0, 999);
    if (!valid) {
        throw RuntimeError(errors::invalidCall);
    }
    const std::int64_t seconds = civil.hour * 3600 + civil.minute * 60 + civil.second;
    return dateFromLinearMilliseconds(dayNumber(civil.year, civil.month, civil.day) * millisecondsPerDay +
                                      seconds * 1000 + civil.millisecond);
}

Date makeDate(int year, int month, int day, int hour, int minute, int second) {
    return makeDate(CivilTime{year, month, day, hour, minute, second, 0});
}

CivilTime civilTime(Date date) {
    return civilFromMilliseconds(linearMilliseconds(date));
}

CivilTime civilTimeSeconds(Date date) {
    const std::int64_t milliseconds = linearMilliseconds(date);
    const std::int64_t shifted = milliseconds + 500;
    const std::int64_t seconds = shifted / 1000 - (shifted % 1000 < 0 ? 1 : 0);
    // The last half second of the range has no second to be rounded up to.
    constexpr auto lastSecond = static_cast<std::int64_t>(maxDateDays) * (millisecondsPerDay / 1000) - 1;
    return civilFromMilliseconds(std::min(seconds, lastSecond) * 1000);
}

}  // namespace quelm
