// A site's snapshot of current values, replaced whole: from rows in memory, beside a loop that only copies their
// values; out of an SQLite file, beside a loop that steps over the same rows and takes nothing; and out of a PostgreSQL
// server through ODBC, beside the fetch of the same rows by the server's own client library in binary form.

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <libpq-fe.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "DB Interface Library/CurrentIO.h"
#include "DB Interface Library/RealtimeDB.h"
#include "DB Interface Library/SiteTable.h"
#include "DB Interface Library/sql/Sql.h"

namespace quelm {
namespace {

constexpr std::int32_t recordCount = 100'000;
// A site of its own for each size.
constexpr std::int32_t serverSizes[] = {1'000, 10'000, 100'000};
constexpr const char* query = "SELECT IOID, TStamp, NValue, XValue FROM CurrentIO WHERE SiteID = ? ORDER BY IOID";

struct Row {
    std::string key;
    std::string stamp;
    double value = 0;
};

// The I/O server writes its channels in the course of some seconds.
std::string stampOf(std::int32_t number) {
    return fmt::format("2026-11-16 08:25:{:02}.{:03}", number / 10'000, number / 100 % 10 * 100);
}

std::vector<Row> rowsInMemory() {
    std::vector<Row> rows;
    for (std::int32_t number = 1; number <= recordCount; ++number) {
        rows.push_back({fmt::format("C{}", number), stampOf(number), 20.0 + number * 0.013});
    }
    std::sort(rows.begin(), rows.end(), [](const Row& left, const Row& right) { return left.key < right.key; });
    return rows;
}

void hand(const std::vector<Row>& rows, ISqlRowSink& sink) {
    std::array<SqlValue, 4> columns;
    columns[0].type = SqlType::Text;
    columns[1].type = SqlType::Text;
    columns[2].type = SqlType::Real;
    for (const Row& row : rows) {
        columns[0].text = row.key;
        columns[1].text = row.stamp;
        columns[2].real = row.value;
        sink.take(columns);
    }
}

void perRecord(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * recordCount);
}

void memorySnapshot(benchmark::State& state) {
    const std::vector<Row> rows = rowsInMemory();
    CurrentIOSnapshots snapshots;
    std::shared_ptr<const CurrentIOCollection> published;
    const auto replace = [&] {
        published = snapshots.take(snapshots.begin().fill([&](ISqlRowSink& sink) { hand(rows, sink); }));
    };
    replace();
    replace();
    for (auto _ : state) {
        replace();
    }
    if (published->Count() != recordCount) {
        state.SkipWithError("records are missing");
    }
    perRecord(state);
}

void memoryFloor(benchmark::State& state) {
    const std::vector<Row> rows = rowsInMemory();
    std::vector<CurrentIORecord> records(rows.size());
    for (auto _ : state) {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            records[i].IOID = rows[i].key;
            records[i].NValue = Variant(rows[i].value);
        }
        benchmark::ClobberMemory();
    }
    perRecord(state);
}

// The site's database as the product's own schema makes it, filled once for the whole run.
class DatabaseFile {
 public:
    DatabaseFile() {
        std::string name = (std::filesystem::temp_directory_path() / "quelm-bench-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary folder");
        }
        folder_ = name;
        fill();
    }
    DatabaseFile(const DatabaseFile&) = delete;
    DatabaseFile& operator=(const DatabaseFile&) = delete;
    ~DatabaseFile() { std::filesystem::remove_all(folder_); }

    std::string path() const { return (folder_ / "site.db").string(); }

    static sqlite3* open(const std::string& path) {
        sqlite3* database = nullptr;
        if (sqlite3_open(path.c_str(), &database) != SQLITE_OK) {
            throw std::runtime_error("cannot open " + path);
        }
        return database;
    }

 private:
    void fill() const {
        std::ifstream schema(QUELM_SCHEMA);
        std::stringstream sql;
        sql << schema.rdbuf() << "BEGIN;";
        for (const Row& row : rowsInMemory()) {
            sql << fmt::format("INSERT INTO CurrentIO (SiteID, IOID, TStamp, NValue) VALUES ('PLANT', '{}', '{}', {});",
                               row.key, row.stamp, row.value);
        }
        sql << "COMMIT;";
        sqlite3* database = open(path());
        const int result = sqlite3_exec(database, sql.str().c_str(), nullptr, nullptr, nullptr);
        sqlite3_close(database);
        if (result != SQLITE_OK) {
            throw std::runtime_error("cannot fill the database");
        }
    }

    std::filesystem::path folder_;
};

const DatabaseFile& databaseFile() {
    static const DatabaseFile file;
    return file;
}

void sqliteSnapshot(benchmark::State& state) {
    SiteTable sites(builtInSqlDrivers(), {});
    const std::string connection = "Driver=SQLite;Database=" + databaseFile().path();
    sites.setUp("PLANT", {connection, connection, "", "", ""});
    RealtimeDB realtime(sites);
    std::shared_ptr<const CurrentIOCollection> published = realtime.ReadCurrentIO("PLANT", true);
    published = realtime.ReadCurrentIO("PLANT", true);
    for (auto _ : state) {
        published = realtime.ReadCurrentIO("PLANT", true);
    }
    if (published->Count() != recordCount) {
        state.SkipWithError("records are missing");
    }
    perRecord(state);
}

void sqliteFloor(benchmark::State& state) {
    sqlite3* database = DatabaseFile::open(databaseFile().path());
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, query, -1, &statement, nullptr);
    sqlite3_bind_text(statement, 1, "PLANT", -1, SQLITE_STATIC);
    std::int32_t rows = 0;
    for (auto _ : state) {
        rows = 0;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            ++rows;
        }
        sqlite3_reset(statement);
    }
    if (rows != recordCount) {
        state.SkipWithError("rows are missing");
    }
    sqlite3_finalize(statement);
    sqlite3_close(database);
    perRecord(state);
}

// The folder of the server's socket; the server is there for this run alone.
std::string serverFolder() {
    const char* folder = std::getenv("QUELM_POSTGRES");
    return folder == nullptr ? std::string() : folder;
}

struct PostgresCloser {
    void operator()(PGconn* connection) const { PQfinish(connection); }
    void operator()(PGresult* result) const { PQclear(result); }
};
using PostgresResult = std::unique_ptr<PGresult, PostgresCloser>;

class PostgresClient {
 public:
    PostgresClient() : connection_(PQconnectdb(("host=" + serverFolder() + " user=quelm dbname=postgres").c_str())) {}
    PGconn* get() const { return connection_.get(); }

    void run(const std::string& sql) const {
        const PostgresResult result(PQexec(get(), sql.c_str()));
        if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
            throw std::runtime_error(PQerrorMessage(get()));
        }
    }

 private:
    std::unique_ptr<PGconn, PostgresCloser> connection_;
};

std::string siteOf(std::int64_t size) {
    return fmt::format("PLANT{}", size);
}

// The plant's database as the product's own schema makes it, filled once for the whole run.
void fillServer() {
    static const bool filled = [] {
        const PostgresClient client;
        std::ifstream schema(QUELM_SERVER_SCHEMA);
        std::stringstream sql;
        sql << "SET client_min_messages = warning;" << schema.rdbuf() << "TRUNCATE CurrentIO;";
        client.run(sql.str());
        for (const std::int32_t size : serverSizes) {
            client.run(
                fmt::format("INSERT INTO CurrentIO(SiteID, IOID, TStamp, NValue) SELECT '{}', 'C' || i, timestamp "
                            "'2026-11-16 08:25:00' + i / 10000 * interval '1 second' + i / 100 % 10 * interval '100 "
                            "milliseconds', 20 + i * 0.013::double precision FROM generate_series(1, {}) i",
                            siteOf(size), size));
        }
        // Now, for it would come by itself in the midst of a measurement.
        client.run("VACUUM ANALYZE CurrentIO");
        return true;
    }();
    benchmark::DoNotOptimize(filled);
}

void postgresSnapshot(benchmark::State& state) {
    if (serverFolder().empty()) {
        state.SkipWithError("QUELM_POSTGRES names no server");
        return;
    }
    fillServer();
    SiteTable sites(builtInSqlDrivers(), {});
    const std::string site = siteOf(state.range(0));
    const std::string connection =
        "Driver=PostgreSQL Unicode;Server=" + serverFolder() + ";Database=postgres;UID=quelm";
    sites.setUp(site, {connection, connection, "", "", ""});
    RealtimeDB realtime(sites);
    std::shared_ptr<const CurrentIOCollection> published = realtime.ReadCurrentIO(site, true);
    published = realtime.ReadCurrentIO(site, true);
    for (auto _ : state) {
        published = realtime.ReadCurrentIO(site, true);
    }
    if (published->Count() != static_cast<std::size_t>(state.range(0))) {
        state.SkipWithError("records are missing");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void postgresFloor(benchmark::State& state) {
    if (serverFolder().empty()) {
        state.SkipWithError("QUELM_POSTGRES names no server");
        return;
    }
    fillServer();
    const PostgresClient client;
    const PostgresResult prepared(PQprepare(
        client.get(), "read", "SELECT IOID, TStamp, NValue, XValue FROM csp_GetCurrentIO2($1, 1)", 1, nullptr));
    const std::string site = siteOf(state.range(0));
    const char* parameters[] = {site.c_str()};
    int rows = 0;
    for (auto _ : state) {
        const PostgresResult result(PQexecPrepared(client.get(), "read", 1, parameters, nullptr, nullptr, 1));
        rows = PQntuples(result.get());
    }
    if (rows != state.range(0)) {
        state.SkipWithError("rows are missing");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The time is the connection's thread's, and the database server's.
void otherThreads(benchmark::internal::Benchmark* benchmark) {
    benchmark->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
}

void serverRows(benchmark::internal::Benchmark* benchmark) {
    for (const std::int32_t size : serverSizes) {
        benchmark->Arg(size);
    }
    otherThreads(benchmark);
}

BENCHMARK(postgresSnapshot)->Apply(serverRows);
BENCHMARK(postgresFloor)->Apply(serverRows);
BENCHMARK(memorySnapshot)->Unit(benchmark::kMillisecond);
BENCHMARK(memoryFloor)->Unit(benchmark::kMillisecond);
BENCHMARK(sqliteSnapshot)->Apply(otherThreads);
BENCHMARK(sqliteFloor)->Apply(otherThreads);

}  // namespace
}  // namespace quelm

BENCHMARK_MAIN();
