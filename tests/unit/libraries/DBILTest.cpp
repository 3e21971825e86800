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
               (3, 'S1', 1, x'03', 77, 2.0, 3, -1, 'none', 1, 0, 99999999999))");
    setUpSite();
    const auto definitions = dbil_.ConfigurationReader().LoadOPCDefs("S1");
    ASSERT_EQ(definitions->size(), 2U);
    const OPCDef& odd = (*definitions)[0];
    EXPECT_EQ(odd.Tagname(), "");
    EXPECT_EQ(odd.ID(), "77");
    EXPECT_EQ(odd.TagType(), 2);
    EXPECT_TRUE(odd.Write());
    EXPECT_EQ(odd.NullValue(), Variant("none"));
    EXPECT_EQ(raisedBy([&] { (void)odd.RefreshRate(); }), errors::overflow);
    EXPECT_TRUE((*definitions)[1].DownIsValid());
    EXPECT_FALSE((*definitions)[1].UseSubstatus());

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

}  // namespace
}  // namespace quelm
