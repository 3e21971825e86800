#include "DB Interface Library/OPCDef.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

TEST(OPCDef, TakesWholeNumbersInEveryFormThatADatabaseDelivers) {
    struct Case {
        Variant column;
        std::int32_t tagType;
    };
    for (const Case& c : {Case{Variant(std::int32_t{1}), 1}, Case{Variant(std::int16_t{1}), 1}, Case{Variant(1.0), 1},
                          Case{Variant(Decimal::fromText("1")), 1}, Case{Variant(1.5), 0}, Case{Variant(3e9), 0},
                          Case{Variant("1"), 0}, Case{Variant::null(), 0}}) {
        OPCDef::Columns columns;
        columns.TagType = c.column;
        EXPECT_EQ(OPCDef(columns).TagType(), c.tagType);
    }
}

}  // namespace
}  // namespace quelm
