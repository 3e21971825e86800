#pragma once

// Reads switches, values and dates out of the text of the command line, as the product's other programs do:
// /name=value arguments, quoted texts, and dates given as keywords such as "today-1".

#include <cstdint>
#include <string_view>

#include "base/Variant.h"

namespace quelm {

// strName is a switch ("visible") or, when it ends in "=", the name of a value ("site="). The result is Null when the
// name does not occur, Empty for a switch that is there or a name without value, and else a 32-bit whole number, a
// Date or text; only Empty or text with blnAsString. With blnIsDate the value stands between number signs or double
// quotes, and a quoted one may be a date keyword. Raises RuntimeError 6 when a number does not fit 32 bits, and 5 when
// a keyword's offset leads beyond a Date's range.
Variant GetCommandLineArg(std::string_view strCommandLine, std::string_view strName, bool blnIsDate, bool blnAsString);

// Minus the number behind the first "-" of a date keyword; 0 when there is none. Raises RuntimeError 6 when it does
// not fit 32 bits.
std::int32_t GetKeywordOffset(std::string_view strKeyword);

}  // namespace quelm
