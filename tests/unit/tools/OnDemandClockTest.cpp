#include "OPC/Tools/OnDemandClock.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/TimeSource.h"

namespace quelm::tools {
namespace {

TEST(OnDemandClock, PeriodsAddUpToTheTimeGoneBy) {
    ManualTimeSource time(makeDate(2026, 11, 16, 8, 0, 0));
    const ScopedTimeSource scoped(time);
    OnDemandClock clock;
    const auto interval = clock.CreateInterval(20, 0, Variant(), "read", true, false, true, 1000, 0);
    std::vector<std::int32_t> periods;
    interval->OnIntervalExpired([&](std::int32_t, const Variant&, Date due, bool) {
        EXPECT_EQ(due, localNow());
        periods.push_back(interval->Period());
    });
    for (const int wait : {5000, 1600, 1600, 1600, 0, 30200}) {
        time.advanceMilliseconds(wait);
        clock.expire();
    }
    EXPECT_EQ(periods, (std::vector<std::int32_t>{46, 1, 2, 1, 0, 31}));
}

}  // namespace
}  // namespace quelm::tools
