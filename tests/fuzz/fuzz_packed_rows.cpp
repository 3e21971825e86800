// A database's rows packed by columns. However damaged, no row reaches beyond its columns or holds what cannot be.

#include <sqlext.h>

#include <array>
#include <cmath>
#include <list>
#include <optional>

#include "DB Interface Library/sql/PackedRows.h"
#include "FuzzInput.h"

namespace quelm::fuzz {
namespace {

constexpr std::array<SQLSMALLINT, 4> types{SQL_VARCHAR, SQL_TYPE_TIMESTAMP, SQL_DOUBLE, SQL_LONGVARCHAR};

struct Rows final : ISqlRowSink {
    void take(std::span<const SqlValue> columns) override {
        require(columns.size() == types.size(), "a row has all columns");
        for (const std::size_t i : {0, 3}) {
            require(columns[i].type == SqlType::Null || columns[i].type == SqlType::Text, "a text or none");
            require(columns[i].text.find('\0') == std::string_view::npos, "no NUL in a text");
        }
        require(columns[1].type == SqlType::Null || std::fabs(columns[1].real) < 3e6, "a date of the product's");
        ++count;
    }
    std::size_t count = 0;
};

}  // namespace

void runInput(Input input) {
    const std::uint8_t nulls = input.u8();
    std::list<ExactCopy> copies;
    std::array<std::optional<std::string_view>, types.size()> packed;
    for (std::size_t i = 0; i < packed.size(); ++i) {
        const std::string_view column = copies.emplace_back(input.part()).text();
        packed[i] = (nulls >> i & 1) != 0 ? std::nullopt : std::optional(column);
    }
    Rows rows;
    mayRaise({errors::typeMismatch}, "damage is told as such", [&] {
        PackedRows::make("IOID, TStamp, NValue, XValue", "CurrentIO", types)->unpack(packed, rows);
        require(rows.count * 8 == packed[1].value_or("").size(), "all rows");
    });
}

}  // namespace quelm::fuzz
