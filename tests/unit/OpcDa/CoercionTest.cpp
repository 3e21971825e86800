#include "OPC DA/Coercion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace quelm::opcda {
namespace {

constexpr float infinity = std::numeric_limits<float>::infinity();
const double notANumber = std::nan("");

// What a conversion gave, as text: "I4 5", "R8 1.5", "BSTR True", "overflow".
std::string resultOf(const Variant& value, VarType requested) {
    OpcValue out;
    switch (convert(value, requested, out)) {
        case S_OK:
            break;
        case DISP_E_OVERFLOW:
            return out.type == VT_EMPTY ? "overflow" : "overflow with a value";
        default:
            return out.type == VT_EMPTY ? "mismatch" : "mismatch with a value";
    }
    const std::string type = std::to_string(out.type) + " ";
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

struct Case {
    Variant value;
    VarType requested;
    std::string_view result;
};

void check(const std::vector<Case>& cases) {
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(resultOf(cases[i].value, cases[i].requested), cases[i].result)
            << "case " << i << ": kind " << static_cast<int>(cases[i].value.kind()) << " to " << cases[i].requested;
    }
}

TEST(Coercion, OwnTypesAndNoValuePassAsTheyAre) {
    check({{Variant(1.5F), VT_EMPTY, "4 1.5"},
           {Variant(1.5F), VT_R4, "4 1.5"},
           {Variant(1.5), VT_EMPTY, "5 1.5"},
           {Variant(std::int32_t{-7}), VT_EMPTY, "3 -7"},
           {Variant(std::int16_t{-7}), VT_EMPTY, "2 -7"},
           {Variant(std::uint8_t{200}), VT_EMPTY, "17 200"},
           {Variant(true), VT_EMPTY, "11 -1"},
           {Variant("text"), VT_EMPTY, "8 text"},
           {Variant(Date{46000.5}), VT_EMPTY, "7 46000.5"},
           {Variant(Currency{12345}), VT_EMPTY, "6 12345"},
           {Variant(ErrorCode{-5}), VT_EMPTY, "10 -5"},
           {Variant(Decimal::fromText("1.25")), VT_EMPTY, "14 1.25"},
           {Variant(std::vector<std::string>{"a"}), VT_EMPTY, "8200 { \"a\" }"},
           {Variant(infinity), VT_EMPTY, "4 inf"},
           {Variant(), VT_EMPTY, "empty"},
           {Variant(), VT_I4, "empty"},
           {Variant(), VT_BSTR, "empty"},
           {Variant::null(), VT_EMPTY, "empty"},
           {Variant::null(), VT_R8, "empty"}});
}

TEST(Coercion, IntegersRoundHalfToEvenWithinTheirRange) {
    check({{Variant(2.5), VT_I4, "3 2"},
           {Variant(3.5), VT_I4, "3 4"},
           {Variant(-2.5), VT_I2, "2 -2"},
           {Variant(0.5F), VT_UI1, "17 0"},
           {Variant(-0.5), VT_UI4, "19 0"},
           {Variant(-0.6), VT_UI4, "overflow"},
           {Variant(127.5), VT_I1, "overflow"},
           {Variant(-128.5), VT_I1, "16 -128"},
           {Variant(255.4), VT_UI1, "17 255"},
           {Variant(std::int32_t{256}), VT_UI1, "overflow"},
           {Variant(std::int32_t{-1}), VT_UI2, "overflow"},
           {Variant(std::int32_t{40000}), VT_I2, "overflow"},
           {Variant(std::int32_t{40000}), VT_UI2, "18 40000"},
           {Variant(2147483647.4), VT_INT, "22 2147483647"},
           {Variant(2147483647.5), VT_I4, "overflow"},
           {Variant(-2147483648.5), VT_I4, "3 -2147483648"},
           {Variant(4294967295.0), VT_UINT, "23 4294967295"},
           {Variant(9.2e18), VT_I8, "20 9200000000000000000"},
           {Variant(9223372036854775808.0), VT_I8, "overflow"},
           {Variant(18446744073709549568.0), VT_UI8, "21 -2048"},
           {Variant(1e300), VT_UI8, "overflow"},
           {Variant(notANumber), VT_I4, "overflow"},
           {Variant(infinity), VT_I4, "overflow"},
           {Variant(Currency{25000}), VT_I4, "3 2"},
           {Variant(Currency{-35000}), VT_I4, "3 -4"},
           {Variant(Decimal::fromText("0.50000000000000000001")), VT_I4, "3 1"},
           {Variant(Date{46000.5}), VT_I4, "3 46000"}});
}

TEST(Coercion, TrueIsMinusOneOrAllBits) {
    check({{Variant(true), VT_I1, "16 -1"},
           {Variant(true), VT_I4, "3 -1"},
           {Variant(true), VT_I8, "20 -1"},
           {Variant(true), VT_UI1, "17 255"},
           {Variant(true), VT_UI4, "19 4294967295"},
           {Variant(true), VT_R4, "4 -1"},
           {Variant(true), VT_CY, "6 -10000"},
           {Variant(true), VT_DECIMAL, "14 -1"},
           {Variant(true), VT_BSTR, "8 True"},
           {Variant(false), VT_BSTR, "8 False"},
           {Variant(std::int32_t{2}), VT_BOOL, "11 -1"},
           {Variant(0.1), VT_BOOL, "11 -1"},
           {Variant(0.0), VT_BOOL, "11 0"},
           {Variant(" fALSE "), VT_BOOL, "11 0"},
           {Variant("12"), VT_BOOL, "11 -1"},
           {Variant("yes"), VT_BOOL, "mismatch"}});
}

TEST(Coercion, FloatingTypesCurrencyAndDecimal) {
    check({{Variant(1e39), VT_R4, "overflow"},
           {Variant(3.4028234e38), VT_R4, "4 3.40282e+38"},
           {Variant(std::int32_t{-70001}), VT_R8, "5 -70001"},
           {Variant(1.23456), VT_CY, "6 12346"},
           {Variant(0.00005), VT_CY, "6 0"},
           {Variant(1e15), VT_CY, "overflow"},
           {Variant(std::int32_t{-3}), VT_CY, "6 -30000"},
           {Variant(0.1F), VT_DECIMAL, "14 0.1"},
           {Variant(0.1), VT_DECIMAL, "14 0.1"},
           {Variant(1e29), VT_DECIMAL, "overflow"},
           {Variant(notANumber), VT_DECIMAL, "overflow"},
           {Variant(Currency{-12500}), VT_DECIMAL, "14 -1.25"},
           {Variant(Currency{-12500}), VT_R8, "5 -1.25"},
           {Variant(Decimal::fromText("79228162514264337593543950335")), VT_CY, "overflow"},
           {Variant(Decimal::fromText("-1.5")), VT_R4, "4 -1.5"}});
}

TEST(Coercion, NumbersBecomeText) {
    check({{Variant(std::int32_t{-2147483647 - 1}), VT_BSTR, "8 -2147483648"},
           {Variant(0.1), VT_BSTR, "8 0.1"},
           {Variant(0.1F), VT_BSTR, "8 0.1"},
           {Variant(1.0 / 3), VT_BSTR, "8 0.333333333333333"},
           {Variant(1.0F / 3), VT_BSTR, "8 0.3333333"},
           {Variant(123456789.0F), VT_BSTR, "8 1.234568E+08"},
           {Variant(1e15), VT_BSTR, "8 1E+15"},
           {Variant(123456789012345.0), VT_BSTR, "8 123456789012345"},
           {Variant(-1.5e-300), VT_BSTR, "8 -1.5E-300"},
           {Variant(-0.0), VT_BSTR, "8 0"},
           {Variant(infinity), VT_BSTR, "8 1.#INF"},
           {Variant(Currency{-12500}), VT_BSTR, "8 -1.25"},
           {Variant(Decimal::fromText("-79228162514264337593543950335")), VT_BSTR, "8 -79228162514264337593543950335"},
           {Variant(Date{0.5}), VT_BSTR, "8 12:00:00"},
           {Variant(Date{46086.25}), VT_BSTR, "8 2026-03-05 06:00:00"},
           {Variant(Date{1e300}), VT_BSTR, "overflow"},
           {Variant(Date{notANumber}), VT_BSTR, "overflow"}});
}

TEST(Coercion, TextBecomesNumbers) {
    check({{Variant("12.5"), VT_R4, "4 12.5"},
           {Variant(" 2.5 "), VT_I4, "3 2"},
           {Variant("1E3"), VT_I2, "2 1000"},
           {Variant("1E300"), VT_I4, "overflow"},
           {Variant("1E300"), VT_R8, "5 1e+300"},
           {Variant("40000"), VT_I2, "overflow"},
           {Variant("9223372036854775807"), VT_I8, "20 9223372036854775807"},
           {Variant("18446744073709551615"), VT_UI8, "21 -1"},
           {Variant("18446744073709551616"), VT_UI8, "overflow"},
           {Variant("922337203685477.5807"), VT_CY, "6 9223372036854775807"},
           {Variant("0.1"), VT_DECIMAL, "14 0.1"},
           {Variant(""), VT_I4, "mismatch"},
           {Variant("12 apples"), VT_R8, "mismatch"},
           {Variant("True"), VT_I4, "mismatch"},
           {Variant("2026-03-05"), VT_DATE, "7 46086"},
           {Variant("n/a"), VT_DATE, "mismatch"}});
}

TEST(Coercion, DatesAreNumbersWithinTheirRange) {
    check({{Variant(46000.5), VT_DATE, "7 46000.5"},
           {Variant(std::int32_t{2}), VT_DATE, "7 2"},
           {Variant(2958466.0), VT_DATE, "overflow"},
           {Variant(notANumber), VT_DATE, "overflow"},
           {Variant(Date{46000.5}), VT_R8, "5 46000.5"},
           {Variant(Date{46000.5}), VT_CY, "6 460005000"},
           {Variant(Date{46000.5}), VT_BOOL, "11 -1"}});
}

TEST(Coercion, OtherKindsConvertToNothing) {
    const Variant texts(std::vector<std::string>{"1"});
    check({{Variant(ErrorCode{1}), VT_I4, "mismatch"},
           {Variant(ErrorCode{1}), VT_BSTR, "mismatch"},
           {Variant(std::int32_t{1}), VT_ERROR, "mismatch"},
           {Variant(std::int32_t{1}), VT_NULL, "mismatch"},
           {Variant(std::int32_t{1}), VT_BSTR_ARRAY, "mismatch"},
           {Variant(std::int32_t{1}), 0x2003, "mismatch"},
           {Variant(std::int32_t{1}), 12, "mismatch"},
           {texts, VT_BSTR, "mismatch"},
           {texts, VT_I4, "mismatch"},
           {Variant(std::shared_ptr<VariantObject>{}), VT_EMPTY, "mismatch"}});
}

}  // namespace
}  // namespace quelm::opcda
