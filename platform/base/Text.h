#pragma once

// Text helpers that count characters as code points and compare by folded Unicode case, never by bytes.

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

// Simple Unicode case folding, code point by code point; bytes that are no UTF-8 stay as they are.
std::string foldCase(std::string_view text);
char32_t foldCase(char32_t codePoint);
std::string toUpperCase(std::string_view text);
bool equalsIgnoringCase(std::string_view left, std::string_view right);

// A folded key for a look-up; short ASCII keys (the usual ones) need no allocation.
class FoldedKey {
 public:
    explicit FoldedKey(std::string_view key);
    FoldedKey(const FoldedKey&) = delete;
    FoldedKey& operator=(const FoldedKey&) = delete;
    std::string_view view() const { return view_; }

 private:
    std::array<char, 64> short_;
    std::string long_;
    std::string_view view_;
};

constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::size_t characterCount(std::string_view text);
// The first count characters; the whole text when it is not longer.
std::string_view leftCharacters(std::string_view text, std::size_t count);

// Blanks (U+0020) at both ends, as the product trims.
std::string_view trimBlanks(std::string_view text);
std::string_view trimLeftBlanks(std::string_view text);

// A number written in plain or exponent form with "." as decimal point, surrounded by blanks or not; also
// "&H1F" and "&O17". Nothing for any other text. Independent of the process's locale.
std::optional<double> parseNumber(std::string_view text);

}  // namespace quelm
