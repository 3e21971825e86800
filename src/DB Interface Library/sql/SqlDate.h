#pragma once

// Reads the time stamps of a database column: a hundred thousand of them at a time, and mostly the same one.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "DB Interface Library/sql/Sql.h"
#include "base/Date.h"

namespace quelm {

class SqlDateReader {
 public:
    // Local time: a date of the database, text "yyyy-MM-dd HH:mm:ss" with up to nine digits of a second's fraction
    // (with "T" between the parts too, and every form that leaves no doubt), or a number of days since 1899-12-30.
    // The zero date for NULL, for anything else, and for text with a time zone, which local time has no place for.
    Date read(const SqlValue& value);

 private:
    Date readText(std::string_view text);
    std::optional<Date> readFixedForm(std::string_view text);

    std::array<char, 32> lastText_{};
    std::size_t lastLength_ = 0;
    Date lastDate_;
    std::array<char, 10> lastDay_{};
    std::int64_t lastDayNumber_ = 0;
};

}  // namespace quelm
