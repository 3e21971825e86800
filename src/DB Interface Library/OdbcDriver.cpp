#include "DB Interface Library/OdbcDriver.h"

#include <fmt/format.h>
#include <sql.h>
#include <sqlext.h>
#include <sqlucode.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "DB Interface Library/StallGuard.h"
#include "Shared Types/Date.h"
#include "Shared Types/RuntimeError.h"
#include "Shared Types/Text.h"
#include "Shared Types/Utf.h"

namespace quelm {

namespace {

// Rows that are fetched at once, and the memory (bytes) that they may take.
constexpr std::size_t blockRows = 500;
constexpr std::size_t blockMemory = std::size_t{2} << 20;
// Longest text, in UTF-16 units, that has its place in the block; a longer one is read by itself.
constexpr std::size_t blockText = 1024;
// Digits of a decimal that have their place in the block: more than any database counts with exactly.
constexpr std::size_t blockDigits = 128;
// Texts beyond this many units go to the database as long texts.
constexpr std::size_t longestPlainText = 4000;

SQLWCHAR* wide(std::u16string& text) {
    return reinterpret_cast<SQLWCHAR*>(text.data());
}

std::u16string_view fromWide(const void* text, std::size_t units) {
    return {static_cast<const char16_t*>(text), units};
}

SQLPOINTER asPointer(std::size_t number) {
    return reinterpret_cast<SQLPOINTER>(number);
}

std::size_t wholeSeconds(std::chrono::milliseconds time) {
    return static_cast<std::size_t>(std::max<std::int64_t>((time.count() + 999) / 1000, 1));
}

// The messages of drivers run over several lines.
std::string onOneLine(std::string text) {
    std::string line;
    for (const char c : text) {
        const bool isBlank = static_cast<unsigned char>(c) <= ' ';
        if (!isBlank) {
            line += c;
        } else if (!line.empty() && line.back() != ' ') {
            line += ' ';
        }
    }
    return std::string(trimBlanks(line));
}

template <SQLSMALLINT type>
class Handle {
 public:
    explicit Handle(SQLHANDLE parent) { SQLAllocHandle(type, parent, &handle_); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() {
        if (handle_ != nullptr) {
            SQLFreeHandle(type, handle_);
        }
    }
    SQLHANDLE get() const { return handle_; }

 private:
    SQLHANDLE handle_ = nullptr;
};

struct Diagnosis {
    std::string state;  // five characters; "" when the driver says nothing
    long number = 0;
    std::string text;
};

Diagnosis diagnose(SQLSMALLINT type, SQLHANDLE handle) {
    std::u16string state(6, u'\0');
    std::u16string text(2048, u'\0');
    SQLINTEGER number = 0;
    SQLSMALLINT length = 0;
    if (!SQL_SUCCEEDED(SQLGetDiagRecW(type, handle, 1, wide(state), &number, wide(text),
                                      static_cast<SQLSMALLINT>(text.size()), &length))) {
        return {"", 0, "the ODBC driver gives no reason"};
    }
    const std::size_t shown = std::min(static_cast<std::size_t>(std::max<SQLSMALLINT>(length, 0)), text.size() - 1);
    return {utf16ToUtf8(std::u16string_view(state).substr(0, 5)), number,
            onOneLine(utf16ToUtf8(text.substr(0, shown)))};
}

// The mistake is in this one statement or its values; the connection is as good as before.
bool leavesConnectionGood(std::string_view state) {
    return state.starts_with("22") || state.starts_with("23") || state.starts_with("42");
}

// What one kind of database wants differently, decided by the name it gives itself.
struct Dialect {
    // Procedures that return rows are functions here, to be selected from.
    bool selectsFromProcedures = false;
    bool hasProcedures = false;
};

// One open connection; cursors share it, so it closes behind the last of them.
class OdbcSession {
 public:
    OdbcSession(const ConnectionString& connectionString, const OdbcTimeouts& timeouts)
        : connectionString_(connectionString), timeouts_(timeouts), environment_(nullptr) {
        SQLSetEnvAttr(environment_.get(), SQL_ATTR_ODBC_VERSION, asPointer(SQL_OV_ODBC3), 0);
        connection_.emplace(environment_.get());
        if (connection_->get() == nullptr) {
            throw RuntimeError(errors::outOfMemory);
        }
        connect();
        readAbilities();
    }
    OdbcSession(const OdbcSession&) = delete;
    OdbcSession& operator=(const OdbcSession&) = delete;
    ~OdbcSession() {
        const StallGuard guard(timeouts_.grace, sockets_);
        SQLDisconnect(connection_->get());
    }

    bool isUsable() const { return !failed_; }
    SQLHANDLE connection() const { return connection_->get(); }
    const Dialect& dialect() const { return dialect_; }
    // Columns of a row inside a block can be read again, piece by piece.
    bool readsInsideBlocks() const { return readsInsideBlocks_; }
    const OdbcTimeouts& timeouts() const { return timeouts_; }

    // Runs one step of a statement within the statement's time; True for a success, False for "no data".
    template <class Step>
    bool run(SQLHANDLE statement, Step step) {
        const StallGuard guard(timeouts_.query + timeouts_.grace, sockets_);
        const SQLRETURN result = step();
        if (result == SQL_NO_DATA) {
            return false;
        }
        if (!SQL_SUCCEEDED(result)) {
            fail(SQL_HANDLE_STMT, statement, guard.hasCut(), timeouts_.query);
        }
        return true;
    }

    [[noreturn]] void fail(SQLSMALLINT type, SQLHANDLE handle, bool hasCut, std::chrono::milliseconds limit) {
        const Diagnosis diagnosis = diagnose(type, handle);
        failed_ = failed_ || hasCut || !leavesConnectionGood(diagnosis.state);
        throw RuntimeError(diagnosis.number,
                           hasCut ? fmt::format("the database did not answer within {} ms", limit.count())
                                  : connectionString_.withoutPasswords(diagnosis.text));
    }

 private:
    void connect() {
        SQLHANDLE handle = connection_->get();
        const std::size_t seconds = wholeSeconds(timeouts_.connect);
        SQLSetConnectAttrW(handle, SQL_ATTR_LOGIN_TIMEOUT, asPointer(seconds), SQL_IS_UINTEGER);
        std::u16string text = utf8ToUtf16(connectionString_.text());
        if (!std::in_range<SQLSMALLINT>(text.size())) {
            throw RuntimeError(errors::invalidCall, "The connection string is longer than ODBC takes");
        }
        const SocketWatch watch;
        const StallGuard guard(timeouts_.connect + timeouts_.grace, watch);
        const SQLRETURN result = SQLDriverConnectW(handle, nullptr, wide(text), static_cast<SQLSMALLINT>(text.size()),
                                                   nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT);
        if (!SQL_SUCCEEDED(result)) {
            fail(SQL_HANDLE_DBC, handle, guard.hasCut(), timeouts_.connect);
        }
        sockets_ = watch.opened();
    }

    void readAbilities() {
        const StallGuard guard(timeouts_.query + timeouts_.grace, sockets_);
        SQLUINTEGER abilities = 0;
        SQLGetInfoW(connection_->get(), SQL_GETDATA_EXTENSIONS, &abilities, sizeof abilities, nullptr);
        constexpr SQLUINTEGER needed = SQL_GD_BLOCK | SQL_GD_BOUND | SQL_GD_ANY_COLUMN;
        readsInsideBlocks_ = (abilities & needed) == needed;
        dialect_.selectsFromProcedures = equalsIgnoringCase(infoText(SQL_DBMS_NAME), "PostgreSQL");
        dialect_.hasProcedures = dialect_.selectsFromProcedures || infoText(SQL_PROCEDURES) == "Y";
    }

    std::string infoText(SQLUSMALLINT which) const {
        std::u16string text(128, u'\0');
        SQLSMALLINT bytes = 0;
        if (!SQL_SUCCEEDED(SQLGetInfoW(connection_->get(), which, text.data(),
                                       static_cast<SQLSMALLINT>(text.size() * sizeof(char16_t)), &bytes))) {
            return {};
        }
        return utf16ToUtf8(text.substr(0, text.find(u'\0')));
    }

    ConnectionString connectionString_;
    OdbcTimeouts timeouts_;
    Handle<SQL_HANDLE_ENV> environment_;
    std::optional<Handle<SQL_HANDLE_DBC>> connection_;
    std::vector<int> sockets_;
    Dialect dialect_;
    bool readsInsideBlocks_ = false;
    bool failed_ = false;
};

// ---- parameters

// The values of a statement's parameters; they must stay in place until it has run.
class BoundParameters {
 public:
    void bind(OdbcSession& session, SQLHANDLE statement, SqlParameters parameters) {
        SQLUSMALLINT index = 0;
        for (const SqlParameter& parameter : parameters) {
            ++index;
            Value& value = values_.emplace_back();
            value.fill(parameter);
            session.run(statement, [&] {
                return SQLBindParameter(statement, index, SQL_PARAM_INPUT, value.cType, value.sqlType, value.size,
                                        value.digits, value.data(), 0, &value.indicator);
            });
        }
    }

 private:
    struct Value {
        SQLSMALLINT cType = SQL_C_WCHAR;
        SQLSMALLINT sqlType = SQL_WVARCHAR;
        SQLULEN size = 1;
        SQLSMALLINT digits = 0;
        SQLLEN indicator = SQL_NULL_DATA;
        SQLINTEGER small = 0;
        SQLBIGINT large = 0;
        double real = 0;
        SQL_TIMESTAMP_STRUCT stamp{};
        std::u16string text;

        void fill(const SqlParameter& parameter) {
            if (const auto* integer = std::get_if<std::int64_t>(&parameter)) {
                fillInteger(*integer);
            } else if (const auto* number = std::get_if<double>(&parameter)) {
                real = *number;
                take(SQL_C_DOUBLE, SQL_DOUBLE, 15, sizeof real);
            } else if (const auto* given = std::get_if<std::string_view>(&parameter)) {
                text = utf8ToUtf16(*given);
                take(SQL_C_WCHAR, text.size() > longestPlainText ? SQL_WLONGVARCHAR : SQL_WVARCHAR,
                     std::max<std::size_t>(text.size(), 1), static_cast<SQLLEN>(text.size() * sizeof(char16_t)));
            } else if (const auto* date = std::get_if<Date>(&parameter)) {
                fillDate(*date);
            }
        }
        // A small number as such: databases do not take a function's large argument for a small one.
        void fillInteger(std::int64_t integer) {
            if (std::in_range<SQLINTEGER>(integer)) {
                small = static_cast<SQLINTEGER>(integer);
                take(SQL_C_SLONG, SQL_INTEGER, 10, sizeof small);
            } else {
                large = integer;
                take(SQL_C_SBIGINT, SQL_BIGINT, 19, sizeof large);
            }
        }
        void fillDate(Date date) {
            const CivilTime time = civilTime(date);
            const auto part = [](int number) { return static_cast<SQLUSMALLINT>(number); };
            stamp = {static_cast<SQLSMALLINT>(time.year),
                     part(time.month),
                     part(time.day),
                     part(time.hour),
                     part(time.minute),
                     part(time.second),
                     static_cast<SQLUINTEGER>(time.millisecond) * 1'000'000};
            take(SQL_C_TYPE_TIMESTAMP, SQL_TYPE_TIMESTAMP, 23, sizeof stamp);
            digits = 3;
        }
        void take(SQLSMALLINT c, int sql, std::size_t columnSize, SQLLEN bytes) {
            cType = c;
            sqlType = static_cast<SQLSMALLINT>(sql);
            size = columnSize;
            indicator = bytes;
        }
        SQLPOINTER data() {
            switch (cType) {
                case SQL_C_SLONG:
                    return &small;
                case SQL_C_SBIGINT:
                    return &large;
                case SQL_C_DOUBLE:
                    return &real;
                case SQL_C_TYPE_TIMESTAMP:
                    return &stamp;
                default:
                    return text.data();
            }
        }
    };
    std::list<Value> values_;
};

// ---- columns

struct Column {
    SqlType type = SqlType::Text;
    SQLSMALLINT cType = SQL_C_WCHAR;
    std::size_t width = 0;  // bytes of one row's place in the block
    bool mayBeLonger = false;
    std::size_t offset = 0;  // of the column's places in the block's memory
    std::vector<SQLLEN> indicators;
    SqlValue value;    // of the row that the cursor stands on
    std::string text;  // behind the value
};

void setType(Column& column, SqlType type, SQLSMALLINT cType, std::size_t width) {
    column.type = type;
    column.cType = cType;
    column.width = width;
}

Column columnOf(SQLSMALLINT sqlType, SQLULEN size) {
    Column column;
    switch (sqlType) {
        case SQL_BIT:
        case SQL_TINYINT:
        case SQL_SMALLINT:
        case SQL_INTEGER:
        case SQL_BIGINT:
            setType(column, SqlType::Integer, SQL_C_SBIGINT, sizeof(SQLBIGINT));
            break;
        case SQL_REAL:
        case SQL_FLOAT:
        case SQL_DOUBLE:
            setType(column, SqlType::Real, SQL_C_DOUBLE, sizeof(double));
            break;
        case SQL_NUMERIC:
        case SQL_DECIMAL:
            setType(column, SqlType::Decimal, SQL_C_CHAR, blockDigits);
            break;
        case SQL_TYPE_TIMESTAMP:
        case SQL_TYPE_DATE:
            setType(column, SqlType::Date, SQL_C_TYPE_TIMESTAMP, sizeof(SQL_TIMESTAMP_STRUCT));
            break;
        case SQL_BINARY:
        case SQL_VARBINARY:
        case SQL_LONGVARBINARY:
            // Nobody reads the bytes; only that they are there counts.
            setType(column, SqlType::Blob, SQL_C_BINARY, 8);
            break;
        default: {
            column.mayBeLonger = size == 0 || size > blockText;
            const std::size_t units = column.mayBeLonger ? blockText : size;
            setType(column, SqlType::Text, SQL_C_WCHAR, (units + 1) * sizeof(char16_t));
        }
    }
    return column;
}

// Fills value with a date of the database; Null for one that the product's dates do not reach.
void readStamp(const SQL_TIMESTAMP_STRUCT& stamp, SqlValue& value) {
    constexpr double secondsPerDay = 86'400;
    if (stamp.year < 100 || stamp.year > 9999 || stamp.month < 1 || stamp.month > 12 || stamp.day < 1 ||
        stamp.day > daysInMonth(stamp.year, stamp.month)) {
        value.type = SqlType::Null;
        return;
    }
    const double second = (stamp.hour * 60.0 + stamp.minute) * 60.0 + stamp.second + stamp.fraction / 1e9;
    value.real = dateFromLinearDays(dayNumber(stamp.year, stamp.month, stamp.day), second / secondsPerDay).days;
}

// Nearly all texts are plain ASCII, and there are a hundred thousand of them.
void assignUtf8(std::string& out, std::u16string_view text) {
    out.resize(text.size());
    char16_t seen = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        seen = static_cast<char16_t>(seen | text[i]);
        out[i] = static_cast<char>(text[i]);
    }
    if (seen >= 0x80) {
        out = utf16ToUtf8(text);
    }
}

class OdbcRows final : public ISqlRows {
 public:
    OdbcRows(std::shared_ptr<OdbcSession> session, std::string_view sql, SqlParameters parameters)
        : session_(std::move(session)), statement_(session_->connection()) {
        if (statement_.get() == nullptr) {
            session_->fail(SQL_HANDLE_DBC, session_->connection(), false, {});
        }
        SQLSetStmtAttrW(statement_.get(), SQL_ATTR_QUERY_TIMEOUT, asPointer(wholeSeconds(session_->timeouts().query)),
                        SQL_IS_UINTEGER);
        parameters_.bind(*session_, statement_.get(), parameters);
        std::u16string text = utf8ToUtf16(sql);
        run([&] { return SQLExecDirectW(statement_.get(), wide(text), static_cast<SQLINTEGER>(text.size())); });
        SQLNumResultCols(statement_.get(), &columnCount_);
    }

    bool next() override {
        if (columnCount_ <= 0) {
            return false;
        }
        if (columns_.empty()) {
            prepareBlock();
        }
        if (++row_ >= fetched_ && !fetchBlock()) {
            return false;
        }
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            readColumn(i);
        }
        return true;
    }

    void read(std::span<SqlValue> values) const override {
        for (std::size_t i = 0; i < values.size(); ++i) {
            values[i] = i < columns_.size() ? columns_[i].value : SqlValue{};
        }
    }

    std::int64_t changedRows() {
        SQLLEN count = 0;
        run([&] { return SQLRowCount(statement_.get(), &count); });
        return std::max<std::int64_t>(count, 0);
    }

 private:
    template <class Step>
    bool run(Step step) {
        return session_->run(statement_.get(), step);
    }

    void prepareBlock() {
        for (SQLSMALLINT i = 1; i <= columnCount_; ++i) {
            SQLSMALLINT nameLength = 0;
            SQLSMALLINT type = 0;
            SQLULEN size = 0;
            SQLSMALLINT digits = 0;
            SQLSMALLINT nullable = 0;
            std::array<SQLWCHAR, 128> name{};
            run([&] {
                return SQLDescribeColW(statement_.get(), static_cast<SQLUSMALLINT>(i), name.data(),
                                       static_cast<SQLSMALLINT>(name.size()), &nameLength, &type, &size, &digits,
                                       &nullable);
            });
            columns_.push_back(columnOf(type, size));
        }
        placeColumns();
        bindColumns();
    }

    // Where the driver cannot read on in a row of a block, a column whose texts may not fit their place is left out of
    // it, with all behind it, and rows come one by one.
    void placeColumns() {
        std::size_t rowBytes = 0;
        boundColumns_ = columns_.size();
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            rowBytes += columns_[i].width + sizeof(SQLLEN);
            if (columns_[i].mayBeLonger && !session_->readsInsideBlocks()) {
                boundColumns_ = std::min(boundColumns_, i);
            }
        }
        rows_ = boundColumns_ < columns_.size() ? 1 : std::clamp<std::size_t>(blockMemory / rowBytes, 1, blockRows);
        std::size_t size = 0;
        for (Column& column : columns_) {
            constexpr std::size_t alignment = alignof(std::max_align_t);
            column.offset = size;
            column.indicators.assign(rows_, SQL_NULL_DATA);
            size += (column.width * rows_ + alignment - 1) / alignment * alignment;
        }
        memory_ = std::make_unique_for_overwrite<std::byte[]>(size);
    }

    void bindColumns() {
        SQLHANDLE statement = statement_.get();
        rowStates_.assign(rows_, SQL_ROW_NOROW);
        const auto set = [&](SQLINTEGER attribute, SQLPOINTER value) {
            run([&] { return SQLSetStmtAttrW(statement, attribute, value, 0); });
        };
        set(SQL_ATTR_ROW_ARRAY_SIZE, asPointer(rows_));
        set(SQL_ATTR_ROW_STATUS_PTR, rowStates_.data());
        set(SQL_ATTR_ROWS_FETCHED_PTR, &fetched_);
        for (std::size_t i = 0; i < boundColumns_; ++i) {
            Column& column = columns_[i];
            run([&] {
                return SQLBindCol(statement, static_cast<SQLUSMALLINT>(i + 1), column.cType, place(column, 0),
                                  static_cast<SQLLEN>(column.width), column.indicators.data());
            });
        }
    }

    bool fetchBlock() {
        row_ = 0;
        fetched_ = 0;
        if (!run([&] { return SQLFetch(statement_.get()); }) || fetched_ == 0) {
            row_ = 0;
            fetched_ = 0;
            columnCount_ = 0;
            return false;
        }
        fetched_ = std::min<SQLULEN>(fetched_, rows_);
        if (std::find(rowStates_.begin(), rowStates_.begin() + static_cast<std::ptrdiff_t>(fetched_), SQL_ROW_ERROR) !=
            rowStates_.begin() + static_cast<std::ptrdiff_t>(fetched_)) {
            session_->fail(SQL_HANDLE_STMT, statement_.get(), false, {});
        }
        return true;
    }

    std::byte* place(const Column& column, std::size_t row) const {
        return memory_.get() + column.offset + column.width * row;
    }

    void readColumn(std::size_t index) {
        Column& column = columns_[index];
        if (index >= boundColumns_ && !isText(column)) {
            column.indicators[0] = SQL_NULL_DATA;
            run([&] {
                return SQLGetData(statement_.get(), static_cast<SQLUSMALLINT>(index + 1), column.cType,
                                  place(column, 0), static_cast<SQLLEN>(column.width), column.indicators.data());
            });
        }
        if (index >= boundColumns_ && isText(column)) {
            readLongText(index);
        } else if (const SQLLEN bytes = column.indicators[row_]; bytes == SQL_NULL_DATA) {
            column.value.type = SqlType::Null;
        } else {
            readPlace(index, bytes);
        }
    }

    static bool isText(const Column& column) { return column.cType == SQL_C_WCHAR; }

    void readPlace(std::size_t index, SQLLEN bytes) {
        Column& column = columns_[index];
        const std::byte* source = place(column, row_);
        column.value.type = column.type;
        switch (column.type) {
            case SqlType::Integer:
                std::memcpy(&column.value.integer, source, sizeof column.value.integer);
                break;
            case SqlType::Real:
                std::memcpy(&column.value.real, source, sizeof column.value.real);
                break;
            case SqlType::Date: {
                SQL_TIMESTAMP_STRUCT stamp;
                std::memcpy(&stamp, source, sizeof stamp);
                readStamp(stamp, column.value);
                break;
            }
            case SqlType::Decimal:
                column.value.text = {reinterpret_cast<const char*>(source),
                                     bytes >= 0 ? std::min(static_cast<std::size_t>(bytes), column.width - 1) : 0};
                break;
            case SqlType::Text:
                if (bytes < 0 || static_cast<std::size_t>(bytes) > column.width - sizeof(char16_t)) {
                    run([&] {
                        return SQLSetPos(statement_.get(), static_cast<SQLSETPOSIROW>(row_ + 1), SQL_POSITION,
                                         SQL_LOCK_NO_CHANGE);
                    });
                    readLongText(index);
                } else {
                    assignUtf8(column.text, fromWide(source, static_cast<std::size_t>(bytes) / sizeof(char16_t)));
                    column.value.text = column.text;
                }
                break;
            case SqlType::Null:
            case SqlType::Blob:
                break;
        }
    }

    // Piece by piece. A text beyond what is taken from a column counts as binary data, which nobody reads.
    void readLongText(std::size_t index) {
        Column& column = columns_[index];
        std::u16string text;
        std::u16string piece(8192, u'\0');
        const std::size_t capacity = (piece.size() - 1) * sizeof(char16_t);
        SQLLEN bytes = 0;
        while (text.size() <= maxSqlText && run([&] {
                   return SQLGetData(statement_.get(), static_cast<SQLUSMALLINT>(index + 1), SQL_C_WCHAR, piece.data(),
                                     static_cast<SQLLEN>(piece.size() * sizeof(char16_t)), &bytes);
               })) {
            if (bytes == SQL_NULL_DATA) {
                column.value.type = SqlType::Null;
                return;
            }
            const bool isLast = bytes >= 0 && static_cast<std::size_t>(bytes) <= capacity;
            text.append(piece, 0, (isLast ? static_cast<std::size_t>(bytes) : capacity) / sizeof(char16_t));
            if (isLast) {
                break;
            }
        }
        column.value.type = text.size() <= maxSqlText ? SqlType::Text : SqlType::Blob;
        assignUtf8(column.text, text);
        column.value.text = column.text;
    }

    std::shared_ptr<OdbcSession> session_;
    BoundParameters parameters_;
    SQLSMALLINT columnCount_ = 0;
    std::vector<Column> columns_;
    std::size_t boundColumns_ = 0;
    std::unique_ptr<std::byte[]> memory_;
    std::size_t rows_ = 1;
    std::vector<SQLUSMALLINT> rowStates_;
    SQLULEN fetched_ = 0;
    std::size_t row_ = 0;
    // Last, so that it is the first to go: the driver knows all that stands above.
    Handle<SQL_HANDLE_STMT> statement_;
};

std::string marks(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += i == 0 ? "?" : ", ?";
    }
    return text;
}

class OdbcConnection final : public ISqlConnection {
 public:
    OdbcConnection(const ConnectionString& connectionString, OdbcTimeouts timeouts)
        : connectionString_(connectionString), timeouts_(timeouts) {}

    std::unique_ptr<ISqlRows> query(std::string_view sql, SqlParameters parameters) override {
        return std::make_unique<OdbcRows>(connectedSession(), sql, parameters);
    }

    void scan(std::string_view columns, std::string_view source, SqlParameters parameters, ISqlRowSink& sink) override {
        handOver(fmt::format("SELECT {} FROM {}", columns, source), columns, parameters, sink);
    }

    bool call(std::string_view columns, std::string_view procedure, SqlParameters parameters,
              ISqlRowSink& sink) override {
        const Dialect dialect = connectedSession()->dialect();
        if (!dialect.hasProcedures) {
            return false;
        }
        const std::string text = fmt::format("{}({})", procedure, marks(parameters.size()));
        handOver(dialect.selectsFromProcedures ? fmt::format("SELECT {} FROM {}", columns, text)
                                               : fmt::format("{{call {}}}", text),
                 columns, parameters, sink);
        return true;
    }

    bool hasTypedColumns() const override { return true; }

    std::int64_t execute(std::string_view sql, SqlParameters parameters) override {
        return OdbcRows(connectedSession(), sql, parameters).changedRows();
    }

    void test() override { query("SELECT 1", {})->next(); }

    void close() override { session_.reset(); }

 private:
    void handOver(std::string_view sql, std::string_view columns, SqlParameters parameters, ISqlRowSink& sink) {
        OdbcRows rows(connectedSession(), sql, parameters);
        std::array<SqlValue, maxScanColumns> values;
        const auto count = static_cast<std::size_t>(std::count(columns.begin(), columns.end(), ',')) + 1;
        const auto used = std::span(values).first(std::min(count, maxScanColumns));
        while (rows.next()) {
            rows.read(used);
            sink.take(used);
        }
    }

    const std::shared_ptr<OdbcSession>& connectedSession() {
        if (!session_ || !session_->isUsable()) {
            session_.reset();
            session_ = std::make_shared<OdbcSession>(connectionString_, timeouts_);
        }
        return session_;
    }

    ConnectionString connectionString_;
    OdbcTimeouts timeouts_;
    std::shared_ptr<OdbcSession> session_;
};

}  // namespace

std::unique_ptr<ISqlConnection> OdbcDriver::connection(const ConnectionString& connectionString) const {
    return std::make_unique<OdbcConnection>(connectionString, timeouts_);
}

}  // namespace quelm
