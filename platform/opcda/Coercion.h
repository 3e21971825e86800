#pragma once

// A value in the data type that a client asked for, and the conversion to it by COM's rules. Every read of every
// client passes here: numbers and texts convert without an allocation.

#include <array>
#include <cmath>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "base/Quality.h"
#include "base/Variant.h"
#include "opcda/HResults.h"

namespace quelm::opcda {

using VarType = std::uint16_t;

inline constexpr VarType VT_EMPTY = 0;
inline constexpr VarType VT_NULL = 1;
inline constexpr VarType VT_I2 = 2;
inline constexpr VarType VT_I4 = 3;
inline constexpr VarType VT_R4 = 4;
inline constexpr VarType VT_R8 = 5;
inline constexpr VarType VT_CY = 6;
inline constexpr VarType VT_DATE = 7;
inline constexpr VarType VT_BSTR = 8;
inline constexpr VarType VT_ERROR = 10;
inline constexpr VarType VT_BOOL = 11;
inline constexpr VarType VT_DECIMAL = 14;
inline constexpr VarType VT_I1 = 16;
inline constexpr VarType VT_UI1 = 17;
inline constexpr VarType VT_UI2 = 18;
inline constexpr VarType VT_UI4 = 19;
inline constexpr VarType VT_I8 = 20;
inline constexpr VarType VT_UI8 = 21;
inline constexpr VarType VT_INT = 22;
inline constexpr VarType VT_UINT = 23;
inline constexpr VarType VT_ARRAY = 0x2000;
inline constexpr VarType VT_BSTR_ARRAY = VT_ARRAY | VT_BSTR;

// Refers to the Variant that it was made from (texts, arrays): valid as long as that one is unchanged.
class OpcValue {
 public:
    OpcValue() = default;
    OpcValue(const OpcValue&) = delete;
    OpcValue& operator=(const OpcValue&) = delete;

    VarType type = VT_EMPTY;
    // By type: I1, UI1, I2, UI2, I4, UI4, INT, UINT, I8, UI8 (bit pattern), ERROR, CY (scaled by 10,000) and
    // BOOL (-1 or 0) here, sign-extended as their type has it, so that its low bytes are the wire's.
    std::int64_t integer = 0;
    float single = 0;                    // R4
    double real = 0;                     // R8; DATE (days since 1899-12-30)
    Decimal decimal;                     // DECIMAL
    std::string_view text;               // BSTR, UTF-8
    std::span<const std::string> texts;  // ARRAY|BSTR

 private:
    friend class Coercer;
    std::array<char, 48> digits_{};  // a text made from a number
};

// Whether an item of a canonical type can be asked for in a type at all (AddItems, SetDatatypes). VT_EMPTY asks for
// the canonical type. A text item can be asked for as a number: whether that works depends on its text.
bool isConvertible(VarType canonical, VarType requested);

namespace detail {
HResult convertSlowly(const Variant& value, VarType requested, OpcValue& out);
}

// The value in the requested type (VT_EMPTY: in its own). An Empty value stays Empty whatever was requested: the item
// has no value, and a 0 would look like one; Null counts the same.
// S_OK; DISP_E_OVERFLOW or DISP_E_TYPEMISMATCH, as the system's own conversion reports them: out is then VT_EMPTY. What
// is no number (NaN) has no place in any other type: DISP_E_OVERFLOW.
inline HResult convert(const Variant& value, VarType requested, OpcValue& out) {
    const auto kind = static_cast<VarType>(value.kind());
    if (kind == requested || requested == VT_EMPTY) {
        switch (value.kind()) {
            case VariantKind::Single:
                out.type = VT_R4;
                out.single = value.single();
                return S_OK;
            case VariantKind::Int32:
                out.type = VT_I4;
                out.integer = value.int32();
                return S_OK;
            case VariantKind::Double:
                out.type = VT_R8;
                out.real = value.real();
                return S_OK;
            case VariantKind::Boolean:
                out.type = VT_BOOL;
                out.integer = value.boolean() ? -1 : 0;
                return S_OK;
            case VariantKind::Text:
                out.type = VT_BSTR;
                out.text = value.text();
                return S_OK;
            default:
                break;
        }
    }
    return detail::convertSlowly(value, requested, out);
}

// What every client gets of an item, whichever way it asks: the value in the requested type, and the quality, which
// becomes bad where the value cannot be converted or is no number at all.
inline HResult present(const Variant& value, VarType requested, std::uint16_t& quality, OpcValue& out) {
    const HResult error = convert(value, requested, out);
    if (error != S_OK) {
        quality = quality::bad;
    } else if ((out.type == VT_R4 && std::isnan(out.single)) || (out.type == VT_R8 && std::isnan(out.real))) {
        constexpr std::uint16_t vendorsByte = 0xFF00;
        quality =
            quality::isBad(quality) ? quality : static_cast<std::uint16_t>((quality & vendorsByte) | quality::bad);
    }
    return error;
}

}  // namespace quelm::opcda
