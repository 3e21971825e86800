#pragma once

// Date and text functions that every part of the server shares. Dates are local; characters are code points and
// character positions count from 1, with 0 for "none".

#include <cstdint>
#include <string>
#include <string_view>

#include "base/Date.h"
#include "base/Variant.h"

namespace quelm {

// The present local date-time.
Date CurrentTime();

// date plus dblAmount units: "yyyy" years, "q" quarters, "m" months, "ww" or "w" weeks, "d" days, "h" hours,
// "n" minutes, "s" seconds, in any case ("w" in lower case only). Year, quarter and month amounts are rounded half to
// even to whole months, the day clamped to the last of a shorter month. With "h", "n" and "s" the result carries no
// fraction of a second. Raises RuntimeError 5 for another unit or a result beyond a Date's range.
Date DateAddEx(std::string_view strUnit, double dblAmount, Date dtmDate);

// Start of the interval of lngSeconds (1 to 86400, counted from midnight) that the date lies in, or of the one before
// it; the zero date for any other length.
Date StartOfInterval(Date dtmDate, std::int32_t lngSeconds, bool blnPrevious);

// Midnight of the first day of the period that the date lies in.
Date StartOfMonth(Date dtmDate);
Date StartOfQuarter(Date dtmDate);
Date StartOfHalfYear(Date dtmDate);
Date StartOfYear(Date dtmDate);

enum class CompareMode : std::int32_t { Exact = 0, IgnoreCase = 1 };

// 1-based position of the first occurrence at or after lngStart, 0 when there is none; an empty wanted text is found at
// lngStart itself. Raises RuntimeError 5 when lngStart is below 1.
std::int32_t FindText(std::int32_t lngStart, std::string_view strText, std::string_view strWanted, CompareMode mode);

// The text between the first start marker at or after lngStart and the next end marker (an empty end marker means the
// start marker); without an end marker the rest of the text, without a start marker "". lngNextPosition becomes the
// end marker's position plus 1 (0 without one), lngStartPosition the start marker's.
std::string GetTextBetween(std::string_view strText, std::string_view strStartMarker, std::string_view strEndMarker,
                           std::int32_t lngStart, CompareMode mode, std::int32_t& lngNextPosition,
                           std::int32_t& lngStartPosition);
std::string GetTextBetween(std::string_view strText, std::string_view strStartMarker, std::string_view strEndMarker,
                           std::int32_t lngStart = 1, CompareMode mode = CompareMode::Exact);

// The text without one leading and one trailing double quote.
std::string_view StripQuotes(std::string_view strText);

// Filled with blanks up to lngWidth characters (on the right when aligned left); a longer text is cut to its first
// lngWidth characters when blnTruncate is set and stays whole otherwise.
std::string PadText(std::string_view strText, std::int32_t lngWidth, bool blnAlignLeft, bool blnTruncate);

// The first lngLength characters and "..." when the text is longer, else the text itself.
std::string TruncateText(std::string_view strText, std::int32_t lngLength);

// Whether a value names something by a 32-bit number, as parameters and channels are named: numbers when isValidNumber
// accepts them rounded half to even, text when parse (called unbracketed) reads something other than 0 from it. Any
// other kind, and a number that no 32-bit integer holds, names nothing.
bool IsValidIdentifier(const Variant& varValue, bool (*isValidNumber)(std::int32_t),
                       std::int32_t (*parse)(std::string_view strText, bool blnBracketed));

}  // namespace quelm
