// The texts in which tag definitions and I/O servers give parameter numbers, channel numbers, numbers and dates.

#include <cmath>

#include "FuzzInput.h"
#include "OPC/OPC DA Server/IOChannelIDFunctions.h"
#include "OPC/OPC DA Server/PIDFunctions.h"
#include "OPC/OPC DA Server/TextConversionFunctions.h"
#include "base/Conversion.h"
#include "base/Text.h"

namespace quelm::fuzz {
namespace {

void checkIds(std::string_view text) {
    for (const bool bracketed : {false, true}) {
        const std::int32_t pid = ParsePID(text, bracketed);
        require(pid == 0 || IsValidPID(Variant(pid)), "a PID that is read is valid");
        require(pid == 0 || ParsePID(PIDToText(pid), false) == pid, "a PID's text reads as that PID");
        require(pid == 0 || ParsePID("[" + PIDToText(pid) + "]", true) == pid, "in brackets too");
        const std::int32_t channel = ParseIOChannelID(text, bracketed);
        require(channel == 0 || IsValidIOChannelID(Variant(channel)), "a channel number that is read is valid");
        require(channel == 0 || ParseIOChannelID("[@" + std::to_string(channel) + "]", true) == channel,
                "a channel number reads back");
    }
    IsValidPID(Variant(text));
    IsValidIOChannelID(Variant(text));
    mayRaise({errors::overflow}, "overflow and nothing else", [&] { LeadingNumber(text); });
    std::string_view rest = text;
    mayRaise({errors::overflow}, "overflow and nothing else", [&] {
        while (!rest.empty()) {
            const std::size_t before = rest.size();
            require(TakeTrailingNumber(rest, 3) >= -1 && rest.size() < before, "every step takes something");
        }
    });
}

void checkPid(std::int32_t pid) {
    const std::string text = PIDToText(pid);
    require(text.empty() != IsValidPID(Variant(pid)), "valid PIDs have a text");
    require(text.empty() || ParsePID(text, false) == pid, "a PID's text reads as that PID");
    const std::int32_t made =
        MakePID(GetPIDPart(pid, 1), GetPIDPart(pid, 2), GetPIDPart(pid, 5), GetPIDPart(pid, 4), GetPIDPart(pid, 3));
    require(made == (text.empty() ? 0 : pid), "a PID's parts make that PID");
}

void checkConversions(std::string_view text) {
    const Variant value(text);
    if (isNumeric(value)) {
        require(std::isfinite(toDouble(value)), "a number is a number");
        mayRaise({errors::overflow}, "overflow and nothing else", [&] { toInt32(value); });
        mayRaise({errors::overflow}, "overflow and nothing else", [&] { toDecimal(value); });
        mayRaise({errors::overflow}, "overflow and nothing else", [&] { toSingle(value); });
    }
    if (const auto date = parseDate(text)) {
        require(isDateLike(value), "what reads as a date is one");
        const auto again = parseDate(dateText(*date));
        require(again && dateText(*again) == dateText(*date), "a date's text reads as that date");
        require(toDate(value) == *date, "one and the same date");
    } else {
        require(!isDateLike(value), "what doesn't read as a date is none");
    }
    mayRaise({errors::typeMismatch, errors::overflow}, "mismatch or overflow", [&] { toBoolean(value); });
    mayRaise({errors::typeMismatch, errors::overflow}, "mismatch or overflow", [&] { toInt16(value); });
    mayRaise({errors::typeMismatch, errors::overflow, errors::invalidCall}, "mismatch, overflow or a date's range",
             [&] { toDate(value); });
}

void checkDouble(double number) {
    // With the 15 digits of a number's text the very largest ones become larger than any number.
    constexpr double largest = 1.797693134862315e308;
    if (!(std::fabs(number) < largest)) {
        return;
    }
    NumberToText(Variant(number));
    const std::string text = VariantToText(Variant(number));
    require(parseNumber(text).has_value(), "a number's text is a number");
    if (number >= minDateDays && number < maxDateDays - 1) {
        const Date date{number};
        const auto again = parseDate(dateText(date));
        require(again.has_value(), "a date's text is a date");
        require(dateText(*again) == dateText(date), "and that one");
    }
}

}  // namespace

void runInput(Input input) {
    double number = 0;
    const Bytes raw = input.bytes(sizeof number);
    std::memcpy(&number, raw.data(), raw.size());
    std::int32_t pid = 0;
    std::memcpy(&pid, raw.data(), std::min(raw.size(), sizeof pid));
    const Bytes part = input.part();
    const ExactCopy text(part);
    checkIds(text.text());
    checkPid(pid);
    checkDouble(number);
    checkConversions(text.text());
}

}  // namespace quelm::fuzz
