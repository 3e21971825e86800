#include "OPC/Client/Answer.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "OPC/Client/Trend.h"
#include "OPC/Client/ValueForms.h"

using namespace quelm::opcclient;
using namespace quelm::opcda;
using quelm::opcda::client::Value;
using testing::ElementsAre;

namespace {

TEST(OpcdaAnswer, IsTheSameForPeopleAndPrograms) {
    const Table table{
        "items",
        {{"item", "Item"}, {"value", "Value"}, {"code", ""}},
        {{Cell{"A\"1\""}, Cell{1.5, "1,5"}, Cell{Json()}}, {Cell{"Grün,\n\x1b[2J"}, Cell{true}, Cell{7}}}};
    EXPECT_THAT(textLines(Screen(false), table),
                ElementsAre("Item        Value", "A\"1\"        1,5", "Grün,??[2J  true"));
    EXPECT_EQ(csvHead(table), "item,value,code");
    EXPECT_EQ(csvLine(table.rows[0]), "\"A\"\"1\"\"\",1.5,");
    EXPECT_EQ(csvLine(table.rows[1]), "\"Grün,??[2J\",true,7");
    EXPECT_EQ(jsonLine(jsonRow(table, table.rows[1])), "{\"item\":\"Grün,\\n\\u001b[2J\",\"value\":true,\"code\":7}");
}

TEST(OpcdaAnswer, HasNoControlCharactersForATerminal) {
    EXPECT_EQ(printable("a\tb\x7F\xC2\x9B[2J \xC3\xBC \xF0\x9F\x98\x80 \xFF\xC3"),
              "a?b??[2J \xC3\xBC \xF0\x9F\x98\x80 ??");
}

TEST(OpcdaAnswer, HasValuesAsJsonKnowsThem) {
    const double infinity = std::numeric_limits<double>::infinity();
    const std::pair<Value, const char*> cases[] = {
        {Value::real(VT_R4, 182.4F), "182.4"},
        {Value::real(VT_R8, infinity), "null"},
        {Value::real(VT_R4, std::nan("")), "null"},
        {Value::integer(VT_UI8, -1), "18446744073709551615"},
        {Value::integer(VT_BOOL, -1), "true"},
        {Value::integer(VT_CY, 12345), "1.2345"},
        {Value::real(VT_DATE, 46340.5), "\"2026-11-14 12:00:00\""},
        {Value::text("a\"b"), "\"a\\\"b\""},
        {Value{VT_ARRAY | VT_I4, std::vector<std::int64_t>{1, -2}}, "[1,-2]"},
        {Value{}, "null"}};
    for (const auto& [value, json] : cases) {
        EXPECT_EQ(jsonLine(jsonOf(value)), json);
    }
}

TEST(OpcdaTrend, GoesFromTheLowestToTheHighest) {
    Trend trend(4);
    for (const double value : {9.0, 0.0, 7.0, 3.5}) {
        trend.add(value);
    }
    EXPECT_EQ(trend.text(), "█▁▇▄");
    trend.add(std::nullopt);
    trend.add(std::numeric_limits<double>::max());
    trend.add(-std::numeric_limits<double>::max());
    EXPECT_EQ(trend.text(), "▅ █▁") << "ends without an overflow, the oldest gone";
}

}  // namespace
