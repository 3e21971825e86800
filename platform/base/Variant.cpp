#include "base/Variant.h"

#include <cmath>

namespace quelm {

bool Variant::operator==(const Variant& other) const noexcept {
    if (kind() != other.kind()) {
        return false;
    }
    switch (kind()) {
        case VariantKind::Empty:
        case VariantKind::Null:
            return true;
        case VariantKind::Single:
        case VariantKind::Double:
        case VariantKind::Date:
            return data_.body.number == other.data_.body.number ||
                   (std::isnan(data_.body.number) && std::isnan(other.data_.body.number));
        case VariantKind::Decimal:
            return decimal() == other.decimal();
        case VariantKind::Text:
            return text() == other.text();
        case VariantKind::TextArray:
            return texts() == other.texts();
        case VariantKind::Object:
            return object() == other.object();
        default:
            return data_.body.integer == other.data_.body.integer;
    }
}

}  // namespace quelm
