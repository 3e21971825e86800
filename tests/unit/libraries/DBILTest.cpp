#include "DB Interface Library/DBIL.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "base/Raised.h"
#include "libraries/TestDatabase.h"

namespace quelm {
namespace {

using test::raisedBy;
using test::TemporaryFolder;
using test::TestDatabase;
using testing::ElementsAre;

class DBILTest : public testing::Test {
 protected:
    DBILTest() { database_.withSchema(); }

    void setUpSite() { ASSERT_TRUE(setUp("S1", database_.connectionString(), database_.connectionString())); }
    bool setUp(const char* site, const std::string& configuration, const std::string& realtime) {
        return dbil_.SetupSite(site, configuration, realtime, "", "", "", true, false);
    }

    TemporaryFolder folder_;
    TestDatabase database_{folder_.file("site.db")};
    std::vector<std::string> problems_;
    DBIL dbil_{builtInSqlDrivers(), [this](std::string_view text) { problems_.emplace_back(text); }};
};

TEST_F(DBILTest, RefusesASiteWithoutTwoUsableConnections) {
    EXPECT_FALSE(setUp("S1", database_.connectionString(), "DSN;geheim"));
    EXPECT_FALSE(setUp("S1", "", ""));
    EXPECT_EQ(problems_[0], "Site 'S1': connection 1 (Driver=SQLite;Database=" + folder_.file("site.db") +
                                ") or 2 (***;***) is not usable: 3706, Not a connection string: nothing in it reads "
                                "key=value");
    EXPECT_THROW(dbil_.RealtimeDB().ReadCurrentIO("S1", false), RuntimeError);
    EXPECT_FALSE(dbil_.TestConnections("S1", true, true, false, false, false, false));
}

TEST_F(DBILTest, TestsTheChosenConnectionsOfEverySite) {
    setUpSite();
    EXPECT_TRUE(dbil_.TestConnections("", true, true, false, false, false, true));
    EXPECT_FALSE(dbil_.TestConnections("S1", false, false, true, false, false, false));
    EXPECT_THAT(problems_, ElementsAre());

    const std::string missing = "Driver=SQLite;Password=geheim;Database=" + folder_.file("missing.db");
    ASSERT_TRUE(setUp("S2", database_.connectionString(), missing));
    EXPECT_FALSE(dbil_.TestConnections("", true, true, false, false, false, true));
    EXPECT_TRUE(dbil_.TestConnections("S2", true, false, false, false, false, true));
    EXPECT_THAT(problems_, ElementsAre("Site 'S2': connection 2 (Driver=SQLite;Password=***;Database=" +
                                       folder_.file("missing.db") + ") failed: 14, unable to open database file '" +
                                       folder_.file("missing.db") + "': No such file or directory"));
    TestDatabase(folder_.file("missing.db")).run("CREATE TABLE Unrelated(a)");
    EXPECT_TRUE(dbil_.TestConnections("", true, true, false, false, false, true));
}

TEST_F(DBILTest, TerminateMayBeRepeatedAndAReadConnectsAgain) {
    setUpSite();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(dbil_.RealtimeDB().ReadCurrentIO("S1", false)->Count(), 0U);
        dbil_.Terminate();
        dbil_.Terminate();
    }
}

TEST_F(DBILTest, ReadsItemDefinitionsInOrderAndKeepsDamageToItsField) {
    database_.run(R"(
        INSERT INTO Q5OPCDEF(RecordID, SiteID, Position, Tagname, ID, TagType, DataType, Write, NullValue, DownIsValid,
                             UseSubstatus, RefreshRate)
        VALUES (1, 'S1', 2, 'Last', '[@7]', 1, 2, 0, -1.5, 'yes', 'FALSE', 20),
               (2, 'S1', 1, 'Damaged', NULL, 'x', x'01', 2, x'02', NULL, 'maybe', 1.5),
               (3, 'S1', 1, x'03', 77, 2.0, 3, -1, 'none', 1, 0, 99999999999),
               (4, 's1', 0, 'Another site', '', 1, 1, 0, 0, 0, 0, 1))");
    setUpSite();
    const auto definitions = dbil_.ConfigurationReader().LoadOPCDefs("S1");
    ASSERT_EQ(definitions->size(), 3U);
    const OPCDef& damaged = (*definitions)[0];
    EXPECT_EQ(damaged.TagType(), 0);
    EXPECT_TRUE(damaged.NullValue().isNull());
    EXPECT_EQ(raisedBy([&] { (void)damaged.ID(); }), errors::invalidUseOfNull);
    EXPECT_EQ(raisedBy([&] { (void)damaged.DownIsValid(); }), errors::invalidUseOfNull);
    EXPECT_EQ(raisedBy([&] { (void)damaged.Write(); }), errors::typeMismatch);
    EXPECT_EQ(raisedBy([&] { (void)damaged.UseSubstatus(); }), errors::typeMismatch);
    EXPECT_EQ(raisedBy([&] { (void)damaged.RefreshRate(); }), errors::typeMismatch);

    const OPCDef& odd = (*definitions)[1];
    EXPECT_EQ(odd.Tagname(), "");
    EXPECT_EQ(odd.ID(), "77");
    EXPECT_EQ(odd.TagType(), 2);
    EXPECT_TRUE(odd.Write());
    EXPECT_EQ(odd.NullValue(), Variant("none"));
    EXPECT_EQ(raisedBy([&] { (void)odd.RefreshRate(); }), errors::overflow);

    const OPCDef& last = (*definitions)[2];
    EXPECT_TRUE(last.DownIsValid());
    EXPECT_FALSE(last.UseSubstatus());
    EXPECT_EQ(last.NullValue(), Variant(-1.5));
    EXPECT_EQ(last.RefreshRate(), 20);

    database_.run("DROP TABLE Q5OPCDEF");
    EXPECT_EQ(dbil_.ConfigurationReader().LoadOPCDefs("S1"), nullptr);
    EXPECT_THAT(problems_, ElementsAre("Site 'S1': cannot read the OPC item definitions: 1, no such table: Q5OPCDEF"));
}

TEST(OPCDef, TakesWholeNumbersInEveryFormThatADatabaseDelivers) {
    const std::pair<Variant, std::int32_t> cases[] = {{Variant(std::int32_t{1}), 1},
                                                      {Variant(std::int16_t{1}), 1},
                                                      {Variant(1.0), 1},
                                                      {Variant(Decimal::fromText("1")), 1},
                                                      {Variant(1.5), 0},
                                                      {Variant(3e9), 0},
                                                      {Variant("1"), 0},
                                                      {Variant::null(), 0}};
    for (const auto& [column, tagType] : cases) {
        OPCDef::Columns columns;
        columns.TagType = column;
        EXPECT_EQ(OPCDef(columns).TagType(), tagType);
    }
}

TEST_F(DBILTest, ReadsChannelsParametersAndSettings) {
    database_.run(R"(
        DROP TABLE IOChannelDef; CREATE TABLE IOChannelDef(SiteID, ChannelID, Name, DefType);
        INSERT INTO IOChannelDef VALUES ('S1', 7, 'Stack flow', 3), ('S1', 7, 'Again', 1), ('S1', NULL, 'x', 1),
                                        ('S1', 'seven', 'x', 1), ('S1', 8.0, NULL, 'x'), ('S2', 9, 'Other', 1);
        INSERT INTO PIDDef VALUES (12, 101001234, '1H', 'NOx'), (12, 101001235, NULL, NULL), (13, 5, 'x', 'x');
        INSERT INTO SiteSettings VALUES ('S1', 12, 2), ('S1', 13, 8))");
    setUpSite();
    IConfigurationReader& reader = dbil_.ConfigurationReader();
    const auto channels = reader.LoadChannelDefs("S1");
    ASSERT_EQ(channels->Count(), 2U);
    EXPECT_EQ(channels->Channel(7)->Name, "Stack flow");
    EXPECT_EQ(channels->Channel(7)->DefinitionType, 3);
    EXPECT_EQ(channels->Channel(8)->Name, "");
    EXPECT_EQ(channels->Channel(8)->DefinitionType, 0);
    EXPECT_EQ(channels->Channel(9), nullptr);

    const std::vector<PIDDefinition> parameters = reader.LoadPIDDefinitions("S1", 12);
    ASSERT_EQ(parameters.size(), 2U);
    EXPECT_EQ(parameters[0].IntervalType, "1H");
    EXPECT_EQ(parameters[1].IntervalType, "");
    EXPECT_EQ(reader.LoadSiteSettings("S1", 12).FirstDayOfWeek, 2);
    EXPECT_EQ(reader.LoadSiteSettings("S1", 13).FirstDayOfWeek, 0);
    EXPECT_EQ(reader.LoadSiteSettings("S1", 14).FirstDayOfWeek, 0);
}

TEST_F(DBILTest, ReadsCurrentIOTypedAndSkipsRowsWithoutKey) {
    database_.run(R"(
        DROP TABLE CurrentIO; CREATE TABLE CurrentIO(SiteID, IOID, IsHDR, TStamp, NValue, XValue);
        INSERT INTO CurrentIO VALUES ('S1', NULL, 0, NULL, 1, NULL), ('S1', 'C1', 0, '2026-11-22 10:00:00', 12.5, NULL),
            ('S1', 'C2', 0, x'01', 7, '<Value>7;8</Value>'), ('S1', 'C3', 0, 46348.5, NULL, x'02'),
            ('S1', 'C4', 0, 'soon', '8.5', 3), ('S1', x'43', 0, '', 1, ''), ('S1', 'C5', NULL, NULL, 4294967296, NULL),
            ('S2', 'C6', 0, NULL, 1, NULL))");
    setUpSite();
    const auto snapshot = dbil_.RealtimeDB().ReadCurrentIO("S1", false);
    ASSERT_EQ(snapshot->Count(), 5U);
    EXPECT_EQ(snapshot->Channel(1)->NValue, Variant(12.5));
    EXPECT_EQ(snapshot->Channel(1)->TStamp, makeDate(2026, 11, 22, 10, 0, 0));
    EXPECT_EQ(snapshot->Channel(2)->NValue, Variant(std::int32_t{7}));
    EXPECT_EQ(snapshot->Channel(2)->TStamp, Date{});
    EXPECT_EQ(snapshot->Channel(2)->XValue, "<Value>7;8</Value>");
    EXPECT_TRUE(snapshot->Channel(3)->NValue.isNull());
    EXPECT_EQ(snapshot->Channel(3)->TStamp, Date{46348.5});
    EXPECT_TRUE(snapshot->Channel(3)->XValue.empty());
    EXPECT_EQ(snapshot->Channel(4)->NValue, Variant("8.5"));
    EXPECT_EQ(snapshot->Channel(5)->NValue, Variant(Decimal::fromInteger(4294967296)));
}

TEST_F(DBILTest, SnapshotsStayAsTheyWereWhileLaterOnesAreRead) {
    setUpSite();
    IRealtimeDB& realtime = dbil_.RealtimeDB();
    database_.run(
        "INSERT INTO CurrentIO(SiteID, IOID, NValue, XValue) VALUES ('S1', 'C1', 0, 'a'), ('S1', 'C2', 0, '')");
    std::vector<std::shared_ptr<const CurrentIOCollection>> kept;
    for (std::int32_t i = 1; i <= 6; ++i) {
        database_.run(fmt::format("UPDATE CurrentIO SET NValue = {0}, XValue = 'x{0}'", i));
        auto snapshot = realtime.ReadCurrentIO("S1", false);
        EXPECT_EQ(snapshot->Channel(2)->NValue, Variant(i));
        kept.push_back(i % 2 == 0 ? std::move(snapshot) : nullptr);
    }
    for (std::int32_t i : {2, 4, 6}) {
        EXPECT_EQ(kept[i - 1]->Channel(1)->NValue, Variant(i));
        EXPECT_EQ(kept[i - 1]->Channel(1)->XValue, fmt::format("x{}", i));
    }
    database_.run("DELETE FROM CurrentIO WHERE IOID = 'C1'; INSERT INTO CurrentIO(SiteID, IOID) VALUES ('S1', 'A1')");
    for (int i = 0; i < 3; ++i) {
        const auto snapshot = realtime.ReadCurrentIO("S1", false);
        EXPECT_EQ(snapshot->Channel(1), nullptr);
        EXPECT_NE(snapshot->Item("a1"), nullptr);
        EXPECT_NE(snapshot->Channel(2), nullptr);
    }
    database_.run("DELETE FROM CurrentIO WHERE IOID = 'C2'");
    EXPECT_EQ(realtime.ReadCurrentIO("S1", false)->Channel(2), nullptr);
}

TEST_F(DBILTest, ReadsParameterValues) {
    database_.run(R"(
        INSERT INTO ParameterValue VALUES ('S1', 5, '1H', 12.5, 60, NULL), ('S1', 5, '1D', 'text', NULL, 'x'),
                                          ('S1', 'five', '1H', 1, 1, NULL), ('S2', 6, '1H', 1, 1, NULL))");
    setUpSite();
    std::vector<ParameterValue> values(7);
    dbil_.RealtimeDB().ReadParameterValues("S1", values);
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].IntervalType, "1D");
    EXPECT_EQ(values[0].Value, Variant("text"));
    EXPECT_TRUE(values[0].MonitorCode.isNull());
    EXPECT_EQ(values[1].PID, 5);
    EXPECT_EQ(values[1].MonitorCode, Variant(std::int32_t{60}));
}

}  // namespace
}  // namespace quelm
