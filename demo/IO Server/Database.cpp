#include "Database.h"

#include <fmt/format.h>
#include <time.h>

#include <chrono>
#include <exception>
#include <stdexcept>

namespace demo {

namespace {

constexpr int lockTimeoutMilliseconds = 5000;

}  // namespace

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

Database::Database(const std::string& path) {
    sqlite3* raw = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    handle_.reset(raw);
    check(result);
    check(sqlite3_busy_timeout(raw, lockTimeoutMilliseconds));
}

Database::Statement Database::prepared(const std::string& sql, const std::vector<std::string>& texts) {
    sqlite3_stmt* raw = nullptr;
    check(sqlite3_prepare_v2(handle_.get(), sql.c_str(), -1, &raw, nullptr));
    Statement statement(raw, sqlite3_finalize);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        check(sqlite3_bind_text(raw, static_cast<int>(i) + 1, texts[i].c_str(), -1, SQLITE_TRANSIENT));
    }
    return statement;
}

bool Database::step(sqlite3_stmt* statement) const {
    const int result = sqlite3_step(statement);
    check(result == SQLITE_DONE || result == SQLITE_ROW ? SQLITE_OK : result);
    return result == SQLITE_ROW;
}

void Database::check(int result) const {
    if (result != SQLITE_OK) {
        throw std::runtime_error(handle_ ? sqlite3_errmsg(handle_.get()) : sqlite3_errstr(result));
    }
}

std::string columnText(sqlite3_stmt* row, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    return text == nullptr ? std::string() : std::string(text);
}

Transaction::~Transaction() {
    if (isOpen_) {
        try {
            database_.run("ROLLBACK");
        } catch (const std::exception&) {
            // The failure that brought us here is the one to tell; closing the database takes the rest back.
        }
    }
}

void Transaction::commit() {
    database_.run("COMMIT");
    isOpen_ = false;
}

}  // namespace demo
