#pragma once

// Values as text that reads the same in every locale, for the commands that go to the I/O servers, and the product's
// way of reading the number that a text begins with.

#include <string>
#include <string_view>

#include "base/Variant.h"

namespace quelm {

// Empty and Null give "", Booleans "1" or "0", floats NumberToText, currency and decimal their plain decimal text,
// dates "yyyy-MM-dd HH:mm:ss" (date or time alone where the other part is nil), everything else its ordinary text.
// Raises RuntimeError 13 for arrays and objects, 91 for an object that is set to nothing.
std::string VariantToText(const Variant& varValue);

// A float's plain decimal text ("0.00001"); in exponent form only beyond the decimal range ("1E+30"). Never fails.
std::string NumberToText(const Variant& varValue);

// The number that a text begins with, 0 when there is none. Blanks, tabs and line feeds are ignored wherever they
// stand; "&H" and "&O" lead hexadecimal and octal digits (up to 16 bits a 16-bit integer, up to 32 bits a 32-bit one;
// a closing "&" makes it 32 bits); a sign, a decimal point and an exponent with "E" or "D" are read. Raises
// RuntimeError 6 when the number does not fit.
double LeadingNumber(std::string_view strText);

}  // namespace quelm
