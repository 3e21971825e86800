#include "DB Interface Library/OPCDef.h"

#include <cmath>

#include "base/Text.h"

namespace quelm {

namespace {

[[noreturn]] void raiseUnusable(const Variant& column) {
    throw RuntimeError(column.isNull() || column.isEmpty() ? errors::invalidUseOfNull : errors::typeMismatch);
}

bool isNumber(const Variant& column) {
    switch (column.kind()) {
        case VariantKind::Byte:
        case VariantKind::Int16:
        case VariantKind::Int32:
        case VariantKind::Single:
        case VariantKind::Double:
        case VariantKind::Currency:
        case VariantKind::Decimal:
            return true;
        default:
            return false;
    }
}

// Databases deliver whole numbers in any of their number types; a fraction is a value of another type.
std::int32_t wholeNumber(const Variant& column) {
    if (column.kind() == VariantKind::Int32) {
        return column.int32();
    }
    if (!isNumber(column)) {
        raiseUnusable(column);
    }
    const double number = toDouble(column);
    if (number != std::trunc(number)) {
        raiseUnusable(column);
    }
    return roundToInt32(number);
}

std::string text(const Variant& column) {
    if (column.kind() != VariantKind::Text) {
        raiseUnusable(column);
    }
    return column.text();
}

// Databases without a Boolean type hold one as 0 and 1 or -1, or as a word.
bool yesOrNo(const Variant& column) {
    if (column.kind() == VariantKind::Boolean) {
        return column.boolean();
    }
    if (column.kind() == VariantKind::Text) {
        const std::string word = foldCase(trimBlanks(column.text()));
        if (word == "true" || word == "yes" || word == "1" || word == "-1") {
            return true;
        }
        if (word != "false" && word != "no" && word != "0") {
            raiseUnusable(column);
        }
        return false;
    }
    const std::int32_t number = wholeNumber(column);
    if (number < -1 || number > 1) {
        raiseUnusable(column);
    }
    return number != 0;
}

}  // namespace

std::string OPCDef::Tagname() const {
    return columns_.Tagname.kind() == VariantKind::Text ? columns_.Tagname.text() : std::string();
}

std::string OPCDef::ID() const {
    return text(columns_.ID);
}

std::int32_t OPCDef::TagType() const {
    try {
        return wholeNumber(columns_.TagType);
    } catch (const RuntimeError&) {
        // No tag type, and so no OPC DA tag: the server says so and goes on with the next definition.
        return 0;
    }
}

std::int32_t OPCDef::DataType() const {
    return wholeNumber(columns_.DataType);
}

bool OPCDef::Write() const {
    return yesOrNo(columns_.Write);
}

bool OPCDef::DownIsValid() const {
    return yesOrNo(columns_.DownIsValid);
}

bool OPCDef::UseSubstatus() const {
    return yesOrNo(columns_.UseSubstatus);
}

std::int32_t OPCDef::RefreshRate() const {
    return wholeNumber(columns_.RefreshRate);
}

}  // namespace quelm
