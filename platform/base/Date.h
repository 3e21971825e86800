#pragma once

// A local date-time as the data-acquisition product keeps it: days since 1899-12-30 00:00, the time of day
// as fraction. The value 0 means "no date" throughout.

#include <compare>
#include <cstdint>

namespace quelm {

struct Date {
    double days = 0;

    constexpr auto operator<=>(const Date&) const = default;
    constexpr bool isZero() const { return days == 0; }
};

// Calendar fields of a date, rounded to the nearest millisecond.
struct CivilTime {
    int year = 1899;
    int month = 12;  // 1 to 12
    int day = 30;    // 1 to 31
    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;
};

// The range of a Date: 0100-01-01 to 9999-12-31 23:59:59.
inline constexpr double minDateDays = -657434;
inline constexpr double maxDateDays = 2958466;  // first value beyond the range

// Whole days since 1899-12-30 of a calendar date (proleptic Gregorian; any year, month 1 to 12, day 1 to 31).
std::int64_t dayNumber(int year, int month, int day);

// Raises RuntimeError 5 when a field is out of its range or the date out of a Date's range.
Date makeDate(const CivilTime& civil);
Date makeDate(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

// Milliseconds since 1899-12-30 00:00 counted straight through, also below zero where a Date's own fraction counts the
// other way; rounded to the nearest. Raises RuntimeError 5 for a value beyond a Date's range (NaN included).
std::int64_t linearMilliseconds(Date date);
Date dateFromLinearMilliseconds(std::int64_t milliseconds);
// The same from whole days and the part of that day gone by (0 to below 1); the range is not checked.
Date dateFromLinearDays(std::int64_t wholeDays, double dayPart);

// Calendar fields (raises RuntimeError 5 beyond a Date's range); for dates before 1899-12-30 the fraction counts away
// from zero, as the format has it.
CivilTime civilTime(Date date);
// The same rounded to the nearest whole second (what date texts show).
CivilTime civilTimeSeconds(Date date);

bool isLeapYear(int year);
int daysInMonth(int year, int month);

}  // namespace quelm
