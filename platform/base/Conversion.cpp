#include "base/Conversion.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>

#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

[[noreturn]] void raise(long number) {
    throw RuntimeError(number);
}

// What no conversion accepts, with the number that says why.
[[noreturn]] void raiseUnconvertible(const Variant& value) {
    if (value.isNull()) {
        raise(errors::invalidUseOfNull);
    }
    raise(value.kind() == VariantKind::Object && !value.object() ? errors::objectNotSet : errors::typeMismatch);
}

double numberOfText(const std::string& text) {
    const std::optional<double> number = parseNumber(text);
    return number ? *number : throw RuntimeError(errors::typeMismatch);
}

Decimal currencyToDecimal(Currency value) {
    Decimal decimal = Decimal::fromInteger(value.scaled);
    decimal.scale = decimal.isZero() ? 0 : 4;
    return decimal;
}

// Plain up to so many digits, beyond that with an exponent of at least two digits: "12.5", "1E+30", "1E-05".
std::string floatingText(double value, int significantDigits) {
    if (std::isnan(value)) {
        return "NaN";
    }
    if (std::isinf(value)) {
        return value < 0 ? "-INF" : "INF";
    }
    if (value == 0) {
        return "0";
    }
    std::array<char, 32> text{};
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::general, significantDigits).ptr;
    std::string shown(text.data(), end);
    if (const std::size_t exponentAt = shown.find('e'); exponentAt != std::string::npos) {
        shown[exponentAt] = 'E';
    }
    return shown;
}

}  // namespace

bool isNumeric(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Empty:
        case VariantKind::Int16:
        case VariantKind::Int32:
        case VariantKind::Single:
        case VariantKind::Double:
        case VariantKind::Currency:
        case VariantKind::Boolean:
        case VariantKind::Decimal:
        case VariantKind::Byte:
            return true;
        case VariantKind::Text:
            return parseNumber(value.text()).has_value();
        default:
            return false;
    }
}

bool isDateLike(const Variant& value) {
    return value.kind() == VariantKind::Date ||
           (value.kind() == VariantKind::Text && parseDate(value.text()).has_value());
}

std::int32_t roundToInt32(double value) {
    const double rounded = std::nearbyint(value);
    constexpr double low = std::numeric_limits<std::int32_t>::min();
    constexpr double high = std::numeric_limits<std::int32_t>::max();
    if (!(rounded >= low && rounded <= high)) {
        raise(errors::overflow);
    }
    return static_cast<std::int32_t>(rounded);
}

// Those two have digits that a double would round before their half is looked at.
std::int32_t toInt32(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Currency:
            return currencyToDecimal(value.currency()).toInt32();
        case VariantKind::Decimal:
            return value.decimal().toInt32();
        default:
            return roundToInt32(toDouble(value));
    }
}

std::int16_t toInt16(const Variant& value) {
    const std::int32_t wide = toInt32(value);
    if (wide < std::numeric_limits<std::int16_t>::min() || wide > std::numeric_limits<std::int16_t>::max()) {
        raise(errors::overflow);
    }
    return static_cast<std::int16_t>(wide);
}

double toDouble(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Empty:
            return 0;
        case VariantKind::Int16:
            return value.int16();
        case VariantKind::Int32:
            return value.int32();
        case VariantKind::Byte:
            return value.byte();
        case VariantKind::Boolean:
            return value.boolean() ? -1 : 0;
        case VariantKind::Single:
            return value.single();
        case VariantKind::Double:
            return value.real();
        case VariantKind::Date:
            return value.date().days;
        case VariantKind::Currency:
            return static_cast<double>(value.currency().scaled) / 10'000;
        case VariantKind::Decimal:
            return value.decimal().toDouble();
        case VariantKind::Text:
            return numberOfText(value.text());
        default:
            raiseUnconvertible(value);
    }
}

float toSingle(const Variant& value) {
    if (value.kind() == VariantKind::Single) {
        return value.single();
    }
    const auto narrow = static_cast<float>(toDouble(value));
    if (std::isinf(narrow)) {
        raise(errors::overflow);
    }
    return narrow;
}

bool toBoolean(const Variant& value) {
    if (value.kind() == VariantKind::Text) {
        const std::string_view text = trimBlanks(value.text());
        if (equalsIgnoringCase(text, "True")) {
            return true;
        }
        if (equalsIgnoringCase(text, "False")) {
            return false;
        }
    }
    return toDouble(value) != 0;
}

Date toDate(const Variant& value) {
    if (value.kind() == VariantKind::Date) {
        return value.date();
    }
    if (value.kind() == VariantKind::Text) {
        const std::optional<Date> date = parseDate(value.text());
        return date ? *date : throw RuntimeError(errors::typeMismatch);
    }
    const double days = toDouble(value);
    if (!(days > minDateDays - 1 && days < maxDateDays)) {
        raise(errors::overflow);
    }
    return Date{days};
}

Decimal toDecimal(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Single:
            return Decimal::fromSingle(value.single());
        case VariantKind::Double:
        case VariantKind::Date:
            return Decimal::fromDouble(toDouble(value));
        case VariantKind::Currency:
            return currencyToDecimal(value.currency());
        case VariantKind::Decimal:
            return value.decimal();
        case VariantKind::Text:
            return trimLeftBlanks(value.text()).starts_with('&') ? Decimal::fromInteger(toInt32(value))
                                                                 : Decimal::fromText(value.text());
        default:
            return Decimal::fromInteger(toInt32(value));
    }
}

std::string toText(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Empty:
            return {};
        case VariantKind::Int16:
        case VariantKind::Int32:
        case VariantKind::Byte:
            return std::to_string(toInt32(value));
        case VariantKind::Single:
            return floatingText(value.single(), 7);
        case VariantKind::Double:
            return floatingText(value.real(), 15);
        case VariantKind::Currency:
            return currencyToDecimal(value.currency()).toText();
        case VariantKind::Decimal:
            return value.decimal().toText();
        case VariantKind::Date:
            return dateText(value.date());
        case VariantKind::Text:
            return value.text();
        case VariantKind::Boolean:
            return value.boolean() ? "True" : "False";
        case VariantKind::Error:
            return "Error " + std::to_string(value.error().code);
        default:
            raiseUnconvertible(value);
    }
}

std::string naturalText(const Variant& value) {
    return value.isNull() ? std::string() : toText(value);
}

}  // namespace quelm
