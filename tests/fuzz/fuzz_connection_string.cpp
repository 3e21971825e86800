// Connection strings as an operator writes them. However damaged, what is shown of one never holds the password, and
// what stands in braces is found as it is.

#include "DB Interface Library/sql/Sql.h"
#include "FuzzInput.h"

namespace quelm::fuzz {
namespace {

std::string inBraces(std::string_view value) {
    std::string text = "{";
    for (const char c : value) {
        text.append(c == '}' ? 2 : 1, c);
    }
    return text + "}";
}

void checkRedaction(const std::string& text, std::uint8_t mode) {
    constexpr std::string_view keys[] = {"PWD", "Password", "pwd ", "User Password"};
    constexpr std::string_view opening[] = {"", "{", "\"", "'"};
    constexpr std::string_view closing[] = {"", "}", "\"", "'"};
    const std::size_t form = mode >> 2 & 3;
    const std::string whole = text + ";" + std::string(keys[mode & 3]) + "=" + std::string(opening[form]) +
                              std::string(secret) + std::string(closing[form]) + ((mode & 16) != 0 ? ";" + text : "");
    require(redactConnectionString(whole).find(secret) == std::string::npos, "no password is shown");
}

void checkValues(const std::string& first, const std::string& second) {
    const ConnectionString parsed("First=" + inBraces(first) + ";SECOND = " + inBraces(second) + " ;First=x");
    require(parsed.find("first") != nullptr && *parsed.find("first") == first, "the first value is found as it is");
    require(parsed.find("second") != nullptr && *parsed.find("second") == second, "the second too");
    require(parsed.find("third") == nullptr, "nothing that isn't there");
}

}  // namespace

void runInput(Input input) {
    const std::uint8_t mode = input.u8();
    const std::string value = input.text();
    const ExactCopy copy(input.rest());
    const std::string text(copy.text());
    const std::string shown = redactConnectionString(copy.text());
    const ConnectionString parsed(copy.text());
    require(parsed.text() == text, "the text is kept as it is");
    // Pieces that only make the password once their quotes are gone are no password.
    if ((value + text + shown).find(secret) == std::string::npos) {
        checkRedaction(text, mode);
        checkValues(value, text);
    }
    try {
        builtInSqlDrivers().connection(copy.text());
    } catch (const RuntimeError&) {
        // A connection string that no driver takes is turned away in so many words.
    }
}

}  // namespace quelm::fuzz
