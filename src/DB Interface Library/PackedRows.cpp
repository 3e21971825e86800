#include "DB Interface Library/PackedRows.h"

#include <fmt/format.h>
#include <sqlext.h>
#include <sqlucode.h>

#include <algorithm>
#include <bit>
#include <limits>

#include "Shared Types/Date.h"
#include "Shared Types/Text.h"

namespace quelm {

namespace {

constexpr std::size_t numberSize = 8;
// What stands for NULL: no number, no date and no text of the database looks like these.
constexpr std::uint64_t noNumber = std::numeric_limits<std::uint64_t>::max();
constexpr std::int64_t noDate = std::numeric_limits<std::int64_t>::min();
constexpr char noText = '\xFF';

const std::int64_t epoch = dayNumber(2000, 1, 1);
const std::int64_t firstDay = dayNumber(100, 1, 1);
const std::int64_t lastDay = dayNumber(9999, 12, 31);

bool isText(SQLSMALLINT type) {
    return type == SQL_VARCHAR || type == SQL_LONGVARCHAR || type == SQL_WVARCHAR || type == SQL_WLONGVARCHAR;
}

bool isReal(SQLSMALLINT type) {
    return type == SQL_DOUBLE || type == SQL_FLOAT;
}

std::uint64_t bigEndian(std::string_view bytes) {
    std::uint64_t number = 0;
    for (const char byte : bytes.substr(0, numberSize)) {
        number = number << 8 | static_cast<unsigned char>(byte);
    }
    return number;
}

SqlValue realValue(std::uint64_t bits) {
    SqlValue value;
    if (bits != noNumber) {
        value.type = SqlType::Real;
        value.real = std::bit_cast<double>(bits);
    }
    return value;
}

// From microseconds since 2000. Null for a date that the product's dates do not reach; so are those without end.
SqlValue dateValue(std::int64_t microseconds) {
    constexpr std::int64_t perDay = 86'400'000'000;
    std::int64_t day = epoch + microseconds / perDay;
    std::int64_t rest = microseconds % perDay;
    if (rest < 0) {
        rest += perDay;
        --day;
    }
    SqlValue value;
    if (day >= firstDay && day <= lastDay) {
        value.type = SqlType::Date;
        value.real = dateFromLinearDays(day, static_cast<double>(rest) / static_cast<double>(perDay)).days;
    }
    return value;
}

SqlValue textValue(std::string_view text) {
    SqlValue value;
    if (!text.starts_with(noText)) {
        value.type = SqlType::Text;
        value.text = text;
    }
    return value;
}

std::vector<std::string_view> splitList(std::string_view list) {
    std::vector<std::string_view> parts;
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        parts.push_back(trimBlanks(list.substr(0, comma)));
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return parts;
}

}  // namespace

std::optional<PackedRows> PackedRows::make(std::string_view columns, std::string_view source,
                                           std::span<const SQLSMALLINT> types) {
    const std::vector<std::string_view> names = splitList(columns);
    if (names.size() != types.size() || names.size() > maxScanColumns) {
        return std::nullopt;
    }
    PackedRows rows;
    std::string packed;
    std::string others;
    std::size_t numbers = 0;
    std::optional<std::size_t> key;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (types[i] == SQL_TYPE_TIMESTAMP || isReal(types[i])) {
            const bool isDate = types[i] == SQL_TYPE_TIMESTAMP;
            rows.places_.push_back({isDate ? Kind::Date : Kind::Real, numberSize * numbers++});
            packed += isDate
                          ? fmt::format("coalesce(timestamp_send(CAST({} AS TIMESTAMP)), decode('{:016x}', 'hex')) || ",
                                        names[i], static_cast<std::uint64_t>(noDate))
                          : fmt::format("coalesce(float8send({}), decode('{:016x}', 'hex')) || ", names[i], noNumber);
        } else if (isText(types[i]) && !key) {
            key = i;
            rows.places_.push_back({Kind::Text, 0});
        } else {
            rows.places_.push_back({Kind::OwnColumn, rows.width_++});
            others.append(", ").append(names[i]);
        }
    }
    if (numbers == 0 || !key) {
        return std::nullopt;
    }
    // Its length is what is left.
    rows.places_[*key].at = numberSize * numbers;
    rows.sql_ = fmt::format("SELECT {}coalesce(textsend(CAST({} AS TEXT)), decode('{:02x}', 'hex')){} FROM {}", packed,
                            names[*key], static_cast<unsigned char>(noText), others, source);
    return rows;
}

void PackedRows::unpack(std::span<const SqlValue> packed, std::span<SqlValue> columns) const {
    const std::string_view bytes = packed[0].type == SqlType::Blob ? packed[0].text : std::string_view();
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const auto [kind, at] = i < places_.size() ? places_[i] : Place{Kind::OwnColumn, packed.size()};
        columns[i] = SqlValue{};
        if (kind == Kind::OwnColumn) {
            columns[i] = at < packed.size() ? packed[at] : SqlValue{};
        } else if (kind == Kind::Text) {
            columns[i] = bytes.size() >= at ? textValue(bytes.substr(at)) : SqlValue{};
        } else if (bytes.size() >= at + numberSize) {
            const std::uint64_t bits = bigEndian(bytes.substr(at));
            columns[i] = kind == Kind::Real ? realValue(bits) : dateValue(static_cast<std::int64_t>(bits));
        }
    }
}

}  // namespace quelm
