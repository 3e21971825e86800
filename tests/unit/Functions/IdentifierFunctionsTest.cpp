#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <set>

#include "OPC/OPC DA Server/IOChannelIDFunctions.h"
#include "OPC/OPC DA Server/MonitorProcessCodeFunctions.h"
#include "OPC/OPC DA Server/PIDFunctions.h"
#include "OPC/OPC DA Server/TextConversionFunctions.h"
#include "Shared Types/RuntimeError.h"

namespace quelm {
namespace {

TEST(PIDFunctionsTest, ParsesTexts) {
    struct Case {
        const char* text;
        std::int32_t plain;
        std::int32_t bracketed;
    };
    const Case cases[] = {
        {"1-010-0-12-34", 101001234, 0},
        {"1 010 0 12 34", 101001234, 0},
        {"101001234", 101001234, 0},
        {"1/010/0/12/34 mg", 101001234, 0},
        {"PID 1-010-0-12-34", 101001234, 0},
        {"[1-010-0-12-34]", 101001234, 101001234},
        {" [ 1-010-0-12-34 ] x", 101001234, 101001234},
        {"[101001234][2]", 100123402, 101001234},
        {"x[101001234]", 101001234, 0},
        {"[101001234", 101001234, 0},
        {"[@1234]", 0, 0},
        {"[ @101001234]", 101001234, 0},
        {"[]", 0, 0},
        {"[", 0, 0},
        {"", 0, 0},
        {"010-0-12-34", 1001234, 0},
        {"0-001-0-00-00", 100000, 0},
        {"0-000-9-99-99", 0, 0},
        {"1-010-6-12-34", 0, 0},
        {"1-010-9-12-34", 0, 0},
        {"19-999-8-99-99", 1999989999, 0},
        {"20-000-0-00-00", 0, 0},
        {"12-34", 0, 0},
        {"-010-0-12-34", 0, 0},
        {"1-1-1-1-1", 100110101, 0},
        {"ä1-010-0-12-34ö", 101001234, 0},
        {"99999999999999999999", 0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ParsePID(c.text, false), c.plain) << c.text;
        EXPECT_EQ(ParsePID(c.text, true), c.bracketed) << c.text;
    }
}

TEST(PIDFunctionsTest, EveryPartComesBack) {
    for (const std::int32_t a : {0, 1, 9, 10, 19}) {
        for (const std::int32_t b : {0, 1, 42, 100, 999}) {
            for (std::int32_t c = 0; c <= 9; ++c) {
                for (std::int32_t d = 0; d <= 99; ++d) {
                    for (const std::int32_t e : {0, 5, 10, 99}) {
                        const std::int32_t pid = MakePID(a, b, c, d, e);
                        const bool valid = (a > 0 || b > 0) && c != 6 && c != 9;
                        ASSERT_EQ(pid != 0, valid) << a << ' ' << b << ' ' << c << ' ' << d << ' ' << e;
                        if (!valid) {
                            continue;
                        }
                        ASSERT_TRUE(GetPIDPart(pid, 1) == a && GetPIDPart(pid, 2) == b && GetPIDPart(pid, 5) == c &&
                                    GetPIDPart(pid, 4) == d && GetPIDPart(pid, 3) == e)
                            << pid;
                        ASSERT_EQ(ParsePID(PIDToText(pid), false), pid);
                        ASSERT_EQ(ParsePID(std::to_string(pid), false), pid);
                    }
                }
            }
        }
    }
}

TEST(PIDFunctionsTest, PartsTextsAndRanges) {
    EXPECT_EQ(PIDToText(101001234), "1-010-0-12-34");
    EXPECT_EQ(PIDToText(100000), "0-001-0-00-00");
    EXPECT_EQ(PIDToText(1999989999), "19-999-8-99-99");
    for (const std::int32_t pid : {0, -101001234, 99999, 2000000000, 101061234, 101091234}) {
        EXPECT_EQ(PIDToText(pid), "") << pid;
    }
    EXPECT_EQ(GetPIDPart(101071234, -5), 8);
    EXPECT_EQ(GetPIDPart(101071234, 5), 7);
    EXPECT_EQ(GetPIDPart(101051234, -5), 5);
    for (const std::int32_t selector : {0, 6, -1, 100}) {
        EXPECT_EQ(GetPIDPart(101071234, selector), 0) << selector;
    }
    EXPECT_EQ(MakePID(20, 0, 0, 0, 0), 0);
    EXPECT_EQ(MakePID(1, 1000, 0, 0, 0), 0);
    EXPECT_EQ(MakePID(1, 1, 10, 0, 0), 0);
    EXPECT_EQ(MakePID(1, 1, 0, 100, 0), 0);
    EXPECT_EQ(MakePID(1, 1, 0, 0, -1), 0);
}

TEST(PIDFunctionsTest, TakesTrailingGroups) {
    struct Case {
        const char* text;
        std::int32_t digits;
        std::int32_t value;
        const char* rest;
    };
    const Case cases[] = {
        {"12345", 2, 45, "123"}, {"12-34", 2, 34, "12-"}, {"12-3", 2, 3, "12"},
        {"12--", 2, 12, ""},     {"12 -", 1, 2, "1"},     {"", 2, -1, ""},
        {"abc", 2, -1, ""},      {"a007", 3, 7, "a"},     {"7", 9, 7, ""},
    };
    for (const Case& c : cases) {
        std::string_view text = c.text;
        EXPECT_EQ(TakeTrailingNumber(text, c.digits), c.value) << c.text;
        EXPECT_EQ(text, c.rest) << c.text;
    }
    std::string_view zeros = "0000000000000000000000000000000000000000000000000001";
    EXPECT_EQ(TakeTrailingNumber(zeros, 99), 1);
    std::string_view huge = "2147483648";
    EXPECT_THROW(TakeTrailingNumber(huge, 10), RuntimeError);
}

TEST(IdentifierFunctionsTest, ValidityByKind) {
    struct Case {
        Variant value;
        bool isPID;
        bool isChannel;
    };
    const Case cases[] = {
        {Variant(std::int32_t{101001234}), true, true},
        {Variant(std::int32_t{99999}), false, true},
        {Variant(std::int32_t{2000000000}), false, false},
        {Variant(std::int32_t{1999989999}), true, true},
        {Variant(std::int32_t{-1}), false, false},
        {Variant(std::int16_t{1}), false, true},
        {Variant(std::int16_t{0}), false, false},
        {Variant(101001234.5), true, true},
        {Variant(99999.5), true, true},
        {Variant(100000.5F), true, true},
        {Variant(0.5), false, false},
        {Variant(1999999999.5), false, false},
        {Variant(1e30), false, false},
        {Variant(std::nan("")), false, false},
        {Variant(Decimal::fromText("101001234.4")), true, true},
        {Variant(Decimal::fromText("1E20")), false, false},
        {Variant("1-010-0-12-34"), true, true},
        {Variant("12-34"), false, true},
        {Variant("x"), false, false},
        {Variant(), false, false},
        {Variant::null(), false, false},
        {Variant(true), false, false},
        {Variant(Date{101001234}), false, false},
        {Variant(Currency{1010012340000}), false, false},
        {Variant(std::make_shared<VariantObject>()), false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(IsValidPID(c.value), c.isPID) << static_cast<int>(c.value.kind());
        EXPECT_EQ(IsValidIOChannelID(c.value), c.isChannel) << static_cast<int>(c.value.kind());
    }
}

TEST(IOChannelIDFunctionsTest, ParsesTexts) {
    struct Case {
        const char* text;
        std::int32_t plain;
        std::int32_t bracketed;
    };
    const Case cases[] = {
        {"[@1234]", 0, 1234},  {"[ @1234 ]", 0, 1234}, {"[1234]", 0, 0},
        {"1234", 1234, 0},     {"[@0]", 0, 0},         {"@12", 0, 0},
        {"x [@7] [@8]", 0, 7}, {"[@7", 0, 7},          {"[@ 7,8]", 0, 7},
        {"12 15", 1215, 0},    {"2.5", 2, 0},          {"1999999999", 1999999999, 0},
        {"2000000000", 0, 0},  {"99999999999", 0, 0},  {"1E400", 0, 0},
        {"&H10", 16, 0},       {"-5", 0, 0},           {"", 0, 0},
        {"[]", 0, 0},          {"[[@5]", 0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ParseIOChannelID(c.text, false), c.plain) << c.text;
        EXPECT_EQ(ParseIOChannelID(c.text, true), c.bracketed) << c.text;
    }
}

TEST(MonitorProcessCodeFunctionsTest, CodesFallIntoTheirSets) {
    const std::set<std::int32_t> down = {13, 23, 29, 32, 39, 60, 64, 65, 68};
    const std::set<std::int32_t> unranked = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 69, 76};
    int good = 0;
    for (std::int32_t code = -100; code <= 200; ++code) {
        const bool inRange = code >= MinMonitorCode() && code <= MaxMonitorCode();
        EXPECT_EQ(IsDownMonitorCode(code), down.count(code) == 1) << code;
        EXPECT_EQ(IsRankedMonitorCode(code), inRange && unranked.count(code) == 0) << code;
        EXPECT_FALSE(IsGoodMonitorCode(code) && (IsDownMonitorCode(code) || !IsRankedMonitorCode(code))) << code;
        good += IsGoodMonitorCode(code) ? 1 : 0;
    }
    EXPECT_EQ(good, 31);
    for (std::int32_t code = 40; code <= 57; ++code) {
        EXPECT_TRUE(IsGoodMonitorCode(code)) << code;
    }
    EXPECT_EQ(MaxProcessCode(), 99);
}

}  // namespace
}  // namespace quelm
