#pragma once

// Conversions between the kinds of a Variant, with the product's own rules: integers round half to even,
// a value out of range raises 6 (Overflow), what cannot convert raises 13 (Type mismatch), Null raises 94.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Date.h"
#include "base/DateText.h"
#include "base/Variant.h"

namespace quelm {

// Empty (counts as 0), any number, Boolean, and text that reads as a number; never Null, dates, errors, objects,
// arrays.
bool isNumeric(const Variant& value);
// A date, or text that reads as a date.
bool isDateLike(const Variant& value);

std::int16_t toInt16(const Variant& value);
std::int32_t toInt32(const Variant& value);
float toSingle(const Variant& value);
double toDouble(const Variant& value);
// Numbers are true when not 0; text converts when it is a number or "True"/"False" in any case.
bool toBoolean(const Variant& value);
Date toDate(const Variant& value);
Decimal toDecimal(const Variant& value);
// The natural text: numbers in shortest plain form ("12.5", "1E+30"), Booleans "True"/"False", dates by dateText,
// Empty "". Null raises 94.
std::string toText(const Variant& value);
// As toText, with Null written as nothing.
std::string naturalText(const Variant& value);

// Rounds half to even; raises 6 when the result does not fit.
std::int32_t roundToInt32(double value);

}  // namespace quelm
