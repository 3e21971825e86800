#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <set>

#include "OPC/OPC DA Server/QuelmOpcMappingFunctions.h"
#include "OPC/OPC DA Server/TextConversionFunctions.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

TEST(QuelmOpcMappingFunctionsTest, VarTypes) {
    const std::int32_t types[] = {-1, 4, 3, 8, 11, 7, -1};
    for (std::int32_t code = 0; code <= 6; ++code) {
        EXPECT_EQ(GetOPCVarType(code), types[code]) << code;
    }
    EXPECT_EQ(GetOPCVarType(-1), -1);
}

TEST(QuelmOpcMappingFunctionsTest, Conversions) {
    struct Case {
        std::int16_t type;
        Variant value, defaultValue;
        bool converted;
        Variant result;
    };
    const Variant null = Variant::null();
    const Variant empty;
    const Variant five(std::int16_t{5});
    const auto whole = [](std::int32_t value) { return Variant(value); };
    const Case cases[] = {
        {2, Variant(2.5), null, true, Variant(std::int16_t{2})},
        {3, Variant(3.5), null, true, whole(4)},
        {3, empty, five, true, whole(0)},
        {3, null, five, true, whole(5)},
        {3, Variant("abc"), Variant("12"), true, whole(12)},
        {5, Variant("1E3"), null, true, Variant(1000.0)},
        {5, Variant(true), null, true, Variant(-1.0)},
        {11, Variant(0.1), null, true, Variant(true)},
        {11, Variant("0"), null, true, Variant(false)},
        {11, Variant("True"), null, false, Variant("True")},
        {7, Variant("2013-04-05"), null, true, Variant(Date{41369})},
        {7, empty, null, false, empty},
        {7, Variant(41369.0), Variant(Date{2}), true, Variant(Date{2})},
        {8, Variant(true), null, true, Variant("True")},
        {8, empty, Variant("n/a"), true, Variant("")},
        {8, null, null, false, null},
        {-1, Variant(1.0), five, false, Variant(1.0)},
    };
    for (const Case& c : cases) {
        Variant value = c.value;
        EXPECT_EQ(ConvertToOPCType(c.type, value, c.defaultValue), c.converted) << (&c - cases);
        EXPECT_EQ(value, c.result) << (&c - cases);
    }
}

TEST(QuelmOpcMappingFunctionsTest, Qualities) {
    struct Case {
        std::set<std::int32_t> codes;
        // neither flag, down is invalid, sub-status, both
        int words[4];
    };
    const Case cases[] = {
        {{0, 40, 84}, {0xC0, 0xC0, 0xC0, 0xC0}},
        {{13, 39, 60}, {0x80C0, 0x8000, 0x80C0, 0x8000}},
        {{23}, {0x80C0, 0x8000, 0x8044, 0x8044}},
        {{29}, {0x80C0, 0x8000, 0x8050, 0x8050}},
        {{32}, {0x80C0, 0x8000, 0x8054, 0x8054}},
        {{64, 65, 68}, {0x80C0, 0x8000, 0x8000, 0x8000}},
        {{14}, {0, 0, 0x50, 0x50}},
        {{15, 20, 25}, {0, 0, 0x1C, 0x1C}},
        {{19}, {0, 0, 0x0C, 0x0C}},
        {{22}, {0, 0, 0x18, 0x18}},
        {{28, 34}, {0, 0, 0x58, 0x58}},
        {{30}, {0, 0, 0x44, 0x44}},
        {{31}, {0, 0, 0x54, 0x54}},
    };
    for (std::int32_t code = -3; code <= 99; ++code) {
        const auto listed = std::find_if(std::begin(cases), std::end(cases),
                                         [code](const Case& c) { return c.codes.count(code) == 1; });
        for (int flags = 0; flags < 4; ++flags) {
            const int plain = IsGoodMonitorCode(code) ? 0xC0 : 0;
            const int word = listed == std::end(cases) ? plain : listed->words[flags];
            EXPECT_EQ(GetOPCQuality(code, (flags & 1) != 0, (flags & 2) != 0), static_cast<std::int16_t>(word))
                << code << ' ' << flags;
        }
    }
}

TEST(TextConversionFunctionsTest, VariantTexts) {
    const std::pair<Variant, const char*> cases[] = {
        {Variant(), ""},
        {Variant::null(), ""},
        {Variant(true), "1"},
        {Variant(false), "0"},
        {Variant(12.0), "12"},
        {Variant(1E-05), "0.00001"},
        {Variant(1E+30), "1E+30"},
        {Variant(std::numeric_limits<double>::infinity()), "INF"},
        {Variant(0.1F), "0.1"},
        {Variant(1E-30F), "0"},
        {Variant(Currency{-5'000}), "-0.5"},
        {Variant(Decimal::fromText("79228162514264337593543950335")), "79228162514264337593543950335"},
        {Variant(makeDate(2013, 4, 5, 6, 7, 8)), "2013-04-05 06:07:08"},
        {Variant(makeDate(1899, 12, 30, 6, 7, 8)), "06:07:08"},
        {Variant(Date{41369 + 86399.6 / 86400}), "2013-04-06 00:00:00"},
        {Variant(Date{41369 + 0.4 / 86400}), "2013-04-05"},
        {Variant(Date{86399.6 / 86400}), "00:00:00"},
        {Variant(ErrorCode{2042}), "Error 2042"},
        {Variant(" text "), " text "},
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(VariantToText(value), text) << text;
    }
    EXPECT_THROW(VariantToText(Variant(std::vector<std::string>{"a"})), RuntimeError);
    EXPECT_THROW(VariantToText(Variant(std::shared_ptr<VariantObject>())), RuntimeError);
}

TEST(TextConversionFunctionsTest, LeadingNumbers) {
    const std::pair<const char*, double> cases[] = {
        {"", 0},        {"abc", 0},         {"12", 12},         {" 1\t2\n3 4", 1234},
        {"12,15", 12},  {"1.5.2", 1.5},     {".5x", 0.5},       {"5.", 5},
        {".", 0},       {"-", 0},           {"- 7", -7},        {"+7", 7},
        {"+-7", 0},     {"1E2", 100},       {"1e-2x", 0.01},    {"1D+2", 100},
        {"1E", 1},      {"1E+", 1},         {"1Ex", 1},         {".E5", 0},
        {"&H1F", 31},   {"& h 1 f g", 31},  {"&O17", 15},       {"&o18", 1},
        {"&HFFFF", -1}, {"&HFFFF&", 65535}, {"&HFFFFFFFF", -1}, {"&H", 0},
        {"&17", 0},     {"1\r2", 1},        {"1\u00A02", 1},    {"1E-999", 0},
        {"0x10", 0},    {"inf", 0},
    };
    for (const auto& [text, number] : cases) {
        EXPECT_EQ(LeadingNumber(text), number) << text;
    }
    EXPECT_THROW(LeadingNumber("1E999"), RuntimeError);
    EXPECT_THROW(LeadingNumber("&H123456789"), RuntimeError);
}

}  // namespace
}  // namespace quelm
