#include "OPC/OPC DA Server/IOSSimpleManager.h"

#include <limits>

#include "OPC/OPC DA Server/IOSGeneration.h"
#include "server/LinkFixture.h"

namespace quelm {
namespace {

using fakes::Lines;
using fakes::record;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Records = std::vector<CurrentIORecord>;

const std::string beat5 = "0 IOS5 CurrentIO [OPC-0183]";
const std::string beat6 = "0 IOS6 CurrentIO [OPC-0183]";

// The content of a refresh record; the times of day are on 16 November 2026.
std::string refresh(const std::string& start, const std::string& finish) {
    return fmt::format("<Start>2026-11-16T{}</Start><Finish>2026-11-16T{}</Finish>", start, finish);
}

class Link : public fakes::LinkFixture {
 protected:
    Date secondsFromNow(int seconds) const { return Date{localNow().days + seconds / 86400.0}; }
    // A whole health pair of one generation; prefix "IOS" or "IOS6".
    static Records health(const std::string& prefix, Date stamp, const std::string& refreshed = {},
                          Variant commsOk = Variant(std::int32_t{1})) {
        return {record(prefix + ".AllCommsOk", std::move(commsOk), {}, stamp),
                record(prefix + ".AllDataRefreshed", Variant::null(), refreshed)};
    }
    static Records both(Records records, const Records& more) {
        records.insert(records.end(), more.begin(), more.end());
        return records;
    }
};

// ---- the read tick

TEST_F(Link, NeitherReadsNorLogsWhileDisabled) {
    manager.DisableReadingCurrentIO();
    EXPECT_THAT(tick(), IsEmpty());
    EXPECT_EQ(dbil->reads, 0);
    EXPECT_TRUE(manager.GetChannelValue(7).isNull());
    EXPECT_EQ(manager.GetCurrentIORecordCount(), 0);
}

TEST_F(Link, CountsTheSilenceAndDistrustsValuesFromTheThirdSilentTick) {
    dbil->setChannels({{7, 2}, {8, 3}, {9, 9}});
    Records records = health("IOS", localNow());
    for (const char* channel : {"C7", "C8", "C9", "C10"}) {
        records.push_back(record(channel, Variant(12.5)));
    }
    const std::string silent = "TStamp=2026-11-16 08:00:00";
    EXPECT_THAT(tickWith(both(records, health("IOS6", localNow()))), ElementsAre(beat5, beat6));
    for (int i = 2; i < 4; ++i) {
        EXPECT_EQ(manager.GetChannelValue(7), Variant(12.5));
        EXPECT_THAT(tickWith(both(records, health("IOS6", localNow()))),
                    ElementsAre(fmt::format("0 IOS5 CurrentIO  Elapsed={}; {}; ReadCount={} [OPC-0184]", 20 * i - 20,
                                            silent, i),
                                beat6));
    }
    EXPECT_EQ(manager.GetChannelValue(7), Variant(12.5));
    EXPECT_THAT(
        tickWith(both(records, health("IOS6", localNow()))),
        ElementsAre("0 IOS5 CurrentIO  Elapsed=60; " + silent + "; ReadCount=4 [OPC-0184]",
                    "2 Quelm I/O Server is not active; IOS5; Elapsed=60; " + silent + "; AllCommsOk=1 [OPC-0185]",
                    beat6));
    EXPECT_TRUE(manager.GetChannelValue(7).isNull());
    for (const std::int32_t fresh : {8, 9, 10}) {
        EXPECT_EQ(manager.GetChannelValue(fresh), Variant(12.5)) << fresh;
    }
    EXPECT_EQ(dbil->reads, 4);
    EXPECT_EQ(dbil->channelDefLoads, 1);
}

TEST_F(Link, TrustsValuesUpToExactlyFortyFiveSeconds) {
    dbil->setChannels({{7, 1}, {8, 4}});
    const Records values{record("C7", Variant(1.0)), record("C8", Variant(2.0))};
    const Records beating5 = health("IOS", localNow());
    tickAfter(1, both(beating5, values));
    tickAfter(45, both(beating5, values));
    EXPECT_EQ(manager.GetChannelValue(7), Variant(1.0));
    EXPECT_TRUE(manager.GetChannelValue(8).isNull());
    const Records beating6 = both(beating5, health("IOS6", localNow()));
    tickAfter(1, both(beating6, values));
    tickAfter(45, both(beating6, values));
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
}

TEST_F(Link, GoesOnWithThePreviousSnapshotWhenAReadFails) {
    dbil->setChannels({{7, 1}});
    const std::string failed = "4 OPC-0192: 5, disk I/O error";
    dbil->readFailure = RuntimeError(5, "disk I/O error");
    EXPECT_THAT(tick(), ElementsAre(failed, "4 OPC-0193: Found no CurrentIO records for site 'A'",
                                    "0 IOS5 CurrentIO  Elapsed=20; TStamp=00:00:00; ReadCount=1 [OPC-0184]"));
    dbil->readFailure.reset();
    EXPECT_THAT(tickWith(both(health("IOS", localNow()), {record("C7", Variant(1.0))})), ElementsAre(beat5));
    dbil->readFailure = RuntimeError(5, "disk I/O error");
    for (const char* elapsed : {"20", "40", "60"}) {
        EXPECT_EQ(manager.GetChannelValue(7), Variant(1.0));
        const Lines lines = tick();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[0], failed);
        EXPECT_THAT(lines[1], HasSubstr(fmt::format("Elapsed={};", elapsed)));
    }
    EXPECT_TRUE(manager.GetChannelValue(7).isNull());
}

TEST_F(Link, RestartsTheReadCountAndFailsOnAnElapsedOverflow) {
    dbil->setChannels({{7, 1}});
    EXPECT_EQ(nextReadCount(1073741823), 1073741824);
    EXPECT_EQ(nextReadCount(1073741824), 1000);
    tickAfter(std::numeric_limits<std::int32_t>::max() - 19, {record("C7", Variant(1.0))});
    EXPECT_EQ(tick().back(), "4 OPC-0182: 6, Overflow");
    EXPECT_EQ(tickWith(health("IOS", localNow())), Lines{beat5});
}

TEST_F(Link, StopsWithItsOwnerAndOutlivesALateTick) {
    dbil->setChannels({{7, 1}});
    tickWith(both(health("IOS", localNow()), {record("C7", Variant(1.0))}));
    manager.Shutdown();
    EXPECT_THAT(journal.lines, ElementsAre("interval 'IOSManager: read CurrentIO': cancel(true)"));
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

TEST_F(Link, AsksForTheDefinitionsOnce) {
    dbil->setChannels({{7, 5}});
    EXPECT_EQ(manager.GetChannelDefType(7), 5);
    EXPECT_EQ(manager.GetChannelName(7), "Channel 7");
    EXPECT_EQ(manager.GetChannelDefType(-1), 0);
    EXPECT_EQ(manager.GetChannelName(8), "");
    EXPECT_EQ(dbil->channelDefLoads, 1);
    EXPECT_THAT(messages.lines, IsEmpty());

    fakes::Manager failing;
    start(failing, dbil);
    dbil->channelDefsFailure = RuntimeError(14, "unable to open database file");
    EXPECT_EQ(failing.GetChannelDefType(7), 0);
    EXPECT_EQ(failing.GetChannelName(7), "");
    EXPECT_FALSE(failing.IsIOS5Used() || failing.IsIOS6Used());
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0154: 14, unable to open database file"));
    EXPECT_EQ(dbil->channelDefLoads, 2);
}

TEST_F(Link, AnswersUnusedForGoodWhenThereAreNoDefinitionsAtAll) {
    dbil->channelDefs = nullptr;
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(manager.IsIOS5Used() || manager.IsIOS6Used());
    }
    EXPECT_THAT(messages.lines, ElementsAre("4 OPC-0169: 91, Object variable or With block variable not set",
                                            "4 OPC-0170: 91, Object variable or With block variable not set"));
}

TEST_F(Link, DecidesOnceWhichGenerationsAreUsed) {
    struct Case {
        std::vector<std::pair<std::int32_t, std::int32_t>> channels;
        bool ios5, ios6;
    };
    for (const Case& c :
         {Case{{{1, 0}, {2, 6}}, false, false}, Case{{{1, 1}}, true, false}, Case{{{1, 9}, {2, 2}}, true, false},
          Case{{{1, 3}}, false, true}, Case{{{1, 4}, {2, 1}}, true, true}, Case{{{1, 5}}, false, true}}) {
        fakes::Manager fresh;
        dbil->setChannels(c.channels);
        start(fresh, dbil);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(fresh.IsIOS5Used(), c.ios5);
            EXPECT_EQ(fresh.IsIOS6Used(), c.ios6);
            fresh.Shutdown();
        }
    }
}

// ---- health

TEST_F(Link, TakesAFirstHeartbeatInOnlyWithinFortyFiveSeconds) {
    dbil->setChannels({{7, 1}});
    for (const int age : {46, -46, 45}) {
        EXPECT_EQ(tickWith(health("IOS", secondsFromNow(-age)))[0] == beat5, age == 45) << age;
    }
    // A record with a zero stamp is taken in without a heartbeat; the next one is a first sighting again.
    tickWith(health("IOS", Date{}));
    EXPECT_EQ(tickWith(health("IOS", secondsFromNow(-46)))[0],
              "0 IOS5 CurrentIO  Elapsed=40; TStamp=00:00:00; ReadCount=5 [OPC-0184]");
    EXPECT_EQ(tickWith(health("IOS", secondsFromNow(45))), Lines{beat5});
}

TEST_F(Link, TakesTheCommsStateInEvenWithoutAHeartbeat) {
    dbil->setChannels({{7, 1}});
    const Date stamp = localNow();
    tickWith(health("IOS", stamp));
    EXPECT_TRUE(manager.AllDevicesArePolling());
    EXPECT_THAT(tickWith(health("IOS", stamp, "", Variant(std::int32_t{0}))),
                ElementsAre(HasSubstr("IOS5 CurrentIO  Elapsed=20;")));
    EXPECT_FALSE(manager.AllDevicesArePolling());
}

TEST_F(Link, ReportsMissingHealthRecordsOnEveryRead) {
    dbil->setChannels({{7, 1}, {8, 3}});
    const Lines missing{"4 OPC-0196: Could not find 'IOS.AllCommsOk' CurrentIO record",
                        "4 OPC-0197: Could not find 'IOS.AllDataRefreshed' CurrentIO record",
                        "4 OPC-0200: Could not find 'IOS6.AllCommsOk' CurrentIO record",
                        "4 OPC-0201: Could not find 'IOS6.AllDataRefreshed' CurrentIO record"};
    for (int i = 0; i < 2; ++i) {
        Lines lines = tickWith({record("C7", Variant(1.0))});
        lines.resize(4);
        EXPECT_EQ(lines, missing);
    }
    Records records = health("IOS", localNow());
    records.pop_back();
    const Lines lines = tickWith(records);
    EXPECT_EQ(lines[0], missing[1]);
    EXPECT_THAT(lines, testing::Contains(HasSubstr("IOS5 CurrentIO  Elapsed=60;")));
}

TEST_F(Link, TakesIOS5RefreshesInWithoutAWord) {
    dbil->setChannels({{7, 1}});
    EXPECT_FALSE(manager.IsInitialCurrentIOReadComplete());
    for (const std::string& each : {refresh("08:00:00.000", "08:00:05.5"), refresh("09:00:00.0", "09:00:05.0")}) {
        EXPECT_EQ(tickWith(health("IOS", localNow(), each)), Lines{beat5});
        EXPECT_TRUE(manager.IsInitialCurrentIOReadComplete());
    }
}

TEST_F(Link, AnnouncesLaterIOS6RefreshesWhenBothTimesChanged) {
    dbil->setChannels({{8, 3}});
    for (const char* unusable : {"", "<Start>", "<Start/><Finish/>", "<Start>2026-11-16T08:00:00.0</Start>",
                                 "<Start>soon</Start><Finish>2026-11-16T08:00:00.0</Finish>"}) {
        EXPECT_EQ(tickWith(health("IOS6", localNow(), unusable)), Lines{beat6});
        EXPECT_FALSE(manager.IsInitialCurrentIOReadComplete());
    }
    for (const std::string& quiet : {refresh("08:00:00.0", "08:00:05.0"), refresh("08:00:00.0", "09:00:05.0"),
                                     refresh("09:00:00.0", "08:00:05.0")}) {
        EXPECT_EQ(tickWith(health("IOS6", localNow(), quiet)), Lines{beat6});
        EXPECT_TRUE(manager.IsInitialCurrentIOReadComplete());
    }
    EXPECT_THAT(
        tickWith(health("IOS6", localNow(), refresh("00:00:00.0", "09:00:05.0"))),
        ElementsAre("0 Will raise IOSAllDataRefreshed event [OPC-0202]", "0     dtmAllDataRefreshedStart=2026-11-16",
                    "0     dtmAllDataRefreshedFinish=2026-11-16 09:00:05",
                    "0     mdtmIOS6AllDataRefreshedStart=2026-11-16 08:00:00",
                    "0     mdtmIOS6AllDataRefreshedFinish=2026-11-16 08:00:05", beat6));
}

TEST_F(Link, WritesALineWheneverPollingChanges) {
    dbil->setChannels({{7, 1}, {8, 3}});
    EXPECT_FALSE(manager.AllDevicesArePolling());
    EXPECT_THAT(messages.take(), IsEmpty());
    const Records ios5Beat = health("IOS", localNow());
    const auto withIOS6Beat = [&] { return both(ios5Beat, health("IOS6", localNow(), "", Variant("True"))); };
    tickWith(withIOS6Beat());
    tickAfter(45, withIOS6Beat());
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(manager.AllDevicesArePolling());
    }
    const std::string ios5 = "4 OPC-0165: (IOS5) AllDevicesArePolling=";
    const std::string ios6 = "4 OPC-0167: (IOS6) AllDevicesArePolling=";
    // The IOS6 line shows the IOS5 counter.
    EXPECT_THAT(messages.take(), ElementsAre(ios5 + "1; AllCommsOk=1, TS=2026-11-16 08:00:00; Elapsed=45, Max=45",
                                             ios6 + "1; AllCommsOk=True, TS=2026-11-16 08:00:20; Elapsed=45, Max=45"));
    const Records last = withIOS6Beat();
    tickAfter(1, last);
    EXPECT_FALSE(manager.AllDevicesArePolling());
    EXPECT_THAT(messages.take(), ElementsAre(ios5 + "0; AllCommsOk=1, TS=2026-11-16 08:00:00; Elapsed=46, Max=45"));
    tickAfter(46, last);
    EXPECT_FALSE(manager.AllDevicesArePolling_IOS6());
    EXPECT_THAT(messages.take(), ElementsAre(ios6 + "0; AllCommsOk=True, TS=2026-11-16 08:00:40; Elapsed=92, Max=45"));
}

TEST_F(Link, ShowsANullCommsStateAsNothingAndAZeroStampAsZero) {
    dbil->setChannels({{7, 1}});
    tickWith(health("IOS", localNow()));
    EXPECT_TRUE(manager.AllDevicesArePolling_IOS5());
    tickWith(health("IOS", Date{}, "", Variant::null()));
    EXPECT_FALSE(manager.AllDevicesArePolling_IOS5());
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0165: (IOS5) AllDevicesArePolling=0; AllCommsOk=, TS=zero; "
                                             "Elapsed=20, Max=45"));
    tickWith(health("IOS", localNow(), "", Variant("fine")));
    EXPECT_FALSE(manager.AllDevicesArePolling_IOS5());
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0166: 'AllDevicesArePolling' error; 13, Type mismatch"));
}

TEST_F(Link, CountsAnUnusedGenerationAsPollingAndComplete) {
    EXPECT_TRUE(manager.AllDevicesArePolling());
    EXPECT_TRUE(manager.IsInitialCurrentIOReadComplete());
    EXPECT_THAT(tickWith({record("C7", Variant(1.0))}), IsEmpty());
}

}  // namespace
}  // namespace quelm
