#include "base/Text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>

#include "base/CaseTable.h"
#include "base/Utf.h"

namespace quelm {

namespace {

// Eight bytes at a time: names are looked at by the hundred thousand.
bool isAscii(std::string_view text) {
    constexpr std::uint64_t beyond = 0x8080808080808080;
    std::uint64_t all = 0;
    std::size_t at = 0;
    for (; at + sizeof all <= text.size(); at += sizeof all) {
        std::uint64_t some = 0;
        std::memcpy(&some, text.data() + at, sizeof some);
        all |= some;
    }
    for (; at < text.size(); ++at) {
        all |= static_cast<unsigned char>(text[at]);
    }
    return (all & beyond) == 0;
}

char foldAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

char32_t foldByRuns(std::span<const CaseRun> runs, char32_t codePoint) {
    const auto run = std::lower_bound(runs.begin(), runs.end(), codePoint,
                                      [](const CaseRun& each, char32_t wanted) { return each.last < wanted; });
    if (run == runs.end() || codePoint < run->first || (codePoint - run->first) % run->step != 0) {
        return codePoint;
    }
    return static_cast<char32_t>(static_cast<std::int32_t>(codePoint) + run->distance);
}

char32_t toUpperCodePoint(char32_t codePoint) {
    const char32_t folded = foldCase(codePoint);
    if (folded >= 'a' && folded <= 'z') {
        return folded - 32;
    }
    for (const CaseRun& run : capitalRuns) {
        const auto capital = static_cast<char32_t>(static_cast<std::int32_t>(folded) - run.distance);
        if (capital >= run.first && capital <= run.last && (capital - run.first) % run.step == 0) {
            return capital;
        }
    }
    return codePoint;
}

// A byte that is no part of sound UTF-8 stands for itself above all code points, so that texts that differ only in
// such bytes stay apart.
constexpr char32_t strayByte = 0x110000;

char32_t nextCharacter(std::string_view text, std::size_t& position) {
    const auto first = static_cast<unsigned char>(text[position]);
    const std::size_t start = position;
    const char32_t codePoint = nextCodePoint(text, position);
    return first >= 0x80 && position == start + 1 ? strayByte + first : codePoint;
}

template <class Map>
std::string mapCodePoints(std::string_view text, Map map) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t position = 0; position < text.size();) {
        const char32_t character = nextCharacter(text, position);
        if (character >= strayByte) {
            out += static_cast<char>(static_cast<unsigned char>(character - strayByte));
        } else {
            appendUtf8(out, map(character));
        }
    }
    return out;
}

// "&HFFFF" is -1 as it always was: up to 16 bits read as a 16-bit integer, up to 32 bits as a 32-bit one.
std::optional<double> parseBased(std::string_view digits, int base) {
    std::uint32_t bits = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), bits, base);
    if (error != std::errc() || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return bits <= 0xFFFF ? static_cast<std::int16_t>(bits) : static_cast<std::int32_t>(bits);
}

// The power of ten of the first digit that counts; tells a number too small for a double from one too large.
std::int64_t decimalMagnitude(std::string_view number) {
    const std::size_t exponentAt = std::min(number.find_first_of("eE"), number.size());
    std::int64_t exponent = 0;
    if (exponentAt < number.size()) {
        const bool negative = number[exponentAt + 1] == '-';
        const std::size_t start = exponentAt + (negative || number[exponentAt + 1] == '+' ? 2 : 1);
        const auto result = std::from_chars(number.data() + start, number.data() + number.size(), exponent);
        constexpr std::int64_t beyondAnyText = std::int64_t{1} << 60;
        exponent = result.ec == std::errc() ? exponent : beyondAnyText;
        exponent = negative ? -exponent : exponent;
    }
    const std::string_view mantissa = number.substr(0, exponentAt);
    const auto point = static_cast<std::int64_t>(std::min(mantissa.find('.'), mantissa.size()));
    const auto first = static_cast<std::int64_t>(std::min(mantissa.find_first_not_of("0."), mantissa.size()));
    return exponent + (first < point ? point - first - 1 : point - first);
}

std::optional<double> parsePlain(std::string_view number) {
    const bool startsAsNumber =
        !number.empty() && (isDigit(number[0]) || (number[0] == '.' && number.size() > 1 && isDigit(number[1])));
    if (!startsAsNumber) {
        return std::nullopt;
    }
    double value = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (end != number.data() + number.size()) {
        return std::nullopt;
    }
    if (error == std::errc::result_out_of_range) {
        return decimalMagnitude(number) < 0 ? std::optional<double>(0) : std::nullopt;
    }
    return value;
}

}  // namespace

char32_t foldCase(char32_t codePoint) {
    if (codePoint < 0x80) {
        return codePoint >= 'A' && codePoint <= 'Z' ? codePoint + 32 : codePoint;
    }
    const char32_t folded = foldByRuns(capitalRuns, codePoint);
    return folded != codePoint ? folded : foldByRuns(foldOnlyRuns, codePoint);
}

std::string foldCase(std::string_view text) {
    if (isAscii(text)) {
        std::string out(text);
        std::transform(out.begin(), out.end(), out.begin(), foldAscii);
        return out;
    }
    return mapCodePoints(text, [](char32_t codePoint) { return foldCase(codePoint); });
}

std::string toUpperCase(std::string_view text) {
    return mapCodePoints(text, toUpperCodePoint);
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    std::size_t leftAt = 0;
    std::size_t rightAt = 0;
    while (leftAt < left.size() && rightAt < right.size()) {
        if (foldCase(nextCharacter(left, leftAt)) != foldCase(nextCharacter(right, rightAt))) {
            return false;
        }
    }
    return leftAt == left.size() && rightAt == right.size();
}

FoldedKey::FoldedKey(std::string_view key) {
    if (key.size() <= short_.size() && isAscii(key)) {
        std::transform(key.begin(), key.end(), short_.begin(), foldAscii);
        view_ = std::string_view(short_.data(), key.size());
    } else {
        long_ = foldCase(key);
        view_ = long_;
    }
}

std::size_t characterCount(std::string_view text) {
    if (isAscii(text)) {
        return text.size();
    }
    std::size_t count = 0;
    for (std::size_t position = 0; position < text.size(); ++count) {
        nextCodePoint(text, position);
    }
    return count;
}

std::string_view leftCharacters(std::string_view text, std::size_t count) {
    if (const std::string_view left = text.substr(0, count); isAscii(left)) {
        return left;
    }
    std::size_t position = 0;
    for (; count > 0 && position < text.size(); --count) {
        nextCodePoint(text, position);
    }
    return text.substr(0, position);
}

std::string_view trimLeftBlanks(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

std::string_view trimBlanks(std::string_view text) {
    return trimLeftBlanks(text.substr(0, text.find_last_not_of(' ') + 1));
}

std::optional<double> parseNumber(std::string_view text) {
    std::string_view number = trimBlanks(text);
    if (number.size() > 2 && number[0] == '&') {
        switch (foldAscii(number[1])) {
            case 'h':
                return parseBased(number.substr(2), 16);
            case 'o':
                return parseBased(number.substr(2), 8);
            default:
                return std::nullopt;
        }
    }
    const bool negative = number.starts_with('-');
    if (negative || number.starts_with('+')) {
        number.remove_prefix(1);
    }
    const std::optional<double> magnitude = parsePlain(number);
    return magnitude && negative ? std::optional<double>(-*magnitude) : magnitude;
}

}  // namespace quelm
