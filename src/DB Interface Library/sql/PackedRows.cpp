#include "DB Interface Library/sql/PackedRows.h"

#include <endian.h>
#include <fmt/format.h>
#include <sqlext.h>
#include <sqlucode.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "base/Date.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

constexpr std::size_t numberSize = 8;
// What stands for NULL: no number, no date and no text of the database looks like these.
constexpr std::uint64_t noNumber = std::numeric_limits<std::uint64_t>::max();
constexpr std::int64_t noDate = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t noInteger = noDate;
constexpr char noText = '\xFF';

const std::int64_t epoch = dayNumber(2000, 1, 1);
const std::int64_t firstDay = dayNumber(100, 1, 1);
const std::int64_t lastDay = dayNumber(9999, 12, 31);

std::uint64_t bigEndian(const char* bytes) {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes, numberSize);
    return be64toh(number);
}

void readReal(std::uint64_t bits, SqlValue& value) {
    value.type = bits != noNumber ? SqlType::Real : SqlType::Null;
    value.real = std::bit_cast<double>(bits);
}

void readInteger(std::int64_t number, SqlValue& value) {
    value.type = number != noInteger ? SqlType::Integer : SqlType::Null;
    value.integer = number;
}

// From microseconds since 2000. Null for a date that the product's dates do not reach; so are those without end.
void readDate(std::int64_t microseconds, SqlValue& value) {
    constexpr std::int64_t perDay = 86'400'000'000;
    std::int64_t day = microseconds / perDay;
    std::int64_t rest = microseconds - day * perDay;
    if (rest < 0) {
        rest += perDay;
        --day;
    }
    day += epoch;
    if (day < firstDay || day > lastDay) {
        value.type = SqlType::Null;
        return;
    }
    value.type = SqlType::Date;
    value.real = dateFromLinearDays(day, static_cast<double>(rest) / static_cast<double>(perDay)).days;
}

void readText(std::string_view text, SqlValue& value) {
    value.type = text.starts_with(noText) ? SqlType::Null : SqlType::Text;
    value.text = text;
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
    std::string list;
    for (std::size_t i = 0; i < names.size(); ++i) {
        list += i == 0 ? "" : ", ";
        switch (types[i]) {
            case SQL_TYPE_TIMESTAMP:
                rows.kinds_.push_back(Kind::Date);
                list += fmt::format(
                    "string_agg(coalesce(timestamp_send(CAST({} AS TIMESTAMP)), decode('{:016x}', 'hex')), '')",
                    names[i], static_cast<std::uint64_t>(noDate));
                break;
            case SQL_DOUBLE:
            case SQL_FLOAT:
                rows.kinds_.push_back(Kind::Real);
                list += fmt::format("string_agg(coalesce(float8send({}), decode('{:016x}', 'hex')), '')", names[i],
                                    noNumber);
                break;
            case SQL_SMALLINT:
            case SQL_INTEGER:
            case SQL_BIGINT:
                rows.kinds_.push_back(Kind::Integer);
                list += fmt::format("string_agg(coalesce(int8send({}), decode('{:016x}', 'hex')), '')", names[i],
                                    static_cast<std::uint64_t>(noInteger));
                break;
            case SQL_VARCHAR:
            case SQL_LONGVARCHAR:
            case SQL_WVARCHAR:
            case SQL_WLONGVARCHAR:
                rows.kinds_.push_back(Kind::Text);
                list += fmt::format(
                    "string_agg(coalesce(textsend(CAST({} AS TEXT)), decode('{:02x}', 'hex')), decode('00', 'hex'))",
                    names[i], static_cast<unsigned char>(noText));
                break;
            default:
                return std::nullopt;
        }
    }
    rows.sql_ = fmt::format("SELECT {} FROM {}", list, source);
    return rows;
}

std::size_t PackedRows::countRows(std::string_view firstColumn) const {
    return kinds_[0] == Kind::Text
               ? static_cast<std::size_t>(std::count(firstColumn.begin(), firstColumn.end(), '\0')) + 1
               : firstColumn.size() / numberSize;
}

void PackedRows::unpack(std::span<const std::optional<std::string_view>> packed, ISqlRowSink& sink) const {
    const auto isThere = [](const auto& column) { return column.has_value(); };
    if (std::none_of(packed.begin(), packed.end(), isThere)) {
        return;
    }
    const auto damaged = [] { throw RuntimeError(errors::typeMismatch, "The database's packed rows are damaged"); };
    if (packed.size() != kinds_.size() || !std::all_of(packed.begin(), packed.end(), isThere)) {
        damaged();
    }
    std::array<std::string_view, maxScanColumns> rests;
    std::transform(packed.begin(), packed.end(), rests.begin(), [](const auto& column) { return *column; });
    std::array<SqlValue, maxScanColumns> values;
    const auto columns = std::span(values).first(kinds_.size());
    for (std::size_t left = countRows(rests[0]); left > 0; --left) {
        for (std::size_t i = 0; i < columns.size(); ++i) {
            std::string_view& rest = rests[i];
            if (kinds_[i] == Kind::Text) {
                // Between two texts stands a NUL, which no text of the database holds.
                const std::size_t end = rest.find('\0');
                if ((end == std::string_view::npos) != (left == 1)) {
                    damaged();
                }
                readText(rest.substr(0, end), columns[i]);
                rest.remove_prefix(left == 1 ? rest.size() : end + 1);
                continue;
            }
            if (rest.size() < numberSize || (left == 1 && rest.size() > numberSize)) {
                damaged();
            }
            const std::uint64_t bits = bigEndian(rest.data());
            if (kinds_[i] == Kind::Real) {
                readReal(bits, columns[i]);
            } else if (kinds_[i] == Kind::Integer) {
                readInteger(static_cast<std::int64_t>(bits), columns[i]);
            } else {
                readDate(static_cast<std::int64_t>(bits), columns[i]);
            }
            rest.remove_prefix(numberSize);
        }
        sink.take(columns);
    }
}

}  // namespace quelm
