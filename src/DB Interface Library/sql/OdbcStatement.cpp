#include "DB Interface Library/sql/OdbcStatement.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "base/Date.h"
#include "base/RuntimeError.h"
#include "base/Utf.h"

namespace quelm {

namespace {

// Rows that are fetched at once, and the memory (bytes) that they may take.
constexpr std::size_t blockRows = 128;
constexpr std::size_t blockMemory = std::size_t{2} << 20;
// Longest text, in UTF-16 units, that has its place in the block; a longer one is read by itself.
constexpr std::size_t blockText = 1024;
// Bytes that are taken of a binary value at once, and of it as a whole: more than the database can make of it.
constexpr std::size_t binaryPiece = std::size_t{1} << 16;
constexpr std::size_t longestBinary = std::size_t{1} << 30;
// Digits of a decimal that have their place in the block: more than any database counts with exactly.
constexpr std::size_t blockDigits = 128;
// Texts beyond this many units go to the database as long texts.
constexpr std::size_t longestPlainText = 4000;

bool isNarrow(const OdbcColumn& column) {
    return column.cType == SQL_C_CHAR;
}

// Bytes of the mark behind a text.
std::size_t endMark(const OdbcColumn& column) {
    return isNarrow(column) ? sizeof(char) : sizeof(char16_t);
}

void setType(OdbcColumn& column, SqlType type, SQLSMALLINT cType, std::size_t width) {
    column.type = type;
    column.cType = cType;
    column.width = width;
}

void setTextType(OdbcColumn& column, SQLULEN size, bool narrow) {
    constexpr std::size_t longestCharacter = 4;  // bytes of UTF-8; the block's place has two for each
    const std::size_t place = blockText * sizeof(char16_t);
    const std::size_t unit = narrow ? longestCharacter : sizeof(char16_t);
    column.mayBeLonger = size == 0 || size > place / unit;
    setType(column, SqlType::Text, narrow ? SQL_C_CHAR : SQL_C_WCHAR,
            (column.mayBeLonger ? place : size * unit) + sizeof(char16_t));
}

OdbcColumn columnOf(SQLSMALLINT sqlType, SQLULEN size, bool narrow) {
    OdbcColumn column;
    column.sqlType = sqlType;
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
        default:
            setTextType(column, size, narrow);
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

}  // namespace

// ---- parameters

struct OdbcParameters::Value {
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

OdbcParameters::OdbcParameters() = default;

OdbcParameters::~OdbcParameters() = default;

void OdbcParameters::bind(OdbcSession& session, SQLHANDLE statement, SqlParameters parameters) {
    values_.clear();
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

// ---- running it

OdbcStatement::OdbcStatement(OdbcSession& session, std::string sql) : session_(session), sql_(std::move(sql)) {
    handle_.emplace(session.connection());
    if (handle_->get() == nullptr) {
        session_.fail(SQL_HANDLE_DBC, session_.connection());
    }
    SQLSetStmtAttrW(handle_->get(), SQL_ATTR_QUERY_TIMEOUT, odbcNumber(wholeSeconds(session_.queryTimeout())),
                    SQL_IS_UINTEGER);
}

OdbcStatement::~OdbcStatement() {
    // Without this PostgreSQL's driver keeps for ever what it knows of the columns of a statement that has failed.
    close();
}

void OdbcStatement::prepare() {
    std::u16string text = utf8ToUtf16(sql_);
    run([&] { return SQLPrepareW(handle_->get(), odbcText(text), static_cast<SQLINTEGER>(text.size())); });
    prepared_ = true;
}

void OdbcStatement::execute(SqlParameters parameters) {
    parameters_.bind(session_, handle_->get(), parameters);
    if (parameters.size() == 0) {
        std::u16string text = utf8ToUtf16(sql_);
        run([&] { return SQLExecDirectW(handle_->get(), odbcText(text), static_cast<SQLINTEGER>(text.size())); });
    } else {
        if (!prepared_) {
            prepare();
        }
        run([&] { return SQLExecute(handle_->get()); });
    }
    row_ = 0;
    fetched_ = 0;
    atEnd_ = false;
}

bool OdbcStatement::next() {
    if (columns_.empty()) {
        prepareBlock();
        atEnd_ = columns_.empty();
    }
    if (!atEnd_ && ++row_ >= fetched_) {
        atEnd_ = !fetchBlock();
    }
    if (atEnd_) {
        return false;
    }
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        readColumn(i);
    }
    return true;
}

std::vector<std::optional<std::string_view>> OdbcStatement::binaryRow(std::size_t count) {
    std::vector<std::optional<std::string_view>> row(count);
    binaries_.resize(count);
    if (run([&] { return SQLFetch(handle_->get()); })) {
        for (std::size_t i = 0; i < count; ++i) {
            row[i] = readBinary(i);
        }
    }
    return row;
}

std::optional<std::string_view> OdbcStatement::readBinary(std::size_t index) {
    std::string& binary = binaries_[index];
    binary.resize(std::max(binary.capacity(), binaryPiece));
    std::size_t used = 0;
    SQLLEN bytes = 0;
    while (run([&] {
        bytes = 0;
        return SQLGetData(handle_->get(), static_cast<SQLUSMALLINT>(index + 1), SQL_C_BINARY, binary.data() + used,
                          static_cast<SQLLEN>(binary.size() - used), &bytes);
    })) {
        if (bytes == SQL_NULL_DATA) {
            return std::nullopt;
        }
        // What was left before this piece, or that it is not known.
        const std::size_t room = binary.size() - used;
        if (bytes >= 0 && static_cast<std::size_t>(bytes) <= room) {
            used += static_cast<std::size_t>(bytes);
            break;
        }
        used = binary.size();
        const std::size_t left = bytes > 0 ? static_cast<std::size_t>(bytes) - room : binaryPiece;
        if (left > longestBinary - used) {
            throw RuntimeError(errors::outOfMemory);
        }
        binary.resize(used + left);
    }
    return std::string_view(binary).substr(0, used);
}

std::vector<SQLSMALLINT> OdbcStatement::types() {
    if (columns_.empty()) {
        prepareBlock();
    }
    std::vector<SQLSMALLINT> types;
    for (const OdbcColumn& column : columns_) {
        types.push_back(column.sqlType);
    }
    return types;
}

std::int64_t OdbcStatement::changedRows() {
    SQLLEN count = 0;
    run([&] { return SQLRowCount(handle_->get(), &count); });
    return std::max<std::int64_t>(count, 0);
}

bool OdbcStatement::close() {
    return SQL_SUCCEEDED(SQLFreeStmt(handle_->get(), SQL_CLOSE));
}

// ---- its rows

void OdbcStatement::prepareBlock() {
    SQLSMALLINT count = 0;
    run([&] { return SQLNumResultCols(handle_->get(), &count); });
    for (SQLSMALLINT i = 1; i <= count; ++i) {
        SQLSMALLINT nameLength = 0;
        SQLSMALLINT type = 0;
        SQLULEN size = 0;
        SQLSMALLINT digits = 0;
        SQLSMALLINT nullable = 0;
        std::array<SQLWCHAR, 128> name{};
        run([&] {
            return SQLDescribeColW(handle_->get(), static_cast<SQLUSMALLINT>(i), name.data(),
                                   static_cast<SQLSMALLINT>(name.size()), &nameLength, &type, &size, &digits,
                                   &nullable);
        });
        columns_.push_back(columnOf(type, size, session_.dialect().textsAreUtf8));
    }
    if (columns_.empty()) {
        return;
    }
    placeColumns();
    bindColumns();
}

// Where the driver cannot read on in a row of a block, a column whose texts may not fit their place is left out of
// it, with all behind it, and rows come one by one.
void OdbcStatement::placeColumns() {
    std::size_t rowBytes = 0;
    boundColumns_ = columns_.size();
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        rowBytes += columns_[i].width + sizeof(SQLLEN);
        if (columns_[i].mayBeLonger && !session_.readsInsideBlocks()) {
            boundColumns_ = std::min(boundColumns_, i);
        }
    }
    rows_ = boundColumns_ < columns_.size() || session_.dialect().rowsComeSingly
                ? 1
                : std::clamp<std::size_t>(blockMemory / std::max<std::size_t>(rowBytes, 1), 1, blockRows);
    std::size_t size = 0;
    for (OdbcColumn& column : columns_) {
        constexpr std::size_t alignment = alignof(std::max_align_t);
        column.offset = size;
        column.indicators.assign(rows_, SQL_NULL_DATA);
        size += (column.width * rows_ + alignment - 1) / alignment * alignment;
    }
    memory_ = std::make_unique_for_overwrite<std::byte[]>(size);
}

void OdbcStatement::bindColumns() {
    SQLHANDLE statement = handle_->get();
    rowStates_.assign(rows_, SQL_ROW_NOROW);
    const auto set = [&](SQLINTEGER attribute, SQLPOINTER value) {
        run([&] { return SQLSetStmtAttrW(statement, attribute, value, 0); });
    };
    set(SQL_ATTR_ROW_ARRAY_SIZE, odbcNumber(rows_));
    set(SQL_ATTR_ROW_STATUS_PTR, rowStates_.data());
    set(SQL_ATTR_ROWS_FETCHED_PTR, &fetched_);
    for (std::size_t i = 0; i < boundColumns_; ++i) {
        OdbcColumn& column = columns_[i];
        run([&] {
            return SQLBindCol(statement, static_cast<SQLUSMALLINT>(i + 1), column.cType, place(column, 0),
                              static_cast<SQLLEN>(column.width), column.indicators.data());
        });
    }
}

bool OdbcStatement::fetchBlock() {
    row_ = 0;
    fetched_ = 0;
    if (!run([&] { return SQLFetch(handle_->get()); })) {
        return false;
    }
    fetched_ = std::min<SQLULEN>(fetched_, rows_);
    const std::span<const SQLUSMALLINT> states(rowStates_.data(), fetched_);
    if (std::find(states.begin(), states.end(), SQL_ROW_ERROR) != states.end()) {
        session_.fail(SQL_HANDLE_STMT, handle_->get());
    }
    return fetched_ > 0;
}

void OdbcStatement::readColumn(std::size_t index) {
    OdbcColumn& column = columns_[index];
    if (index >= boundColumns_ && column.type != SqlType::Text) {
        column.indicators[0] = SQL_NULL_DATA;
        run([&] {
            return SQLGetData(handle_->get(), static_cast<SQLUSMALLINT>(index + 1), column.cType, place(column, 0),
                              static_cast<SQLLEN>(column.width), column.indicators.data());
        });
    }
    if (index >= boundColumns_ && column.type == SqlType::Text) {
        readLongText(index);
    } else if (const SQLLEN bytes = column.indicators[row_]; bytes == SQL_NULL_DATA) {
        column.value.type = SqlType::Null;
    } else {
        readPlace(index, bytes);
    }
}

void OdbcStatement::readPlace(std::size_t index, SQLLEN bytes) {
    OdbcColumn& column = columns_[index];
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
            if (bytes < 0 || static_cast<std::size_t>(bytes) > column.width - endMark(column)) {
                if (rows_ > 1) {
                    run([&] {
                        return SQLSetPos(handle_->get(), static_cast<SQLSETPOSIROW>(row_ + 1), SQL_POSITION,
                                         SQL_LOCK_NO_CHANGE);
                    });
                }
                readLongText(index);
            } else if (isNarrow(column)) {
                column.value.text = {reinterpret_cast<const char*>(source), static_cast<std::size_t>(bytes)};
            } else {
                assignUtf8(column.text, {reinterpret_cast<const char16_t*>(source),
                                         static_cast<std::size_t>(bytes) / sizeof(char16_t)});
                column.value.text = column.text;
            }
            break;
        case SqlType::Null:
        case SqlType::Blob:
            break;
    }
}

// Piece by piece. A text beyond what is taken from a column counts as binary data, which nobody reads.
void OdbcStatement::readLongText(std::size_t index) {
    OdbcColumn& column = columns_[index];
    std::string text;  // bytes of either kind
    std::array<char, 16384> piece{};
    const std::size_t capacity = piece.size() - endMark(column);
    SQLLEN bytes = 0;
    while (text.size() <= maxSqlText * endMark(column) && run([&] {
               return SQLGetData(handle_->get(), static_cast<SQLUSMALLINT>(index + 1), column.cType, piece.data(),
                                 static_cast<SQLLEN>(piece.size()), &bytes);
           })) {
        if (bytes == SQL_NULL_DATA) {
            column.value.type = SqlType::Null;
            return;
        }
        const bool isLast = bytes >= 0 && static_cast<std::size_t>(bytes) <= capacity;
        text.append(piece.data(), isLast ? static_cast<std::size_t>(bytes) : capacity);
        if (isLast) {
            break;
        }
    }
    column.value.type = text.size() <= maxSqlText * endMark(column) ? SqlType::Text : SqlType::Blob;
    if (isNarrow(column)) {
        column.text = std::move(text);
    } else {
        std::u16string units(text.size() / sizeof(char16_t), u'\0');
        std::memcpy(units.data(), text.data(), units.size() * sizeof(char16_t));
        assignUtf8(column.text, units);
    }
    column.value.text = column.text;
}

}  // namespace quelm
