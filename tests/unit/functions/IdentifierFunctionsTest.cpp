#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <set>

#include "OPC/OPC DA Server/IOChannelIDFunctions.h"
#include "OPC/OPC DA Server/MonitorProcessCodeFunctions.h"
#include "OPC/OPC DA Server/PIDFunctions.h"
#include "OPC/OPC DA Server/TextConversionFunctions.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

TEST(PIDFunctionsTest, ParsesTexts) {
    struct Case {
        const char* text;
        std::int32_t plain, bracketed;
    };
    const Case cases[] = {
        {"1-010-0-12-34", 101001234, 0},
        {"[1-010-0-12-34]", 101001234, 101001234},
        {" [ 1-010-0-12-34 ] x", 101001234, 101001234},
        {"[101001234][2]", 100123402, 101001234},
        {"[101001234", 101001234, 0},
        {"[ @101001234]", 101001234, 0},
        {"[]", 0, 0},
        {"", 0, 0},
        {"1-010-6-12-34", 0, 0},
        {"1-1-1-1-1", 100110101, 0},
        {"ä1-010-0-12-34ö", 101001234, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ParsePID(c.text, false), c.plain) << c.text;
        EXPECT_EQ(ParsePID(c.text, true), c.bracketed) << c.text;
    }
}

TEST(PIDFunctionsTest, EveryPartComesBack) {
    for (const std::int32_t a : {0, 1, 9, 10, 19, 20}) {
        for (const std::int32_t b : {0, 1, 42, 100, 999, 1000}) {
            for (std::int32_t c = 0; c <= 10; ++c) {
                for (std::int32_t d = 0; d <= 100; ++d) {
                    for (const std::int32_t e : {-1, 0, 5, 10, 99}) {
                        const std::int32_t pid = MakePID(a, b, c, d, e);
                        const bool valid =
                            (a > 0 || b > 0) && a < 20 && b < 1000 && c != 6 && c < 9 && d < 100 && e >= 0;
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

TEST(PIDFunctionsTest, TextsAndOddSelectors) {
    EXPECT_EQ(PIDToText(101001234), "1-010-0-12-34");
    EXPECT_EQ(PIDToText(100000), "0-001-0-00-00");
    for (const std::int32_t pid : {0, -101001234, 99999, 2000000000, 101061234, 101091234}) {
        EXPECT_EQ(PIDToText(pid), "") << pid;
    }
    EXPECT_EQ(GetPIDPart(101071234, -5), 8);
    EXPECT_EQ(GetPIDPart(101051234, -5), 5);
    EXPECT_EQ(GetPIDPart(101071234, 0), 0);
    EXPECT_EQ(GetPIDPart(101071234, 6), 0);
}

TEST(PIDFunctionsTest, TakesTrailingGroups) {
    std::string_view text = "a12345--";
    EXPECT_EQ(TakeTrailingNumber(text, 2), 45);
    EXPECT_EQ(text, "a123");
    EXPECT_EQ(TakeTrailingNumber(text, 9), 123);
    EXPECT_EQ(text, "");
    EXPECT_EQ(TakeTrailingNumber(text, 2), -1);
    std::string_view huge = "2147483648";
    EXPECT_THROW(TakeTrailingNumber(huge, 10), RuntimeError);
}

TEST(IdentifierFunctionsTest, ValidityByKind) {
    struct Case {
        Variant value;
        bool isPID, isChannel;
    };
    const Case cases[] = {
        {Variant(std::int32_t{101001234}), true, true},
        {Variant(std::int32_t{99999}), false, true},
        {Variant(std::int32_t{2000000000}), false, false},
        {Variant(std::int32_t{-1}), false, false},
        {Variant(std::int16_t{1}), false, true},
        {Variant(101001234.5), true, true},
        {Variant(99999.5), true, true},
        {Variant(1999999999.5), false, false},
        {Variant(Decimal::fromText("101001234.4")), true, true},
        {Variant("1-010-0-12-34"), true, true},
        {Variant("12-34"), false, true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(IsValidPID(c.value), c.isPID) << static_cast<int>(c.value.kind());
        EXPECT_EQ(IsValidIOChannelID(c.value), c.isChannel) << static_cast<int>(c.value.kind());
    }
    for (const Variant& value :
         {Variant(), Variant::null(), Variant(true), Variant(Date{101001234}), Variant(Currency{1010012340000}),
          Variant(std::make_shared<VariantObject>()), Variant(std::nan("")), Variant("x")}) {
        EXPECT_FALSE(IsValidPID(value) || IsValidIOChannelID(value)) << static_cast<int>(value.kind());
    }
}

TEST(IOChannelIDFunctionsTest, ParsesTexts) {
    struct Case {
        const char* text;
        std::int32_t plain, bracketed;
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
    const std::set<std::int32_t> down{13, 23, 29, 32, 39, 60, 64, 65, 68};
    const std::set<std::int32_t> unranked{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 69, 76};
    std::set<std::int32_t> good{0, 26, 35, 36, 38, 61, 73, 75, 80, 81, 82, 83, 84};
    for (std::int32_t code = 40; code <= 57; ++code) {
        good.insert(code);
    }
    for (std::int32_t code = -100; code <= 200; ++code) {
        EXPECT_EQ(IsDownMonitorCode(code), down.count(code) == 1) << code;
        EXPECT_EQ(IsGoodMonitorCode(code), good.count(code) == 1) << code;
        EXPECT_EQ(IsRankedMonitorCode(code), code >= 0 && code <= 84 && unranked.count(code) == 0) << code;
    }
}

}  // namespace
}  // namespace quelm
