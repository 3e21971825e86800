// Command message records in a real database: what is written, how it is found again, and what failures leave behind.

#include <gmock/gmock.h>

#include <set>

#include "DB Interface Library/DBIL.h"
#include "DB Interface Library/MessageIDs.h"
#include "DB Interface Library/sql/SqliteDriver.h"
#include "base/Date.h"
#include "base/Raised.h"
#include "base/RuntimeError.h"
#include "base/TimeSource.h"
#include "libraries/TestDatabase.h"

namespace quelm {
namespace {

using test::TemporaryFolder;
using test::TestDatabase;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Rows = std::vector<std::string>;

// ---- IDs

TEST(MessageIDsTest, AreUuidsThatAscendWhateverTheClockDoes) {
    ManualTimeSource time(makeDate(2026, 11, 16, 8, 0, 0), 60);
    const ScopedTimeSource inForce(time);
    MessageIDs ids;
    const std::string first = ids.next();
    // 2026-11-16 07:00:00 UTC is 1794812400000 (1A1E327D180) ms after 1970.
    EXPECT_THAT(first, testing::MatchesRegex("01a1e327-d180-7000-[89ab]...-............"));

    Rows made{first};
    for (int i = 0; i < 5000; ++i) {  // more than one millisecond has room for
        made.push_back(ids.next());
    }
    time.setLocal(makeDate(2026, 11, 16, 7, 0, 0));
    made.push_back(ids.next());
    time.setLocal(makeDate(2026, 11, 16, 8, 0, 1));
    made.push_back(ids.next());
    EXPECT_TRUE(std::is_sorted(made.begin(), made.end()));
    EXPECT_EQ(std::set<std::string>(made.begin(), made.end()).size(), made.size());
    EXPECT_EQ(std::stoull(made.back().substr(0, 8) + made.back().substr(9, 4), nullptr, 16), 1794812401000U);
}

TEST(MessageIDsTest, DifferBetweenProgramsAtTheSameInstant) {
    ManualTimeSource time(makeDate(1960, 1, 1));  // before the epoch: the time part is 0
    const ScopedTimeSource inForce(time);
    const std::string made = MessageIDs().next();
    EXPECT_TRUE(made.starts_with("00000000-0000-7"));
    EXPECT_NE(MessageIDs().next(), made);
}

// ---- records

class MessageRecordsTest : public testing::Test {
 protected:
    MessageRecordsTest() {
        database_.withSchema();
        const std::string connection = database_.connectionString();
        for (const char* site : {"S1", "S2"}) {
            EXPECT_TRUE(dbil_.SetupSite(site, connection, connection, "", "", "", true, false));
        }
    }
    static SqlDrivers impatientDrivers() {
        SqlDrivers drivers;
        drivers.add(std::make_unique<SqliteDriver>(SqliteTimeouts{.lock = std::chrono::milliseconds(5)}));
        return drivers;
    }
    bool insert(std::string_view site, std::string_view data, std::string_view queue = "Q6IOCOMMAND") {
        return dbil_.RealtimeDB().InsertMessage(id_, site, queue, data, "one", "two", "who asked");
    }
    std::string failureOfInsert() {
        return test::failureOf([this] { insert("S1", "<Command />"); });
    }
    Rows rows(const std::string& sql) {
        sqlite3* database = nullptr;
        Rows found;
        EXPECT_EQ(sqlite3_open(folder_.file("site.db").c_str(), &database), SQLITE_OK);
        const auto collect = [](void* out, int count, char** values, char**) {
            std::string row;
            for (int i = 0; i < count; ++i) {
                row += std::string(i == 0 ? "" : "|") + (values[i] == nullptr ? "NULL" : values[i]);
            }
            static_cast<Rows*>(out)->push_back(row);
            return 0;
        };
        char* error = nullptr;
        EXPECT_EQ(sqlite3_exec(database, sql.c_str(), collect, &found, &error), SQLITE_OK) << (error ? error : "");
        sqlite3_free(error);
        sqlite3_close(database);
        return found;
    }

    ManualTimeSource time_{Date{makeDate(2026, 11, 16, 8, 25, 13).days + 0.75 / 86400}};
    ScopedTimeSource inForce_{time_};
    TemporaryFolder folder_;
    TestDatabase database_{folder_.file("site.db")};
    DBIL dbil_{impatientDrivers(), [](std::string_view) {}};
    std::string id_;
};

TEST_F(MessageRecordsTest, StandInTheTableAsTheyWereGiven) {
    const std::string command = "<Command value=\"'; DROP TABLE Message; --<&\xC3\xA4\" />";
    ASSERT_TRUE(insert("S1", command));
    EXPECT_THAT(rows("SELECT ID, SiteID, Type, Data, Text1, Text2, Description, State, Response, Created FROM Message"),
                ElementsAre(id_ + "|S1|Q6IOCOMMAND|" + command + "|one|two|who asked||NULL|2026-11-16 08:25:13.750"));
    EXPECT_FALSE(dbil_.RealtimeDB().GetMessageRecord("S2", id_));
    EXPECT_FALSE(dbil_.RealtimeDB().GetMessageRecord("S1", "another"));
}

TEST_F(MessageRecordsTest, AreVisibleToTheIOServersAtOnceInTheOrderOfWriting) {
    for (const char* data : {"first", "second", "third"}) {
        ASSERT_TRUE(insert("S1", data));
        time_.advanceMilliseconds(-3'600'000);  // daylight saving ends again and again
    }
    ASSERT_TRUE(insert("S1", "other queue", "Q5IOCOMMAND"));
    ASSERT_TRUE(insert("S2", "other site"));
    EXPECT_THAT(
        rows("SELECT Data FROM Message WHERE SiteID = 'S1' AND Type = 'Q6IOCOMMAND' AND State = '' ORDER BY ID"),
        ElementsAre("first", "second", "third"));
}

TEST_F(MessageRecordsTest, AreFoundThroughTheIndexes) {
    const auto plan = [this](const std::string& sql) {
        return testing::PrintToString(rows("EXPLAIN QUERY PLAN " + sql));
    };
    const std::string byID = plan("SELECT State, Response, Data FROM Message WHERE SiteID = 'S1' AND ID = 'x'");
    EXPECT_THAT(byID, HasSubstr("SEARCH Message USING PRIMARY KEY (ID=?)"));
    const std::string byQueue =
        plan("SELECT ID, Data FROM Message WHERE SiteID = 'S1' AND Type = 'q' AND State = '' ORDER BY ID");
    EXPECT_THAT(byQueue, HasSubstr("USING INDEX Message_Queue (SiteID=? AND Type=? AND State=?)"));
    EXPECT_THAT(byQueue, Not(HasSubstr("TEMP B-TREE")));
}

TEST_F(MessageRecordsTest, RaiseWhatTheDatabaseRaisesAndLeaveNothing) {
    id_ = "as before";
    // Another program in the middle of its own write.
    database_.run("BEGIN IMMEDIATE");
    EXPECT_EQ(failureOfInsert(), "5, database is locked");
    database_.run("COMMIT; CREATE TRIGGER Refuse BEFORE INSERT ON Message BEGIN SELECT RAISE(ABORT, 'disk full'); END");
    EXPECT_EQ(failureOfInsert(), "1811, disk full");
    database_.run("DROP TRIGGER Refuse");
    EXPECT_THAT(rows("SELECT count(*) FROM Message"), ElementsAre("0"));
    EXPECT_EQ(id_, "as before");
    EXPECT_TRUE(insert("S1", "<Command />"));
    database_.run("DROP TABLE Message");
    EXPECT_EQ(failureOfInsert(), "1, no such table: Message");
    EXPECT_THROW(insert("S3", "<Command />"), RuntimeError);
}

TEST_F(MessageRecordsTest, AreNotCreatedWhenTheDatabaseTakesThemInSilence) {
    id_ = "as before";
    database_.run("CREATE TRIGGER Ignore BEFORE INSERT ON Message BEGIN SELECT RAISE(IGNORE); END");
    EXPECT_FALSE(insert("S1", "<Command />"));
    EXPECT_EQ(id_, "as before");
}

}  // namespace
}  // namespace quelm
