#pragma once

// Dates as text, written and read the same way in every locale.

#include <optional>
#include <string>
#include <string_view>

#include "base/Date.h"

namespace quelm {

// The general date-time text: "yyyy-MM-dd HH:mm:ss" of the date rounded to whole seconds; the time left out at exactly
// midnight, the date when the value has no date part.
std::string dateText(Date date);

// What of a date its text shows.
enum class DatePattern { date, time, dateAndTime };
// "yyyy-MM-dd", "HH:mm:ss" or both, of the date rounded to whole seconds.
std::string dateText(Date date, DatePattern pattern);

// Reads a local date, a time of day alone, or both with blanks or one "T" between them; nothing for any other text.
//   date   "yyyy-M-d", the year of four digits; also with "/" or "." for "-"; "d.M.yyyy" and "M/d/yyyy" in either order
//          and with any of the three, but only where the numbers leave no doubt which of them is the day
//   time   "H:m", "H:m:s" or "H:m:s.f" with one to nine digits of a second's fraction, taken to the microsecond; hours
//          0 to 23, or 1 to 12 with "AM" or "PM" behind
// Never a zone ("Z", "+01:00"): all of the product's dates are local ones without a zone, so that the hour of a text
// that names one would be a guess.
std::optional<Date> parseDate(std::string_view text);

}  // namespace quelm
