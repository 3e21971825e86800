#include "OPC/OPC DA Server/QuelmOpcMappingFunctions.h"

#include <string>

#include "base/Conversion.h"
#include "base/Quality.h"

namespace quelm {

namespace {

namespace vartype {
constexpr std::int32_t none = -1;
constexpr std::int32_t int16 = 2;
constexpr std::int32_t int32 = 3;
constexpr std::int32_t single = 4;
constexpr std::int32_t real = 5;
constexpr std::int32_t date = 7;
constexpr std::int32_t text = 8;
constexpr std::int32_t boolean = 11;
}  // namespace vartype

// Set beside the quality of an item that is down.
constexpr int downMarker = 0x8000;

// A number or a date of another kind; text has its own rules.
bool convertNumber(std::int16_t type, const Variant& from, Variant& to) {
    if (type == vartype::date) {
        if (!isDateLike(from)) {
            return false;
        }
        to = Variant(toDate(from));
        return true;
    }
    const bool isNumberType = type == vartype::int16 || type == vartype::int32 || type == vartype::single ||
                              type == vartype::real || type == vartype::boolean;
    if (!isNumberType || !isNumeric(from)) {
        return false;
    }
    switch (type) {
        case vartype::int16:
            to = Variant(toInt16(from));
            break;
        case vartype::int32:
            to = Variant(toInt32(from));
            break;
        case vartype::single:
            to = Variant(toSingle(from));
            break;
        case vartype::real:
            to = Variant(toDouble(from));
            break;
        default:
            to = Variant(toBoolean(from));
            break;
    }
    return true;
}

bool convertText(Variant& value, const Variant& defaultValue) {
    if (value.isNull()) {
        if (defaultValue.isNull()) {
            return false;
        }
        // Deliberately not the default's text.
        value = Variant(std::string());
    } else if (value.kind() != VariantKind::Text) {
        value = Variant(toText(value));
    }
    return true;
}

int downQuality(std::int32_t code, bool downIsInvalid, bool useSubStatus) {
    const int plain = downIsInvalid ? quality::bad : quality::good;
    if (!useSubStatus) {
        return plain;
    }
    switch (code) {
        case 23:
            return quality::uncertainLastUsable;
        case 29:
            return quality::uncertainSensor;
        case 32:
            return quality::uncertainUnitsExceeded;
        case 64:
        case 65:
        case 68:
            return quality::bad;
        default:
            return plain;
    }
}

int subStatusQuality(std::int32_t code) {
    switch (code) {
        case 14:
            return quality::uncertainSensor;
        case 15:
        case 20:
        case 25:
            return quality::badOutOfService;
        case 19:
            return quality::badDeviceFailure;
        case 22:
            return quality::badCommFailure;
        case 28:
        case 34:
            return quality::uncertainSubNormal;
        case 30:
            return quality::uncertainLastUsable;
        case 31:
            return quality::uncertainUnitsExceeded;
        default:
            return quality::bad;
    }
}

int qualityWord(std::int32_t code, bool downIsInvalid, bool useSubStatus) {
    if (IsGoodMonitorCode(code)) {
        return quality::good;
    }
    if (IsDownMonitorCode(code)) {
        return downQuality(code, downIsInvalid, useSubStatus) | downMarker;
    }
    return useSubStatus ? subStatusQuality(code) : quality::bad;
}

}  // namespace

std::int32_t GetOPCVarType(std::int32_t lngDataType) {
    switch (lngDataType) {
        case 1:
            return vartype::single;
        case 2:
            return vartype::int32;
        case 3:
            return vartype::text;
        case 4:
            return vartype::boolean;
        case 5:
            return vartype::date;
        default:
            return vartype::none;
    }
}

bool ConvertToOPCType(std::int16_t intVarType, Variant& varValue, const Variant& varDefault) {
    if (intVarType == vartype::text) {
        return convertText(varValue, varDefault);
    }
    return convertNumber(intVarType, varValue, varValue) ||
           (!varDefault.isNull() && convertNumber(intVarType, varDefault, varValue));
}

std::int16_t GetOPCQuality(std::int32_t lngMonitorCode, bool blnDownIsInvalid, bool blnUseSubStatus) {
    return static_cast<std::int16_t>(qualityWord(lngMonitorCode, blnDownIsInvalid, blnUseSubStatus));
}

}  // namespace quelm
