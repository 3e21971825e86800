#include "OPC/OPC DA Server/IOSSimpleManager.h"

#include <gmock/gmock.h>

#include <limits>

#include "Fakes.h"

namespace quelm {
namespace {

using fakes::Lines;
using fakes::record;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

// Opens the state that hours or years of running would bring about.
struct Manager : IOSSimpleManager {
    using IOSSimpleManager::lngIOS5ReadCount;
    using IOSSimpleManager::mblnIOS5AllDataRefreshedInit;
    using IOSSimpleManager::mcolChannelDefs;
    using IOSSimpleManager::mdtmIOS5AllDataRefreshedStart;
    using IOSSimpleManager::mlngIOS5Elapsed;
    using IOSSimpleManager::mlngIOS6Elapsed;
    using IOSSimpleManager::mstrPendingRefreshChannels;
    using IOSSimpleManager::mstrPendingRefreshMsgID;
    using IOSSimpleManager::mvarIOS5AllCommsOk;
};

std::string pair(const char* start, const char* finish) {
    return fmt::format("<Start>{}</Start><Finish>{}</Finish>", start, finish);
}

class Link : public testing::Test {
 protected:
    Link() {
        manager.Initialize(&messages, *clock, dbil, "A");
        manager.EnableReadingCurrentIO();
        journal.take();
    }

    Date secondsFromNow(int seconds) const { return Date{localNow().days + seconds / 86400.0}; }
    // A whole health pair of one generation; prefix "IOS" or "IOS6".
    std::vector<CurrentIORecord> health(const std::string& prefix, Date stamp, const std::string& refreshed = {},
                                        Variant commsOk = Variant(std::int32_t{1})) const {
        return {record(prefix + ".AllCommsOk", std::move(commsOk), {}, stamp),
                record(prefix + ".AllDataRefreshed", Variant::null(), refreshed)};
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

    ManualTimeSource time{makeDate(2026, 11, 16, 8, 0, 0)};
    ScopedTimeSource inForce{time};
    fakes::Journal journal;
    fakes::Messages messages;
    std::shared_ptr<fakes::Clock> clock = std::make_shared<fakes::Clock>(journal);
    std::shared_ptr<fakes::DBIL> dbil = std::make_shared<fakes::DBIL>(journal);
    Manager manager;
};

// ---- the read tick

TEST_F(Link, NeitherReadsNorLogsWhileDisabled) {
    manager.DisableReadingCurrentIO();
    EXPECT_THAT(tick(), IsEmpty());
    EXPECT_EQ(dbil->reads, 0);
    EXPECT_TRUE(manager.GetChannelValue(7).isNull());
    EXPECT_EQ(manager.GetCurrentIORecordCount(), 0);
}

TEST_F(Link, LogsAHeartbeatOnEveryTick) {
    dbil->setChannels({{7, 1}, {8, 3}});
    for (int i = 0; i < 3; ++i) {
        auto records = health("IOS", localNow());
        const auto more = health("IOS6", localNow());
        records.insert(records.end(), more.begin(), more.end());
        EXPECT_THAT(tickWith(records), ElementsAre("0 IOS5 CurrentIO [OPC-0183]", "0 IOS6 CurrentIO [OPC-0183]"));
    }
    EXPECT_EQ(dbil->reads, 3);
    EXPECT_EQ(dbil->channelDefLoads, 1);
}

TEST_F(Link, CountsTheSilenceAndDistrustsValuesFromTheThirdSilentTick) {
    dbil->setChannels({{7, 2}, {8, 3}, {9, 9}});
    auto records = health("IOS", localNow());
    for (const char* channel : {"C7", "C8", "C9", "C10"}) {
        records.push_back(record(channel, Variant(12.5)));
    }
    const auto ios6 = [&] {
        auto all = records;
        const auto more = health("IOS6", localNow());
        all.insert(all.end(), more.begin(), more.end());
        return all;
    };
    const std::string beat6 = "0 IOS6 CurrentIO [OPC-0183]";
    const std::string silent = "TStamp=2026-11-16 08:00:00";
    EXPECT_THAT(tickWith(ios6()), ElementsAre("0 IOS5 CurrentIO [OPC-0183]", beat6));
    EXPECT_THAT(tickWith(ios6()),
                ElementsAre("0 IOS5 CurrentIO  Elapsed=20; " + silent + "; ReadCount=2 [OPC-0184]", beat6));
    EXPECT_THAT(tickWith(ios6()),
                ElementsAre("0 IOS5 CurrentIO  Elapsed=40; " + silent + "; ReadCount=3 [OPC-0184]", beat6));
    EXPECT_EQ(manager.GetChannelValue(7), Variant(12.5));
    EXPECT_THAT(tickWith(ios6()), ElementsAre("0 IOS5 CurrentIO  Elapsed=60; " + silent + "; ReadCount=4 [OPC-0184]",
                                              "2 Quelm I/O Server is not active; IOS5; Elapsed=60; " + silent +
                                                  "; AllCommsOk=1 [OPC-0185]",
                                              beat6));
    EXPECT_TRUE(manager.GetChannelValue(7).isNull());
    for (const std::int32_t fresh : {8, 9, 10}) {
        EXPECT_EQ(manager.GetChannelValue(fresh), Variant(12.5)) << fresh;
    }
}

TEST_F(Link, TrustsValuesUpToExactlyFortyFiveSeconds) {
    dbil->setChannels({{7, 1}, {8, 4}});
    tickWith({record("C7", Variant(1.0)), record("C8", Variant(2.0))});
    manager.mlngIOS5Elapsed = 45;
    manager.mlngIOS6Elapsed = 46;
    EXPECT_EQ(manager.GetChannelValue(7), Variant(1.0));
    EXPECT_TRUE(manager.GetChannelValue(8).isNull());
    manager.mlngIOS5Elapsed = 46;
    manager.mlngIOS6Elapsed = 40;
    EXPECT_TRUE(manager.GetChannelValue(7).isNull());
    EXPECT_EQ(manager.GetChannelValue(8), Variant(2.0));
}

TEST_F(Link, ReportsAMissingAndAnEmptySnapshotOnEveryTick) {
    dbil->setChannels({{7, 1}});
    const std::string none = "4 OPC-0193: Found no CurrentIO records for site 'A'";
    const std::string empty = "2 OPC-0194: Found 0 CurrentIO records for site 'A'";
    tickWith(health("IOS", localNow()));
    dbil->snapshot = nullptr;
    EXPECT_THAT(tick(), ElementsAre(none, "0 IOS5 CurrentIO  Elapsed=20; TStamp=00:00:00; ReadCount=2 [OPC-0184]"));
    EXPECT_THAT(tickWith({}),
                ElementsAre(empty, "0 IOS5 CurrentIO  Elapsed=40; TStamp=00:00:00; ReadCount=3 [OPC-0184]"));
    EXPECT_THAT(tick(), ElementsAre(empty, "0 IOS5 CurrentIO  Elapsed=60; TStamp=00:00:00; ReadCount=4 [OPC-0184]",
                                    "2 Quelm I/O Server is not active; IOS5; Elapsed=60; TStamp=00:00:00; AllCommsOk= "
                                    "[OPC-0185]"));
    EXPECT_THAT(tickWith(health("IOS", localNow())), ElementsAre("0 IOS5 CurrentIO [OPC-0183]"));
}

TEST_F(Link, GoesOnWithThePreviousSnapshotWhenAReadFails) {
    dbil->setChannels({{7, 1}});
    const std::string failed = "4 OPC-0192: 5, disk I/O error";
    dbil->readFailure = RuntimeError(5, "disk I/O error");
    EXPECT_THAT(tick(), ElementsAre(failed, "4 OPC-0193: Found no CurrentIO records for site 'A'",
                                    "0 IOS5 CurrentIO  Elapsed=20; TStamp=00:00:00; ReadCount=1 [OPC-0184]"));
    dbil->readFailure.reset();
    auto records = health("IOS", localNow());
    records.push_back(record("C7", Variant(1.0)));
    EXPECT_THAT(tickWith(records), ElementsAre("0 IOS5 CurrentIO [OPC-0183]"));
    dbil->readFailure = RuntimeError(5, "disk I/O error");
    for (const char* elapsed : {"20", "40", "60"}) {
        EXPECT_EQ(manager.GetChannelValue(7), Variant(1.0));
        const Lines lines = tick();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[0], failed);
        EXPECT_THAT(lines[1], testing::HasSubstr(fmt::format("Elapsed={};", elapsed)));
    }
    EXPECT_TRUE(manager.GetChannelValue(7).isNull());
}

TEST_F(Link, RestartsTheReadCountAndFailsOnAnElapsedOverflow) {
    dbil->setChannels({{7, 1}});
    manager.lngIOS5ReadCount = 1073741823;
    tickWith({record("C7", Variant(1.0))});
    EXPECT_EQ(manager.lngIOS5ReadCount, 1073741824);
    tick();
    EXPECT_EQ(manager.lngIOS5ReadCount, 1000);
    manager.mlngIOS5Elapsed = std::numeric_limits<std::int32_t>::max() - 19;
    EXPECT_EQ(tick().back(), "4 OPC-0182: 6, Overflow");
    EXPECT_EQ(tickWith(health("IOS", localNow())), Lines{"0 IOS5 CurrentIO [OPC-0183]"});
}

TEST_F(Link, StopsWithItsOwner) {
    manager.Shutdown();
    EXPECT_THAT(journal.lines, ElementsAre("interval 'IOSManager: read CurrentIO': cancel(true)"));
    EXPECT_EQ(clock->fire("IOSManager: read CurrentIO"), 0);
}

TEST_F(Link, OutlivesATickAfterItsEnd) {
    dbil->setChannels({{7, 1}});
    tickWith(health("IOS", localNow()));
    manager.Shutdown();
    manager.mobjReadCurrentIOInterval_IntervalExpired(1, Variant(), Date{}, false);
    EXPECT_TRUE(manager.GetChannelValue(7).isNull());
    EXPECT_THAT(messages.lines, IsEmpty());
}

// ---- channel look-ups

TEST_F(Link, ReadsAChannelsValueFromNumberOrXml) {
    struct Case {
        Variant nValue;
        const char* xValue;
        Variant result;
    };
    const Case cases[] = {
        {Variant(12.5), "<Value>9</Value>", Variant(12.5)},
        {Variant(), "<Value>9</Value>", Variant()},
        {Variant("12"), "<Value>9</Value>", Variant("12")},
        {Variant::null(), "<Value>7;8;9</Value>", Variant("7;8;9")},
        {Variant("down"), "<Value> up </Value>", Variant("up")},
        {Variant::null(), "<Value/>", Variant::null()},
        {Variant::null(), "<Other>1</Other>", Variant::null()},
        {Variant::null(), "<Value>", Variant::null()},
        {Variant::null(), "", Variant::null()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.xValue);
        tickWith({record("C7", c.nValue, c.xValue)});
        EXPECT_EQ(manager.GetChannelValue(7), c.result);
        EXPECT_THAT(messages.lines, IsEmpty());
    }
    EXPECT_TRUE(manager.GetChannelValue(8).isNull());
}

TEST_F(Link, KnowsNothingOfAnUndefinedChannel) {
    dbil->setChannels({{7, 5}});
    EXPECT_EQ(manager.GetChannelDefType(7), 5);
    EXPECT_EQ(manager.GetChannelName(7), "Channel 7");
    EXPECT_EQ(manager.GetChannelDefType(8), 0);
    EXPECT_EQ(manager.GetChannelName(8), "");
    EXPECT_EQ(manager.GetChannelDefType(-1), 0);
    EXPECT_EQ(dbil->channelDefLoads, 1);
    EXPECT_THAT(messages.lines, IsEmpty());
}

TEST_F(Link, ReadsTheDefinitionsOnceEvenWhenThatFails) {
    dbil->channelDefsFailure = RuntimeError(14, "unable to open database file");
    EXPECT_EQ(manager.GetChannelDefType(7), 0);
    EXPECT_FALSE(manager.IsIOS5Used());
    EXPECT_FALSE(manager.IsIOS6Used());
    EXPECT_EQ(manager.GetChannelName(7), "");
    EXPECT_THAT(messages.lines, ElementsAre("4 OPC-0154: 14, unable to open database file"));
    EXPECT_EQ(dbil->channelDefLoads, 1);
}

TEST_F(Link, AnswersUnusedForGoodWhenThereAreNoDefinitionsAtAll) {
    dbil->channelDefs = nullptr;
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(manager.IsIOS5Used());
        EXPECT_FALSE(manager.IsIOS6Used());
    }
    EXPECT_THAT(messages.lines, ElementsAre("4 OPC-0169: 91, Object variable or With block variable not set",
                                            "4 OPC-0170: 91, Object variable or With block variable not set"));
}

TEST_F(Link, DecidesOnceWhichGenerationsAreUsed) {
    struct Case {
        std::vector<std::pair<std::int32_t, std::int32_t>> channels;
        bool ios5, ios6;
    };
    for (const Case& c : {Case{{}, false, false}, Case{{{1, 0}, {2, 6}}, false, false}, Case{{{1, 1}}, true, false},
                          Case{{{1, 9}, {2, 2}}, true, false}, Case{{{1, 3}}, false, true},
                          Case{{{1, 4}, {2, 1}}, true, true}, Case{{{1, 5}}, false, true}}) {
        Manager fresh;
        fresh.Initialize(&messages, *clock, dbil, "A");
        dbil->setChannels(c.channels);
        EXPECT_EQ(fresh.IsIOS5Used(), c.ios5);
        EXPECT_EQ(fresh.IsIOS6Used(), c.ios6);
        dbil->setChannels({{1, 1}, {2, 3}});
        fresh.mcolChannelDefs = nullptr;
        EXPECT_EQ(fresh.IsIOS5Used(), c.ios5);
        EXPECT_EQ(fresh.IsIOS6Used(), c.ios6);
        fresh.Shutdown();
    }
}

// ---- health

TEST_F(Link, TakesAFirstHeartbeatInOnlyWithinFortyFiveSeconds) {
    dbil->setChannels({{7, 1}});
    struct Case {
        int age;
        bool alive;
    };
    for (const Case& c : {Case{46, false}, Case{-46, false}, Case{45, true}}) {
        SCOPED_TRACE(c.age);
        manager.mlngIOS5Elapsed = 0;
        const Lines lines = tickWith(health("IOS", secondsFromNow(-c.age)));
        EXPECT_EQ(lines[0] == "0 IOS5 CurrentIO [OPC-0183]", c.alive);
    }
    tickWith({record("IOS.AllCommsOk", Variant()), record("IOS.AllDataRefreshed", Variant())});
    // A record with a zero stamp was taken in without a heartbeat; the next one is a first sighting again.
    EXPECT_EQ(tickWith(health("IOS", secondsFromNow(-46)))[0],
              "0 IOS5 CurrentIO  Elapsed=40; TStamp=00:00:00; ReadCount=5 [OPC-0184]");
    EXPECT_EQ(tickWith(health("IOS", secondsFromNow(45))), Lines{"0 IOS5 CurrentIO [OPC-0183]"});
}

TEST_F(Link, TakesTheCommsStateInEvenWithoutAHeartbeat) {
    dbil->setChannels({{7, 1}});
    const Date stamp = localNow();
    tickWith(health("IOS", stamp));
    EXPECT_TRUE(manager.AllDevicesArePolling());
    tickWith(health("IOS", stamp, "", Variant(std::int32_t{0})));
    EXPECT_EQ(manager.mlngIOS5Elapsed, 20);
    EXPECT_FALSE(manager.AllDevicesArePolling());
}

TEST_F(Link, ReportsMissingHealthRecordsOnEveryRead) {
    dbil->setChannels({{7, 1}, {8, 3}});
    const Lines both{"4 OPC-0196: Could not find 'IOS.AllCommsOk' CurrentIO record",
                     "4 OPC-0197: Could not find 'IOS.AllDataRefreshed' CurrentIO record",
                     "4 OPC-0200: Could not find 'IOS6.AllCommsOk' CurrentIO record",
                     "4 OPC-0201: Could not find 'IOS6.AllDataRefreshed' CurrentIO record"};
    for (int i = 0; i < 2; ++i) {
        Lines lines = tickWith({record("C7", Variant(1.0))});
        lines.resize(4);
        EXPECT_EQ(lines, both);
    }
    auto records = health("IOS", localNow());
    records.pop_back();
    EXPECT_EQ(tickWith(records)[0], both[1]);
    EXPECT_EQ(manager.mlngIOS5Elapsed, 60);
}

TEST_F(Link, MarksTheFirstIOS5RefreshAndStoresItAtTheNextRead) {
    dbil->setChannels({{7, 1}});
    const std::string first = pair("2026-11-16T08:00:00.000", "2026-11-16T08:00:05.5");
    tickWith(health("IOS", localNow(), first));
    EXPECT_TRUE(manager.mblnIOS5AllDataRefreshedInit);
    EXPECT_TRUE(manager.IsInitialCurrentIOReadComplete());
    EXPECT_TRUE(manager.mdtmIOS5AllDataRefreshedStart.isZero());
    EXPECT_EQ(tickWith(health("IOS", localNow(), first)), Lines{"0 IOS5 CurrentIO [OPC-0183]"});
    EXPECT_EQ(manager.mdtmIOS5AllDataRefreshedStart, makeDate(2026, 11, 16, 8, 0, 0));
}

TEST_F(Link, AnnouncesLaterIOS6RefreshesWhenBothTimesChanged) {
    dbil->setChannels({{8, 3}});
    const Lines beat{"0 IOS6 CurrentIO [OPC-0183]"};
    EXPECT_FALSE(manager.IsInitialCurrentIOReadComplete());
    for (const char* unusable : {"", "<Start>", "<Start/><Finish/>", "<Start>2026-11-16T08:00:00.0</Start>",
                                 "<Start>soon</Start><Finish>2026-11-16T08:00:00.0</Finish>"}) {
        EXPECT_EQ(tickWith(health("IOS6", localNow(), unusable)), beat);
        EXPECT_FALSE(manager.IsInitialCurrentIOReadComplete());
    }
    const auto at = [](const char* start, const char* finish) { return pair(start, finish); };
    EXPECT_EQ(tickWith(health("IOS6", localNow(), at("2026-11-16T08:00:00.0", "2026-11-16T08:00:05.0"))), beat);
    EXPECT_TRUE(manager.IsInitialCurrentIOReadComplete());
    EXPECT_EQ(tickWith(health("IOS6", localNow(), at("2026-11-16T08:00:00.0", "2026-11-16T09:00:05.0"))), beat);
    EXPECT_EQ(tickWith(health("IOS6", localNow(), at("2026-11-16T09:00:00.0", "2026-11-16T08:00:05.0"))), beat);
    EXPECT_THAT(tickWith(health("IOS6", localNow(), at("2026-11-17T00:00:00.0", "2026-11-16T09:00:05.0"))),
                ElementsAreArray(Lines{"0 Will raise IOSAllDataRefreshed event [OPC-0202]",
                                       "0     dtmAllDataRefreshedStart=2026-11-17",
                                       "0     dtmAllDataRefreshedFinish=2026-11-16 09:00:05",
                                       "0     mdtmIOS6AllDataRefreshedStart=2026-11-16 08:00:00",
                                       "0     mdtmIOS6AllDataRefreshedFinish=2026-11-16 08:00:05", beat[0]}));
}

TEST_F(Link, WritesALineWheneverPollingChanges) {
    dbil->setChannels({{7, 1}, {8, 3}});
    EXPECT_FALSE(manager.AllDevicesArePolling());
    EXPECT_THAT(messages.take(), IsEmpty());
    auto records = health("IOS", localNow());
    const auto more = health("IOS6", localNow(), "", Variant("True"));
    records.insert(records.end(), more.begin(), more.end());
    tickWith(records);
    manager.mlngIOS5Elapsed = 45;
    EXPECT_TRUE(manager.AllDevicesArePolling());
    EXPECT_TRUE(manager.AllDevicesArePolling());
    // The IOS6 line shows the IOS5 counter.
    EXPECT_THAT(
        messages.take(),
        ElementsAre(
            "4 OPC-0165: (IOS5) AllDevicesArePolling=1; AllCommsOk=1, TS=2026-11-16 08:00:00; Elapsed=45, Max=45",
            "4 OPC-0167: (IOS6) AllDevicesArePolling=1; AllCommsOk=True, TS=2026-11-16 08:00:00; Elapsed=45, Max=45"));
    manager.mlngIOS5Elapsed = 46;
    EXPECT_FALSE(manager.AllDevicesArePolling());
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0165: (IOS5) AllDevicesArePolling=0; AllCommsOk=1, TS=2026-11-16 "
                                             "08:00:00; Elapsed=46, Max=45"));
    manager.mlngIOS6Elapsed = 46;
    EXPECT_FALSE(manager.AllDevicesArePolling_IOS6());
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0167: (IOS6) AllDevicesArePolling=0; AllCommsOk=True, "
                                             "TS=2026-11-16 08:00:00; Elapsed=46, Max=45"));
}

TEST_F(Link, ShowsANullCommsStateAsNothingAndAZeroStampAsZero) {
    dbil->setChannels({{7, 1}});
    tickWith(health("IOS", localNow()));
    EXPECT_TRUE(manager.AllDevicesArePolling_IOS5());
    tickWith({record("C7", Variant(1.0))});
    manager.mvarIOS5AllCommsOk = Variant::null();
    messages.take();
    EXPECT_FALSE(manager.AllDevicesArePolling_IOS5());
    EXPECT_THAT(messages.take(),
                ElementsAre("4 OPC-0165: (IOS5) AllDevicesArePolling=0; AllCommsOk=, TS=zero; Elapsed=20, Max=45"));
    manager.mvarIOS5AllCommsOk = Variant("fine");
    EXPECT_FALSE(manager.AllDevicesArePolling_IOS5());
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0166: 'AllDevicesArePolling' error; 13, Type mismatch"));
}

TEST_F(Link, CountsAnUnusedGenerationAsPollingAndComplete) {
    EXPECT_TRUE(manager.AllDevicesArePolling());
    EXPECT_TRUE(manager.IsInitialCurrentIOReadComplete());
    EXPECT_THAT(tickWith({record("C7", Variant(1.0))}), IsEmpty());
}

// ---- the pending refresh

TEST_F(Link, KeepsAPendingRefreshUntilItIsDoneOrGone) {
    struct Case {
        const char* name;
        std::optional<MessageRecord> record;
        Lines messages;
        const char* id;
        const char* channels;
    };
    const Case cases[] = {
        {"not yet", MessageRecord{"SENT", "", ""}, {}, "id", "1,2"},
        {"not quite", MessageRecord{"Done", "", ""}, {}, "id", "1,2"},
        {"gone", std::nullopt, {}, "", "1,2"},
        {"done", MessageRecord{"DONE", "<Success>1</Success>", "<Command value=\"1,2\"/>"}, {}, "", ""},
        {"failed", MessageRecord{"DONE", "<Success>0</Success>", ""}, {}, "", ""},
        {"done, unreadable", MessageRecord{"DONE", "<Success>", "<"}, {}, "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        manager.mstrPendingRefreshMsgID = "id";
        manager.mstrPendingRefreshChannels = "1,2";
        dbil->messageRecord = c.record;
        EXPECT_EQ(tickWith({record("C7", Variant(1.0))}), c.messages);
        EXPECT_EQ(manager.mstrPendingRefreshMsgID, c.id);
        EXPECT_EQ(manager.mstrPendingRefreshChannels, c.channels);
    }
    manager.mstrPendingRefreshMsgID = "id";
    dbil->messageFailure = RuntimeError(5, "database is locked");
    EXPECT_THAT(tick(), ElementsAre("4 OPC-0186: 5, database is locked"));
    EXPECT_TRUE(manager.IsRefreshPending());
}

}  // namespace
}  // namespace quelm
