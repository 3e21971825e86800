// A site's snapshot of current values, replaced whole: from rows in memory, beside a loop that only copies their
// values; and out of an SQLite file, beside a loop that steps over the same rows and takes nothing.

#include <benchmark/benchmark.h>
#include <fmt/format.h>
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
#include "DB Interface Library/Sql.h"

namespace quelm {
namespace {

constexpr std::int32_t recordCount = 100'000;
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
    const auto replace = [&] { published = snapshots.read([&](ISqlRowSink& sink) { hand(rows, sink); }); };
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
    SiteTable sites(builtInSqlDrivers());
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

BENCHMARK(memorySnapshot)->Unit(benchmark::kMillisecond);
BENCHMARK(memoryFloor)->Unit(benchmark::kMillisecond);
BENCHMARK(sqliteSnapshot)->Unit(benchmark::kMillisecond);
BENCHMARK(sqliteFloor)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quelm

BENCHMARK_MAIN();
