#include "DB Interface Library/CurrentIO.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

CurrentIORecord record(const char* key, std::int32_t value) {
    return CurrentIORecord{key, Date{}, Variant(value), ""};
}

TEST(CurrentIOTest, FindsByKeyWithoutRegardToCaseAndByChannel) {
    const auto snapshot = CurrentIOCollection::Make({record("C7", 1), record("c8", 2), record("IOS.AllCommsOk", 3),
                                                     record("MultiValueC7", 4), record("C007", 5), record("C-9", 6),
                                                     record("C", 7), record("", 8), record("C99999999999", 9)});
    const std::pair<const char*, std::int32_t> cases[] = {
        {"c7", 1}, {"C8", 2}, {"ios.ALLCOMMSOK", 3}, {"multivaluec7", 4}, {"C007", 5}, {"c-9", 6},
        {"c", 7},  {"", 8},   {"C99999999999", 9}};
    for (const auto& [key, value] : cases) {
        ASSERT_NE(snapshot->Item(key), nullptr) << key;
        EXPECT_EQ(snapshot->Item(key)->NValue, Variant(value)) << key;
    }
    for (const char* missing : {"C70", "C07", "C-0", "C+7", "C7 ", "IOS6.AllCommsOk"}) {
        EXPECT_EQ(snapshot->Item(missing), nullptr) << missing;
    }
    EXPECT_EQ(snapshot->Channel(7), snapshot->Item("C7"));
    EXPECT_EQ(snapshot->Channel(-9), snapshot->Item("C-9"));
    EXPECT_EQ(snapshot->Channel(0), nullptr);
    EXPECT_EQ(CurrentIOCollection().Item("C7"), nullptr);
    EXPECT_EQ(CurrentIOCollection().Channel(7), nullptr);
}

TEST(CurrentIOTest, KeepsTheFirstOfEqualKeysAndFollowsChangedKeys) {
    const auto first =
        CurrentIOCollection::Make({record("C1", 1), record("c1", 2), record("X", 3), record("x", 4), record("C2", 5)});
    EXPECT_EQ(first->Count(), 3U);
    EXPECT_EQ(first->Channel(1)->NValue, Variant(std::int32_t{1}));
    EXPECT_EQ(first->Item("x")->NValue, Variant(std::int32_t{3}));
    EXPECT_EQ(first->Channel(2)->NValue, Variant(std::int32_t{5}));

    const auto same = CurrentIOCollection::Make({record("C1", 6), record("X", 7), record("C2", 8)}, first.get());
    EXPECT_EQ(same->Channel(2)->NValue, Variant(std::int32_t{8}));
    const auto moved = CurrentIOCollection::Make({record("C2", 9), record("C1", 10)}, same.get());
    EXPECT_EQ(moved->Channel(1)->NValue, Variant(std::int32_t{10}));
    EXPECT_EQ(moved->Item("X"), nullptr);
}

}  // namespace
}  // namespace quelm
