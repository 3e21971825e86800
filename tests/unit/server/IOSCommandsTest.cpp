// What the I/O servers are asked by command message records: the records, the messages about them and the one pending
// refresh, first against a database that fails when it is told to, then against a real one.

#include "DB Interface Library/DBIL.h"
#include "libraries/TestDatabase.h"
#include "server/LinkFixture.h"

namespace quelm {
namespace {

using fakes::Lines;
using fakes::Manager;
using fakes::record;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Commands : public fakes::LinkFixture {
 protected:
    Commands() { dbil->setChannels({{7, 1}, {8, 2}, {9, 3}, {10, 4}, {11, 5}, {12, 6}}); }
};

const std::string full = "4 OPC-0205: 13, database or disk is full";
const std::string notSet = "91, Object variable or With block variable not set";

// ---- writing a channel

TEST_F(Commands, WriteSpellsItsValueAndOptionsForTheQueueOfTheChannelsGeneration) {
    struct Case {
        Variant value;
        bool isTimeSensitive, isFrequent, needsAutoOutput;
        const char* command;
    };
    const Case cases[] = {
        {Variant(12.5), false, false, false, R"(value="12.5" />)"},
        {Variant(true), true, true, true, R"(value="1"  priority="high"  hf="1"  requireAOE="1" />)"},
        {Variant(false), true, false, false, R"(value="0"  priority="high" />)"},
        {Variant(1e-5), false, true, false, R"(value="0.00001"  hf="1" />)"},
        {Variant("\"/><x>&amp;'"), false, false, true, R"(value=""/><x>&amp;'"  requireAOE="1" />)"},
        {Variant::null(), false, false, false, R"(value="" />)"},
    };
    for (const Case& c : cases) {
        manager.WriteValueToChannel("Panel 1", 7, c.value, "", c.isTimeSensitive, c.isFrequent, c.needsAutoOutput);
        manager.WriteValueToChannel("", 9, c.value, "Smith", c.isTimeSensitive, c.isFrequent, c.needsAutoOutput);
        const char* mark = c.needsAutoOutput ? "AOE " : "";
        EXPECT_THAT(journal.take(),
                    ElementsAre(fmt::format("insert '' A Q5IOCOMMAND <Command action=\"WriteToChannel\" id=\"C7\" {} "
                                            "'' '' 'OPC WriteValueToChannel {}>> C7; Panel 1'",
                                            c.command, mark),
                                fmt::format("insert '' A Q6IOCOMMAND <Command action=\"WriteToChannel\" id=\"C9\" {} "
                                            "'' '' 'Smith {}>> C9; '",
                                            c.command, mark)));
    }
    EXPECT_THAT(messages.take(), IsEmpty());
    EXPECT_FALSE(manager.IsRefreshPending());
}

TEST_F(Commands, WriteRefusesWhatIsNoPlainIOChannel) {
    struct Case {
        std::int32_t channel;
        const char* reason;
    };
    const Case cases[] = {
        {8, "OPC-0146: Can't write to channel; writing to Q5 implicit channel is not allowed"},
        {10, "OPC-0147: Can't write to channel; writing to Q6 multivalue CSV channel is not allowed"},
        {11, "OPC-0148: Can't write to channel; writing to Q6 multivalue UDT channel is not allowed"},
        {12, "OPC-0149: Can't write to channel; channel is not defined"},
        {-99, "OPC-0149: Can't write to channel; channel is not defined"},
    };
    for (const Case& c : cases) {
        manager.WriteValueToChannel("Panel 1", c.channel, Variant(), "Smith");
        EXPECT_THAT(messages.take(),
                    ElementsAre(fmt::format("4 {} (ChannelID={}, Requestor=Smith)", c.reason, c.channel)));
    }
    EXPECT_THAT(journal.lines, IsEmpty());
}

TEST_F(Commands, WriteNeedsTheReadsToBeEnabledBeforeAnythingElse) {
    manager.DisableReadingCurrentIO();
    manager.WriteValueToChannel("Panel 1", 12, Variant(), "Smith");
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0145: Can't write to channel; reading CurrentIO is not enabled "
                                             "(ChannelID=12, Requestor=Smith)"));
    EXPECT_EQ(dbil->channelDefLoads, 0);
    Manager silent;
    silent.Initialize(nullptr, *clock, dbil, "A");
    journal.take();
    silent.WriteValueToChannel("Panel 1", 7, Variant(1.0));
    silent.EnableReadingCurrentIO();
    silent.WriteValueToChannel("Panel 1", 12, Variant(1.0));
    EXPECT_THAT(journal.lines, IsEmpty());
}

TEST_F(Commands, WriteTellsItsRecordFailedOrWasNotCreated) {
    const std::string notCreated = "4 OPC-0150: Could not write msg record to change channel value (7=";
    dbil->insertsThatFail = 1;
    manager.WriteValueToChannel("Panel 1", 7, Variant(1e-5));
    EXPECT_THAT(messages.take(), ElementsAre(notCreated + "1E-05)"));
    dbil->insertFailure = RuntimeError(13, "database or disk is full");
    manager.WriteValueToChannel("Panel 1", 7, Variant::null());
    manager.WriteValueToChannel("Panel 1", 7, Variant(true));
    EXPECT_THAT(messages.take(), ElementsAre(full, notCreated + ")", full, notCreated + "1)"));
}

TEST_F(Commands, WriteRefusesNothingAndBlankTextUnlessThatIsAllowed) {
    struct Case {
        Variant value;
        bool isAllowed, isWritten;
    };
    // Only blanks count as nothing, and nothing at all is never written.
    for (const Case& c :
         {Case{Variant(""), false, false}, Case{Variant(""), true, true}, Case{Variant("  "), false, false},
          Case{Variant("  "), true, true}, Case{Variant("\t"), false, true}, Case{Variant(), true, false}}) {
        manager.WriteValueToChannel("P", 7, c.value, "", false, false, false, c.isAllowed);
        EXPECT_EQ(journal.take().size(), c.isWritten ? 1U : 0U);
        EXPECT_EQ(
            messages.take(),
            c.isWritten ? Lines{} : Lines{"4 OPC-0151: Will not attempt to write empty/null value to IO channel (7)"});
    }
}

TEST_F(Commands, WriteReportsValuesWithoutAText) {
    manager.WriteValueToChannel("P", 7, Variant(std::vector<std::string>{"1", "2"}), "Smith");
    manager.WriteValueToChannel("P", 7, Variant(std::shared_ptr<VariantObject>()), "", false, false, false, true);
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0152: 13, Type mismatch (ChannelID=7, Requestor=Smith)",
                                             "4 OPC-0152: " + notSet + " (ChannelID=7, Requestor=)"));
    EXPECT_THAT(journal.lines, IsEmpty());
}

TEST_F(Commands, WithoutADatabaseLibraryFailWithTheirMessages) {
    Manager bare;
    start(bare, nullptr);
    bare.WriteValueToChannel("P", 7, Variant(1.0));
    bare.ReadAllData("Smith");
    EXPECT_FALSE(bare.RefreshSelectedChannels("7", "Smith"));
    EXPECT_THAT(messages.take(),
                ElementsAre("4 OPC-0154: " + notSet,
                            "4 OPC-0149: Can't write to channel; channel is not defined (ChannelID=7, Requestor=)",
                            "4 OPC-0178: Cannot refresh selected channels ''. Channel 7 is not defined. "
                            "(Requestor=Smith)"));
    manager.Shutdown();
    EXPECT_FALSE(manager.RefreshSelectedChannels("7", "Smith"));
    EXPECT_THAT(messages.take(), IsEmpty());
}

// ---- refreshing all data

TEST_F(Commands, ReadAllDataAsksEveryGenerationInUse) {
    manager.ReadAllData("Smith");
    EXPECT_THAT(journal.take(),
                ElementsAre("insert '' A Q5IOCOMMAND <Command action=\"RefreshAllData\" /> '' '' 'Smith'",
                            "insert '' A Q6IOCOMMAND <Command action=\"RefreshAllData\" /> '' '' 'Smith'"));
    EXPECT_THAT(messages.take(), ElementsAre("0 OPC-0171: Created msg record to refresh all IOS5 data",
                                             "0 OPC-0173: Created msg record to refresh all IOS6 data"));
    EXPECT_FALSE(manager.IsRefreshPending());

    // Neither disabled reads nor a pending refresh stand in its way, and one failure not in the other's.
    EXPECT_TRUE(manager.RefreshSelectedChannels("7", ""));
    messages.take();
    manager.DisableReadingCurrentIO();
    const std::string not5 = "4 OPC-0172: Could not create msg record to refresh all IOS5 data";
    dbil->insertsThatFail = 1;
    manager.ReadAllData("");
    EXPECT_THAT(messages.take(), ElementsAre(not5, "0 OPC-0173: Created msg record to refresh all IOS6 data"));
    dbil->insertFailure = RuntimeError(13, "database or disk is full");
    manager.ReadAllData("");
    EXPECT_THAT(messages.take(),
                ElementsAre(full, not5, full, "4 OPC-0174: Could not create msg record to refresh all IOS6 data"));
    EXPECT_TRUE(manager.IsRefreshPending());
}

// ---- refreshing channels

const std::string stillPending =
    "RefreshSelectedChannels called while another request is still pending. This request will be ignored. ";

TEST_F(Commands, RefreshStaysPendingUntilItsRecordIsGone) {
    EXPECT_TRUE(manager.RefreshSelectedChannels("7,8\"<", "Smith"));
    EXPECT_THAT(messages.take(), ElementsAre("0 OPC-0179: Created msg record to refresh channels 7,8\"< (Smith)"));
    EXPECT_THAT(journal.take(), ElementsAre("insert '' A Q5IOCOMMAND <Command action=\"RefreshSelectedChannels\" "
                                            "value=\"7,8\"<\" /> '' '' 'Smith'"));
    EXPECT_EQ(manager.PendingRefreshMsgID(), "M1");
    EXPECT_FALSE(manager.RefreshSelectedChannels("9", "Jones"));
    EXPECT_THAT(messages.take(),
                ElementsAre("4 OPC-0177: " + stillPending + "(Pending=7,8\"<; New=9; NewRequestor=Jones)"));
    EXPECT_THAT(journal.take(), IsEmpty());
    tickWith({record("C7", Variant(1.0))});
    EXPECT_TRUE(manager.RefreshSelectedChannels("9", ""));
    EXPECT_EQ(manager.PendingRefreshMsgID(), "M2");
}

TEST_F(Commands, RefreshWithReadsDisabledSpeaksOfAPendingRequest) {
    manager.DisableReadingCurrentIO();
    EXPECT_FALSE(manager.RefreshSelectedChannels("7", "Smith"));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0176: " + stillPending + "(Pending=; New=7; NewRequestor=Smith)"));
    manager.EnableReadingCurrentIO();
    EXPECT_TRUE(manager.RefreshSelectedChannels("8", ""));
    manager.DisableReadingCurrentIO();
    messages.take();
    EXPECT_FALSE(manager.RefreshSelectedChannels("x", ""));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0176: " + stillPending + "(Pending=8; New=x; NewRequestor=)"));
    EXPECT_EQ(manager.PendingRefreshMsgID(), "M1");
    EXPECT_EQ(journal.lines.size(), 1U);
}

TEST_F(Commands, ASiteWithOneGenerationOrNoneIsAskedAccordingly) {
    struct Case {
        std::int32_t type;
        const char* queue;  // nullptr when there is nobody to ask
    };
    for (const Case& c : {Case{2, "Q5IOCOMMAND"}, Case{5, "Q6IOCOMMAND"}, Case{6, nullptr}}) {
        Manager other;
        dbil->setChannels({{1, c.type}});
        start(other, dbil);
        other.ReadAllData("Smith");
        EXPECT_EQ(other.RefreshSelectedChannels("every 1E999", "Smith"), c.queue != nullptr);
        if (c.queue == nullptr) {
            EXPECT_THAT(journal.take(), IsEmpty());
            continue;
        }
        EXPECT_THAT(
            journal.take(),
            ElementsAre(fmt::format("insert '' A {} <Command action=\"RefreshAllData\" /> '' '' 'Smith'", c.queue),
                        fmt::format("insert '' A {} <Command action=\"RefreshSelectedChannels\" value=\"every "
                                    "1E999\" /> '' '' 'Smith'",
                                    c.queue)));
    }
}

TEST_F(Commands, RefreshOfASiteWithBothGenerationsGoesByTheFirstChannel) {
    struct Case {
        const char* list;
        const char* queue;         // nullptr when refused
        std::int32_t refused = 0;  // the channel named then
    };
    const Case cases[] = {
        {"7", "Q5IOCOMMAND"},       {"8,9", "Q5IOCOMMAND"}, {"9;7", "Q6IOCOMMAND"},
        {" \t\n11", "Q6IOCOMMAND"}, {"7 8", nullptr, 78},  // blanks join what stands around them
        {"8.5", "Q5IOCOMMAND"},                            // halves go to the even neighbour: 8
        {"9.5", "Q6IOCOMMAND"},                            // 10
        {"&HA", "Q6IOCOMMAND"},     {"12", nullptr, 12},    {"-7", nullptr, -7},
        {"", nullptr, 0},           {"C7", nullptr, 0},
    };
    std::string pending;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.list);
        tick();  // forgets the pending request, whose record is not there, but not its channels
        EXPECT_EQ(manager.RefreshSelectedChannels(c.list, "Smith"), c.queue != nullptr);
        if (c.queue != nullptr) {
            EXPECT_THAT(journal.take(), ElementsAre(HasSubstr(fmt::format(" A {} <", c.queue))));
            messages.take();
        } else {
            EXPECT_THAT(messages.take(), ElementsAre(fmt::format("4 OPC-0178: Cannot refresh selected channels ''. "
                                                                 "Channel {} is not defined. (Requestor=Smith)",
                                                                 c.refused)));
        }
        pending = c.queue != nullptr ? c.list : pending;
        EXPECT_EQ(pendingChannels(), pending);
    }
    for (const char* overflowing : {"2147483648", "1E999"}) {
        EXPECT_FALSE(manager.RefreshSelectedChannels(overflowing, "Smith"));
        EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0181: 6, Overflow")) << overflowing;
    }
    EXPECT_THAT(journal.lines, IsEmpty());
}

TEST_F(Commands, RefreshThatIsNotCreatedLeavesNothingPending) {
    const std::string notCreated = "4 OPC-0180: Could not create msg record to refresh channels 7 (Smith)";
    EXPECT_TRUE(manager.RefreshSelectedChannels("9", ""));
    tick();  // its record is gone
    EXPECT_EQ(pendingChannels(), "9");
    dbil->insertsThatFail = 1;
    EXPECT_FALSE(manager.RefreshSelectedChannels("7", "Smith"));
    EXPECT_THAT(messages.take(), ElementsAre(notCreated));
    EXPECT_EQ(pendingChannels(), "");
    dbil->insertFailure = RuntimeError(13, "database or disk is full");
    EXPECT_FALSE(manager.RefreshSelectedChannels("7", "Smith"));
    EXPECT_THAT(messages.take(), ElementsAre(full, notCreated));
    EXPECT_FALSE(manager.IsRefreshPending());
}

// ---- with a real database

class CommandsOnDatabase : public fakes::LinkFixture {
 protected:
    CommandsOnDatabase() {
        database.withSchema().run(
            "INSERT INTO IOChannelDef(SiteID, ChannelID, DefType) VALUES ('A', 7, 1), ('A', 9, 3);"
            "INSERT INTO CurrentIO(SiteID, IOID, NValue) VALUES ('A', 'C7', 1.5)");
        const std::string connection = database.connectionString();
        EXPECT_TRUE(library->SetupSite("A", connection, connection, "", "", "", true, false));
        start(manager, library);
    }
    void requestRefresh() { EXPECT_TRUE(manager.RefreshSelectedChannels("9,7", "Smith")); }

    test::TemporaryFolder folder;
    test::TestDatabase database{folder.file("site.db")};
    std::shared_ptr<DBIL> library = std::make_shared<DBIL>(builtInSqlDrivers(), [](std::string_view) {});
};

TEST_F(CommandsOnDatabase, RefreshFollowsItsRecordThroughEveryState) {
    requestRefresh();
    const std::string id = manager.PendingRefreshMsgID();
    for (const char* state : {"''", "'SENT'", "'done'", "'DONE '", "1", "x'444F4E45'"}) {
        database.run(std::string("UPDATE Message SET State = ") + state);
        EXPECT_THAT(tick().back(), HasSubstr(" [OPC-018")) << state;  // nothing is said behind the tick's own line
        EXPECT_EQ(manager.PendingRefreshMsgID(), id) << state;
        EXPECT_EQ(pendingChannels(), "9,7") << state;
    }
    for (const char* response : {"NULL", "'<Success>0</Success>'", "'<Success>', Data = '<'", "x'00', Data = ''"}) {
        database.run(std::string("UPDATE Message SET State = 'DONE', Response = ") + response);
        EXPECT_THAT(tick().back(), HasSubstr(" [OPC-018")) << response;
        EXPECT_FALSE(manager.IsRefreshPending()) << response;
        EXPECT_EQ(pendingChannels(), "") << response;
        requestRefresh();
    }
    database.run("UPDATE Message SET SiteID = 'B'");
    tick();
    EXPECT_FALSE(manager.IsRefreshPending());
    EXPECT_EQ(pendingChannels(), "9,7");
}

TEST_F(CommandsOnDatabase, RefreshOutlivesATableThatIsGoneForAWhile) {
    requestRefresh();
    database.run("ALTER TABLE Message RENAME TO Away");
    EXPECT_EQ(tick().back(), "4 OPC-0186: 1, no such table: Message");
    EXPECT_TRUE(manager.IsRefreshPending());
    manager.WriteValueToChannel("P", 7, Variant(1.0));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0205: 1, no such table: Message",
                                             "4 OPC-0150: Could not write msg record to change channel value (7=1)"));
    database.run("ALTER TABLE Away RENAME TO Message; UPDATE Message SET State = 'DONE'");
    tick();
    EXPECT_FALSE(manager.IsRefreshPending());
}

}  // namespace
}  // namespace quelm
