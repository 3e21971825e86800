#include "opcda/Coercion.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>

#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm::opcda {

namespace {

__extension__ using Wide = __int128;

// A number as exactly as its source has it: a floating value, or a whole number with decimal places.
struct Number {
    bool isFloating = false;
    int digits = 15;  // significant decimal digits of a floating value
    double real = 0;
    Wide scaled = 0;
    int scale = 0;
};

Number floating(double value, int digits) {
    return {true, digits, value, 0, 0};
}

Number exact(Wide scaled, int scale = 0) {
    return {false, 15, 0, scaled, scale};
}

Number exact(const Decimal& value) {
    const Wide magnitude = static_cast<Wide>(value.high) << 64 | static_cast<Wide>(value.low);
    return exact(value.negative ? -magnitude : magnitude, value.scale);
}

// Text with all its digits where they fit, else as a double ("&H1F", "1E+300").
std::optional<Number> numberOfText(std::string_view text) {
    const std::optional<double> real = parseNumber(text);
    if (!real) {
        return std::nullopt;
    }
    try {
        return exact(Decimal::fromText(text));
    } catch (const RuntimeError&) {
        // Too large for a decimal, or not in decimal digits: what was read above is what there is.
        return floating(*real, 15);
    }
}

std::optional<Number> numberOf(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Boolean:
            return exact(value.boolean() ? -1 : 0);
        case VariantKind::Byte:
            return exact(value.byte());
        case VariantKind::Int16:
            return exact(value.int16());
        case VariantKind::Int32:
            return exact(value.int32());
        case VariantKind::Single:
            return floating(value.single(), 7);
        case VariantKind::Double:
            return floating(value.real(), 15);
        case VariantKind::Date:
            return floating(value.date().days, 15);
        case VariantKind::Currency:
            return exact(value.currency().scaled, 4);
        case VariantKind::Decimal:
            return exact(value.decimal());
        case VariantKind::Text:
            return numberOfText(value.text());
        default:
            return std::nullopt;
    }
}

Wide powerOfTen(int exponent) {
    Wide power = 1;
    for (; exponent > 0; --exponent) {
        power *= 10;
    }
    return power;
}

// Rounds half to even.
Wide withoutDigits(Wide value, int digits) {
    const Wide power = powerOfTen(digits);
    const Wide quotient = value / power;
    const Wide rest = value % power;
    const Wide twice = (rest < 0 ? -rest : rest) * 2;
    const bool away = twice > power || (twice == power && quotient % 2 != 0);
    return away ? quotient + (value < 0 ? -1 : 1) : quotient;
}

// The number times ten to the places, rounded half to even; nothing when it is no number or far beyond 64 bits.
std::optional<Wide> toScaled(const Number& number, int places) {
    if (number.isFloating) {
        const double rounded = std::nearbyint(number.real * static_cast<double>(powerOfTen(places)));
        constexpr double limit = 1e20;
        return std::fabs(rounded) < limit ? std::optional<Wide>(static_cast<Wide>(rounded)) : std::nullopt;
    }
    // A decimal has at most 96 bits, so that four places more always fit.
    return number.scale >= places ? withoutDigits(number.scaled, number.scale - places)
                                  : number.scaled * powerOfTen(places - number.scale);
}

double toReal(const Number& number) {
    if (number.isFloating) {
        return number.real;
    }
    const Wide magnitude = number.scaled < 0 ? -number.scaled : number.scaled;
    return Decimal{static_cast<std::uint64_t>(magnitude), static_cast<std::uint32_t>(magnitude >> 64),
                   static_cast<std::uint8_t>(number.scale), number.scaled < 0}
        .toDouble();
}

struct IntegerRange {
    Wide low;
    Wide high;
};

template <class T>
constexpr IntegerRange rangeOf() {
    return {std::numeric_limits<T>::min(), std::numeric_limits<T>::max()};
}

std::optional<IntegerRange> integerRange(VarType type) {
    switch (type) {
        case VT_I1:
            return rangeOf<std::int8_t>();
        case VT_UI1:
            return rangeOf<std::uint8_t>();
        case VT_I2:
            return rangeOf<std::int16_t>();
        case VT_UI2:
            return rangeOf<std::uint16_t>();
        case VT_I4:
        case VT_INT:
            return rangeOf<std::int32_t>();
        case VT_UI4:
        case VT_UINT:
            return rangeOf<std::uint32_t>();
        case VT_I8:
            return rangeOf<std::int64_t>();
        case VT_UI8:
            return rangeOf<std::uint64_t>();
        default:
            return std::nullopt;
    }
}

bool isNumberType(VarType type) {
    return integerRange(type) || type == VT_R4 || type == VT_R8 || type == VT_CY || type == VT_DATE ||
           type == VT_BOOL || type == VT_DECIMAL;
}

HResult fromRuntimeError(const RuntimeError& error) {
    return error.number() == errors::overflow ? DISP_E_OVERFLOW : DISP_E_TYPEMISMATCH;
}

bool isInDateRange(double days) {
    return days > minDateDays - 1 && days < maxDateDays;
}

std::optional<bool> truthOfText(std::string_view text) {
    const std::string_view trimmed = trimBlanks(text);
    for (const auto& [word, truth] :
         {std::pair("True", true), std::pair("False", false), std::pair("#TRUE#", true), std::pair("#FALSE#", false)}) {
        if (equalsIgnoringCase(trimmed, word)) {
            return truth;
        }
    }
    return std::nullopt;
}

}  // namespace

class Coercer {
 public:
    Coercer(const Variant& value, OpcValue& out) : value_(value), out_(out) {}

    HResult to(VarType type) {
        if (type == static_cast<VarType>(value_.kind()) && takeAsItIs()) {
            return S_OK;
        }
        if (isNotANumber()) {
            return DISP_E_OVERFLOW;
        }
        if (type == VT_BSTR) {
            return toText();
        }
        if (!isNumberType(type)) {
            return DISP_E_TYPEMISMATCH;
        }
        if (value_.kind() == VariantKind::Text && (type == VT_DATE || type == VT_BOOL)) {
            return type == VT_DATE ? textToDate() : textToBoolean();
        }
        const std::optional<Number> number = numberOf(value_);
        return number ? toNumber(*number, type) : DISP_E_TYPEMISMATCH;
    }

 private:
    HResult give(VarType type, std::int64_t integer) {
        out_.type = type;
        out_.integer = integer;
        return S_OK;
    }
    HResult giveReal(VarType type, double real) {
        out_.type = type;
        out_.real = real;
        return S_OK;
    }
    HResult giveText(std::string_view text) {
        out_.type = VT_BSTR;
        out_.text = text;
        return S_OK;
    }
    // A text that is not kept anywhere else.
    HResult giveOwnText(std::string_view text) {
        const std::size_t length = std::min(text.size(), out_.digits_.size());
        std::copy_n(text.data(), length, out_.digits_.data());
        return giveText({out_.digits_.data(), length});
    }

    // False for a kind that no OPC item carries.
    bool takeAsItIs() {
        switch (value_.kind()) {
            case VariantKind::Null:
                out_.type = VT_NULL;
                return true;
            case VariantKind::Boolean:
                return give(VT_BOOL, value_.boolean() ? -1 : 0) == S_OK;
            case VariantKind::Byte:
                return give(VT_UI1, value_.byte()) == S_OK;
            case VariantKind::Int16:
                return give(VT_I2, value_.int16()) == S_OK;
            case VariantKind::Int32:
                return give(VT_I4, value_.int32()) == S_OK;
            case VariantKind::Single:
                out_.type = VT_R4;
                out_.single = value_.single();
                return true;
            case VariantKind::Double:
                return giveReal(VT_R8, value_.real()) == S_OK;
            case VariantKind::Date:
                return giveReal(VT_DATE, value_.date().days) == S_OK;
            case VariantKind::Currency:
                return give(VT_CY, value_.currency().scaled) == S_OK;
            case VariantKind::Error:
                return give(VT_ERROR, value_.error().code) == S_OK;
            case VariantKind::Decimal:
                out_.type = VT_DECIMAL;
                out_.decimal = value_.decimal();
                return true;
            case VariantKind::Text:
                return giveText(value_.text()) == S_OK;
            case VariantKind::TextArray:
                out_.type = VT_BSTR_ARRAY;
                out_.texts = value_.texts();
                return true;
            default:
                return false;
        }
    }

    bool isNotANumber() const {
        return (value_.kind() == VariantKind::Single && std::isnan(value_.single())) ||
               (value_.kind() == VariantKind::Double && std::isnan(value_.real()));
    }

    HResult toNumber(const Number& number, VarType type) {
        switch (type) {
            case VT_BOOL:
                return give(VT_BOOL, (number.isFloating ? number.real != 0 : number.scaled != 0) ? -1 : 0);
            case VT_R4:
                return toSingle(toReal(number));
            case VT_R8:
                return giveReal(VT_R8, toReal(number));
            case VT_DATE:
                return isInDateRange(toReal(number)) ? giveReal(VT_DATE, toReal(number)) : DISP_E_OVERFLOW;
            case VT_CY:
                return toInteger(toScaled(number, 4), VT_CY, rangeOf<std::int64_t>());
            case VT_DECIMAL:
                return toDecimal(number);
            default:
                break;
        }
        const IntegerRange range = *integerRange(type);
        if (value_.kind() == VariantKind::Boolean && range.low == 0) {
            // True has every bit set, in the unsigned types too.
            return give(type, value_.boolean() ? static_cast<std::int64_t>(range.high) : 0);
        }
        return toInteger(toScaled(number, 0), type, range);
    }

    HResult toInteger(const std::optional<Wide>& whole, VarType type, const IntegerRange& range) {
        if (!whole || *whole < range.low || *whole > range.high) {
            return DISP_E_OVERFLOW;
        }
        return give(type, static_cast<std::int64_t>(*whole));
    }

    HResult toSingle(double real) {
        if (std::fabs(real) > static_cast<double>(std::numeric_limits<float>::max())) {
            return DISP_E_OVERFLOW;
        }
        out_.type = VT_R4;
        out_.single = static_cast<float>(real);
        return S_OK;
    }

    HResult toDecimal(const Number& number) {
        if (number.isFloating) {
            out_.decimal = number.digits == 7 ? Decimal::fromSingle(static_cast<float>(number.real))
                                              : Decimal::fromDouble(number.real);
        } else {
            const Wide magnitude = number.scaled < 0 ? -number.scaled : number.scaled;
            out_.decimal = {static_cast<std::uint64_t>(magnitude), static_cast<std::uint32_t>(magnitude >> 64),
                            static_cast<std::uint8_t>(number.scale), number.scaled < 0};
        }
        out_.type = VT_DECIMAL;
        return S_OK;
    }

    HResult textToBoolean() {
        if (const std::optional<bool> truth = truthOfText(value_.text())) {
            return give(VT_BOOL, *truth ? -1 : 0);
        }
        const std::optional<Number> number = numberOf(value_);
        return number ? toNumber(*number, VT_BOOL) : DISP_E_TYPEMISMATCH;
    }

    HResult textToDate() {
        const std::optional<Date> date = parseDate(value_.text());
        return date ? giveReal(VT_DATE, date->days) : DISP_E_TYPEMISMATCH;
    }

    HResult toText() {
        switch (value_.kind()) {
            case VariantKind::Boolean:
                return giveText(value_.boolean() ? "True" : "False");
            case VariantKind::Byte:
                return integerToText(value_.byte());
            case VariantKind::Int16:
                return integerToText(value_.int16());
            case VariantKind::Int32:
                return integerToText(value_.int32());
            case VariantKind::Single:
                return realToText(value_.single(), 7);
            case VariantKind::Double:
                return realToText(value_.real(), 15);
            case VariantKind::Date:
                return isInDateRange(value_.date().days) ? giveOwnText(dateText(value_.date())) : DISP_E_OVERFLOW;
            case VariantKind::Currency:
            case VariantKind::Decimal:
                return giveOwnText(quelm::toText(value_));
            default:
                return DISP_E_TYPEMISMATCH;
        }
    }

    HResult integerToText(std::int32_t integer) {
        char* const begin = out_.digits_.data();
        const auto end = std::to_chars(begin, begin + out_.digits_.size(), integer).ptr;
        return giveText({begin, end});
    }

    HResult realToText(double real, int digits) {
        if (!std::isfinite(real)) {
            return giveText(real < 0 ? "-1.#INF" : "1.#INF");
        }
        char* const begin = out_.digits_.data();
        // A negative zero is written as any other.
        const auto end = std::to_chars(begin, begin + out_.digits_.size(), real == 0 ? 0.0 : real,
                                       std::chars_format::general, digits)
                             .ptr;
        std::replace(begin, end, 'e', 'E');
        return giveText({begin, end});
    }

    const Variant& value_;
    OpcValue& out_;
};

bool isConvertible(VarType canonical, VarType requested) {
    if (requested == VT_EMPTY || requested == canonical) {
        return true;
    }
    if (canonical == VT_EMPTY || canonical == VT_NULL) {
        return isNumberType(requested) || requested == VT_BSTR || requested == VT_ERROR || requested == VT_BSTR_ARRAY;
    }
    return canonical != VT_ERROR && (canonical & VT_ARRAY) == 0 && (isNumberType(requested) || requested == VT_BSTR);
}

namespace detail {

HResult convertSlowly(const Variant& value, VarType requested, OpcValue& out) {
    out.type = VT_EMPTY;
    if (value.isEmpty() || (value.isNull() && requested != VT_NULL)) {
        return S_OK;
    }
    HResult result = S_OK;
    try {
        result = Coercer(value, out).to(requested == VT_EMPTY ? static_cast<VarType>(value.kind()) : requested);
    } catch (const RuntimeError& error) {
        result = fromRuntimeError(error);
    }
    if (result != S_OK) {
        out.type = VT_EMPTY;
    }
    return result;
}

}  // namespace detail

}  // namespace quelm::opcda
