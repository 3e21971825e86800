#include "DB Interface Library/sql/SqliteDriver.h"

#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <optional>
#include <utility>

#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

// Statements between two looks at the clock while a query runs.
constexpr int operationsPerCheck = 10'000;
// A program of fixed statements needs a handful; anything beyond is not worth keeping.
constexpr std::size_t maxKeptStatements = 32;

struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// Which file a path leads to. While a connection holds the file open, no other file can get the same numbers.
struct FileIdentity {
    dev_t device;
    ino_t node;
    bool operator==(const FileIdentity&) const = default;
};

std::optional<FileIdentity> identify(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity{status.st_dev, status.st_ino};
}

// One look at the column instead of one per question about it. Such a value asks for a connection that one thread alone
// uses, as here.
void readColumn(sqlite3_value* source, SqlValue& value) {
    switch (sqlite3_value_type(source)) {
        case SQLITE_INTEGER:
            value.type = SqlType::Integer;
            value.integer = sqlite3_value_int64(source);
            return;
        case SQLITE_FLOAT:
            value.type = SqlType::Real;
            value.real = sqlite3_value_double(source);
            return;
        case SQLITE_TEXT: {
            value.type = SqlType::Text;
            const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(source));
            value.text = {text == nullptr ? "" : text, static_cast<std::size_t>(sqlite3_value_bytes(source))};
            return;
        }
        case SQLITE_BLOB:
            value.type = SqlType::Blob;
            return;
        default:
            value.type = SqlType::Null;
    }
}

// One open database with its prepared statements; cursors share it, so it closes behind the last of them.
class Session {
 public:
    Session(const std::string& path, FileIdentity identity, const SqliteTimeouts& timeouts)
        : identity_(identity), timeouts_(timeouts) {
        sqlite3* database = nullptr;
        const int result =
            sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
        database_.reset(database);
        if (result != SQLITE_OK) {
            throw RuntimeError(database == nullptr ? result : sqlite3_extended_errcode(database),
                               fmt::format("{} '{}'", sqlite3_errstr(result), redactValue(path)));
        }
        sqlite3_extended_result_codes(database, 1);
        sqlite3_busy_timeout(database, static_cast<int>(timeouts.lock.count()));
        // Pages are read from start to end and the I/O servers change them all the time, so a larger store of them
        // serves nobody.
        check(sqlite3_exec(database, "PRAGMA cache_size = -256", nullptr, nullptr, nullptr));
        sqlite3_progress_handler(database, operationsPerCheck, &Session::isOverdue, this);
        // The write-ahead log belongs to the I/O servers, who write; closing here must not clear it away, least of
        // all when the database file has been replaced and the log is already that of the new one.
        sqlite3_db_config(database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        // Direct only: no view of a database may call it, when there is no sink.
        check(sqlite3_create_function_v2(
            database, scanFunction, -1, SQLITE_UTF8 | SQLITE_DIRECTONLY, this, nullptr, &Session::takeRow,
            [](sqlite3_context*) {}, nullptr));
    }

    bool isUsableFor(const std::optional<FileIdentity>& identity) const { return !failed_ && identity == identity_; }

    // A statement ready to be bound; the clock for its time-out starts now.
    Statement take(std::string_view sql) {
        deadline_ = std::chrono::steady_clock::now() + timeouts_.query;
        if (const auto kept = statements_.find(sql); kept != statements_.end()) {
            Statement statement = std::move(kept->second);
            statements_.erase(kept);
            return statement;
        }
        sqlite3_stmt* statement = nullptr;
        check(sqlite3_prepare_v3(database_.get(), sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                                 &statement, nullptr));
        return Statement(statement);
    }

    // Ends the statement's read and keeps it for the next time.
    void giveBack(Statement statement) {
        sqlite3_reset(statement.get());
        sqlite3_clear_bindings(statement.get());
        if (!failed_ && statements_.size() < maxKeptStatements) {
            std::string sql = sqlite3_sql(statement.get());
            statements_.insert_or_assign(std::move(sql), std::move(statement));
        }
    }

    void check(int result) {
        if (result != SQLITE_OK && result != SQLITE_ROW && result != SQLITE_DONE) {
            fail(result);
        }
    }

    sqlite3* database() const { return database_.get(); }

    // An aggregate function sees every row from inside the database engine, without the hand-over of each row and each
    // column that a cursor costs: a third of the time of such a read.
    static constexpr const char* scanFunction = "quelm_take";
    // The sink that the function hands its rows to, for the time of one scan.
    void setSink(ISqlRowSink* sink) { sink_ = sink; }
    void rethrowSinkFailure() {
        if (sinkFailure_) {
            std::rethrow_exception(std::exchange(sinkFailure_, nullptr));
        }
    }

 private:
    struct Closer {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };

    static void takeRow(sqlite3_context* context, int count, sqlite3_value** columns) {
        auto& session = *static_cast<Session*>(sqlite3_user_data(context));
        const auto used = std::span(session.scanned_).first(std::min(static_cast<std::size_t>(count), maxScanColumns));
        for (std::size_t i = 0; i < used.size(); ++i) {
            readColumn(columns[i], used[i]);
        }
        try {
            session.sink_->take(used);
        } catch (...) {
            // No exception may cross the database engine; it goes on behind it.
            session.sinkFailure_ = std::current_exception();
            sqlite3_result_error_code(context, SQLITE_ABORT);
        }
    }

    static int isOverdue(void* session) {
        return std::chrono::steady_clock::now() > static_cast<Session*>(session)->deadline_ ? 1 : 0;
    }

    [[noreturn]] void fail(int result) {
        failed_ = true;
        if ((result & 0xFF) == SQLITE_INTERRUPT) {
            throw RuntimeError(result, fmt::format("the query took longer than {} ms", timeouts_.query.count()));
        }
        throw RuntimeError(sqlite3_extended_errcode(database_.get()), sqlite3_errmsg(database_.get()));
    }

    FileIdentity identity_;
    SqliteTimeouts timeouts_;
    std::unique_ptr<sqlite3, Closer> database_;
    std::map<std::string, Statement, std::less<>> statements_;
    // The database engine takes real time, whatever the plant's clocks say.
    std::chrono::steady_clock::time_point deadline_;
    ISqlRowSink* sink_ = nullptr;
    std::array<SqlValue, maxScanColumns> scanned_;
    std::exception_ptr sinkFailure_;
    bool failed_ = false;
};

// "yyyy-MM-dd HH:mm:ss.fff"; SQLite has no type for dates.
std::string stampText(Date date) {
    const CivilTime time = civilTime(date);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03}", time.year, time.month, time.day, time.hour,
                       time.minute, time.second, time.millisecond);
}

int bindText(sqlite3_stmt* statement, int index, std::string_view text) {
    return sqlite3_bind_text64(statement, index, text.data() == nullptr ? "" : text.data(), text.size(),
                               SQLITE_TRANSIENT, SQLITE_UTF8);
}

void bind(Session& session, sqlite3_stmt* statement, SqlParameters parameters) {
    int index = 0;
    for (const SqlParameter& parameter : parameters) {
        ++index;
        int result = SQLITE_OK;
        if (const auto* integer = std::get_if<std::int64_t>(&parameter)) {
            result = sqlite3_bind_int64(statement, index, *integer);
        } else if (const auto* number = std::get_if<double>(&parameter)) {
            result = sqlite3_bind_double(statement, index, *number);
        } else if (const auto* text = std::get_if<std::string_view>(&parameter)) {
            result = bindText(statement, index, *text);
        } else if (const auto* date = std::get_if<Date>(&parameter)) {
            result = bindText(statement, index, stampText(*date));
        } else {
            result = sqlite3_bind_null(statement, index);
        }
        session.check(result);
    }
}

class SqliteRows final : public ISqlRows {
 public:
    SqliteRows(std::shared_ptr<Session> session, std::string_view sql, SqlParameters parameters)
        : session_(std::move(session)), statement_(session_->take(sql)) {
        bind(*session_, statement_.get(), parameters);
    }
    SqliteRows(const SqliteRows&) = delete;
    SqliteRows& operator=(const SqliteRows&) = delete;
    ~SqliteRows() override { session_->giveBack(std::move(statement_)); }

    bool next() override {
        const int result = sqlite3_step(statement_.get());
        session_->check(result);
        return result == SQLITE_ROW;
    }

    void read(std::span<SqlValue> values) const override {
        int column = 0;
        for (SqlValue& value : values) {
            readColumn(sqlite3_column_value(statement_.get(), column++), value);
        }
    }

 private:
    std::shared_ptr<Session> session_;
    Statement statement_;
};

class SqliteConnection final : public ISqlConnection {
 public:
    SqliteConnection(std::string path, SqliteTimeouts timeouts) : path_(std::move(path)), timeouts_(timeouts) {}

    // No hold-off: a file that is not there says so at once.
    SqlTimeouts timeouts() const override {
        return {.connect = timeouts_.connect, .query = timeouts_.query, .holdOff = std::chrono::milliseconds(0)};
    }

    void connect() override { connectedSession(); }

    std::unique_ptr<ISqlRows> query(std::string_view sql, SqlParameters parameters) override {
        return std::make_unique<SqliteRows>(connectedSession(), sql, parameters);
    }

    void scan(std::string_view columns, std::string_view source, SqlParameters parameters, ISqlRowSink& sink) override {
        const std::shared_ptr<Session> session = connectedSession();
        SqliteRows rows(session, fmt::format("SELECT {}({}) FROM {}", Session::scanFunction, columns, source),
                        parameters);
        session->setSink(&sink);
        try {
            rows.next();
        } catch (const RuntimeError&) {
            session->rethrowSinkFailure();
            throw;
        }
    }

    bool call(std::string_view, std::string_view, SqlParameters, ISqlRowSink&) override { return false; }

    bool hasTypedColumns() const override { return false; }

    void beginTransaction() override { execute("BEGIN TRANSACTION", {}); }

    std::int64_t execute(std::string_view sql, SqlParameters parameters) override {
        const std::shared_ptr<Session> session = connectedSession();
        SqliteRows rows(session, sql, parameters);
        while (rows.next()) {
        }
        return sqlite3_changes64(session->database());
    }

    // Reads from the file: a statement without a table would pass on any file at all.
    void test() override { query("SELECT 1 FROM sqlite_master LIMIT 1", {})->next(); }

    void close() override { session_.reset(); }

 private:
    // Looks at the file first: a database restored from a backup must not be served from the old one's open file.
    const std::shared_ptr<Session>& connectedSession() {
        const std::optional<FileIdentity> identity = identify(path_);
        const int reason = errno;
        if (session_ && session_->isUsableFor(identity)) {
            return session_;
        }
        session_.reset();
        if (!identity) {
            throw RuntimeError(SQLITE_CANTOPEN, fmt::format("{} '{}': {}", sqlite3_errstr(SQLITE_CANTOPEN),
                                                            redactValue(path_), std::strerror(reason)));
        }
        session_ = std::make_shared<Session>(path_, *identity, timeouts_);
        return session_;
    }

    std::string path_;
    SqliteTimeouts timeouts_;
    std::shared_ptr<Session> session_;
};

}  // namespace

bool SqliteDriver::accepts(const ConnectionString& connectionString) const {
    const std::string* driver = connectionString.find("Driver");
    return driver != nullptr && equalsIgnoringCase(*driver, "SQLite");
}

std::unique_ptr<ISqlConnection> SqliteDriver::connection(const ConnectionString& connectionString) const {
    const std::string* path = connectionString.find("Database");
    if (path == nullptr || path->empty()) {
        throw RuntimeError(errors::invalidCall, "The SQLite connection string names no Database");
    }
    return std::make_unique<SqliteConnection>(*path, timeouts_);
}

}  // namespace quelm
