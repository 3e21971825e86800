#include "Shared Types/Date.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Shared Types/Conversion.h"
#include "Shared Types/RuntimeError.h"

namespace quelm {
namespace {

TEST(DateTest, DayNumbersMatchTheCalendar) {
    struct Case {
        int year, month, day;
        std::int64_t number;
    };
    const Case cases[] = {
        {1899, 12, 30, 0},    {1899, 12, 29, -1},      {1900, 1, 1, 2},       {1900, 2, 28, 60},
        {1900, 3, 1, 61},     {1970, 1, 1, 25569},     {2000, 2, 29, 36585},  {2013, 4, 5, 41369},
        {100, 1, 1, -657434}, {9999, 12, 31, 2958465}, {1601, 1, 1, -109205}, {2026, 11, 22, 46348},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(dayNumber(c.year, c.month, c.day), c.number) << c.year << '-' << c.month << '-' << c.day;
        const CivilTime back = civilTime(Date{static_cast<double>(c.number)});
        EXPECT_EQ(back.year, c.year);
        EXPECT_EQ(back.month, c.month);
        EXPECT_EQ(back.day, c.day);
    }
}

TEST(DateTest, EveryDayOfTheRangeComesBack) {
    CivilTime expected{100, 1, 1};
    for (auto number = static_cast<std::int64_t>(minDateDays); number < static_cast<std::int64_t>(maxDateDays);
         ++number) {
        const CivilTime civil = civilTime(Date{static_cast<double>(number)});
        ASSERT_TRUE(civil.year == expected.year && civil.month == expected.month && civil.day == expected.day)
            << number;
        ASSERT_EQ(dayNumber(civil.year, civil.month, civil.day), number);
        if (++expected.day > daysInMonth(expected.year, expected.month)) {
            expected.day = 1;
            expected.year += expected.month == 12 ? 1 : 0;
            expected.month = expected.month % 12 + 1;
        }
    }
}

TEST(DateTest, TheFractionBelowZeroCountsAwayFromZero) {
    const Date evening = makeDate(1899, 12, 29, 18);
    EXPECT_DOUBLE_EQ(evening.days, -1.75);
    EXPECT_EQ(dateText(evening), "1899-12-29 18:00:00");
    EXPECT_EQ(linearMilliseconds(evening), -6 * 3'600'000);
    EXPECT_EQ(dateText(Date{-0.25}), "06:00:00");
    EXPECT_EQ(dateText(dateFromLinearMilliseconds(-1000)), "1899-12-29 23:59:59");
}

TEST(DateTest, RoundsUpIntoTheNextDay) {
    EXPECT_EQ(dateText(Date{41369.9999999}), "2013-04-06");
    EXPECT_EQ(civilTime(Date{41369.9999999}).millisecond, 991);
    EXPECT_EQ(civilTime(Date{41369.999999999}).day, 6);
}

TEST(DateTest, RefusesWhatIsNoDate) {
    EXPECT_THROW(makeDate(2013, 2, 29), RuntimeError);
    EXPECT_THROW(makeDate(2013, 13, 1), RuntimeError);
    EXPECT_THROW(makeDate(99, 1, 1), RuntimeError);
    EXPECT_THROW(makeDate(2013, 1, 1, 24), RuntimeError);
    for (const double days : {std::nan(""), std::numeric_limits<double>::infinity(), -657435.0, 2958466.0, 1e300}) {
        EXPECT_THROW(civilTime(Date{days}), RuntimeError) << days;
    }
    EXPECT_EQ(dateText(Date{2958465.99998}), "9999-12-31 23:59:58");
}

TEST(DateTest, ReadsDateTexts) {
    struct Case {
        const char* text;
        const char* shown;  // nullptr: no date
    };
    const Case cases[] = {
        {"2013-04-05", "2013-04-05"},
        {" 2013-04-05 06:07:08 ", "2013-04-05 06:07:08"},
        {"2013-04-05 06:07", "2013-04-05 06:07:00"},
        {"2013-04-05   6:07", "2013-04-05 06:07:00"},
        {"2013-4-5", "2013-04-05"},
        {"2013/04/05", "2013-04-05"},
        {"2013.04.05 01:02:03", "2013-04-05 01:02:03"},
        {"06:07:08", "06:07:08"},
        {"6:07", "06:07:00"},
        {"00:00", "00:00:00"},
        {"1899-12-30", "00:00:00"},
        {"25.12.2013", "2013-12-25"},
        {"12/25/2013", "2013-12-25"},
        {"5/5/2013", "2013-05-05"},
        {"2012-02-29", "2012-02-29"},
        {"0100-01-01", "0100-01-01"},
        {"9999-12-31 23:59:59", "9999-12-31 23:59:59"},
        {"4/5/2013", nullptr},
        {"2013-02-29", nullptr},
        {"2013-00-01", nullptr},
        {"2013-01-32", nullptr},
        {"2013-13-01", nullptr},
        {"0099-12-31", nullptr},
        {"10000-01-01", nullptr},
        {"2013-04/05", nullptr},
        {"2013-04-05 24:00", nullptr},
        {"2013-04-05 06:60", nullptr},
        {"06:07:60", nullptr},
        {"2013-04-05T06:07:08", nullptr},
        {"2013-04-05 06:07:08Z", nullptr},
        {"2013-04-05 06:07:08.123", nullptr},
        {"2013-04-05x", nullptr},
        {"2013-04-05 06", nullptr},
        {"2013-04", nullptr},
        {"41369", nullptr},
        {"12.5", nullptr},
        {"", nullptr},
        {"-", nullptr},
        {"::", nullptr},
        {"13/13/2013", nullptr},
    };
    for (const Case& c : cases) {
        const std::optional<Date> date = parseDate(c.text);
        ASSERT_EQ(date.has_value(), c.shown != nullptr) << c.text;
        if (date) {
            EXPECT_EQ(dateText(*date), c.shown) << c.text;
        }
    }
}

}  // namespace
}  // namespace quelm
