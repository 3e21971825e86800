#include "opcda/client/Value.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

#include "base/DateText.h"
#include "base/Text.h"

namespace quelm::opcda::client {

namespace {

struct TypeName {
    VarType type;
    std::string_view name;
    // Of the integers: the least and the greatest number.
    std::int64_t least = 0;
    std::int64_t greatest = 0;
};

template <class T>
constexpr TypeName integral(VarType type, std::string_view name) {
    return {type, name, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()};
}

constexpr std::array names{
    TypeName{VT_EMPTY, "VT_EMPTY"},
    TypeName{VT_NULL, "VT_NULL"},
    integral<std::int16_t>(VT_I2, "VT_I2"),
    integral<std::int32_t>(VT_I4, "VT_I4"),
    TypeName{VT_R4, "VT_R4"},
    TypeName{VT_R8, "VT_R8"},
    TypeName{VT_CY, "VT_CY"},
    TypeName{VT_DATE, "VT_DATE"},
    TypeName{VT_BSTR, "VT_BSTR"},
    TypeName{VT_DISPATCH, "VT_DISPATCH"},
    integral<std::int32_t>(VT_ERROR, "VT_ERROR"),
    TypeName{VT_BOOL, "VT_BOOL"},
    TypeName{VT_VARIANT, "VT_VARIANT"},
    TypeName{VT_UNKNOWN, "VT_UNKNOWN"},
    TypeName{VT_DECIMAL, "VT_DECIMAL"},
    integral<std::int8_t>(VT_I1, "VT_I1"),
    integral<std::uint8_t>(VT_UI1, "VT_UI1"),
    integral<std::uint16_t>(VT_UI2, "VT_UI2"),
    integral<std::uint32_t>(VT_UI4, "VT_UI4"),
    integral<std::int64_t>(VT_I8, "VT_I8"),
    TypeName{VT_UI8, "VT_UI8"},
    integral<std::int32_t>(VT_INT, "VT_INT"),
    integral<std::uint32_t>(VT_UINT, "VT_UINT"),
};

const TypeName* rowOf(VarType type) {
    const auto* const found =
        std::find_if(names.begin(), names.end(), [&](const auto& row) { return row.type == type; });
    return found != names.end() ? &*found : nullptr;
}

std::string textOfInteger(VarType type, std::int64_t number) {
    switch (type) {
        case VT_BOOL:
            return number != 0 ? "true" : "false";
        case VT_UI8:
            return fmt::format("{}", static_cast<std::uint64_t>(number));
        case VT_ERROR:
            return fmt::format("{:08X}", static_cast<std::uint32_t>(number));
        case VT_CY: {
            const bool negative = number < 0;
            const auto magnitude =
                negative ? 0 - static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number);
            return Decimal{magnitude, 0, 4, negative}.toText();
        }
        default:
            return fmt::format("{}", number);
    }
}

std::string textOfReal(VarType type, double number) {
    if (type == VT_R4) {
        return fmt::format("{}", static_cast<float>(number));
    }
    // Beyond what a calendar has, the days are all that there is to say.
    const bool isDate = type == VT_DATE && number >= minDateDays && number < maxDateDays - 1;
    return isDate ? dateText(Date{number}, DatePattern::dateAndTime) : fmt::format("{}", number);
}

template <class Held>
inline constexpr bool isVector = requires(Held held) {
    typename std::decay_t<Held>::allocator_type;
    requires !std::is_same_v<std::decay_t<Held>, std::string>;
};

template <class T>
std::optional<T> parseWhole(std::string_view text) {
    T number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    return isWhole ? std::optional(number) : std::nullopt;
}

std::optional<Value> parseReal(VarType type, std::string_view text) {
    const auto number = parseNumber(text);
    if (!number || (type == VT_R4 && std::abs(*number) > static_cast<double>(std::numeric_limits<float>::max()))) {
        return std::nullopt;
    }
    return Value::real(type, type == VT_R4 ? static_cast<float>(*number) : *number);
}

std::optional<Value> parseInteger(VarType type, std::string_view text) {
    if (type == VT_UI8) {
        const auto bits = parseWhole<std::uint64_t>(text);
        return bits ? std::optional(Value::integer(type, static_cast<std::int64_t>(*bits))) : std::nullopt;
    }
    const TypeName* const row = rowOf(type);
    const auto number = parseWhole<std::int64_t>(text);
    if (!number || row == nullptr || *number < row->least || *number > row->greatest) {
        return std::nullopt;
    }
    return Value::integer(type, *number);
}

}  // namespace

std::optional<Value> Value::parse(VarType type, std::string_view text) {
    switch (type) {
        case VT_BSTR:
            return Value::text(std::string(text));
        case VT_R4:
        case VT_R8:
            return parseReal(type, text);
        case VT_DATE: {
            const auto date = parseDate(text);
            return date ? std::optional(real(type, date->days)) : std::nullopt;
        }
        case VT_CY: {
            const auto amount = parseNumber(text);
            const bool fits = amount && std::abs(*amount) < 9e14;
            return fits ? std::optional(integer(type, std::llround(*amount * 10'000))) : std::nullopt;
        }
        case VT_BOOL: {
            const bool isTrue = equalsIgnoringCase(text, "true") || text == "1";
            const bool isFalse = equalsIgnoringCase(text, "false") || text == "0";
            return isTrue || isFalse ? std::optional(integer(type, isTrue ? -1 : 0)) : std::nullopt;
        }
        case VT_EMPTY:
        case VT_NULL:
            return text.empty() ? std::optional(Value{type, {}}) : std::nullopt;
        default:
            return parseInteger(type, text);
    }
}

std::size_t Value::size() const {
    const auto sizeOf = [](const auto& held) -> std::size_t {
        if constexpr (isVector<decltype(held)>) {
            return held.size();
        } else {
            return 0;
        }
    };
    return std::visit(sizeOf, contents);
}

Value Value::at(std::size_t index) const {
    const auto element = [&](const auto& held) -> Value {
        if constexpr (!isVector<decltype(held)>) {
            return {};
        } else if constexpr (std::is_same_v<typename std::decay_t<decltype(held)>::value_type, Value>) {
            return held.at(index);
        } else {
            return {static_cast<VarType>(type & ~VT_ARRAY), held.at(index)};
        }
    };
    return std::visit(element, contents);
}

std::optional<double> Value::number() const {
    if (const auto* real = std::get_if<double>(&contents)) {
        return *real;
    }
    if (const auto* decimal = std::get_if<Decimal>(&contents)) {
        return decimal->toDouble();
    }
    const auto* integer = std::get_if<std::int64_t>(&contents);
    if (integer == nullptr || type == VT_ERROR) {
        return std::nullopt;
    }
    switch (type) {
        case VT_BOOL:
            return *integer != 0 ? 1 : 0;
        case VT_CY:
            return static_cast<double>(*integer) / 10'000;
        case VT_UI8:
            return static_cast<double>(static_cast<std::uint64_t>(*integer));
        default:
            return static_cast<double>(*integer);
    }
}

std::string textOf(const Value& value) {
    if (value.isArray()) {
        std::string text = "[";
        for (std::size_t i = 0; i < value.size(); ++i) {
            text += (i != 0 ? ", " : "") + textOf(value.at(i));
        }
        return text + "]";
    }
    if (const auto* integer = std::get_if<std::int64_t>(&value.contents)) {
        return textOfInteger(value.type, *integer);
    }
    if (const auto* real = std::get_if<double>(&value.contents)) {
        return textOfReal(value.type, *real);
    }
    if (const auto* decimal = std::get_if<Decimal>(&value.contents)) {
        return decimal->toText();
    }
    if (const auto* text = std::get_if<std::string>(&value.contents)) {
        return *text;
    }
    return value.type == VT_EMPTY ? "(empty)" : value.type == VT_NULL ? "(null)" : "(" + typeName(value.type) + ")";
}

std::string typeName(VarType type) {
    const auto scalar = static_cast<VarType>(type & ~VT_ARRAY);
    const TypeName* const row = rowOf(scalar);
    return (scalar != type ? "VT_ARRAY|" : "") +
           (row != nullptr ? std::string(row->name) : fmt::format("VT_{}", scalar));
}

std::optional<VarType> typeOfName(std::string_view name) {
    constexpr std::string_view array = "VT_ARRAY|";
    if (equalsIgnoringCase(name.substr(0, array.size()), array)) {
        const auto element = typeOfName(name.substr(array.size()));
        return element ? std::optional(static_cast<VarType>(VT_ARRAY | *element)) : std::nullopt;
    }
    const auto isNamed = [&](const TypeName& row) {
        return equalsIgnoringCase(name, row.name) || equalsIgnoringCase(name, row.name.substr(3));
    };
    const auto* const found = std::find_if(names.begin(), names.end(), isNamed);
    return found != names.end() ? std::optional(found->type) : std::nullopt;
}

}  // namespace quelm::opcda::client
