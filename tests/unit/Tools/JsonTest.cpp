#include "OPC/Tools/Json.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>

namespace quelm::tools::json {
namespace {

TEST(Json, TextsAreValidWhateverTheyHold) {
    EXPECT_EQ(text("a\"b\\c"), R"("a\"b\\c")");
    EXPECT_EQ(text("1\r\n\t\x1b\x7f"), R"("1\u000d\u000a\u0009\u001b\u007f")");
    EXPECT_EQ(text("a\xff\xc3z"), "\"a\xEF\xBF\xBD\xEF\xBF\xBDz\"");
}

TEST(Json, ValuesKeepTheirTypes) {
    EXPECT_EQ(value(Variant(std::int32_t{-7})), "-7");
    EXPECT_EQ(value(Variant(1e30)), "1e+30");
    EXPECT_EQ(value(Variant(std::numeric_limits<double>::infinity())), "null");
    EXPECT_EQ(value(Variant(true)), "true");
    EXPECT_EQ(value(Variant::null()), "null");
    EXPECT_EQ(value(Variant()), "null");
    EXPECT_EQ(value(Variant(makeDate(2026, 11, 16))), "\"2026-11-16\"");
}

TEST(Json, ObjectsAndArraysNest) {
    const std::array<std::string, 2> items{"1", "\"x\""};
    const std::array<Field, 2> fields{{{"a", "null"}, {"b", array(items)}}};
    EXPECT_EQ(object(fields), R"({"a":null,"b":[1,"x"]})");
    EXPECT_EQ(object({}), "{}");
}

}  // namespace
}  // namespace quelm::tools::json
