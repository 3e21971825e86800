#include "base/IntIndex.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>

namespace quelm {
namespace {

struct Keys {
    std::int32_t count;
    std::int32_t (*at)(std::int32_t number);
};

std::int32_t pid(std::int32_t number) {
    return 100'000'101 + number / 9801 * 100'000 + number / 99 % 99 * 100 + number % 99;
}

TEST(IntIndexTest, FindsEachKeyAndNoOther) {
    for (const Keys& keys : {Keys{1, [](std::int32_t) { return 0; }},
                             {5000, [](std::int32_t number) { return 1000 + number; }},
                             {30'000, pid},
                             {5000, [](std::int32_t number) { return number * 4096; }},
                             {5000, [](std::int32_t number) { return number % 100; }},
                             {4, [](std::int32_t number) { return number % 2 == 0 ? INT32_MIN + 1 : INT32_MAX; }}}) {
        SCOPED_TRACE(keys.at(1));
        IntIndex index;
        std::map<std::int32_t, std::uint32_t> expected;
        for (std::int32_t number = 0; number < keys.count; ++number) {
            const auto position = static_cast<std::uint32_t>(number);
            EXPECT_EQ(index.add(keys.at(number), position), expected.emplace(keys.at(number), position).second);
        }
        for (const auto& [key, position] : expected) {
            EXPECT_EQ(index.find(key), position);
            if (expected.count(key - 1) == 0) {
                EXPECT_EQ(index.find(key - 1), IntIndex::none);
            }
        }
        index.clear();
        EXPECT_EQ(index.find(keys.at(0)), IntIndex::none);
        EXPECT_TRUE(index.add(keys.at(0), 7));
        EXPECT_EQ(index.find(keys.at(0)), 7U);
    }
}

}  // namespace
}  // namespace quelm
