#include "OPC/OPC DA Server/UtilityFunctions.h"

#include <gtest/gtest.h>

#include <cmath>

#include "base/Conversion.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

Date at(const char* text) {
    return parseDate(text).value();
}

TEST(UtilityFunctionsTest, DateAddEx) {
    struct Case {
        const char* unit;
        double amount;
        const char *date, *result;
    };
    const Case cases[] = {
        {"q", 1, "2026-11-30", "2027-02-28"},
        {"m", 1, "2026-01-31 06:07:08", "2026-02-28 06:07:08"},
        {"m", -1, "2024-03-31", "2024-02-29"},
        {"M", 2.5, "2026-01-15", "2026-03-15"},
        {"w", 1, "2026-11-22", "2026-11-29"},
        {"d", 0.5, "2026-01-01", "2026-01-01 12:00:00"},
        {"h", 25, "2026-12-31 23:30", "2027-01-02 00:30:00"},
        {"s", -1, "1899-12-30", "1899-12-29 23:59:59"},
        {"s", 86400, "1899-12-29 18:00", "18:00:00"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(dateText(DateAddEx(c.unit, c.amount, at(c.date))), c.result) << c.unit << c.amount << ' ' << c.date;
    }
}

TEST(UtilityFunctionsTest, ClockUnitsDropTheFractionOfASecond) {
    const Date withFraction = dateFromLinearMilliseconds(linearMilliseconds(at("2026-01-01 10:20:30")) + 999);
    for (const char* unit : {"h", "n", "s"}) {
        EXPECT_EQ(DateAddEx(unit, 0, withFraction), at("2026-01-01 10:20:30")) << unit;
    }
    EXPECT_EQ(linearMilliseconds(DateAddEx("d", 0, withFraction)), linearMilliseconds(withFraction));
}

TEST(UtilityFunctionsTest, DateAddExRefusals) {
    const Date date = at("2026-01-01");
    for (const char* unit : {"", "y", "W", "www", "month"}) {
        EXPECT_THROW(DateAddEx(unit, 1, date), RuntimeError) << unit;
    }
    for (const char* unit : {"yyyy", "m", "d", "s"}) {
        for (const double amount : {-1e300, std::nan(""), 1e12}) {
            EXPECT_THROW(DateAddEx(unit, amount, date), RuntimeError) << unit << amount;
        }
    }
    EXPECT_THROW(DateAddEx("d", 1, at("9999-12-31")), RuntimeError);
}

TEST(UtilityFunctionsTest, StartOfInterval) {
    struct Case {
        const char* date;
        std::int32_t seconds;
        const char *start, *previous;
    };
    const Case cases[] = {
        {"2026-11-22 10:20:30", 3600, "2026-11-22 10:00:00", "2026-11-22 09:00:00"},
        {"2026-11-22 23:59:59", 86400, "2026-11-22", "2026-11-21"},
        {"2026-11-22 23:59:59", 7000, "2026-11-22 23:20:00", "2026-11-22 21:23:20"},
        {"1899-12-29 18:30", 3600, "1899-12-29 18:00:00", "1899-12-29 17:00:00"},
        {"2026-11-22 10:20:30", 0, "00:00:00", "00:00:00"},
        {"2026-11-22 10:20:30", 86401, "00:00:00", "00:00:00"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(dateText(StartOfInterval(at(c.date), c.seconds, false)), c.start) << c.date << ' ' << c.seconds;
        EXPECT_EQ(dateText(StartOfInterval(at(c.date), c.seconds, true)), c.previous) << c.date << ' ' << c.seconds;
    }
    const Date lastInstant = dateFromLinearMilliseconds(linearMilliseconds(at("2026-11-22 10:00:00")) - 1);
    EXPECT_EQ(dateText(StartOfInterval(lastInstant, 3600, false)), "2026-11-22 09:00:00");
}

TEST(UtilityFunctionsTest, StartsOfPeriods) {
    const int quarters[] = {1, 1, 1, 4, 4, 4, 7, 7, 7, 10, 10, 10};
    for (int month = 1; month <= 12; ++month) {
        const Date date = makeDate(2026, month, 15, 13, 14, 15);
        EXPECT_EQ(StartOfMonth(date), makeDate(2026, month, 1));
        EXPECT_EQ(StartOfQuarter(date), makeDate(2026, quarters[month - 1], 1));
        EXPECT_EQ(StartOfHalfYear(date), makeDate(2026, month <= 6 ? 1 : 7, 1));
        EXPECT_EQ(StartOfYear(date), makeDate(2026, 1, 1));
    }
}

TEST(UtilityFunctionsTest, GetTextBetween) {
    struct Case {
        const char *text, *start, *end;
        std::int32_t from;
        CompareMode mode;
        const char* between;
        std::int32_t next, startAt;
    };
    const Case cases[] = {
        {"a[1]b[2]", "[", "]", 5, CompareMode::Exact, "2", 9, 6},
        {"a[1", "[", "]", 1, CompareMode::Exact, "1", 0, 2},
        {"[]", "[", "]", 1, CompareMode::Exact, "", 3, 1},
        {"x-1-2", "-", "", 1, CompareMode::Exact, "1", 5, 2},
        {"xABcdABy", "ab", "AB", 1, CompareMode::IgnoreCase, "cd", 7, 2},
        {"ÄÖ«漢字»!", "«", "»", 3, CompareMode::Exact, "漢字", 7, 3},
        {"abc", "", "c", 2, CompareMode::Exact, "b", 4, 2},
        {"abc", "a", "b", 99, CompareMode::Exact, "", 0, 0},
    };
    for (const Case& c : cases) {
        std::int32_t next = -1;
        std::int32_t startAt = -1;
        EXPECT_EQ(GetTextBetween(c.text, c.start, c.end, c.from, c.mode, next, startAt), c.between) << c.text;
        EXPECT_EQ(next, c.next) << c.text;
        EXPECT_EQ(startAt, c.startAt) << c.text;
    }
    EXPECT_THROW(GetTextBetween("abc", "a", "b", 0), RuntimeError);
}

TEST(UtilityFunctionsTest, QuotesPaddingAndCutting) {
    EXPECT_EQ(StripQuotes("\"a\""), "a");
    EXPECT_EQ(StripQuotes("\"\"a"), "\"a");
    EXPECT_EQ(StripQuotes("\""), "");
    EXPECT_EQ(StripQuotes("a\""), "a");

    EXPECT_EQ(PadText("abc", 4, true, true), "abc ");
    EXPECT_EQ(PadText("abc", 4, false, true), " abc");
    EXPECT_EQ(PadText("12345", 4, false, true), "1234");
    EXPECT_EQ(PadText("12345", 4, false, false), "12345");
    EXPECT_EQ(PadText("äöü", 2, true, true), "äö");
    EXPECT_EQ(PadText("a", -1, true, true), "");

    EXPECT_EQ(TruncateText("漢字漢", 2), "漢字...");
    EXPECT_EQ(TruncateText("漢字", 2), "漢字");
}

}  // namespace
}  // namespace quelm
