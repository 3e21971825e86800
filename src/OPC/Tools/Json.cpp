#include "OPC/Tools/Json.h"

#include "base/Conversion.h"

namespace quelm::tools {

Json jsonOf(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Empty:
        case VariantKind::Null:
        case VariantKind::Object:
        case VariantKind::TextArray:
            return nullptr;
        case VariantKind::Boolean:
            return value.boolean();
        case VariantKind::Int16:
        case VariantKind::Int32:
        case VariantKind::Byte:
            return toInt32(value);
        case VariantKind::Single:
        case VariantKind::Double:
        case VariantKind::Currency:
        case VariantKind::Decimal:
            return toDouble(value);
        default:
            return toText(value);
    }
}

Json jsonOf(Date date) {
    return date.isZero() ? Json() : Json(dateText(date));
}

std::string lineOf(const Json& json) {
    std::string line = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    // The library lets this one control character through; it can stand within texts only.
    for (std::size_t at = line.find('\x7F'); at != std::string::npos; at = line.find('\x7F', at)) {
        line.replace(at, 1, "\\u007f");
    }
    return line;
}

}  // namespace quelm::tools
