#include "base/Decimal.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

__extension__ using Wide = unsigned __int128;

constexpr Wide maxInteger = (static_cast<Wide>(1) << 96) - 1;
constexpr int maxScale = 28;
constexpr int maxDigits = 29;

Wide integerOf(const Decimal& value) {
    return static_cast<Wide>(value.high) << 64 | value.low;
}

Wide powerOfTen(int exponent) {
    Wide power = 1;
    for (; exponent > 0; --exponent) {
        power *= 10;
    }
    return power;
}

// Drops decimal digits, rounding half to even; sticky: digits that are already gone were not all zero.
Wide dropDigits(Wide value, std::int64_t digits, bool sticky) {
    constexpr int digitsOfWide = 38;
    if (digits > digitsOfWide) {
        return 0;
    }
    const Wide power = powerOfTen(static_cast<int>(digits));
    const Wide quotient = value / power;
    const Wide twice = value % power * 2;
    const bool up = digits > 0 && (twice > power || (twice == power && (sticky || quotient % 2 != 0)));
    return quotient + (up ? 1 : 0);
}

Decimal assemble(Wide integer, int scale, bool negative) {
    if (integer == 0) {
        return {};
    }
    return Decimal{static_cast<std::uint64_t>(integer), static_cast<std::uint32_t>(integer >> 64),
                   static_cast<std::uint8_t>(scale), negative};
}

// mantissa times ten to the exponent, brought into 96 bits and a scale of 0 to 28.
Decimal fit(Wide mantissa, std::int64_t exponent, bool sticky, bool negative) {
    if (mantissa == 0) {
        return {};
    }
    for (; exponent > 0; --exponent) {
        mantissa *= 10;
        if (mantissa > maxInteger) {
            throw RuntimeError(errors::overflow);
        }
    }
    const std::int64_t scale = -exponent;
    for (std::int64_t drop = std::max<std::int64_t>(0, scale - maxScale); drop <= scale; ++drop) {
        const Wide rounded = dropDigits(mantissa, drop, sticky);
        if (rounded <= maxInteger) {
            return assemble(rounded, static_cast<int>(scale - drop), negative);
        }
    }
    throw RuntimeError(errors::overflow);
}

// A value with so many significant digits, by way of its exactly rounded exponent form.
Decimal fromFloating(double value, int significantDigits) {
    if (!std::isfinite(value)) {
        throw RuntimeError(errors::overflow);
    }
    std::array<char, 32> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), std::fabs(value),
                                   std::chars_format::scientific, significantDigits - 1)
                         .ptr;
    const char* const exponentAt = std::find(text.data(), end, 'e');
    std::uint64_t mantissa = 0;
    for (const char* digit = text.data(); digit != exponentAt; ++digit) {
        mantissa = *digit == '.' ? mantissa : mantissa * 10 + static_cast<std::uint64_t>(*digit - '0');
    }
    int exponent = 0;
    std::from_chars(exponentAt + (exponentAt[1] == '+' ? 2 : 1), end, exponent);
    if (exponent < -maxScale) {
        return {};
    }
    exponent -= significantDigits - 1;
    while (mantissa != 0 && mantissa % 10 == 0 && exponent < 0) {
        mantissa /= 10;
        ++exponent;
    }
    return fit(mantissa, exponent, false, value < 0);
}

[[noreturn]] void raiseMismatch() {
    throw RuntimeError(errors::typeMismatch);
}

// Exponent of "E+5", "e-12" or nothing; limited far beyond anything that fits, so that sums with it stay exact.
std::int64_t readExponent(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    if (text[0] != 'e' && text[0] != 'E') {
        raiseMismatch();
    }
    text.remove_prefix(1);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    if (text.empty() || !std::all_of(text.begin(), text.end(), isDigit)) {
        raiseMismatch();
    }
    constexpr std::int64_t limit = std::int64_t{1} << 60;
    std::int64_t exponent = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), exponent);
    exponent = result.ec == std::errc() ? std::min(exponent, limit) : limit;
    return negative ? -exponent : exponent;
}

}  // namespace

Decimal Decimal::fromDouble(double value) {
    return fromFloating(value, 15);
}

Decimal Decimal::fromSingle(float value) {
    return fromFloating(value, 7);
}

Decimal Decimal::fromInteger(std::int64_t value) {
    const auto bits = static_cast<std::uint64_t>(value);
    return assemble(value < 0 ? 0 - bits : bits, 0, value < 0);
}

Decimal Decimal::fromText(std::string_view text) {
    text = text.substr(0, text.find_last_not_of(' ') + 1);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const bool isNegative = text.starts_with('-');
    if (isNegative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    // Two digits more than fit decide the rounding together with the trace of any further ones.
    constexpr int keptDigits = maxDigits + 2;
    Wide mantissa = 0;
    int kept = 0;
    std::int64_t exponent = 0;
    bool sticky = false;
    bool behindPoint = false;
    bool anyDigit = false;
    std::size_t at = 0;
    for (; at < text.size() && (isDigit(text[at]) || (text[at] == '.' && !behindPoint)); ++at) {
        if (text[at] == '.') {
            behindPoint = true;
            continue;
        }
        anyDigit = true;
        const int digit = text[at] - '0';
        const bool keeps = kept < keptDigits;
        if (keeps) {
            mantissa = mantissa * 10 + static_cast<Wide>(digit);
            kept += mantissa != 0 ? 1 : 0;
        } else {
            sticky = sticky || digit != 0;
        }
        exponent += (keeps ? 0 : 1) - (behindPoint ? 1 : 0);
    }
    if (!anyDigit) {
        raiseMismatch();
    }
    return fit(mantissa, exponent + readExponent(text.substr(at)), sticky, isNegative);
}

double Decimal::toDouble() const {
    // A number's own digits, with the point as exponent, read back correctly rounded.
    std::array<char, 48> text{};
    char* at = text.data() + text.size();
    for (Wide rest = integerOf(*this); rest != 0 || at == text.data() + text.size(); rest /= 10) {
        *--at = static_cast<char>('0' + static_cast<int>(rest % 10));
    }
    const std::size_t digits = static_cast<std::size_t>(text.data() + text.size() - at);
    std::array<char, 48> number{};
    char* end = std::copy_n(at, digits, number.data());
    *end++ = 'e';
    *end++ = '-';
    end = std::to_chars(end, number.data() + number.size(), static_cast<int>(scale)).ptr;
    double value = 0;
    std::from_chars(number.data(), end, value);
    return negative ? -value : value;
}

std::int32_t Decimal::toInt32() const {
    const Wide rounded = dropDigits(integerOf(*this), scale, false);
    const Wide limit = static_cast<Wide>(std::numeric_limits<std::int32_t>::max()) + (negative ? 1 : 0);
    if (rounded > limit) {
        throw RuntimeError(errors::overflow);
    }
    const auto magnitude = static_cast<std::int64_t>(rounded);
    return static_cast<std::int32_t>(negative ? -magnitude : magnitude);
}

std::string Decimal::toText() const {
    std::array<char, 40> text{};
    char* const end = text.data() + text.size();
    char* at = end;
    Wide rest = integerOf(*this);
    // At least one digit stands before the point.
    for (int position = 0; rest != 0 || position <= scale; ++position) {
        if (position == scale && scale > 0) {
            *--at = '.';
        }
        *--at = static_cast<char>('0' + static_cast<int>(rest % 10));
        rest /= 10;
    }
    if (negative && !isZero()) {
        *--at = '-';
    }
    std::string_view shown(at, static_cast<std::size_t>(end - at));
    if (scale > 0) {
        shown = shown.substr(0, shown.find_last_not_of('0') + 1);
        shown = shown.substr(0, shown.find_last_not_of('.') + 1);
    }
    return std::string(shown);
}

}  // namespace quelm
