#pragma once

// Turns the product's data into what an OPC item carries: a data type code into a variant type, a value into that type,
// a monitor code into an OPC quality word.

#include <cstdint>

#include "OPC/OPC DA Server/MonitorProcessCodeFunctions.h"
#include "base/Variant.h"

namespace quelm {

// The VARTYPE of a tag definition's data type: 1 single, 2 32-bit integer, 3 text, 4 Boolean, 5 date; -1 for any other.
std::int32_t GetOPCVarType(std::int32_t lngDataType);

// Makes varValue a value of intVarType (2, 3, 4, 5, 7, 8 or 11), from itself or else from varDefault; a text never
// takes the default's text but "". False, and varValue as it was, when neither converts. Raises RuntimeError 6 when a
// number does not fit the type, 13 when a text is asked of an object or an array.
bool ConvertToOPCType(std::int16_t intVarType, Variant& varValue, const Variant& varDefault);

// The OPC quality word of a monitor code; a down code also sets bit 15, so that the result is negative.
std::int16_t GetOPCQuality(std::int32_t lngMonitorCode, bool blnDownIsInvalid, bool blnUseSubStatus);

}  // namespace quelm
