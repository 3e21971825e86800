#pragma once

// One site's link to its I/O servers on fakes, its reads enabled.

#include <gmock/gmock.h>

#include <utility>

#include "OPC/OPC DA Server/IOSSimpleManager.h"
#include "server/LibraryFakes.h"

namespace quelm::fakes {

using Manager = IOSSimpleManager;

class LinkFixture : public testing::Test, protected World {
 protected:
    LinkFixture() { start(manager, dbil); }
    void start(Manager& started, std::shared_ptr<IDBIL> database) {
        started.Initialize(&messages, *clock, std::move(database), "A");
        started.EnableReadingCurrentIO();
        journal.take();
    }
    // One read tick; its messages.
    Lines tick() {
        messages.take();
        EXPECT_EQ(clock->fire("IOSManager: read CurrentIO"), 1);
        time.advanceMilliseconds(20000);
        return messages.take();
    }
    Lines tickWith(std::vector<CurrentIORecord> records) {
        dbil->setSnapshot(std::move(records));
        return tick();
    }
    // The same, so many seconds after the tick before it.
    Lines tickAfter(std::int32_t seconds, std::vector<CurrentIORecord> records) {
        const auto interval = clock->intervals.front().lock();
        const std::int32_t usual = std::exchange(interval->period, seconds);
        Lines lines = tickWith(std::move(records));
        interval->period = usual;
        return lines;
    }
    // The channel list that a refused request is told of.
    std::string pendingChannels() {
        manager.DisableReadingCurrentIO();
        messages.take();
        EXPECT_FALSE(manager.RefreshSelectedChannels("?", ""));
        const std::string line = messages.take().at(0);
        manager.EnableReadingCurrentIO();
        const std::size_t begin = line.find("(Pending=") + 9;
        return line.substr(begin, line.find("; New=") - begin);
    }

    Manager manager;
};

}  // namespace quelm::fakes
