#include "base/Decimal.h"

#include <gtest/gtest.h>

#include <limits>

#include "base/Raised.h"

namespace quelm {
namespace {

using test::raisedBy;

TEST(DecimalTest, ShowsDoublesWithoutExponent) {
    const std::pair<double, const char*> cases[] = {
        {-0.0, "0"},
        {1E-05, "0.00001"},
        {0.1 + 0.2, "0.3"},
        {123456789.123456789, "123456789.123457"},
        {7.9228162514264E28, "79228162514264000000000000000"},
        {-1E-28, "-0.0000000000000000000000000001"},
        {1.5E-28, "0.0000000000000000000000000002"},
        {5E-324, "0"},
        {999999999999999.9, "1000000000000000"},
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(Decimal::fromDouble(value).toText(), text);
    }
    EXPECT_EQ(Decimal::fromSingle(0.1F).toText(), "0.1");
    EXPECT_EQ(Decimal::fromSingle(16777216.0F).toText(), "16777220");
}

TEST(DecimalTest, RefusesWhatDoesNotFit) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double infinity = std::numeric_limits<double>::infinity();
    for (const double value : {7.92281625142644E28, -8E28, 1E30, 1.7E308, nan, infinity, -infinity}) {
        EXPECT_EQ(raisedBy([value] { Decimal::fromDouble(value); }), errors::overflow) << value;
    }
    for (const char* text :
         {"79228162514264337593543950336", "-1E29", "1E999999999999999999999", "79228162514264337593543950335.5"}) {
        EXPECT_EQ(raisedBy([text] { Decimal::fromText(text); }), errors::overflow) << text;
    }
    for (const char* text : {"", " ", "-", ".", "1E", "1E+", "12a", "1,5", "1.2.3", "--1", "&H10", "inf", "0x10"}) {
        EXPECT_EQ(raisedBy([text] { Decimal::fromText(text); }), errors::typeMismatch) << text;
    }
    EXPECT_EQ(raisedBy([] { Decimal::fromText("2147483647.5").toInt32(); }), errors::overflow);
    EXPECT_EQ(raisedBy([] { Decimal::fromText("-2147483649").toInt32(); }), errors::overflow);
}

TEST(DecimalTest, ReadsTexts) {
    const std::pair<const char*, const char*> cases[] = {
        {"79228162514264337593543950335", "79228162514264337593543950335"},
        {"79228162514264337593543950335.4", "79228162514264337593543950335"},
        {"7.92281625142643375935439503359", "7.922816251426433759354395034"},
        {"0.00000000000000000000000000005", "0"},
        {"0.000000000000000000000000000050000000000001", "0.0000000000000000000000000001"},
        {"0.12345678901234567890123456785001", "0.1234567890123456789012345679"},
        {"-0.00", "0"},
        {"1234567890.12345678901234567890123456789", "1234567890.1234567890123456789"},
    };
    for (const auto& [text, shown] : cases) {
        EXPECT_EQ(Decimal::fromText(text).toText(), shown) << text;
    }
}

TEST(DecimalTest, ConvertsBack) {
    EXPECT_EQ(Decimal::fromInteger(std::numeric_limits<std::int64_t>::min()).toText(), "-9223372036854775808");
    EXPECT_EQ(Decimal::fromText("79228162514264337593543950335").toDouble(), 79228162514264337593543950335.0);
    EXPECT_EQ(Decimal::fromText("-0.1").toDouble(), -0.1);
    EXPECT_EQ(Decimal::fromText("3.5").toInt32(), 4);
    EXPECT_EQ(Decimal::fromText("-2.5").toInt32(), -2);
    EXPECT_EQ(Decimal::fromText("-2.5000000000001").toInt32(), -3);
    EXPECT_EQ(Decimal::fromText("-2147483648.5").toInt32(), std::numeric_limits<std::int32_t>::min());
}

}  // namespace
}  // namespace quelm
