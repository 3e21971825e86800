// A database's rows packed into one value. However damaged, no row reaches beyond the value or holds what cannot be.

#include <sqlext.h>

#include <array>
#include <cmath>

#include "DB Interface Library/PackedRows.h"
#include "FuzzInput.h"

namespace quelm::fuzz {
namespace {

constexpr std::array<SQLSMALLINT, 4> types{SQL_VARCHAR, SQL_TYPE_TIMESTAMP, SQL_DOUBLE, SQL_LONGVARCHAR};

struct Rows final : ISqlRowSink {
    explicit Rows(std::string_view packed) : packed(packed) {}
    void take(std::span<const SqlValue> columns) override {
        require(columns.size() == types.size(), "a row has all columns");
        for (const std::size_t i : {0, 3}) {
            require(columns[i].type == SqlType::Null || columns[i].type == SqlType::Text, "a text or none");
            require(columns[i].text.find('\0') == std::string_view::npos, "no NUL in a text");
            used += columns[i].text.size() + 1;
        }
        require(columns[1].type == SqlType::Null || std::fabs(columns[1].real) < 3e6, "a date of the product's");
        used += 16;
        require(used <= packed.size(), "not more than there is");
    }
    std::string_view packed;
    std::size_t used = 0;
};

}  // namespace

void runInput(Input input) {
    const ExactCopy copy(input.rest());
    Rows rows(copy.text());
    mayRaise({errors::typeMismatch}, "damage is told as such", [&] {
        PackedRows::make("IOID, TStamp, NValue, XValue", "CurrentIO", types)->unpack(copy.text(), rows);
        require(rows.used == copy.text().size(), "all of it");
    });
}

}  // namespace quelm::fuzz
