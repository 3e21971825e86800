// What the I/O servers are asked by command message records: the records, the messages about them and the one pending
// refresh, first against a database that fails when it is told to, then against a real one.

#include <gmock/gmock.h>

#include "DB Interface Library/DBIL.h"
#include "Fakes.h"
#include "Libraries/TestDatabase.h"
#include "OPC/OPC DA Server/IOSSimpleManager.h"

namespace quelm {
namespace {

using fakes::Lines;
using fakes::record;
using testing::ElementsAre;
using testing::IsEmpty;

struct Manager : IOSSimpleManager {
    using IOSSimpleManager::mstrPendingRefreshChannels;
    using IOSSimpleManager::mstrPendingRefreshMsgID;
};

class Commands : public testing::Test {
 protected:
    Commands() {
        dbil->setChannels({{7, 1}, {8, 2}, {9, 3}, {10, 4}, {11, 5}, {12, 6}});
        manager.Initialize(&messages, *clock, dbil, "A");
        manager.EnableReadingCurrentIO();
        journal.take();
    }
    // The commands that were written since the last look, without their surroundings.
    Lines takeCommands() {
        Lines commands;
        for (const std::string& line : journal.take()) {
            const std::size_t from = line.find('<');
            commands.push_back(line.substr(from, line.rfind("/>") + 2 - from));
        }
        return commands;
    }
    void tick() {
        dbil->setSnapshot({record("C7", Variant(1.0))});
        clock->fire("IOSManager: read CurrentIO");
    }

    ManualTimeSource time{makeDate(2026, 11, 16, 8, 0, 0)};
    ScopedTimeSource inForce{time};
    fakes::Journal journal;
    fakes::Messages messages;
    std::shared_ptr<fakes::Clock> clock = std::make_shared<fakes::Clock>(journal);
    std::shared_ptr<fakes::DBIL> dbil = std::make_shared<fakes::DBIL>(journal);
    Manager manager;
};

const RuntimeError full(13, "database or disk is full");

// ---- writing a channel

TEST_F(Commands, WriteGoesToTheQueueOfTheChannelsGeneration) {
    manager.WriteValueToChannel("Panel 1", 7, Variant(12.5));
    manager.WriteValueToChannel("", 9, Variant("open"), "Smith", true, true, true);
    EXPECT_THAT(journal.take(),
                ElementsAre("insert '' A Q5IOCOMMAND <Command action=\"WriteToChannel\" id=\"C7\" value=\"12.5\" /> '' "
                            "'' 'OPC WriteValueToChannel >> C7; Panel 1'",
                            "insert '' A Q6IOCOMMAND <Command action=\"WriteToChannel\" id=\"C9\" value=\"open\"  "
                            "priority=\"high\"  hf=\"1\"  requireAOE=\"1\" /> '' '' 'Smith AOE >> C9; '"));
    EXPECT_THAT(messages.take(), IsEmpty());
    EXPECT_FALSE(manager.IsRefreshPending());
}

TEST_F(Commands, WriteRefusesWhatIsNoPlainIOChannel) {
    struct Case {
        std::int32_t channel;
        const char* message;
    };
    const Case cases[] = {
        {8,
         "4 OPC-0146: Can't write to channel; writing to Q5 implicit channel is not allowed (ChannelID=8, "
         "Requestor=Smith)"},
        {10,
         "4 OPC-0147: Can't write to channel; writing to Q6 multivalue CSV channel is not allowed (ChannelID=10, "
         "Requestor=Smith)"},
        {11,
         "4 OPC-0148: Can't write to channel; writing to Q6 multivalue UDT channel is not allowed (ChannelID=11, "
         "Requestor=Smith)"},
        {12, "4 OPC-0149: Can't write to channel; channel is not defined (ChannelID=12, Requestor=Smith)"},
        {-99, "4 OPC-0149: Can't write to channel; channel is not defined (ChannelID=-99, Requestor=Smith)"},
    };
    for (const Case& c : cases) {
        manager.WriteValueToChannel("Panel 1", c.channel, Variant(1.0), "Smith");
        EXPECT_THAT(messages.take(), ElementsAre(c.message));
    }
    manager.WriteValueToChannel("Panel 1", 13, Variant());
    EXPECT_THAT(messages.take(),
                ElementsAre("4 OPC-0149: Can't write to channel; channel is not defined (ChannelID=13, Requestor=)"));
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
    EXPECT_THAT(journal.lines, IsEmpty());
    silent.EnableReadingCurrentIO();
    silent.WriteValueToChannel("Panel 1", 12, Variant(1.0));
    silent.WriteValueToChannel("Panel 1", 7, Variant(1.0));
    EXPECT_THAT(takeCommands(), ElementsAre("<Command action=\"WriteToChannel\" id=\"C7\" value=\"1\" />"));
}

TEST_F(Commands, WriteTellsItsRecordFailedOrWasNotCreated) {
    const std::string notCreated = "4 OPC-0150: Could not write msg record to change channel value (7=1E-05)";
    dbil->insertResults = {false};
    manager.WriteValueToChannel("Panel 1", 7, Variant(1e-5));
    EXPECT_THAT(messages.take(), ElementsAre(notCreated));
    dbil->insertFailure = full;
    manager.WriteValueToChannel("Panel 1", 7, Variant(1e-5));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0205: 13, database or disk is full", notCreated));
    manager.WriteValueToChannel("Panel 1", 7, Variant::null());
    manager.WriteValueToChannel("Panel 1", 7, Variant(true));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0205: 13, database or disk is full",
                                             "4 OPC-0150: Could not write msg record to change channel value (7=)",
                                             "4 OPC-0205: 13, database or disk is full",
                                             "4 OPC-0150: Could not write msg record to change channel value (7=1)"));
    EXPECT_THAT(takeCommands().front(), "<Command action=\"WriteToChannel\" id=\"C7\" value=\"0.00001\" />");
}

struct Value {
    const char* name;
    Variant value;
    const char* text;  // in the command
};

const Value values[] = {
    {"true", Variant(true), "1"},
    {"false", Variant(false), "0"},
    {"byte", Variant(std::uint8_t{200}), "200"},
    {"16 bits", Variant(std::int16_t{-32768}), "-32768"},
    {"32 bits", Variant(std::int32_t{2147483647}), "2147483647"},
    {"single", Variant(0.1F), "0.1"},
    {"double", Variant(-2.25), "-2.25"},
    {"whole double", Variant(12.0), "12"},
    {"small double", Variant(1e-5), "0.00001"},
    {"huge double", Variant(1e30), "1E+30"},
    {"currency", Variant(Currency{-125000}), "-12.5"},
    {"decimal", Variant(Decimal::fromText("79228162514264337593543950335")), "79228162514264337593543950335"},
    {"fractional decimal", Variant(Decimal::fromText("-0.0000001")), "-0.0000001"},
    {"date", Variant(makeDate(2013, 4, 5)), "2013-04-05"},
    {"date and time", Variant(makeDate(2013, 4, 5, 6, 7, 8)), "2013-04-05 06:07:08"},
    {"time", Variant(Date{0.25}), "06:00:00"},
    {"no date", Variant(Date{}), "00:00:00"},
    {"text", Variant(" a b "), " a b "},
    {"markup", Variant("\"/><x>&amp;'"), "\"/><x>&amp;'"},
    {"error", Variant(ErrorCode{2042}), "Error 2042"},
    {"null", Variant::null(), ""},
};

TEST_F(Commands, WriteSpellsEveryValueWithEveryCombinationOfOptions) {
    // By time sensitive, frequent and automatic output enabled.
    const char* tails[] = {" />",
                           "  priority=\"high\" />",
                           "  hf=\"1\" />",
                           "  priority=\"high\"  hf=\"1\" />",
                           "  requireAOE=\"1\" />",
                           "  priority=\"high\"  requireAOE=\"1\" />",
                           "  hf=\"1\"  requireAOE=\"1\" />",
                           "  priority=\"high\"  hf=\"1\"  requireAOE=\"1\" />"};
    for (const Value& v : values) {
        for (unsigned options = 0; options < 16; ++options) {
            SCOPED_TRACE(fmt::format("{} with options {}", v.name, options));
            manager.WriteValueToChannel("P", 7, v.value, "", (options & 1) != 0, (options & 2) != 0, (options & 4) != 0,
                                        (options & 8) != 0);
            const std::string command =
                fmt::format("<Command action=\"WriteToChannel\" id=\"C7\" value=\"{}\"{}", v.text, tails[options % 8]);
            EXPECT_THAT(journal.take(),
                        ElementsAre(fmt::format("insert '' A Q5IOCOMMAND {} '' '' 'OPC WriteValueToChannel {}>> C7; P'",
                                                command, (options & 4) != 0 ? "AOE " : "")));
        }
    }
    EXPECT_THAT(messages.take(), IsEmpty());
}

TEST_F(Commands, WriteRefusesNothingAndBlankTextButNotNull) {
    const std::string refused = "4 OPC-0151: Will not attempt to write empty/null value to IO channel (7)";
    for (const char* blank : {"", " ", "    "}) {
        manager.WriteValueToChannel("P", 7, Variant(blank));
        EXPECT_THAT(messages.take(), ElementsAre(refused));
        manager.WriteValueToChannel("P", 7, Variant(blank), "", false, false, false, true);
        EXPECT_THAT(takeCommands(),
                    ElementsAre(fmt::format("<Command action=\"WriteToChannel\" id=\"C7\" value=\"{}\" />", blank)));
    }
    for (const bool allowed : {false, true}) {
        manager.WriteValueToChannel("P", 7, Variant(), "", false, false, false, allowed);
        EXPECT_THAT(messages.take(), ElementsAre(refused));
    }
    EXPECT_THAT(journal.lines, IsEmpty());
    manager.WriteValueToChannel("P", 7, Variant("\t"));  // only blanks count as nothing
    EXPECT_THAT(takeCommands(), ElementsAre("<Command action=\"WriteToChannel\" id=\"C7\" value=\"\t\" />"));
}

TEST_F(Commands, WriteReportsValuesWithoutAText) {
    manager.WriteValueToChannel("P", 7, Variant(std::vector<std::string>{"1", "2"}), "Smith");
    manager.WriteValueToChannel("P", 7, Variant(std::make_shared<VariantObject>()), "Smith");
    manager.WriteValueToChannel("P", 7, Variant(std::shared_ptr<VariantObject>()), "", false, false, false, true);
    EXPECT_THAT(
        messages.take(),
        ElementsAre("4 OPC-0152: 13, Type mismatch (ChannelID=7, Requestor=Smith)",
                    "4 OPC-0152: 13, Type mismatch (ChannelID=7, Requestor=Smith)",
                    "4 OPC-0152: 91, Object variable or With block variable not set (ChannelID=7, Requestor=)"));
    EXPECT_THAT(journal.lines, IsEmpty());
}

TEST_F(Commands, WithoutADatabaseLibraryFailWithTheirMessages) {
    const std::string notSet = "91, Object variable or With block variable not set";
    Manager bare;
    bare.Initialize(&messages, *clock, nullptr, "A");
    bare.EnableReadingCurrentIO();
    bare.WriteValueToChannel("P", 7, Variant(1.0));
    bare.ReadAllData("Smith");
    EXPECT_FALSE(bare.RefreshSelectedChannels("7", "Smith"));
    EXPECT_THAT(messages.take(),
                ElementsAre("4 OPC-0154: " + notSet,
                            "4 OPC-0149: Can't write to channel; channel is not defined (ChannelID=7, Requestor=)",
                            "4 OPC-0178: Cannot refresh selected channels ''. Channel 7 is not defined. "
                            "(Requestor=Smith)"));
    manager.GetChannelDefs();
    manager.Shutdown();
    manager.WriteValueToChannel("P", 7, Variant(1.0));
    manager.ReadAllData("Smith");
    EXPECT_FALSE(manager.RefreshSelectedChannels("7", "Smith"));
    EXPECT_TRUE(manager.GetMultiValueChannelCSV(7, 0).isEmpty());
    EXPECT_THAT(messages.take(), IsEmpty());
}

// ---- refreshing all data

TEST_F(Commands, ReadAllDataAsksEveryGenerationInUse) {
    manager.ReadAllData("Smith");
    EXPECT_THAT(journal.take(), ElementsAre("insert '' A Q5IOCOMMAND <Command action=\"RefreshAllData\" /> '' '' "
                                            "'Smith'",
                                            "insert '' A Q6IOCOMMAND <Command action=\"RefreshAllData\" /> '' '' "
                                            "'Smith'"));
    EXPECT_THAT(messages.take(), ElementsAre("0 OPC-0171: Created msg record to refresh all IOS5 data",
                                             "0 OPC-0173: Created msg record to refresh all IOS6 data"));
    EXPECT_FALSE(manager.IsRefreshPending());

    // Neither disabled reads nor a pending refresh stand in its way, and one failure not in the other's.
    manager.DisableReadingCurrentIO();
    manager.mstrPendingRefreshMsgID = "pending";
    dbil->insertResults = {false};
    manager.ReadAllData("");
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0172: Could not create msg record to refresh all IOS5 data",
                                             "0 OPC-0173: Created msg record to refresh all IOS6 data"));
    EXPECT_EQ(journal.take().back(), "insert '' A Q6IOCOMMAND <Command action=\"RefreshAllData\" /> '' '' ''");
    dbil->insertFailure = full;
    manager.ReadAllData("");
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0205: 13, database or disk is full",
                                             "4 OPC-0172: Could not create msg record to refresh all IOS5 data",
                                             "4 OPC-0205: 13, database or disk is full",
                                             "4 OPC-0174: Could not create msg record to refresh all IOS6 data"));
    EXPECT_EQ(manager.mstrPendingRefreshMsgID, "pending");
}

TEST_F(Commands, ReadAllDataAsksNobodyElse) {
    struct Case {
        std::vector<std::pair<std::int32_t, std::int32_t>> channels;
        Lines messages;
    };
    const Case cases[] = {{{}, {}},
                          {{{1, 0}, {2, 6}}, {}},
                          {{{1, 2}}, {"0 OPC-0171: Created msg record to refresh all IOS5 data"}},
                          {{{1, 4}}, {"0 OPC-0173: Created msg record to refresh all IOS6 data"}}};
    for (const Case& c : cases) {
        Manager other;
        dbil->setChannels(c.channels);
        other.Initialize(&messages, *clock, dbil, "A");
        other.ReadAllData("Smith");
        EXPECT_EQ(messages.take(), c.messages);
    }
}

// ---- refreshing channels

const std::string stillPending =
    "RefreshSelectedChannels called while another request is still pending. This request will be ignored. ";

TEST_F(Commands, RefreshStaysPendingUntilItsRecordIsDone) {
    EXPECT_TRUE(manager.RefreshSelectedChannels("7,8", "Smith"));
    EXPECT_THAT(messages.take(), ElementsAre("0 OPC-0179: Created msg record to refresh channels 7,8 (Smith)"));
    EXPECT_THAT(journal.take(), ElementsAre("insert '' A Q5IOCOMMAND <Command action=\"RefreshSelectedChannels\" "
                                            "value=\"7,8\" /> '' '' 'Smith'"));
    EXPECT_EQ(manager.mstrPendingRefreshMsgID, "M1");
    EXPECT_EQ(manager.mstrPendingRefreshChannels, "7,8");

    EXPECT_FALSE(manager.RefreshSelectedChannels("9", "Jones"));
    EXPECT_THAT(messages.take(),
                ElementsAre("4 OPC-0177: " + stillPending + "(Pending=7,8; New=9; NewRequestor=Jones)"));
    EXPECT_THAT(journal.take(), IsEmpty());

    dbil->messageRecord = MessageRecord{"DONE", "", ""};
    tick();
    messages.take();
    EXPECT_TRUE(manager.RefreshSelectedChannels("9\"<", ""));
    EXPECT_THAT(takeCommands(), ElementsAre("<Command action=\"RefreshSelectedChannels\" value=\"9\"<\" />"));
    EXPECT_THAT(messages.take(), ElementsAre("0 OPC-0179: Created msg record to refresh channels 9\"< ()"));
    EXPECT_EQ(manager.mstrPendingRefreshMsgID, "M2");
}

TEST_F(Commands, RefreshWithReadsDisabledSpeaksOfAPendingRequest) {
    manager.DisableReadingCurrentIO();
    EXPECT_FALSE(manager.RefreshSelectedChannels("7", "Smith"));
    manager.mstrPendingRefreshMsgID = "pending";
    manager.mstrPendingRefreshChannels = "1";
    EXPECT_FALSE(manager.RefreshSelectedChannels("x", ""));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0176: " + stillPending + "(Pending=; New=7; NewRequestor=Smith)",
                                             "4 OPC-0176: " + stillPending + "(Pending=1; New=x; NewRequestor=)"));
    EXPECT_EQ(manager.mstrPendingRefreshMsgID, "pending");
    EXPECT_EQ(manager.mstrPendingRefreshChannels, "1");
    EXPECT_THAT(journal.lines, IsEmpty());
}

TEST_F(Commands, RefreshOfASiteWithOneGenerationNeedsNoLook) {
    for (const std::int32_t type : {2, 5}) {
        Manager other;
        dbil->setChannels({{1, type}});
        other.Initialize(&messages, *clock, dbil, "A");
        other.EnableReadingCurrentIO();
        journal.take();
        EXPECT_TRUE(other.RefreshSelectedChannels("every 1E999", "Smith"));
        EXPECT_THAT(journal.take(),
                    ElementsAre(fmt::format("insert '' A {} <Command action=\"RefreshSelectedChannels\" value=\"every "
                                            "1E999\" /> '' '' 'Smith'",
                                            type == 2 ? "Q5IOCOMMAND" : "Q6IOCOMMAND")));
    }
}

TEST_F(Commands, RefreshOfASiteWithBothOrNeitherGoesByTheFirstChannel) {
    struct Case {
        const char* list;
        const char* queue;         // "" when refused
        std::int32_t refused = 0;  // the channel named then
    };
    const Case cases[] = {
        {"7", "Q5IOCOMMAND"},
        {"8,9", "Q5IOCOMMAND"},
        {"9;7", "Q6IOCOMMAND"},
        {"10", "Q6IOCOMMAND"},
        {"11", "Q6IOCOMMAND"},
        {" \t\n9", "Q6IOCOMMAND"},
        {"1 0,7", "Q6IOCOMMAND"},  // blanks join what stands around them
        {"7 8", "", 78},
        {"&H9", "Q6IOCOMMAND"},
        {"&hA", "Q6IOCOMMAND"},
        {"&O11", "Q6IOCOMMAND"},
        {"8.5", "Q5IOCOMMAND"},  // halves go to the even neighbour: 8
        {"9.5", "Q6IOCOMMAND"},  // 10
        {"6.5", "", 6},
        {"7.5", "Q5IOCOMMAND"},
        {"7.5.9", "Q5IOCOMMAND"},
        {"12", "", 12},
        {"99,7", "", 99},
        {"-7", "", -7},
        {"", "", 0},
        {"C7", "", 0},
        {",7", "", 0},
        {"\r7", "", 0},
        {"&HFFFF", "", -1},
        {"2147483647", "", 2147483647},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.list);
        manager.mstrPendingRefreshMsgID.clear();
        manager.mstrPendingRefreshChannels = "kept";
        EXPECT_EQ(manager.RefreshSelectedChannels(c.list, "Smith"), *c.queue != '\0');
        const Lines inserted = journal.take();
        if (*c.queue != '\0') {
            EXPECT_THAT(inserted, ElementsAre(testing::HasSubstr(fmt::format(" A {} <", c.queue))));
            EXPECT_EQ(manager.mstrPendingRefreshChannels, c.list);
            messages.take();
        } else {
            EXPECT_THAT(inserted, IsEmpty());
            EXPECT_EQ(manager.mstrPendingRefreshChannels, "kept");
            EXPECT_THAT(messages.take(), ElementsAre(fmt::format("4 OPC-0178: Cannot refresh selected channels ''. "
                                                                 "Channel {} is not defined. (Requestor=Smith)",
                                                                 c.refused)));
        }
    }
    for (const char* overflowing : {"2147483648", "-2147483649", "1E999", "&H123456789"}) {
        manager.mstrPendingRefreshMsgID.clear();
        EXPECT_FALSE(manager.RefreshSelectedChannels(overflowing, "Smith"));
        EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0181: 6, Overflow")) << overflowing;
    }
}

TEST_F(Commands, RefreshOfASiteWithoutChannelsIsRefused) {
    Manager other;
    dbil->setChannels({});
    other.Initialize(&messages, *clock, dbil, "A");
    other.EnableReadingCurrentIO();
    EXPECT_FALSE(other.RefreshSelectedChannels("7", ""));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0178: Cannot refresh selected channels ''. Channel 7 is not "
                                             "defined. (Requestor=)"));
}

TEST_F(Commands, RefreshThatIsNotCreatedLeavesNothingPending) {
    const std::string notCreated = "4 OPC-0180: Could not create msg record to refresh channels 7 (Smith)";
    manager.mstrPendingRefreshChannels = "of a record that is gone";
    dbil->insertResults = {false};
    EXPECT_FALSE(manager.RefreshSelectedChannels("7", "Smith"));
    EXPECT_THAT(messages.take(), ElementsAre(notCreated));
    EXPECT_EQ(manager.mstrPendingRefreshChannels, "");
    dbil->insertFailure = full;
    EXPECT_FALSE(manager.RefreshSelectedChannels("7", "Smith"));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0205: 13, database or disk is full", notCreated));
    EXPECT_FALSE(manager.IsRefreshPending());
    dbil->insertFailure.reset();
    EXPECT_TRUE(manager.RefreshSelectedChannels("7", "Smith"));
}

// ---- with a real database

class CommandsOnDatabase : public testing::Test {
 protected:
    CommandsOnDatabase() {
        database.withSchema().run(
            "INSERT INTO IOChannelDef(SiteID, ChannelID, DefType) VALUES ('A', 7, 1), ('A', 9, 3);"
            "INSERT INTO CurrentIO(SiteID, IOID, NValue) VALUES ('A', 'C7', 1.5)");
        EXPECT_TRUE(
            dbil->SetupSite("A", database.connectionString(), database.connectionString(), "", "", "", true, false));
        manager.Initialize(&messages, clock, dbil, "A");
        manager.EnableReadingCurrentIO();
    }
    // The messages of one read tick that are not about health.
    Lines tick() {
        messages.take();
        clock.fire("IOSManager: read CurrentIO");
        Lines lines = messages.take();
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const std::string& line) {
                                       return line.find("CurrentIO") != std::string::npos ||
                                              line.find("not active") != std::string::npos;
                                   }),
                    lines.end());
        return lines;
    }
    void requestRefresh() {
        EXPECT_TRUE(manager.RefreshSelectedChannels("9,7", "Smith"));
        EXPECT_EQ(manager.mstrPendingRefreshMsgID.size(), 36U);
    }

    test::TemporaryFolder folder;
    test::TestDatabase database{folder.file("site.db")};
    fakes::Journal journal;
    fakes::Messages messages;
    fakes::Clock clock{journal};
    std::shared_ptr<DBIL> dbil = std::make_shared<DBIL>(builtInSqlDrivers(), [](std::string_view) {});
    Manager manager;
};

TEST_F(CommandsOnDatabase, RefreshFollowsItsRecordThroughEveryState) {
    requestRefresh();
    const std::string id = manager.mstrPendingRefreshMsgID;
    for (const char* state : {"''", "'SENT'", "'done'", "'DONE '", "' DONE'", "1", "x'444F4E45'"}) {
        database.run(std::string("UPDATE Message SET State = ") + state);
        EXPECT_THAT(tick(), IsEmpty());
        EXPECT_EQ(manager.mstrPendingRefreshMsgID, id) << state;
        EXPECT_EQ(manager.mstrPendingRefreshChannels, "9,7") << state;
    }
    for (const char* response : {"NULL", "''", "'<Success>0</Success>'", "'<Success>'", "x'00'"}) {
        database.run(std::string("UPDATE Message SET State = 'DONE', Response = ") + response);
        EXPECT_THAT(tick(), IsEmpty());
        EXPECT_FALSE(manager.IsRefreshPending()) << response;
        EXPECT_EQ(manager.mstrPendingRefreshChannels, "") << response;
        requestRefresh();
    }
}

TEST_F(CommandsOnDatabase, RefreshIsForgottenWithItsRecord) {
    requestRefresh();
    database.run("UPDATE Message SET SiteID = 'B'");
    EXPECT_THAT(tick(), IsEmpty());
    EXPECT_FALSE(manager.IsRefreshPending());
    EXPECT_EQ(manager.mstrPendingRefreshChannels, "9,7");
    requestRefresh();
    database.run("DELETE FROM Message");
    EXPECT_THAT(tick(), IsEmpty());
    EXPECT_FALSE(manager.IsRefreshPending());
}

TEST_F(CommandsOnDatabase, RefreshOutlivesATableThatIsGoneForAWhile) {
    requestRefresh();
    database.run("ALTER TABLE Message RENAME TO Away");
    EXPECT_THAT(tick(), ElementsAre("4 OPC-0186: 1, no such table: Message"));
    EXPECT_TRUE(manager.IsRefreshPending());
    manager.WriteValueToChannel("P", 7, Variant(1.0));
    EXPECT_THAT(messages.take(), ElementsAre("4 OPC-0205: 1, no such table: Message",
                                             "4 OPC-0150: Could not write msg record to change channel value (7=1)"));
    database.run("ALTER TABLE Away RENAME TO Message; UPDATE Message SET State = 'DONE'");
    EXPECT_THAT(tick(), IsEmpty());
    EXPECT_FALSE(manager.IsRefreshPending());
}

}  // namespace
}  // namespace quelm
