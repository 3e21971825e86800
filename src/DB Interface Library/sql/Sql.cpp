#include "DB Interface Library/sql/Sql.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <utility>

#include "DB Interface Library/sql/OdbcDriver.h"
#include "DB Interface Library/sql/SqliteDriver.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

struct Part {
    std::string_view key;  // as written, without blanks around it
    std::string value;     // without braces or quotes
    bool hasKey = false;
};

// The text of a value that opened with a brace or quote; a closing mark that is doubled stands for itself. Without
// the closing mark everything to the end belongs to it, so that no piece of a password is taken for something else.
std::string takeEnclosed(std::string_view& rest, char closing) {
    std::string value;
    rest.remove_prefix(1);
    while (!rest.empty()) {
        const char c = rest.front();
        rest.remove_prefix(1);
        if (c != closing) {
            value += c;
        } else if (rest.starts_with(closing)) {
            value += c;
            rest.remove_prefix(1);
        } else {
            break;
        }
    }
    return value;
}

std::string takeValue(std::string_view& rest) {
    rest = trimLeftBlanks(rest);
    std::string value;
    if (rest.starts_with('{')) {
        value = takeEnclosed(rest, '}');
    } else if (rest.starts_with('"') || rest.starts_with('\'')) {
        value = takeEnclosed(rest, rest.front());
    }
    const std::size_t end = rest.find(';');
    value += trimBlanks(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return value;
}

Part takePart(std::string_view& rest) {
    Part part;
    const std::size_t keyEnd = rest.find_first_of("=;");
    if (keyEnd == std::string_view::npos || rest[keyEnd] == ';') {
        part.value = trimBlanks(rest.substr(0, keyEnd));
        rest.remove_prefix(keyEnd == std::string_view::npos ? rest.size() : keyEnd + 1);
        return part;
    }
    part.hasKey = true;
    part.key = trimBlanks(rest.substr(0, keyEnd));
    rest.remove_prefix(keyEnd + 1);
    part.value = takeValue(rest);
    return part;
}

bool isSecret(std::string_view text) {
    const std::string folded = foldCase(text);
    for (const std::string_view word : {"pwd", "password", "passwd", "secret", "token"}) {
        if (folded.find(word) != std::string::npos) {
            return true;
        }
    }
    return false;
}

constexpr std::string_view hidden = "***";

// Where a value ends that begins there in a driver's message: with its quote or brace, or before what parts values.
std::size_t endOfShownValue(std::string_view message, std::size_t begin) {
    const char opening = message[begin];
    if (opening == '{' || opening == '"' || opening == '\'') {
        const std::size_t closing = message.find(opening == '{' ? '}' : opening, begin + 1);
        return closing == std::string_view::npos ? message.size() : closing + 1;
    }
    return std::min(message.find_first_of("; \t,", begin), message.size());
}

// Whatever stands behind "PWD=", "password: " and the like; all of a password that goes on behind its apparent end.
void hideBehindKeys(std::string& message, const std::vector<std::string_view>& passwords) {
    constexpr std::string_view blanks = " \t";
    for (std::size_t at = message.find_first_of("=:"); at != std::string::npos;
         at = message.find_first_of("=:", at + 1)) {
        const std::string_view before = trimBlanks(std::string_view(message).substr(0, at));
        const std::string_view key = before.substr(before.find_last_of("; \t,{(\"'") + 1);
        const std::size_t begin = message.find_first_not_of(blanks, at + 1);
        if (begin == std::string::npos || !isSecret(key)) {
            continue;
        }
        std::size_t end = endOfShownValue(message, begin);
        for (const std::string_view password : passwords) {
            if (std::string_view(message).substr(begin).starts_with(password)) {
                end = std::max(end, begin + password.size());
            }
        }
        message.replace(begin, end - begin, hidden);
    }
}

// Databases have decimals of more digits than the product's own; those become doubles.
Variant decimalVariant(std::string_view digits) {
    const std::optional<double> number = parseNumber(digits);
    if (!number) {
        return Variant::null();
    }
    constexpr double decimalLimit = 7.9e28;
    return std::fabs(*number) < decimalLimit ? Variant(Decimal::fromText(digits)) : Variant(*number);
}

}  // namespace

Variant sqlVariant(const SqlValue& value) {
    switch (value.type) {
        case SqlType::Integer:
            if (value.integer >= std::numeric_limits<std::int32_t>::min() &&
                value.integer <= std::numeric_limits<std::int32_t>::max()) {
                return Variant(static_cast<std::int32_t>(value.integer));
            }
            return Variant(Decimal::fromInteger(value.integer));
        case SqlType::Real:
            return Variant(value.real);
        case SqlType::Decimal:
            return decimalVariant(value.text);
        case SqlType::Date:
            return Variant(Date{value.real});
        case SqlType::Text:
            return value.text.size() <= maxSqlText ? Variant(value.text) : Variant::null();
        case SqlType::Null:
        case SqlType::Blob:
            break;
    }
    return Variant::null();
}

std::optional<std::int32_t> sqlWholeNumber(const SqlValue& value) {
    if (value.type == SqlType::Integer) {
        return std::in_range<std::int32_t>(value.integer) ? std::optional(static_cast<std::int32_t>(value.integer))
                                                          : std::nullopt;
    }
    std::optional<double> number;
    if (value.type == SqlType::Real) {
        number = value.real;
    } else if (value.type == SqlType::Decimal) {
        number = parseNumber(value.text);
    }
    constexpr double low = std::numeric_limits<std::int32_t>::min();
    constexpr double high = std::numeric_limits<std::int32_t>::max();
    if (!number || !(*number >= low && *number <= high) || *number != std::trunc(*number)) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(*number);
}

ConnectionString::ConnectionString(std::string_view text) : text_(text) {
    std::string_view rest = text;
    while (!rest.empty()) {
        Part part = takePart(rest);
        if (part.hasKey) {
            parts_.emplace_back(part.key, std::move(part.value));
        }
    }
}

const std::string* ConnectionString::find(std::string_view key) const {
    for (const auto& [name, value] : parts_) {
        if (equalsIgnoringCase(name, key)) {
            return &value;
        }
    }
    return nullptr;
}

std::string ConnectionString::withoutPasswords(std::string message) const {
    std::vector<std::string_view> passwords;
    for (const auto& [name, value] : parts_) {
        if (!value.empty() && isSecret(name)) {
            passwords.push_back(value);
        }
    }
    hideBehindKeys(message, passwords);
    // A short one may be part of any word: hiding it there would damage the message and give the password away.
    constexpr std::size_t longerThanWords = 8;
    for (const std::string_view password : passwords) {
        for (std::size_t at = 0; password.size() >= longerThanWords && at != std::string::npos;) {
            at = message.find(password, at);
            if (at != std::string::npos) {
                message.replace(at, password.size(), hidden);
                at += hidden.size();
            }
        }
    }
    return message;
}

std::string redactConnectionString(std::string_view text) {
    std::string shown;
    std::string_view rest = text;
    while (!rest.empty()) {
        const Part part = takePart(rest);
        if (!part.hasKey && part.value.empty()) {
            continue;
        }
        if (!shown.empty()) {
            shown += ';';
        }
        if (!part.hasKey) {
            shown += hidden;
        } else {
            shown.append(part.key).append("=").append(isSecret(part.key) ? std::string(hidden)
                                                                         : redactValue(part.value));
        }
    }
    return shown;
}

std::string redactValue(std::string_view value) {
    return std::string(isSecret(value) ? hidden : value);
}

std::unique_ptr<ISqlConnection> SqlDrivers::connection(std::string_view connectionString) const {
    const ConnectionString parsed(connectionString);
    for (const auto& driver : drivers_) {
        if (driver->accepts(parsed)) {
            return driver->connection(parsed);
        }
    }
    throw RuntimeError(sqlNoDriver, "Not a connection string: nothing in it reads key=value");
}

SqlDrivers builtInSqlDrivers(const SqlTimeouts& timeouts) {
    SqlDrivers drivers;
    SqliteTimeouts file{.query = timeouts.query, .connect = timeouts.connect};
    file.lock = std::min(file.lock, file.query);
    drivers.add(std::make_unique<SqliteDriver>(file));
    drivers.add(std::make_unique<OdbcDriver>(timeouts));
    return drivers;
}

}  // namespace quelm
