#pragma once

// One site's link to its I/O servers on fakes, its reads enabled.

#include <gmock/gmock.h>

#include "OPC/OPC DA Server/IOSSimpleManager.h"
#include "Server/LibraryFakes.h"

namespace quelm::fakes {

// Opens the state that hours or years of running would bring about.
struct Manager : IOSSimpleManager {
    using IOSSimpleManager::lngIOS5ReadCount;
    using IOSSimpleManager::mcolChannelDefs;
    using IOSSimpleManager::mdtmIOS5AllDataRefreshedStart;
    using IOSSimpleManager::mlngIOS5Elapsed;
    using IOSSimpleManager::mlngIOS6Elapsed;
    using IOSSimpleManager::mstrPendingRefreshChannels;
    using IOSSimpleManager::mstrPendingRefreshMsgID;
    using IOSSimpleManager::mvarIOS5AllCommsOk;
};

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

    Manager manager;
};

}  // namespace quelm::fakes
