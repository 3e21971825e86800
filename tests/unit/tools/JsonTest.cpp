#include "OPC/Tools/Json.h"

#include <gtest/gtest.h>

#include <limits>

namespace quelm::tools {
namespace {

TEST(Json, LinesAreValidWhateverTheTextsHold) {
    EXPECT_EQ(lineOf("a\"b\\c"), R"("a\"b\\c")");
    EXPECT_EQ(lineOf("1\r\n\t\x1b\x7f"), R"("1\r\n\t\u001b\u007f")");
    EXPECT_EQ(lineOf("a\xff\xc3z\u00e4"), "\"a\uFFFD\uFFFDz\u00e4\"");
}

TEST(Json, ValuesKeepTheirTypes) {
    const Json values{jsonOf(Variant(std::int32_t{-7})),
                      jsonOf(Variant(1e30)),
                      jsonOf(Variant(std::numeric_limits<double>::infinity())),
                      jsonOf(Variant(true)),
                      jsonOf(Variant::null()),
                      jsonOf(Variant()),
                      jsonOf(Variant(makeDate(2026, 11, 16))),
                      jsonOf(Date{})};
    EXPECT_EQ(lineOf(values), R"([-7,1e+30,null,true,null,null,"2026-11-16",null])");
}

}  // namespace
}  // namespace quelm::tools
