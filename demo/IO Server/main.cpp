// The demo plant's I/O server: keeps the realtime database moving as real I/O servers would. It beats every second,
// completes a refresh of all data once a minute, moves the measured values and counts the counters up.
//   DemoIOServer --database FILE [--period MILLISECONDS]

#include <fmt/format.h>
#include <sqlite3.h>
#include <time.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

volatile std::sig_atomic_t ending = 0;

std::string localStamp(char separator) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}.{:03}", local.tm_year + 1900, local.tm_mon + 1,
                       local.tm_mday, separator, local.tm_hour, local.tm_min, local.tm_sec, milliseconds);
}

class Database {
 public:
    explicit Database(const std::string& path) {
        sqlite3* raw = nullptr;
        const int result = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
        handle_.reset(raw);
        check(result);
        check(sqlite3_busy_timeout(raw, 5000));
    }

    void run(const std::string& sql, const std::vector<std::string>& texts = {}) {
        query(sql, texts, [](sqlite3_stmt*) {});
    }

    template <class Row>
    void query(const std::string& sql, const std::vector<std::string>& texts, Row row) {
        sqlite3_stmt* raw = nullptr;
        check(sqlite3_prepare_v2(handle_.get(), sql.c_str(), -1, &raw, nullptr));
        const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, sqlite3_finalize);
        for (std::size_t i = 0; i < texts.size(); ++i) {
            check(sqlite3_bind_text(raw, static_cast<int>(i) + 1, texts[i].c_str(), -1, SQLITE_TRANSIENT));
        }
        int result = SQLITE_OK;
        while ((result = sqlite3_step(raw)) == SQLITE_ROW) {
            row(raw);
        }
        check(result == SQLITE_DONE ? SQLITE_OK : result);
    }

 private:
    void check(int result) const {
        if (result != SQLITE_OK) {
            throw std::runtime_error(handle_ ? sqlite3_errmsg(handle_.get()) : sqlite3_errstr(result));
        }
    }

    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> handle_{nullptr, sqlite3_close};
};

// A measured value, which swings around where it was when the program started.
struct Measurement {
    std::string siteID;
    std::string key;  // IOID, or PID
    double middle;
};

std::vector<Measurement> measurements(Database& database, const std::string& sql) {
    std::vector<Measurement> found;
    database.query(sql, {}, [&found](sqlite3_stmt* row) {
        const auto text = [row](int column) { return reinterpret_cast<const char*>(sqlite3_column_text(row, column)); };
        found.push_back({text(0), text(1), sqlite3_column_double(row, 2)});
    });
    return found;
}

class Plant {
 public:
    explicit Plant(Database& database)
        : database_(database),
          channels_(measurements(database, "SELECT SiteID, IOID, NValue FROM CurrentIO WHERE typeof(NValue) = 'real'")),
          parameters_(
              measurements(database, "SELECT SiteID, PID, Value FROM ParameterValue WHERE typeof(Value) = 'real'")) {}

    // One cycle of the I/O servers, in one transaction, so that readers see all of it or nothing.
    void cycle() {
        const std::string now = localStamp(' ');
        database_.run("BEGIN IMMEDIATE");
        for (std::size_t i = 0; i < channels_.size(); ++i) {
            database_.run("UPDATE CurrentIO SET TStamp = ?, NValue = CAST(? AS REAL) WHERE SiteID = ? AND IOID = ?",
                          {now, value(channels_[i], i), channels_[i].siteID, channels_[i].key});
        }
        for (std::size_t i = 0; i < parameters_.size(); ++i) {
            database_.run("UPDATE ParameterValue SET TStamp = ?, Value = CAST(? AS REAL) WHERE SiteID = ? AND PID = ?",
                          {now, value(parameters_[i], i + 50), parameters_[i].siteID, parameters_[i].key});
        }
        // Only counters are that large; monitor codes and switches stay as they are.
        database_.run(
            "UPDATE CurrentIO SET TStamp = ?, NValue = NValue + 1 WHERE typeof(NValue) = 'integer' AND NValue > 1000",
            {now});
        database_.run("UPDATE CurrentIO SET TStamp = ?, NValue = 1 WHERE IOID IN ('IOS.AllCommsOk', 'IOS6.AllCommsOk')",
                      {now});
        if (cycles_++ % 60 == 0) {
            refreshAllData(now);
        }
        database_.run("COMMIT");
    }

 private:
    void refreshAllData(const std::string& now) {
        const std::string finish = localStamp('T');
        database_.run(
            "UPDATE CurrentIO SET TStamp = ?, XValue = '<Start>' || ? || '</Start><Finish>' || ? || '</Finish>' "
            "WHERE IOID IN ('IOS.AllDataRefreshed', 'IOS6.AllDataRefreshed')",
            {now, lastRefresh_.empty() ? finish : lastRefresh_, finish});
        lastRefresh_ = finish;
    }

    std::string value(const Measurement& measurement, std::size_t phase) const {
        const double swing = std::sin(static_cast<double>(cycles_) / 11.0 + static_cast<double>(phase));
        return fmt::format("{:.3f}", measurement.middle * (1 + 0.04 * swing));
    }

    Database& database_;
    std::vector<Measurement> channels_;
    std::vector<Measurement> parameters_;
    std::string lastRefresh_;
    long cycles_ = 0;
};

[[noreturn]] void usage() {
    fmt::print(stderr, "usage: DemoIOServer --database FILE [--period MILLISECONDS]\n");
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    std::string path;
    long period = 1000;
    for (int i = 1; i < argc; i += 2) {
        const std::string_view option = argv[i];
        const std::string_view value = i + 1 < argc ? argv[i + 1] : "";
        if (option == "--database" && !value.empty()) {
            path = value;
        } else if (option != "--period" ||
                   std::from_chars(value.data(), value.data() + value.size(), period).ec != std::errc() ||
                   period < 10) {
            usage();
        }
    }
    if (path.empty()) {
        usage();
    }
    std::signal(SIGTERM, [](int) { ending = 1; });
    std::signal(SIGINT, [](int) { ending = 1; });
    try {
        Database database(path);
        Plant plant(database);
        while (ending == 0) {
            plant.cycle();
            const timespec pause{period / 1000, period % 1000 * 1000000};
            nanosleep(&pause, nullptr);
        }
    } catch (const std::exception& error) {
        fmt::print(stderr, "DemoIOServer: {}\n", error.what());
        return 1;
    }
    return 0;
}
