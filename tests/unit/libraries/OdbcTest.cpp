// The same reads and writes in SQLite and, through ODBC, in PostgreSQL and MariaDB, and what a database server's
// failures cost.

#include "DB Interface Library/sql/OdbcDriver.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>

#include "DB Interface Library/DBIL.h"
#include "DB Interface Library/sql/OdbcSession.h"
#include "DB Interface Library/sql/SqliteDriver.h"
#include "base/Conversion.h"
#include "base/Raised.h"
#include "base/RuntimeError.h"
#include "base/Text.h"
#include "base/TimeSource.h"
#include "libraries/TestMariaDB.h"
#include "libraries/TestServer.h"

namespace quelm {
namespace {

using test::runOnServer;
using test::TemporaryFolder;
using test::TestDatabase;
using test::TestMariaDB;
using test::TestServer;
using testing::HasSubstr;
using testing::Not;

#define NEED_SERVER()                                                                     \
    if (TestServer::instance() == nullptr) {                                              \
        GTEST_SKIP() << "PostgreSQL or its ODBC driver is not installed on this machine"; \
    }

#define NEED_MARIADB()                                                                 \
    if (TestMariaDB::instance() == nullptr) {                                          \
        GTEST_SKIP() << "MariaDB or its ODBC driver is not installed on this machine"; \
    }

// ---- the readers, over each kind of database

enum class Kind { Sqlite, PostgreSQL, MariaDB };

class DatabasesTest : public testing::TestWithParam<Kind> {
 protected:
    void SetUp() override {
        if (GetParam() == Kind::Sqlite) {
            sqlite_.withSchema();
            connection_ = sqlite_.connectionString();
        } else if (GetParam() == Kind::PostgreSQL) {
            NEED_SERVER();
            TestServer::instance()->resetDatabase();
            connection_ = TestServer::instance()->connectionString();
        } else {
            NEED_MARIADB();
            TestMariaDB::instance()->resetDatabase();
            connection_ = TestMariaDB::instance()->connectionString();
        }
        ASSERT_TRUE(dbil_.SetupSite("S1", connection_, connection_, "", "", "", true, false));
        ASSERT_TRUE(dbil_.SetupSite("S2", connection_, connection_, "", "", "", true, false));
    }
    void run(const std::string& sql) {
        if (GetParam() == Kind::Sqlite) {
            sqlite_.run(sql);
        } else if (GetParam() == Kind::PostgreSQL) {
            runOnServer(sql);
        } else {
            TestMariaDB::instance()->run(sql);
        }
    }
    // Bytes beyond which none of the database's files can grow.
    static void limitFiles(rlim_t bytes) {
        if (GetParam() == Kind::PostgreSQL) {
            TestServer::instance()->limitFiles(bytes);
        } else {
            const rlimit limit{bytes, RLIM_INFINITY};
            EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        }
    }
    // The column that takes a text where a number is usual.
    std::string textColumn(const std::string& name) const { return GetParam() == Kind::Sqlite ? name : name + "Text"; }

    TemporaryFolder folder_;
    TestDatabase sqlite_{folder_.file("site.db")};
    std::string connection_;
    std::vector<std::string> problems_;
    DBIL dbil_{builtInSqlDrivers(), [this](std::string_view text) { problems_.emplace_back(text); }};
};

TEST_P(DatabasesTest, GiveCurrentValuesTypedAndInOneOrder) {
    run("INSERT INTO CurrentIO(SiteID, IOID, TStamp, NValue, XValue) VALUES "
        "('S1', 'C2', '2026-11-22 10:00:00.250', 12.5, NULL), ('S1', 'C1', NULL, NULL, '<Value>7;\xC3\xA4</Value>'), "
        "('S1', 'IOS.AllCommsOk', '0098-01-01 00:00:00', 1, ''), ('S2', 'C6', NULL, 1, NULL), "
        "('s1', 'C7', NULL, 1, NULL)");
    const auto snapshot = dbil_.RealtimeDB().ReadCurrentIO("S1", false);
    ASSERT_EQ(snapshot->Count(), 3U);
    EXPECT_EQ(snapshot->Records()[0].IOID, "C1");
    EXPECT_EQ(snapshot->Records()[1].IOID, "C2");
    EXPECT_EQ(snapshot->Channel(2)->NValue, Variant(12.5));
    EXPECT_DOUBLE_EQ(snapshot->Channel(2)->TStamp.days, makeDate(CivilTime{2026, 11, 22, 10, 0, 0, 250}).days);
    EXPECT_TRUE(snapshot->Channel(2)->XValue.empty());
    EXPECT_TRUE(snapshot->Channel(1)->NValue.isNull());
    EXPECT_EQ(snapshot->Channel(1)->TStamp, Date{});
    EXPECT_EQ(snapshot->Channel(1)->XValue, "<Value>7;\xC3\xA4</Value>");
    EXPECT_EQ(snapshot->Item("ios.allcommsok")->TStamp, Date{});
    EXPECT_EQ(toText(snapshot->Item("IOS.AllCommsOk")->NValue), "1");
}

TEST_P(DatabasesTest, GiveEveryTextWholeHoweverLong) {
    const auto text = [](std::size_t length) { return "<Value>" + std::string(length, 'x') + "\xE2\x82\xAC</Value>"; };
    std::string rows;
    for (const std::size_t length : {1000, 1024, 8190, 20000, 900000, 1100000}) {
        rows += (rows.empty() ? "" : ", ") + ("('S1', 'C" + std::to_string(length)) + "', 3, '" + text(length) + "')";
    }
    run("INSERT INTO CurrentIO(SiteID, IOID, NValue, XValue) VALUES " + rows);
    const auto snapshot = dbil_.RealtimeDB().ReadCurrentIO("S1", false);
    ASSERT_EQ(snapshot->Count(), 6U);
    for (const std::size_t length : {1000, 1024, 8190, 20000, 900000}) {
        EXPECT_TRUE(snapshot->Channel(static_cast<std::int32_t>(length))->XValue == text(length)) << length;
    }
    EXPECT_TRUE(snapshot->Channel(1100000)->XValue.empty());
    EXPECT_EQ(toText(snapshot->Channel(1100000)->NValue), "3");
}

TEST_P(DatabasesTest, GiveDefinitionsParametersAndSettings) {
    run("INSERT INTO Q5OPCDEF(SiteID, Position, Tagname, ID, DataType, " +
        std::string(GetParam() == Kind::MariaDB ? "`Write`" : "Write") +
        ", NullValue, DownIsValid) VALUES "
        "('S1', 2, 'Last', '[@7]', 2, -1, -1.5, 1), ('s1', 0, 'Other', '', 1, 1, 0, 0)");
    run("INSERT INTO Q5OPCDEF(SiteID, Position, Tagname, DataType, " + textColumn("NullValue") +
        ") VALUES ('S1', 1, 'First', 3, 'none')");
    run("INSERT INTO IOChannelDef VALUES ('S1', 8, NULL, NULL), ('S1', 7, 'Stack flow', 3)");
    run("INSERT INTO PIDDef VALUES (12, 101001234, '1H', 'NOx'), (13, 5, 'x', 'x')");
    run("INSERT INTO SiteSettings VALUES ('S1', 12, 2), ('S1', 13, 8)");
    run("INSERT INTO ParameterValue(SiteID, PID, IntervalType, Value, MonitorCode) VALUES ('S1', 5, '1H', 12.5, 60)");
    run("INSERT INTO ParameterValue(SiteID, PID, IntervalType, " + textColumn("Value") +
        ") VALUES ('S1', 5, '1D', 'Full load')");

    IConfigurationReader& reader = dbil_.ConfigurationReader();
    const auto definitions = reader.LoadOPCDefs("S1");
    ASSERT_TRUE(definitions && definitions->size() == 2) << testing::PrintToString(problems_);
    const OPCDef& first = (*definitions)[0];
    EXPECT_EQ(first.Tagname(), "First");
    EXPECT_EQ(first.NullValue(), Variant("none"));
    EXPECT_EQ(first.RefreshRate(), 20);
    EXPECT_THROW((void)first.ID(), RuntimeError);
    const OPCDef& last = (*definitions)[1];
    EXPECT_EQ(last.NullValue(), Variant(-1.5));
    EXPECT_TRUE(last.Write());
    EXPECT_TRUE(last.DownIsValid());
    EXPECT_EQ(last.DataType(), 2);

    const auto channels = reader.LoadChannelDefs("S1");
    ASSERT_EQ(channels->Count(), 2U);
    EXPECT_EQ(channels->Channel(7)->DefinitionType, 3);
    EXPECT_EQ(channels->Channel(8)->Name, "");
    EXPECT_EQ(reader.LoadChannelNames("S1")->Channel(7)->Name, "Stack flow");
    EXPECT_EQ(reader.LoadPIDDefinitions("S1", 12).at(0).IntervalType, "1H");
    EXPECT_EQ(reader.LoadPIDDefinitions("S1", 12).at(0).Name, "NOx");
    EXPECT_EQ(reader.LoadSiteSettings("S1", 12).FirstDayOfWeek, 2);
    EXPECT_EQ(reader.LoadSiteSettings("S1", 13).FirstDayOfWeek, 0) << "no day of the week";
    EXPECT_EQ(reader.LoadSiteSettings("S1", 14).FirstDayOfWeek, 0);

    std::vector<ParameterValue> values;
    dbil_.RealtimeDB().ReadParameterValues("S1", values);
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].Value, Variant("Full load"));
    EXPECT_TRUE(values[0].MonitorCode.isNull());
    EXPECT_EQ(values[1].Value, Variant(12.5));
    EXPECT_EQ(values[1].MonitorCode, Variant(std::int32_t{60}));
}

TEST_P(DatabasesTest, KeepMessageRecordsAsTheyWereGiven) {
    IRealtimeDB& realtime = dbil_.RealtimeDB();
    const std::string data =
        "<Command value=\"'; DROP TABLE Message; --<&\xC3\xA4\xF0\x9F\x94\xA5?\" />" + std::string(10000, 'x');
    std::string id;
    ASSERT_TRUE(realtime.InsertMessage(id, "S1", "Q6IOCOMMAND", data, "", "", "who asked"));
    const auto record = realtime.GetMessageRecord("S1", id);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->MessageData, data);
    EXPECT_EQ(record->State, "");
    EXPECT_EQ(record->Response, "");
    EXPECT_FALSE(realtime.GetMessageRecord("S2", id));
    run("UPDATE Message SET State = 'DONE', Response = '<Success>1</Success>'");
    EXPECT_EQ(realtime.GetMessageRecord("S1", id)->State, "DONE");
    EXPECT_EQ(realtime.GetMessageRecord("S1", id)->Response, "<Success>1</Success>");
}

TEST_P(DatabasesTest, TryACommandOnceMoreThatMetAnotherWrite) {
    std::vector<std::string> refusals;
    if (GetParam() == Kind::PostgreSQL) {
        refusals = {"CREATE SEQUENCE tries",
                    "CREATE FUNCTION meet() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN IF NEW.Type = 'never' OR "
                    "nextval('tries') = 1 THEN RAISE EXCEPTION 'met another' USING ERRCODE = '40001'; END IF; "
                    "RETURN NEW; END $$",
                    "CREATE TRIGGER meeting BEFORE INSERT ON Message FOR EACH ROW EXECUTE FUNCTION meet()"};
    } else if (GetParam() == Kind::MariaDB) {
        refusals = {
            "CREATE TRIGGER meeting BEFORE INSERT ON Message FOR EACH ROW IF NEW.Type = 'never' OR @tries IS NULL "
            "THEN SET @tries = 1; SIGNAL SQLSTATE '40001' SET MESSAGE_TEXT = 'met another', MYSQL_ERRNO = 1213; "
            "END IF"};
    }
    for (const std::string& sql : refusals) {
        run(sql);
    }
    std::string id;
    EXPECT_TRUE(dbil_.RealtimeDB().InsertMessage(id, "S1", "Q6IOCOMMAND", "<Command />", "", "", ""));
    EXPECT_EQ(dbil_.RealtimeDB().GetMessageRecord("S1", id)->MessageData, "<Command />");
    if (!refusals.empty()) {
        const std::string failure =
            test::failureOf([&] { dbil_.RealtimeDB().InsertMessage(id, "S1", "never", "<Command />", "", "", ""); });
        EXPECT_THAT(failure, testing::MatchesRegex(".*met another.*"));
        // As good as before: a session of its own would know nothing of the first try.
        EXPECT_TRUE(dbil_.RealtimeDB().InsertMessage(id, "S1", "Q6IOCOMMAND", "", "", "", ""));
    }
}

TEST_P(DatabasesTest, GiveEveryTransactionWholeHoweverFastTheyCome) {
    run(GetParam() == Kind::MariaDB
            ? "INSERT INTO CurrentIO(SiteID, IOID, TStamp, NValue) SELECT 'S1', CONCAT('C', seq), '2026-11-22', 0 "
              "FROM seq_100000_to_199999"
            : "WITH RECURSIVE n(i) AS (SELECT 100000 UNION ALL SELECT i + 1 FROM n WHERE i < 199999) INSERT INTO "
              "CurrentIO(SiteID, IOID, TStamp, NValue) SELECT 'S1', 'C' || i, '2026-11-22 00:00:00', 0 FROM n");
    // An I/O server as a process of its own. Transaction after transaction gives the next thousand records the
    // transaction's number and as many seconds.
    const pid_t writer = fork();
    if (writer == 0) {
        const auto connection = builtInSqlDrivers().connection(connection_);
        for (int i = 1; i < 86400; ++i) {
            const int first = 100000 + i % 100 * 1000;
            connection->execute(fmt::format("UPDATE CurrentIO SET NValue = {}, TStamp = '2026-11-22 {:02}:{:02}:{:02}' "
                                            "WHERE SiteID = 'S1' AND IOID BETWEEN 'C{}' AND 'C{}'",
                                            i, i / 3600, i / 60 % 60, i % 60, first, first + 999),
                                {});
        }
        _exit(0);
    }
    int newest = 0;
    for (int reads = 0; (reads < 12 || newest < 150) && !HasFailure(); ++reads) {
        const auto snapshot = dbil_.RealtimeDB().ReadCurrentIO("S1", false);
        EXPECT_EQ(snapshot->Count(), 100'000U);
        const int before = newest;
        for (const CurrentIORecord& record : snapshot->Records()) {
            newest = std::max(newest, toInt32(record.NValue));
        }
        // The newest number tells what every thousand must hold.
        int wrong = 0;
        int place = 0;
        for (const CurrentIORecord& record : snapshot->Records()) {
            const int number = std::max(newest - (newest - place++ / 1000 + 100) % 100, 0);
            const double stamp = makeDate(2026, 11, 22).days + number / 86400.0;
            wrong += toInt32(record.NValue) == number && std::abs(record.TStamp.days - stamp) < 1e-8 ? 0 : 1;
        }
        EXPECT_EQ(wrong, 0) << "of transactions " << before << " to " << newest;
        EXPECT_EQ(waitpid(writer, nullptr, WNOHANG), 0);
    }
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
}

TEST_P(DatabasesTest, ReadOnWhileTheDiskIsFullAndWriteAgainOnceThereIsRoom) {
    if (GetParam() == Kind::MariaDB) {
        GTEST_SKIP() << "MariaDB waits on a full disk until there is room";
    }
    run("INSERT INTO CurrentIO(SiteID, IOID, NValue) VALUES ('S1', 'C1', 2.5)");
    std::string data;
    for (std::uint32_t number = 1; data.size() < 500'000; number = number * 1664525 + 1013904223) {
        data += static_cast<char>('a' + (number >> 16) % 26);
    }
    // No file may grow further; the database's own logs have room.
    std::signal(SIGXFSZ, SIG_IGN);
    limitFiles(17 << 20);
    IRealtimeDB& realtime = dbil_.RealtimeDB();
    std::string id = "none";
    std::string failure = "none";
    for (int i = 0; i < 200 && failure == "none"; ++i) {
        id = "none";
        failure =
            test::failureOf([&] { EXPECT_TRUE(realtime.InsertMessage(id, "S1", "Q6IOCOMMAND", data, "", "", "")); });
    }
    EXPECT_THAT(failure, testing::MatchesRegex(GetParam() == Kind::Sqlite ? "778, disk I/O error"
                                                                          : "1, .*could not extend file .*"));
    EXPECT_EQ(id, "none");
    EXPECT_EQ(realtime.ReadCurrentIO("S1", false)->Channel(1)->NValue, Variant(2.5));
    EXPECT_THROW(realtime.InsertMessage(id, "S1", "Q6IOCOMMAND", data, "", "", ""), RuntimeError);
    limitFiles(RLIM_INFINITY);
    EXPECT_TRUE(realtime.InsertMessage(id, "S1", "Q6IOCOMMAND", data, "", "", ""));
    EXPECT_EQ(realtime.GetMessageRecord("S1", id)->MessageData, data);
}

INSTANTIATE_TEST_SUITE_P(All, DatabasesTest, testing::Values(Kind::Sqlite, Kind::PostgreSQL, Kind::MariaDB),
                         [](const auto& each) {
                             return each.param == Kind::Sqlite       ? "Sqlite"
                                    : each.param == Kind::PostgreSQL ? "PostgreSQL"
                                                                     : "MariaDB";
                         });

// ---- a server's failures

class OdbcTest : public testing::Test {
 protected:
    void SetUp() override { NEED_SERVER(); }
    static std::unique_ptr<ISqlConnection> connect(const std::string& text, const SqlTimeouts& timeouts = {}) {
        return OdbcDriver(timeouts).connection(ConnectionString(text));
    }
    static std::unique_ptr<ISqlConnection> connect(const SqlTimeouts& timeouts = {}) {
        return connect(TestServer::instance()->connectionString(), timeouts);
    }
    static Variant valueOf(ISqlConnection& connection, std::string_view sql, SqlParameters parameters = {}) {
        const auto rows = connection.query(sql, parameters);
        EXPECT_TRUE(rows->next());
        std::array<SqlValue, 1> columns;
        rows->read(columns);
        return sqlVariant(columns[0]);
    }
    static std::string failureOf(ISqlConnection& connection, std::string_view sql = "SELECT 1") {
        try {
            connection.query(sql, {})->next();
            return "none";
        } catch (const RuntimeError& error) {
            return error.description();
        }
    }
    static std::string sessions(ISqlConnection& connection) {
        return toText(valueOf(connection,
                              "SELECT count(*) FROM pg_stat_activity WHERE backend_type = 'client backend' "
                              "AND pid <> pg_backend_pid()"));
    }
};

TEST_F(OdbcTest, EveryColumnTypeArrivesAsWhatItIs) {
    const auto connection = connect();
    const struct {
        const char* sql;
        Variant value;
    } cases[] = {
        {"SELECT 7::smallint", Variant(std::int32_t{7})},
        {"SELECT -5000000000::bigint", Variant(Decimal::fromInteger(-5000000000))},
        {"SELECT 0.1::double precision", Variant(0.1)},
        {"SELECT 0.5::real", Variant(0.5)},
        {"SELECT 12345678901234567.89::numeric(20, 2)", Variant(Decimal::fromText("12345678901234567.89"))},
        {"SELECT 'NaN'::numeric", Variant::null()},
        {"SELECT DATE '2026-11-22'", Variant(makeDate(2026, 11, 22))},
        {"SELECT TIMESTAMP '2026-11-22 06:00:00'", Variant(makeDate(2026, 11, 22, 6, 0, 0))},
        {"SELECT TIMESTAMP '1850-01-01 06:00:00'", Variant(makeDate(1850, 1, 1, 6, 0, 0))},
        {"SELECT TIMESTAMP '0098-01-01 06:00:00'", Variant::null()},
        {"SELECT 'a'::varchar(5)", Variant("a")},
        {"SELECT ''::text", Variant("")},
        {"SELECT NULL::text", Variant::null()},
        {"SELECT NULL::double precision", Variant::null()},
        {"SELECT '\\x0102'::bytea", Variant::null()},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(valueOf(*connection, each.sql), each.value) << each.sql;
    }
    EXPECT_EQ(valueOf(*connection, "SELECT ?::text", {std::string_view("\xE2\x82\xAC'?")}), Variant("\xE2\x82\xAC'?"));
    EXPECT_EQ(valueOf(*connection, "SELECT ?::double precision", {0.1}), Variant(0.1));
    EXPECT_EQ(valueOf(*connection, "SELECT ?::bigint", {std::int64_t{-5000000000}}),
              Variant(Decimal::fromInteger(-5000000000)));
    EXPECT_TRUE(valueOf(*connection, "SELECT ?::text", {std::monostate{}}).isNull());
}

// The fastest read gives what the plain one gives, for values that are not there as well.
TEST_F(OdbcTest, AScanGivesTheSameRowsAsAQuery) {
    runOnServer(
        "DROP TABLE IF EXISTS T; CREATE TABLE T(k text, t timestamp(3), d float8, x text, z timestamptz, n numeric, "
        "r real, i int, f date, b bigint, s smallint); INSERT INTO T VALUES "
        "('a', '2026-11-22 10:00:00.257', 0.1, NULL, '2026-07-01 12:00:00+00', 1.25, 0.1, 7, '2026-11-22'), "
        "('', '1850-01-01 06:00:00', 'NaN', '', '1999-12-31 23:59:59.999+00', NULL, 'NaN', NULL, NULL), "
        "(NULL, '0098-01-01', 'Infinity', '\xC3\xA4', NULL, 0, NULL, -1, '0098-01-01'), "
        "('d', '1899-12-30', NULL, repeat('y', 3000), '1970-01-01', 'NaN', 1e30, 0, '9999-12-31'), "
        "(repeat('\xE2\x82\xAC', 500), '9999-12-31 23:59:59.999', -1e-308, 'e', NULL, 1, -1, 2, NULL), "
        "('f', NULL, -0.0, 'f', NULL, 1, -1, 2, NULL); UPDATE T SET b = 5000000000 * i, s = i - 3 WHERE k <> ''");
    struct Rows final : ISqlRowSink {
        std::string all;
        void take(std::span<const SqlValue> columns) override {
            for (const SqlValue& value : columns) {
                const bool isReal = value.type == SqlType::Real || value.type == SqlType::Date;
                const bool isText = value.type == SqlType::Text || value.type == SqlType::Decimal;
                const std::string number = isReal ? fmt::format("{}", value.real) : fmt::format("{}", value.integer);
                all += fmt::format("{} {}; ", static_cast<int>(value.type),
                                   value.type == SqlType::Null ? ""
                                   : isText                    ? value.text
                                                               : number);
            }
            all += '\n';
        }
    };
    const auto connection = connect();
    for (const char* columns : {"k, t, d, x", "z, x, k", "d, n, r, i, k, t, f", "i, k, b, s", "d", "t, k", "s"}) {
        // The second scan knows the columns' types.
        std::array<Rows, 2> scans;
        for (Rows& scanned : scans) {
            connection->scan(columns, "T WHERE ? = 1 ORDER BY i, k", {std::int64_t{1}}, scanned);
        }
        Rows queried;
        const auto rows = connection->query(fmt::format("SELECT {} FROM T ORDER BY i, k", columns), {});
        std::vector<SqlValue> values(static_cast<std::size_t>(std::count(columns, columns + strlen(columns), ',')) + 1);
        while (rows->next()) {
            rows->read(values);
            queried.take(values);
        }
        EXPECT_EQ(std::count(queried.all.begin(), queried.all.end(), '\n'), 6);
        EXPECT_EQ(scans[0].all, queried.all) << columns;
        EXPECT_EQ(scans[1].all, queried.all) << columns;
    }
    // A database that has not all of PostgreSQL's functions is read plainly.
    runOnServer(
        "CREATE SCHEMA IF NOT EXISTS other; CREATE OR REPLACE FUNCTION other.float8send(float8) RETURNS text LANGUAGE "
        "sql AS 'SELECT $1::text'; ALTER ROLE quelm SET search_path = other, pg_catalog, public");
    const auto plain = connect();
    for (int i = 0; i < 3; ++i) {
        Rows rows;
        plain->scan("d, k", "T WHERE ? = 1 AND k = 'a'", {std::int64_t{1}}, rows);
        EXPECT_EQ(rows.all,
                  fmt::format("{} 0.1; {} a; \n", static_cast<int>(SqlType::Real), static_cast<int>(SqlType::Text)));
    }
    runOnServer("ALTER ROLE quelm RESET search_path");
}

TEST(OdbcConnectTimeTest, EveryServerOfAListHasItsTime) {
    using std::chrono_literals::operator""s;
    const struct {
        const char* text;
        std::chrono::seconds given;
        std::chrono::seconds each;
        std::chrono::seconds all;
    } cases[] = {
        {"Driver=PostgreSQL Unicode;Server=a", 1s, 1s, 1s},
        {"Driver=PostgreSQL Unicode;Server=a,b", 1s, 2s, 4s},
        {"Driver=psqlodbcw.so;Servername=a,b,c", 5s, 5s, 15s},
        {"Driver=PostgreSQL Unicode;Server=a,b,c", 300s, 10s, 30s},
        {"Driver={MariaDB Unicode};Server=a, b:3307 ,c", 3s, 3s, 9s},
        {"Driver=ODBC Driver 18 for SQL Server;Server=tcp:a,1433", 1s, 1s, 1s},
        {"DSN=a,b", 5s, 5s, 5s},
    };
    for (const auto& each : cases) {
        const OdbcConnectTime time = odbcConnectTime(ConnectionString(each.text), each.given);
        EXPECT_EQ(time.each, each.each) << each.text;
        EXPECT_EQ(time.all, each.all) << each.text;
        EXPECT_EQ(OdbcDriver({.connect = each.given}).connection(ConnectionString(each.text))->timeouts().connect,
                  each.all);
    }
}

TEST_F(OdbcTest, AMariaDBStatementHasItsTimeAndAFrozenServerEndsByItself) {
    NEED_MARIADB();
    TestMariaDB::instance()->resetDatabase();
    const auto connection = connect(TestMariaDB::instance()->connectionString(),
                                    {.connect = std::chrono::seconds(1), .query = std::chrono::seconds(1)});
    EXPECT_THAT(failureOf(*connection, "SELECT COUNT(*) FROM seq_1_to_100000 a, seq_1_to_100000 b"),
                HasSubstr("max_statement_time exceeded"));
    TestMariaDB::instance()->freeze(true);
    EXPECT_THAT(failureOf(*connection), HasSubstr("Lost connection"));
    TestMariaDB::instance()->freeze(false);
    EXPECT_EQ(failureOf(*connection), "none");
    // The first server that answers is taken.
    const auto list = connect("Driver=MariaDB Unicode;Server=127.0.0.9:3399,127.0.0.8;UID=root;PWD=geheimnis");
    EXPECT_THAT(failureOf(*list),
                testing::AllOf(HasSubstr("127.0.0.9:3399: "), HasSubstr("; 127.0.0.8: "), Not(HasSubstr("geheimnis"))));
}

TEST_F(OdbcTest, AConnectionStringThatLeadsNowhereFailsWithTheReason) {
    EXPECT_THAT(failureOf(*connect("Driver=No such driver;PWD=geheim")), HasSubstr("No such driver"));
    EXPECT_THAT(failureOf(*connect("DSN=nowhere;PWD=geheim")), Not(HasSubstr("geheim")));
    EXPECT_NE(failureOf(*connect("=")), "none");
    EXPECT_EQ(failureOf(*connect(std::string(100000, 'x') + "=1")), "The connection string is longer than ODBC takes");
}

}  // namespace
}  // namespace quelm
