#pragma once

// The small SQL interface underneath the database interface library: statements with typed parameters in, typed
// values out, so that no number ever travels as text. One driver per kind of database, chosen by connection string.

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "DB Interface Library/sql/SqlTimeouts.h"
#include "base/Date.h"
#include "base/RuntimeError.h"
#include "base/Variant.h"

namespace quelm {

enum class SqlType : std::uint8_t { Null, Integer, Real, Decimal, Text, Date, Blob };

// One column of the row that a cursor stands on.
struct SqlValue {
    SqlType type = SqlType::Null;
    union {
        std::int64_t integer = 0;
        double real;  // of a Real; of a Date: days since 1899-12-30, local time
    };
    std::string_view text;  // of a Text or Blob, and a Decimal's digits; valid until the cursor moves
};

// As a value of the product: whole numbers become 32-bit integers where they fit, else decimals; binary data and
// text beyond maxSqlText read as Null.
Variant sqlVariant(const SqlValue& value);
// Longest text, in bytes, that is taken from a column.
inline constexpr std::size_t maxSqlText = std::size_t{1} << 20;

// The text of a column; "" for everything else, over-long text included.
inline std::string_view sqlText(const SqlValue& value) {
    return value.type == SqlType::Text && value.text.size() <= maxSqlText ? value.text : std::string_view();
}

// A whole number that fits 32 bits, whichever number type the database keeps it in; nothing for everything else.
std::optional<std::int32_t> sqlWholeNumber(const SqlValue& value);

// A Date is local time, kept to the millisecond.
using SqlParameter = std::variant<std::monostate, std::int64_t, double, std::string_view, Date>;
using SqlParameters = std::initializer_list<SqlParameter>;

inline constexpr std::size_t maxScanColumns = 16;

// A forward cursor over a query's rows. The read ends with the cursor's life, so it must not be kept.
class ISqlRows {
 public:
    virtual ~ISqlRows() = default;
    // Moves to the next row; False behind the last one. Raises RuntimeError with the database's number and text.
    virtual bool next() = 0;
    // The row's first columns, as the statement lists them: as many as values takes.
    virtual void read(std::span<SqlValue> values) const = 0;
};

// Takes the rows of a scan. What it raises ends the scan and reaches the caller.
class ISqlRowSink {
 public:
    virtual ~ISqlRowSink() = default;
    // Valid until the call returns.
    virtual void take(std::span<const SqlValue> columns) = 0;
};

// The database has taken a write back because it met another one (SQLSTATE 40001, 40P01): as if it had never been
// tried, so that it may be tried again. The connection is as good as before.
class SqlConflict final : public RuntimeError {
    using RuntimeError::RuntimeError;
};

// The number raised when a connection leads to a PostgreSQL server that only follows another one.
inline constexpr long sqlStandby = 3713;

// One database. Connects when it is first used, and again after every failure. A call takes as long as the database's
// library takes (SqlWorker bounds what others wait for it), and raises RuntimeError with the database's own number and
// text. To be used by one thread at a time.
class ISqlConnection {
 public:
    virtual ~ISqlConnection() = default;
    // What its callers should wait at most.
    virtual SqlTimeouts timeouts() const = 0;
    // Connects unless there is a connection that is good for use.
    virtual void connect() = 0;
    virtual std::unique_ptr<ISqlRows> query(std::string_view sql, SqlParameters parameters) = 0;
    // Hands every row of "SELECT columns FROM source" to the sink, in the fastest way that the database has: for reads
    // of a hundred thousand rows. At most maxScanColumns columns; source cannot ask for an order, but the order stays
    // the same from scan to scan as long as the table's rows do.
    virtual void scan(std::string_view columns, std::string_view source, SqlParameters parameters,
                      ISqlRowSink& sink) = 0;
    // The same for the rows that a stored procedure returns, whose first columns are these. False, and nothing is done,
    // where the database has no procedures.
    virtual bool call(std::string_view columns, std::string_view procedure, SqlParameters parameters,
                      ISqlRowSink& sink) = 0;
    // True where a column takes values of its declared type alone; the schemas then give a column that may hold a
    // number or a text a second one, of texts.
    virtual bool hasTypedColumns() const = 0;
    // From here to "COMMIT" others see what is written whole or not at all. Closing takes it back.
    virtual void beginTransaction() = 0;
    // The number of rows that the statement changed. Raises SqlConflict where the database has taken it back.
    virtual std::int64_t execute(std::string_view sql, SqlParameters parameters) = 0;
    // Connects and has the database answer a trivial query, whatever tables it holds.
    virtual void test() = 0;
    // The next use connects again.
    virtual void close() = 0;
};

// The parts of a connection string "key=value;key=value". Keys are compared without regard to case; values may stand
// in {braces} (a brace inside is doubled) or in quotes.
class ConnectionString {
 public:
    explicit ConnectionString(std::string_view text);
    // nullptr when there is no such key; of two equal keys the first counts.
    const std::string* find(std::string_view key) const;
    const std::string& text() const { return text_; }
    // False when nothing in it reads "key=value".
    bool hasKeys() const { return !parts_.empty(); }
    // What somebody else says about this connection, with every password of it shown as "***".
    std::string withoutPasswords(std::string message) const;

 private:
    std::string text_;
    std::vector<std::pair<std::string, std::string>> parts_;
};

// The connection string with every password (PWD, Password and their like) shown as "***": the only form that may
// get into a message. Parts without a key are hidden too, for they may be the rest of a password.
std::string redactConnectionString(std::string_view text);
// One value of it as a message may show it: "***" when it has swallowed a password, as behind a forgotten ";" or an
// unclosed brace.
std::string redactValue(std::string_view value);

class ISqlDriver {
 public:
    virtual ~ISqlDriver() = default;
    virtual bool accepts(const ConnectionString& connectionString) const = 0;
    // Connects nothing yet. Raises RuntimeError when the connection string lacks what the driver needs.
    virtual std::unique_ptr<ISqlConnection> connection(const ConnectionString& connectionString) const = 0;
};

// The number raised when no driver takes a connection string.
inline constexpr long sqlNoDriver = 3706;

// The drivers that are built in; the first that accepts a connection string gets it.
class SqlDrivers {
 public:
    void add(std::unique_ptr<ISqlDriver> driver) { drivers_.push_back(std::move(driver)); }
    // Raises RuntimeError sqlNoDriver when no driver accepts it, and whatever the driver raises.
    std::unique_ptr<ISqlConnection> connection(std::string_view connectionString) const;

 private:
    std::vector<std::unique_ptr<ISqlDriver>> drivers_;
};

// Every driver of this build.
SqlDrivers builtInSqlDrivers(const SqlTimeouts& timeouts = {});

}  // namespace quelm
