// What the plant notes, and what the network has of it after each of its handlers.

#include "OPC/Health/PlantHealth.h"

#include <gtest/gtest.h>

#include "base/TimeSource.h"
#include "loop/VirtualLoop.h"

namespace quelm::health {
namespace {

class PlantHealthTest : public testing::Test {
 protected:
    void settle() {
        plant.drain();
        while (plant.pendingPosts() + network.pendingPosts() > 0) {
            network.drain();
            plant.drain();
        }
    }

    ManualTimeSource clock{makeDate(2026, 3, 5, 12)};
    ScopedTimeSource inForce{clock};
    VirtualLoop plant;
    VirtualLoop network;
    PlantHealth health{plant, network};
};

TEST_F(PlantHealthTest, ASiteIsUpOnceAllThatFeedsItWasReadAndDownAsSoonAsOneCannotBe) {
    using enum DatabaseState;
    using Source = PlantHealth::Source;
    const struct {
        std::function<void()> happens;
        DatabaseState database;
        std::string message;
        std::uint64_t snapshots, failed;
    } steps[] = {
        {[&] { health.siteIsKnown("S"); }, unknown, "", 0, 0},
        {[&] { health.snapshotRead("S", Source::channels, 2); }, up, "", 1, 0},
        {[&] { health.snapshotFailed("S", Source::parameters, "gone"); }, down, "gone", 1, 1},
        {[&] { health.snapshotRead("S", Source::channels, 3); }, down, "gone", 2, 1},
        {[&] { health.snapshotFailed("S", Source::channels, ""); }, down, "no reason is known", 2, 2},
        {[&] { health.snapshotRead("S", Source::parameters, 4); }, down, "no reason is known", 3, 2},
        {[&] { health.snapshotRead("S", Source::channels, 5); }, up, "", 4, 2},
    };
    for (const auto& step : steps) {
        step.happens();
        settle();
        ASSERT_EQ(health.sites().size(), 1U);
        const SiteHealth& site = health.sites()[0];
        EXPECT_EQ(site.database, step.database);
        EXPECT_EQ(site.databaseMessage, step.message);
        EXPECT_EQ(site.snapshots, step.snapshots);
        EXPECT_EQ(site.snapshotsFailed, step.failed);
    }
    EXPECT_EQ(health.sites()[0].snapshotMilliseconds, 5);
    EXPECT_EQ(health.summary(1), "1 site  |  1 client  |  no pass yet");
    health.snapshotFailed("S", Source::channels, "gone");
    health.passDone("S", 0.25);
    EXPECT_EQ(health.summary(0), "1 site, no database for S  |  0 clients  |  last pass 12:00:00 in 0.2 ms");
    EXPECT_EQ(health.sites()[0].lastSnapshot, clock.fileTimeNow());
}

TEST_F(PlantHealthTest, WhatComesWhileTheNetworkIsBusyWaitsAndDoesNotGrow) {
    for (int i = 1; i <= 700; ++i) {
        health.messageRaised("Information", std::to_string(i));
        plant.drain();
    }
    EXPECT_EQ(network.pendingPosts(), 1U);
    settle();
    ASSERT_EQ(health.messages().size(), keptMessages);
    EXPECT_EQ(health.messages().front().text, "201");
    EXPECT_EQ(health.messages().back().number, 700U);
    health.messageRaised("Error", std::string(10'000, 'x'));
    settle();
    EXPECT_EQ(health.messages().back().number, 701U);
    EXPECT_EQ(health.messages().back().text.size(), longestMessage);
}

}  // namespace
}  // namespace quelm::health
