#include "OPC/OPC DA Server/TextConversionFunctions.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <optional>

#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string withoutBlanks(std::string_view text) {
    std::string out;
    std::copy_if(text.begin(), text.end(), std::back_inserter(out),
                 [](char c) { return c != ' ' && c != '\t' && c != '\n'; });
    return out;
}

std::size_t digitsFrom(std::string_view text, std::size_t at) {
    std::size_t end = at;
    while (end < text.size() && isDigit(text[end])) {
        ++end;
    }
    return end;
}

double basedNumber(std::string_view digits, int base) {
    std::uint32_t bits = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), bits, base);
    if (error == std::errc::result_out_of_range) {
        throw RuntimeError(errors::overflow);
    }
    const bool isLong = end != digits.data() + digits.size() && *end == '&';
    return bits > 0xFFFF || isLong ? static_cast<std::int32_t>(bits) : static_cast<std::int16_t>(bits);
}

// The longest beginning that is an unsigned decimal number, its exponent's letter made an "E"; "" when there is none.
std::string decimalPrefix(std::string_view text) {
    std::size_t end = digitsFrom(text, 0);
    if (end < text.size() && text[end] == '.') {
        end = digitsFrom(text, end + 1);
    }
    std::string number(text.substr(0, end));
    if (std::none_of(number.begin(), number.end(), isDigit)) {
        return {};
    }
    if (end < text.size() && std::string_view("eEdD").find(text[end]) != std::string_view::npos) {
        const bool hasSign = end + 1 < text.size() && (text[end + 1] == '-' || text[end + 1] == '+');
        const std::size_t digits = end + (hasSign ? 2 : 1);
        if (const std::size_t last = digitsFrom(text, digits); last > digits) {
            number += 'E';
            number += text.substr(end + 1, last - end - 1);
        }
    }
    return number;
}

// The parts that the date has itself: rounding to the second may carry its time into a day that it does not have.
DatePattern patternOf(Date date) {
    constexpr double secondsPerDay = 86'400;
    const double day = std::trunc(date.days);
    if (day == 0) {
        return DatePattern::time;
    }
    return std::round(std::fabs(date.days - day) * secondsPerDay) == 0 ? DatePattern::date : DatePattern::dateAndTime;
}

}  // namespace

std::string VariantToText(const Variant& varValue) {
    switch (varValue.kind()) {
        case VariantKind::Null:
            return {};
        case VariantKind::Single:
        case VariantKind::Double:
            return NumberToText(varValue);
        case VariantKind::Boolean:
            return varValue.boolean() ? "1" : "0";
        case VariantKind::Date:
            return dateText(varValue.date(), patternOf(varValue.date()));
        default:
            return toText(varValue);
    }
}

std::string NumberToText(const Variant& varValue) {
    try {
        return toDecimal(varValue).toText();
    } catch (const RuntimeError&) {
        // Too large for a decimal, or not a number: the value's own text has to do.
        return naturalText(varValue);
    }
}

double LeadingNumber(std::string_view strText) {
    const std::string text = withoutBlanks(strText);
    if (text.starts_with("&H") || text.starts_with("&h")) {
        return basedNumber(std::string_view(text).substr(2), 16);
    }
    if (text.starts_with("&O") || text.starts_with("&o")) {
        return basedNumber(std::string_view(text).substr(2), 8);
    }
    const bool isNegative = text.starts_with('-');
    const std::string number =
        decimalPrefix(std::string_view(text).substr(isNegative || text.starts_with('+') ? 1 : 0));
    if (number.empty()) {
        return 0;
    }
    const std::optional<double> value = parseNumber(number);
    if (!value) {
        throw RuntimeError(errors::overflow);
    }
    return isNegative ? -*value : *value;
}

}  // namespace quelm
