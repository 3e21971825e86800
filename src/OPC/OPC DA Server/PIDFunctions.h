#pragma once

// The product's parameter numbers (PIDs): a 32-bit number of five decimal parts a to e,
// a * 100000000 + b * 100000 + c * 10000 + d * 100 + e, written "#0-000-0-00-00".

#include <cstdint>
#include <string>
#include <string_view>

#include "base/Variant.h"

namespace quelm {

// Takes one group of up to lngMaxDigits digits from the end of the text, with the separator before it. -1 when the text
// holds no digit any more. Raises RuntimeError 6 when the number does not fit 32 bits.
std::int32_t TakeTrailingNumber(std::string_view& strText, std::int32_t lngMaxDigits);

// The PID that a text holds, with any separators or none; with blnBracketed it has to stand between "[" and "]" at the
// start of the text. 0 for any other text. Raises nothing.
std::int32_t ParsePID(std::string_view strText, bool blnBracketed);

// The PID's text, "" when the number is no valid PID.
std::string PIDToText(std::int32_t lngPID);

// Integers, floats and decimals (rounded half to even) and texts can be PIDs: from 100000 to below 2000000000, part c
// neither 6 nor 9. Raises nothing.
bool IsValidPID(const Variant& varValue);

// The PID of five parts (a to 19, b to 999, c to 9, d and e to 99, none negative); 0 when a part is out of its range or
// the result is no valid PID.
std::int32_t MakePID(std::int32_t lngA, std::int32_t lngB, std::int32_t lngC, std::int32_t lngD, std::int32_t lngE);

// Selector 1 gives part a, 2 b, 3 e, 4 d and 5 c (the product's own order), -5 gives c with 7 shown as 8, any other 0.
std::int32_t GetPIDPart(std::int32_t lngPID, std::int32_t lngPart);

}  // namespace quelm
