#pragma once

// The numbers of the I/O servers' channels (1 to below 2000000000) and how tag definitions write them: "[@1234]".

#include <cstdint>
#include <string_view>

#include "base/Variant.h"

namespace quelm {

// The channel number that a text begins with, or with blnBracketed the one behind "[@". 0 when it holds none. Raises
// nothing.
std::int32_t ParseIOChannelID(std::string_view strText, bool blnBracketed);

// Integers, floats and decimals (rounded half to even) and texts can be channel numbers. Raises nothing.
bool IsValidIOChannelID(const Variant& varValue);

}  // namespace quelm
