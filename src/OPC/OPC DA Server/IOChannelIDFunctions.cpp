#include "OPC/OPC DA Server/IOChannelIDFunctions.h"

#include <string>

#include "OPC/OPC DA Server/TextConversionFunctions.h"
#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

bool isChannelNumber(std::int32_t id) {
    return id >= 1 && id < 2'000'000'000;
}

std::string bracketedText(std::string_view text) {
    const std::string between = GetTextBetween(text, "[", "]");
    const std::string_view trimmed = trimBlanks(between);
    return std::string(trimmed.starts_with('@') ? trimmed.substr(1) : std::string_view());
}

}  // namespace

std::int32_t ParseIOChannelID(std::string_view strText, bool blnBracketed) {
    try {
        const double number = blnBracketed ? LeadingNumber(bracketedText(strText)) : LeadingNumber(strText);
        const std::int32_t id = roundToInt32(number);
        return isChannelNumber(id) ? id : 0;
    } catch (const RuntimeError&) {
        // A number that no 32-bit integer holds is no channel.
        return 0;
    }
}

bool IsValidIOChannelID(const Variant& varValue) {
    return IsValidIdentifier(varValue, isChannelNumber, ParseIOChannelID);
}

}  // namespace quelm
