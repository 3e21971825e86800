#pragma once

// PostgreSQL's ODBC driver takes every field of every row apart as text, which costs more than all the rest of a read.
// Here the database packs each column of all rows into one binary value, in its own binary form.

#include <sql.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/sql/Sql.h"

namespace quelm {

class PackedRows {
 public:
    // The rows of "SELECT columns FROM source", whose columns have these SQL types. Nothing where there are others
    // than dates, whole and double precision numbers and texts.
    static std::optional<PackedRows> make(std::string_view columns, std::string_view source,
                                          std::span<const SQLSMALLINT> types);

    // The statement whose one row are the columns packed, all NULL without rows. Texts come in the client's encoding,
    // which must be UTF-8.
    const std::string& sql() const { return sql_; }
    std::size_t width() const { return kinds_.size(); }
    // Takes as many columns as there are. Raises RuntimeError 13 when they do not go together; rows before the damage
    // have been handed over.
    void unpack(std::span<const std::optional<std::string_view>> packed, ISqlRowSink& sink) const;

 private:
    enum class Kind : std::uint8_t { Date, Integer, Real, Text };

    std::size_t countRows(std::string_view firstColumn) const;

    std::string sql_;
    std::vector<Kind> kinds_;
};

}  // namespace quelm
