#include "OPC/Tools/Json.h"

#include <fmt/format.h>

#include <cmath>
#include <cstddef>

#include "Shared Types/Conversion.h"
#include "Shared Types/Utf.h"

namespace quelm::tools::json {

namespace {

std::string number(double value) {
    return std::isfinite(value) ? fmt::format("{}", value) : "null";
}

std::string joined(std::span<const std::string> items) {
    std::string out;
    for (const std::string& item : items) {
        out.append(out.empty() ? "" : ",").append(item);
    }
    return out;
}

}  // namespace

std::string text(std::string_view value) {
    std::string out = "\"";
    for (std::size_t at = 0; at < value.size();) {
        const char32_t c = nextCodePoint(value, at);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
        } else {
            appendUtf8(out, c);
        }
    }
    return out + '"';
}

std::string boolean(bool value) {
    return value ? "true" : "false";
}

std::string value(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Empty:
        case VariantKind::Null:
        case VariantKind::Object:
        case VariantKind::TextArray:
            return "null";
        case VariantKind::Boolean:
            return boolean(value.boolean());
        case VariantKind::Int16:
        case VariantKind::Int32:
        case VariantKind::Byte:
            return fmt::format("{}", toInt32(value));
        case VariantKind::Single:
        case VariantKind::Double:
        case VariantKind::Currency:
        case VariantKind::Decimal:
            return number(toDouble(value));
        default:
            return text(toText(value));
    }
}

std::string array(std::span<const std::string> items) {
    return "[" + joined(items) + "]";
}

std::string object(std::span<const Field> fields) {
    std::vector<std::string> items;
    for (const auto& [name, value] : fields) {
        items.push_back(text(name) + ":" + value);
    }
    return "{" + joined(items) + "}";
}

}  // namespace quelm::tools::json
