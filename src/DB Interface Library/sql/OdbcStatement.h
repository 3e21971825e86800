#pragma once

// One statement on an ODBC connection: typed parameters in, typed rows out, block by block. It can be run again and
// again, and is prepared once.

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DB Interface Library/sql/OdbcSession.h"
#include "DB Interface Library/sql/Sql.h"

namespace quelm {

// The values of a statement's parameters; they must stay in place until it has run.
class OdbcParameters {
 public:
    OdbcParameters();
    OdbcParameters(const OdbcParameters&) = delete;
    OdbcParameters& operator=(const OdbcParameters&) = delete;
    ~OdbcParameters();
    void bind(OdbcSession& session, SQLHANDLE statement, SqlParameters parameters);

 private:
    struct Value;
    std::list<Value> values_;
};

// A column of a block.
struct OdbcColumn {
    SQLSMALLINT sqlType = SQL_UNKNOWN_TYPE;
    SqlType type = SqlType::Text;
    SQLSMALLINT cType = SQL_C_WCHAR;
    std::size_t width = 0;  // bytes of one row's place in the block
    bool mayBeLonger = false;
    std::size_t offset = 0;  // of the column's places in the block's memory
    std::vector<SQLLEN> indicators;
    SqlValue value;    // of the row that the cursor stands on
    std::string text;  // behind the value
};

class OdbcStatement {
 public:
    // Nothing is sent yet. The session must outlive the statement.
    OdbcStatement(OdbcSession& session, std::string sql);
    OdbcStatement(const OdbcStatement&) = delete;
    OdbcStatement& operator=(const OdbcStatement&) = delete;
    ~OdbcStatement();

    const std::string& sql() const { return sql_; }
    bool isPrepared() const { return prepared_; }
    // Prepares a statement that has parameters; one without is taken as a text that may hold several statements.
    void execute(SqlParameters parameters);
    // Moves to the next row; False behind the last one.
    bool next();
    // Column of the row, counted from 0; a Null beyond the last column. Its text is valid until the next row.
    SqlValue value(std::size_t index) const { return index < columns_.size() ? columns_[index].value : SqlValue{}; }
    // The SQL types of its columns.
    std::vector<SQLSMALLINT> types();
    // The first columns of the one row that the statement gives, binary values read whole; nothing for NULL, and for a
    // row that is not there. Valid until the next one. Instead of next(), never beside it.
    std::vector<std::optional<std::string_view>> binaryRow(std::size_t count);
    std::int64_t changedRows();
    // Lets go of the rows, so that it can be run again. False when it cannot.
    bool close();

 private:
    template <class Step>
    bool run(Step step) {
        return session_.run(handle_->get(), step);
    }
    void prepare();
    std::optional<std::string_view> readBinary(std::size_t index);
    void prepareBlock();
    void placeColumns();
    void bindColumns();
    bool fetchBlock();
    std::byte* place(const OdbcColumn& column, std::size_t row) const {
        return memory_.get() + column.offset + column.width * row;
    }
    void readColumn(std::size_t index);
    void readPlace(std::size_t index, SQLLEN bytes);
    void readLongText(std::size_t index);

    OdbcSession& session_;
    std::string sql_;
    bool prepared_ = false;
    OdbcParameters parameters_;
    std::vector<OdbcColumn> columns_;
    std::size_t boundColumns_ = 0;
    std::unique_ptr<std::byte[]> memory_;
    std::size_t rows_ = 1;
    std::vector<SQLUSMALLINT> rowStates_;
    SQLULEN fetched_ = 0;
    std::size_t row_ = 0;
    bool atEnd_ = true;
    std::vector<std::string> binaries_;
    // The driver knows all that stands above.
    std::optional<OdbcHandle<SQL_HANDLE_STMT>> handle_;
};

}  // namespace quelm
