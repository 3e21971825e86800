#include "opcda/Coercion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace quelm::opcda {
namespace {

constexpr float infinity = std::numeric_limits<float>::infinity();
const double notANumber = std::nan("");

// What a conversion gave, as text: "5", "1.5", "True", "overflow"; with the type before it when that was not asked for.
std::string resultOf(const Variant& value, VarType requested) {
    OpcValue out;
    const HResult result = convert(value, requested, out);
    if (result != S_OK) {
        return std::string(result == DISP_E_OVERFLOW ? "overflow" : "mismatch") +
               (out.type == VT_EMPTY ? "" : " with a value");
    }
    const std::string type = out.type == requested ? "" : std::to_string(out.type) + " ";
    switch (out.type) {
        case VT_EMPTY:
            return "empty";
        case VT_R4:
            return type + testing::PrintToString(out.single);
        case VT_R8:
        case VT_DATE:
            return type + testing::PrintToString(out.real);
        case VT_BSTR:
            return type + std::string(out.text);
        case VT_DECIMAL:
            return type + out.decimal.toText();
        case VT_BSTR_ARRAY:
            return type + testing::PrintToString(std::vector<std::string>(out.texts.begin(), out.texts.end()));
        default:
            return type + std::to_string(out.integer);
    }
}

// A value, and what it becomes as each of some types.
struct Case {
    Variant value;
    std::vector<std::pair<VarType, const char*>> results;
};

void check(const std::vector<Case>& cases) {
    for (const Case& each : cases) {
        for (const auto& [requested, result] : each.results) {
            EXPECT_EQ(resultOf(each.value, requested), result)
                << "case " << &each - cases.data() << ": kind " << static_cast<int>(each.value.kind()) << " to "
                << requested;
        }
    }
}

TEST(Coercion, OwnTypesAndNoValuePassAsTheyAre) {
    const std::pair<Variant, const char*> cases[] = {
        {Variant(1.5F), "4 1.5"},
        {Variant(1.5), "5 1.5"},
        {Variant(std::int32_t{-7}), "3 -7"},
        {Variant(std::int16_t{-7}), "2 -7"},
        {Variant(std::uint8_t{200}), "17 200"},
        {Variant(true), "11 -1"},
        {Variant("text"), "8 text"},
        {Variant(Date{46000.5}), "7 46000.5"},
        {Variant(Currency{12345}), "6 12345"},
        {Variant(ErrorCode{-5}), "10 -5"},
        {Variant(Decimal::fromText("1.25")), "14 1.25"},
        {Variant(std::vector<std::string>{"a"}), "8200 { \"a\" }"},
        {Variant(infinity), "4 inf"},
        {Variant(), "empty"},
        {Variant::null(), "empty"},
        {Variant(std::shared_ptr<VariantObject>{}), "mismatch"},
    };
    for (const auto& [value, shown] : cases) {
        EXPECT_EQ(resultOf(value, VT_EMPTY), shown);
    }
    EXPECT_EQ(resultOf(Variant(), VT_I4) + resultOf(Variant(), VT_BSTR) + resultOf(Variant::null(), VT_R8),
              "emptyemptyempty");
}

TEST(Coercion, IntegersRoundHalfToEvenWithinTheirRange) {
    check({{Variant(2.5), {{VT_I4, "2"}}},
           {Variant(3.5), {{VT_I4, "4"}}},
           {Variant(-2.5), {{VT_I2, "-2"}, {VT_UI4, "overflow"}}},
           {Variant(-0.5), {{VT_UI4, "0"}}},
           {Variant(127.5), {{VT_I1, "overflow"}}},
           {Variant(-128.5), {{VT_I1, "-128"}}},
           {Variant(255.4), {{VT_UI1, "255"}}},
           {Variant(std::int32_t{256}), {{VT_UI1, "overflow"}}},
           {Variant(std::int32_t{-1}), {{VT_UI2, "overflow"}}},
           {Variant(std::int32_t{40000}), {{VT_I2, "overflow"}, {VT_UI2, "40000"}}},
           {Variant(2147483647.5), {{VT_I4, "overflow"}, {VT_UINT, "2147483648"}}},
           {Variant(-2147483648.5), {{VT_I4, "-2147483648"}, {VT_INT, "-2147483648"}}},
           {Variant(9223372036854774784.0), {{VT_I8, "9223372036854774784"}}},
           {Variant(9223372036854775808.0), {{VT_I8, "overflow"}}},
           {Variant(18446744073709549568.0), {{VT_UI8, "-2048"}}},
           {Variant(1e300), {{VT_UI8, "overflow"}}},
           {Variant(notANumber),
            {{VT_I4, "overflow"}, {VT_R4, "overflow"}, {VT_BOOL, "overflow"}, {VT_BSTR, "overflow"}}},
           {Variant(Currency{-35000}), {{VT_I4, "-4"}}},
           {Variant(Decimal::fromText("0.50000000000000000001")), {{VT_I4, "1"}}}});
}

TEST(Coercion, TrueIsMinusOneOrAllBits) {
    check({{Variant(true), {{VT_I1, "-1"}, {VT_I4, "-1"}, {VT_I8, "-1"}, {VT_UI1, "255"}, {VT_UI4, "4294967295"}}},
           {Variant(true), {{VT_R4, "-1"}, {VT_CY, "-10000"}, {VT_DECIMAL, "-1"}, {VT_BSTR, "True"}}},
           {Variant(false), {{VT_UI1, "0"}, {VT_BSTR, "False"}}},
           {Variant(std::int32_t{2}), {{VT_BOOL, "-1"}}},
           {Variant(0.1), {{VT_BOOL, "-1"}}},
           {Variant(0.0), {{VT_BOOL, "0"}}},
           {Variant(" fALSE "), {{VT_BOOL, "0"}}},
           {Variant("#true#"), {{VT_BOOL, "-1"}}},
           {Variant("12"), {{VT_BOOL, "-1"}}},
           {Variant("yes"), {{VT_BOOL, "mismatch"}}}});
}

TEST(Coercion, FloatingTypesCurrencyDecimalAndDates) {
    check({{Variant(1e39), {{VT_R4, "overflow"}, {VT_CY, "overflow"}, {VT_DECIMAL, "overflow"}}},
           {Variant(std::int32_t{-70001}), {{VT_R8, "-70001"}, {VT_CY, "-700010000"}}},
           {Variant(1.23456), {{VT_CY, "12346"}}},
           {Variant(0.00005), {{VT_CY, "0"}}},
           {Variant(0.1F), {{VT_DECIMAL, "0.1"}}},
           {Variant(0.1), {{VT_DECIMAL, "0.1"}}},
           {Variant(Currency{-12500}), {{VT_DECIMAL, "-1.25"}, {VT_R8, "-1.25"}}},
           {Variant(Decimal::fromText("79228162514264337593543950335")), {{VT_CY, "overflow"}}},
           {Variant(Decimal::fromText("-1.5")), {{VT_R4, "-1.5"}}},
           {Variant(46000.5), {{VT_DATE, "46000.5"}}},
           {Variant(2958466.0), {{VT_DATE, "overflow"}}},
           {Variant(-657435.0), {{VT_DATE, "overflow"}}},
           {Variant(Date{46000.5}), {{VT_R8, "46000.5"}, {VT_CY, "460005000"}, {VT_BOOL, "-1"}, {VT_I4, "46000"}}}});
}

TEST(Coercion, NumbersBecomeText) {
    const std::pair<Variant, const char*> texts[] = {
        {Variant(std::int32_t{-2147483647 - 1}), "-2147483648"},
        {Variant(0.1F), "0.1"},
        {Variant(1.0 / 3), "0.333333333333333"},
        {Variant(1.0F / 3), "0.3333333"},
        {Variant(123456789.0F), "1.234568E+08"},
        {Variant(-1.5e-300), "-1.5E-300"},
        {Variant(-0.0), "0"},
        {Variant(infinity), "1.#INF"},
        {Variant(Currency{-12500}), "-1.25"},
        {Variant(Decimal::fromText("-79228162514264337593543950335")), "-79228162514264337593543950335"},
        {Variant(Date{46086.25}), "2026-03-05 06:00:00"},
        {Variant(Date{notANumber}), "overflow"},
    };
    for (const auto& [value, text] : texts) {
        EXPECT_EQ(resultOf(value, VT_BSTR), text);
    }
}

TEST(Coercion, TextBecomesNumbers) {
    check({{Variant("12.5"), {{VT_R4, "12.5"}}},
           {Variant(" 2.5 "), {{VT_I4, "2"}}},
           {Variant("1E300"), {{VT_I4, "overflow"}, {VT_R8, "1e+300"}}},
           {Variant("9223372036854775807"), {{VT_I8, "9223372036854775807"}}},
           {Variant("18446744073709551615"), {{VT_UI8, "-1"}}},
           {Variant("18446744073709551616"), {{VT_UI8, "overflow"}}},
           {Variant("922337203685477.5807"), {{VT_CY, "9223372036854775807"}}},
           {Variant(""), {{VT_I4, "mismatch"}}},
           {Variant("True"), {{VT_I4, "mismatch"}}},
           {Variant("2026-03-05"), {{VT_DATE, "46086"}, {VT_R8, "mismatch"}}},
           {Variant("n/a"), {{VT_DATE, "mismatch"}}}});
}

TEST(Coercion, OtherKindsConvertToNothing) {
    check({{Variant(ErrorCode{1}), {{VT_I4, "mismatch"}, {VT_BSTR, "mismatch"}}},
           {Variant(std::int32_t{1}), {{VT_ERROR, "mismatch"}, {VT_NULL, "mismatch"}, {VT_BSTR_ARRAY, "mismatch"}}},
           {Variant(std::int32_t{1}), {{0x2003, "mismatch"}, {12, "mismatch"}}},
           {Variant(std::vector<std::string>{"1"}), {{VT_BSTR, "mismatch"}, {VT_I4, "mismatch"}}}});
}

}  // namespace
}  // namespace quelm::opcda
