#pragma once

// PostgreSQL's ODBC driver takes every field of a row apart as text, which costs more than all the rest of a read. In a
// packed row the dates, the numbers and the key stand in one field, in the database's own binary form.

#include <sql.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/Sql.h"

namespace quelm {

class PackedRows {
 public:
    // The columns of "SELECT columns FROM source", with their SQL types. Nothing when packing them gains nothing.
    static std::optional<PackedRows> make(std::string_view columns, std::string_view source,
                                          std::span<const SQLSMALLINT> types);

    // The statement that reads the rows packed.
    const std::string& sql() const { return sql_; }
    // The columns of that statement.
    std::size_t width() const { return width_; }
    // The row as it was asked for; a field that cannot be read is Null. Texts are valid as long as those of packed.
    void unpack(std::span<const SqlValue> packed, std::span<SqlValue> columns) const;

 private:
    enum class Kind : std::uint8_t { Date, Real, Text, OwnColumn };
    struct Place {
        Kind kind;
        std::size_t at;  // the byte in the packed field, or the column of the statement
    };

    std::string sql_;
    std::size_t width_ = 1;
    std::vector<Place> places_;
};

}  // namespace quelm
