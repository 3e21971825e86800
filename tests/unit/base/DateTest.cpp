#include "base/Date.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "base/Conversion.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

TEST(DateTest, DayNumbersMatchTheCalendar) {
    EXPECT_EQ(dayNumber(1899, 12, 30), 0);
    EXPECT_EQ(dayNumber(1900, 3, 1), 61);
    EXPECT_EQ(dayNumber(2000, 2, 29), 36585);
    EXPECT_EQ(dayNumber(100, 1, 1), -657434);
    EXPECT_EQ(dayNumber(9999, 12, 31), 2958465);
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
    EXPECT_EQ(dateText(Date{2958465.999999}), "9999-12-31 23:59:59") << "there is no next day";
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
    const std::pair<const char*, const char*> cases[] = {
        {" 2013-04-05 06:07:08 ", "2013-04-05 06:07:08"},
        {"2013-4-5", "2013-04-05"},
        {"2013/04/05", "2013-04-05"},
        {"2013.04.05 01:02:03", "2013-04-05 01:02:03"},
        {"6:07", "06:07:00"},
        {"1899-12-30", "00:00:00"},
        {"25.12.2013", "2013-12-25"},
        {"5/5/2013", "2013-05-05"},
        {"0100-01-01", "0100-01-01"},
        {"9999-12-31 23:59:59", "9999-12-31 23:59:59"},
        {"2026-11-16T08:00:00.9999999", "2026-11-16 08:00:01"},
        {"2026-11-16T08:00", "2026-11-16 08:00:00"},
        {"12:00 am", "00:00:00"},
        {"2026-11-16 12:00:01.5PM", "2026-11-16 12:00:02"},
        {"11/16/2026 1:02:03 PM", "2026-11-16 13:02:03"},
    };
    for (const auto& [text, shown] : cases) {
        const std::optional<Date> date = parseDate(text);
        ASSERT_TRUE(date) << text;
        EXPECT_EQ(dateText(*date), shown) << text;
    }
    const char* const none[] = {"4/5/2013",
                                "13/13/2013",
                                "2013-02-29",
                                "2013-00-01",
                                "0099-12-31",
                                "10000-01-01",
                                "2013-04/05",
                                "2013-04-05 24:00",
                                "2013-04-05 06:60",
                                "06:07:60",
                                "2013-04-05T06:07:08Z",
                                "2013-04-05 06:07:08+01:00",
                                "2013-04-05 06:07:08.",
                                "2013-04-05 06:07:08.0123456789",
                                "2013-04-05 6:07.5",
                                "2013-04-05 0:07 AM",
                                "2013-04-05 13:07 PM",
                                "2013-04-05 8 AM",
                                "2013-04-05 08:00 A",
                                "2013-04-05t08:00",
                                "2013-04-05T 08:00",
                                "T08:00",
                                "2013-04-05T",
                                "2013-04-05x",
                                "2013-04",
                                "12.5",
                                "",
                                "::"};
    for (const char* text : none) {
        EXPECT_FALSE(parseDate(text)) << text;
    }
}

}  // namespace
}  // namespace quelm
