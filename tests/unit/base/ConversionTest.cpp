#include "base/Conversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

#include "base/Raised.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {
namespace {

using test::raisedBy;

const float infinity = std::numeric_limits<float>::infinity();

TEST(ConversionTest, TellsNumbersFromOtherTexts) {
    const std::pair<const char*, std::optional<double>> cases[] = {
        {"0", 0},           {"12.5", 12.5},      {" -12.5 ", -12.5}, {"+7", 7},          {".5", 0.5},
        {"5.", 5},          {"1e3", 1000},       {"1E-05", 1e-5},    {"1E+30", 1e30},    {"1E-400", 0},
        {"0.000", 0},       {"0E500", 0},        {"&H1F", 31},       {"&hff", 255},      {"&O17", 15},
        {"&HFFFF", -1},     {"&H10000", 65536},  {"&H8000", -32768}, {"&HFFFFFFFF", -1}, {"", {}},
        {" ", {}},          {"abc", {}},         {"12abc", {}},      {"1 2", {}},        {"1,5", {}},
        {"1E400", {}},      {"-1E400", {}},      {"1E", {}},         {"NaN", {}},        {"inf", {}},
        {"-inf", {}},       {"infinity", {}},    {"0x10", {}},       {"1p3", {}},        {"--1", {}},
        {"+-1", {}},        {".", {}},           {"-", {}},          {"&H", {}},         {"&HG", {}},
        {"&O8", {}},        {"&H100000000", {}}, {"&H-1", {}},       {"-&H1", {}},       {"1\t", {}},
        {"2013-04-05", {}}, {"True", {}},
    };
    for (const auto& [text, number] : cases) {
        EXPECT_EQ(parseNumber(text), number) << text;
        EXPECT_EQ(isNumeric(Variant(text)), number.has_value()) << text;
    }
    EXPECT_EQ(parseNumber("0." + std::string(400, '0') + "1"), 0);
    EXPECT_EQ(parseNumber("1" + std::string(400, '0')), std::nullopt);
    EXPECT_EQ(parseNumber("1" + std::string(400, '0') + "E-400"), 1);
}

TEST(ConversionTest, IsNumericByKind) {
    for (const Variant& value :
         {Variant(), Variant(true), Variant(std::uint8_t{1}), Variant(std::int16_t{1}), Variant(std::int32_t{1}),
          Variant(1.5F), Variant(1.5), Variant(Currency{1}), Variant(Decimal{})}) {
        EXPECT_TRUE(isNumeric(value) && !isDateLike(value)) << static_cast<int>(value.kind());
    }
    for (const Variant& value : {Variant(Date{1}), Variant("06:07")}) {
        EXPECT_TRUE(isDateLike(value) && !isNumeric(value)) << static_cast<int>(value.kind());
    }
}

TEST(ConversionTest, IntegersRoundHalfToEvenAndOverflow) {
    const std::pair<Variant, std::int32_t> cases[] = {
        {Variant(), 0},
        {Variant(true), -1},
        {Variant(Currency{25'000}), 2},
        {Variant(2.5F), 2},
        {Variant(-1.5), -2},
        {Variant(-2147483648.5), std::numeric_limits<std::int32_t>::min()},
        {Variant(Decimal::fromText("4.5")), 4},
        {Variant(Date{1.5}), 2},
        {Variant("&HFFFF"), -1},
    };
    for (const auto& [value, whole] : cases) {
        EXPECT_EQ(toInt32(value), whole) << naturalText(value);
    }
    for (const Variant& value :
         {Variant(2147483647.5), Variant(3e9), Variant(-3e9F), Variant(std::nan("")), Variant(infinity),
          Variant("3000000000"), Variant(Currency{std::numeric_limits<std::int64_t>::min()}),
          Variant(Decimal::fromText("1E20"))}) {
        EXPECT_EQ(raisedBy([&value] { toInt32(value); }), errors::overflow) << naturalText(value);
    }
    EXPECT_EQ(toInt16(Variant(32767.4)), 32767);
    EXPECT_EQ(raisedBy([] { toInt16(Variant(32767.5)); }), errors::overflow);
    EXPECT_EQ(raisedBy([] { toInt16(Variant(std::int32_t{-32769})); }), errors::overflow);
}

TEST(ConversionTest, RefusesWhatHasNoNumber) {
    const std::pair<Variant, long> cases[] = {
        {Variant::null(), errors::invalidUseOfNull},
        {Variant(ErrorCode{5}), errors::typeMismatch},
        {Variant(std::shared_ptr<VariantObject>()), errors::objectNotSet},
        {Variant(std::make_shared<VariantObject>()), errors::typeMismatch},
        {Variant(std::vector<std::string>{"1"}), errors::typeMismatch},
        {Variant("abc"), errors::typeMismatch},
    };
    for (const auto& each : cases) {
        const Variant& value = each.first;
        SCOPED_TRACE(static_cast<int>(value.kind()));
        EXPECT_FALSE(isNumeric(value) || isDateLike(value));
        EXPECT_EQ(raisedBy([&] { toInt32(value); }), each.second);
        EXPECT_EQ(raisedBy([&] { toSingle(value); }), each.second);
        EXPECT_EQ(raisedBy([&] { toBoolean(value); }), each.second);
        EXPECT_EQ(raisedBy([&] { toDate(value); }), each.second);
        EXPECT_EQ(raisedBy([&] { toDecimal(value); }), each.second);
    }
}

TEST(ConversionTest, ConvertsToFloatsBooleansDatesDecimals) {
    EXPECT_EQ(toSingle(Variant(0.1)), 0.1F);
    EXPECT_EQ(toSingle(Variant(infinity)), infinity);
    EXPECT_EQ(raisedBy([] { toSingle(Variant("1e39")); }), errors::overflow);
    EXPECT_EQ(toDouble(Variant(Currency{-15'000})), -1.5);
    EXPECT_EQ(toDouble(Variant(true)), -1);
    const std::pair<const char*, bool> booleans[] = {
        {" TRUE ", true}, {"-0.5", true}, {"False", false}, {"0.0", false}};
    for (const auto& [text, boolean] : booleans) {
        EXPECT_EQ(toBoolean(Variant(text)), boolean) << text;
    }
    EXPECT_EQ(toDate(Variant(1.5)).days, 1.5);
    EXPECT_EQ(toDate(Variant("1900-01-01")).days, 2);
    EXPECT_EQ(raisedBy([] { toDate(Variant(3e6)); }), errors::overflow);
    EXPECT_EQ(raisedBy([] { toDate(Variant("12.5")); }), errors::typeMismatch);
    EXPECT_EQ(toDecimal(Variant("0.1")).toText(), "0.1");
    EXPECT_EQ(toDecimal(Variant("&H10")).toText(), "16");
}

TEST(ConversionTest, NaturalTexts) {
    const std::pair<Variant, const char*> cases[] = {
        {Variant(), ""},
        {Variant::null(), ""},
        {Variant(false), "False"},
        {Variant(std::int32_t{-2147483647 - 1}), "-2147483648"},
        {Variant(-0.0), "0"},
        {Variant(0.1 + 0.2), "0.3"},
        {Variant(16777216.0F), "1.677722E+07"},
        {Variant(-1.5e300), "-1.5E+300"},
        {Variant(1e-5), "1E-05"},
        {Variant(std::nan("")), "NaN"},
        {Variant(-infinity), "-INF"},
        {Variant(Currency{-12'345'000}), "-1234.5"},
        {Variant(makeDate(2013, 4, 5, 6, 7, 8)), "2013-04-05 06:07:08"},
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(naturalText(value), text);
    }
    EXPECT_EQ(raisedBy([] { toText(Variant::null()); }), errors::invalidUseOfNull);
    EXPECT_EQ(raisedBy([] { toText(Variant(std::vector<std::string>{})); }), errors::typeMismatch);
}

}  // namespace
}  // namespace quelm
