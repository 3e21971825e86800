#include "DB Interface Library/sql/Sql.h"

#include <gmock/gmock.h>

#include <cmath>

#include "DB Interface Library/sql/SqlDate.h"
#include "DB Interface Library/sql/SqliteDriver.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "libraries/TestDatabase.h"

namespace quelm {
namespace {

using test::TemporaryFolder;
using test::TestDatabase;

TEST(ConnectionStringTest, FindsKeysInAnyCaseAndUnwrapsValues) {
    const ConnectionString parsed(R"( DRIVER = {SQL}}ite} ;Database='a;b';Pwd="x""y";Empty=;Database=second)");
    EXPECT_EQ(*parsed.find("driver"), "SQL}ite");
    EXPECT_EQ(*parsed.find("DATABASE"), "a;b");
    EXPECT_EQ(*parsed.find("pwd"), "x\"y");
    EXPECT_EQ(*parsed.find("Empty"), "");
    EXPECT_EQ(parsed.find("Server"), nullptr);
}

TEST(ConnectionStringTest, PasswordsNeverShow) {
    const std::pair<const char*, const char*> cases[] = {
        {"Driver=x;UID=a;PWD=geheim;Server=s", "Driver=x;UID=a;PWD=***;Server=s"},
        {"password = {geh;eim} ;Server=s", "password=***;Server=s"},
        {"Pwd={geh;eim", "Pwd=***"},
        {"PWD='geh;ei''m';Server=s", "PWD=***;Server=s"},
        {"PWD=geh;eim;Server=s", "PWD=***;***;Server=s"},
        {"SslPassword=geheim", "SslPassword=***"},
        {"geheim", "***"},
        {"Driver=SQLite;Database={a b.db;PWD=geheim", "Driver=SQLite;Database=***"},
        {"Database=a.db Password=geheim;Driver=SQLite", "Database=***;Driver=SQLite"},
        {"", ""},
    };
    for (const auto& [text, shown] : cases) {
        EXPECT_EQ(redactConnectionString(text), shown);
    }
}

TEST(ConnectionStringTest, PasswordsAreTakenOutOfWhatADatabaseSays) {
    const ConnectionString parsed("Server=s;PWD={geh;eim4u};SslPassword=ro;Password=;Token=plant");
    const std::pair<const char*, const char*> cases[] = {
        {"user s: geh;eim4u, geh;eim4u", "user s: ***, ***"},
        {"Error: host plant-db.plant.example, role \"ro\"", "Error: host plant-db.plant.example, role \"ro\""},
        {"PWD=geh;eim4u;UID=s", "PWD=***;UID=s"},
        {"pwd = {other};password: ro, sslpassword='a b' token=plant",
         "pwd = ***;password: ***, sslpassword=*** token=***"},
        {"password authentication failed: no PWD=", "password authentication failed: no PWD="},
    };
    for (const auto& [said, shown] : cases) {
        EXPECT_EQ(parsed.withoutPasswords(said), shown);
    }
}

template <class Call>
RuntimeError errorOf(Call call) {
    try {
        call();
    } catch (const RuntimeError& error) {
        return error;
    }
    ADD_FAILURE() << "nothing was raised";
    return RuntimeError(0);
}

TEST(SqlDriversTest, SaysWhatIsMissing) {
    const SqlDrivers drivers = builtInSqlDrivers();
    const RuntimeError noDriver = errorOf([&] { (void)drivers.connection("plant"); });
    EXPECT_EQ(noDriver.number(), sqlNoDriver);
    EXPECT_EQ(noDriver.description(), "Not a connection string: nothing in it reads key=value");
    EXPECT_EQ(errorOf([&] { (void)drivers.connection("driver=sqlite"); }).number(), errors::invalidCall);
    EXPECT_NO_THROW((void)drivers.connection("driver={SQLite};database=x"));
    EXPECT_NO_THROW((void)drivers.connection("DSN=plant"));
}

TEST(SqlValueTest, TakesWholeNumbersFromEveryNumberType) {
    const auto real = [](double number) {
        SqlValue value{SqlType::Real, {}, {}};
        value.real = number;
        return value;
    };
    const std::pair<SqlValue, std::optional<std::int32_t>> cases[] = {
        {{SqlType::Integer, {101001234}, {}}, 101001234},
        {{SqlType::Integer, {-3'000'000'000}, {}}, std::nullopt},
        {{SqlType::Decimal, {}, "101001234.000"}, 101001234},
        {real(-7), -7},
        {real(7.5), std::nullopt},
        {real(std::nan("")), std::nullopt},
        {{SqlType::Text, {}, "7"}, std::nullopt},
        {{}, std::nullopt},
    };
    for (const auto& [value, number] : cases) {
        EXPECT_EQ(sqlWholeNumber(value), number);
    }
}

class SqliteTest : public testing::Test {
 protected:
    static std::unique_ptr<ISqlConnection> connect(const std::string& path, SqliteTimeouts timeouts = {}) {
        return SqliteDriver(timeouts).connection(ConnectionString("Driver=SQLite;Database=" + path));
    }
    static std::int64_t countOf(ISqlConnection& connection) {
        std::array<SqlValue, 1> columns;
        const auto rows = connection.query("SELECT COUNT(*) FROM T", {});
        rows->next();
        rows->read(columns);
        return columns[0].integer;
    }

    TemporaryFolder folder_;
    const std::string path_ = folder_.file("a.db");
    TestDatabase plant_{path_};
    std::unique_ptr<ISqlConnection> connection_ =
        connect(path_, {std::chrono::milliseconds(1), std::chrono::seconds(10)});
};

TEST_F(SqliteTest, FailsClearlyAndNeverMakesAFile) {
    EXPECT_EQ(errorOf([&] { connect(folder_.file("missing.db"))->test(); }).number(), SQLITE_CANTOPEN);
    EXPECT_FALSE(std::filesystem::exists(folder_.file("missing.db")));
    EXPECT_THROW(connect(folder_.path())->test(), RuntimeError);
    // A path that has taken a password in.
    EXPECT_EQ(errorOf([&] { connect("{/nowhere;PWD=geheim")->test(); }).description(),
              "unable to open database file '***': No such file or directory");
}

TEST_F(SqliteTest, ComesBackWhenTheFileComesBackOrIsReplaced) {
    plant_.run("CREATE TABLE T(a); INSERT INTO T VALUES (1)");
    TestDatabase(folder_.file("restored.db")).run("CREATE TABLE T(a); INSERT INTO T VALUES (1), (2)");
    EXPECT_EQ(countOf(*connection_), 1);
    std::filesystem::rename(folder_.file("restored.db"), path_);
    EXPECT_EQ(countOf(*connection_), 2);
    std::filesystem::rename(path_, folder_.file("away.db"));
    EXPECT_THROW(countOf(*connection_), RuntimeError);
    std::filesystem::rename(folder_.file("away.db"), path_);
    EXPECT_EQ(countOf(*connection_), 2);
    EXPECT_THROW(connection_->execute("INSERT INTO Nowhere VALUES (1)", {}), RuntimeError);
    EXPECT_EQ(countOf(*connection_), 2);
    connection_->close();
    EXPECT_EQ(countOf(*connection_), 2);
}

TEST_F(SqliteTest, ARunawayQueryIsStopped) {
    const auto hasty = connect(path_, {std::chrono::milliseconds(1), std::chrono::milliseconds(0)});
    const RuntimeError error = errorOf([&] {
        hasty->execute("WITH RECURSIVE r(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM r) SELECT COUNT(*) FROM r", {});
    });
    EXPECT_EQ(error.description(), "the query took longer than 0 ms");
    plant_.run("CREATE TABLE T(a)");
    EXPECT_EQ(countOf(*hasty), 0);
}

class CountingSink final : public ISqlRowSink {
 public:
    explicit CountingSink(std::int64_t limit) : limit_(limit) {}
    void take(std::span<const SqlValue> columns) override {
        sum += columns[1].integer;
        if (sum > limit_) {
            throw RuntimeError(errors::overflow);
        }
    }
    std::int64_t sum = 0;

 private:
    std::int64_t limit_;
};

TEST_F(SqliteTest, AScanHandsOverEveryRowAndWhatTheSinkRaisesReachesTheCaller) {
    plant_.run("CREATE TABLE T(a, b); INSERT INTO T VALUES ('x', 1), ('x', 2), ('y', 4)");
    CountingSink all(100);
    connection_->scan("a, b", "T WHERE a = ?", {std::string_view("x")}, all);
    connection_->scan("a, b", "T WHERE a = ?", {std::string_view("none")}, all);
    EXPECT_EQ(all.sum, 3);
    CountingSink refusing(1);
    EXPECT_EQ(errorOf([&] { connection_->scan("a, b", "T", {}, refusing); }).number(), errors::overflow);
    EXPECT_EQ(refusing.sum, 3);
    EXPECT_EQ(errorOf([&] { connection_->scan("a, b", "Nowhere", {}, all); }).description(), "no such table: Nowhere");
    plant_.run("CREATE VIEW V AS SELECT quelm_take(a, b) AS c FROM T");
    EXPECT_THROW(connection_->query("SELECT c FROM V", {})->next(), RuntimeError);
    connection_->scan("a, b", "T", {}, all);
    EXPECT_EQ(all.sum, 10);
}

SqlValue textValue(std::string_view text) {
    SqlValue value;
    value.type = SqlType::Text;
    value.text = text;
    return value;
}

TEST(SqlDateTest, ReadsEveryFormAndNothingElse) {
    const Date noon = makeDate(2026, 11, 22, 12, 0, 0);
    const std::pair<const char*, Date> cases[] = {
        {"2026-11-22 12:00:00", noon},
        {"2026-11-22 12:00:00.250", makeDate(CivilTime{2026, 11, 22, 12, 0, 0, 250})},
        {"2026-11-22 12:00", noon},
        {"2026-11-22", makeDate(2026, 11, 22)},
        {"1850-01-01 06:00:00", makeDate(1850, 1, 1, 6, 0, 0)},
        {"2026-11-2", makeDate(2026, 11, 2)},
    };
    SqlDateReader reader;
    for (const auto& [text, date] : cases) {
        EXPECT_DOUBLE_EQ(reader.read(textValue(text)).days, date.days) << text;
        EXPECT_DOUBLE_EQ(reader.read(textValue(text)).days, date.days) << text << " again";
    }
    for (const char* none :
         {"", "2026-02-29 00:00:00", "2026-13-22 12:00:00", "yesterday at noon, sir", "2026-11-22 24:00:00",
          "2026-11-22 12:60:00", "2026-11-22 12:00:00.12x", "2026-11-22 12:00:00.1234567890", "2026-11-22 12:00:00Z",
          "2026-11-22T12:00:00+01:00", "2026-11-22 12:00:00.000000000000000000000000"}) {
        EXPECT_EQ(reader.read(textValue(none)).days, 0) << none;
    }
}

TEST(SqlDateTest, ReadsDayNumbersWithinADatesRange) {
    SqlDateReader reader;
    const auto real = [&reader](double days) {
        SqlValue value;
        value.type = SqlType::Real;
        value.real = days;
        return reader.read(value).days;
    };
    EXPECT_EQ(real(46348.5), 46348.5);
    EXPECT_EQ(real(1.7e9), 0);
    EXPECT_EQ(real(-1e300), 0);
    EXPECT_EQ(reader.read(SqlValue{}).days, 0);
}

}  // namespace
}  // namespace quelm
