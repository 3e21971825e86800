#pragma once

// A 96-bit integer with sign and a decimal scale of 0 to 28: exact where a double is not, and the way to a
// double's plain text without an exponent.

#include <cstdint>
#include <string>
#include <string_view>

namespace quelm {

struct Decimal {
    std::uint64_t low = 0;   // lower 64 bits of the integer
    std::uint32_t high = 0;  // upper 32 bits
    std::uint8_t scale = 0;  // digits behind the decimal point, 0 to 28
    bool negative = false;

    bool operator==(const Decimal&) const = default;

    // From a double with at most 15 significant digits (a float: 7), as the product's own conversion has it;
    // magnitudes below 1e-28 become 0. Raises RuntimeError 6 beyond the range and for NaN and infinities.
    static Decimal fromDouble(double value);
    static Decimal fromSingle(float value);
    static Decimal fromInteger(std::int64_t value);
    // Plain decimal digits with optional sign, point and exponent; digits beyond the scale are rounded half to even.
    // Raises RuntimeError 13 for other text and 6 beyond the range.
    static Decimal fromText(std::string_view text);

    double toDouble() const;
    // Rounded half to even; raises RuntimeError 6 beyond the range.
    std::int32_t toInt32() const;
    bool isZero() const { return low == 0 && high == 0; }

    // "." as decimal point, no exponent, no thousands separators, a leading "-" for negative values only,
    // no trailing zeros behind the point, a zero before it.
    std::string toText() const;
};

}  // namespace quelm
