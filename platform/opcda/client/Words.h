#pragma once

// What the numbers of OPC DA mean, in the words that an operator finds in manuals: qualities, results, states and
// time stamps.

#include <cstdint>
#include <string>
#include <string_view>

#include "base/HResult.h"

namespace quelm::opcda::client {

// "good", "bad, not connected", "uncertain, low limited", with "vendor 3" where the high byte is used.
std::string qualityText(std::uint16_t quality);

// "OPC_E_UNKNOWNITEMID"; "C0048001" for a code without a name.
std::string resultName(HResult result);
// "The item ID is not known to the server. (OPC_E_UNKNOWNITEMID)"; the name alone where there is no text.
std::string resultText(HResult result);

// GetStatus: "running", "failed", "no configuration", "suspended", "test", "communication fault"; else the number.
std::string stateText(std::uint16_t state);

// UTC as "2026-01-02T03:04:05.678Z", from 100-nanosecond units since 1601-01-01; empty for 0 and whatever no calendar
// has.
std::string fileTimeText(std::int64_t fileTime);

// "read", "write", "read, write", "none".
std::string_view accessRightsText(std::uint32_t accessRights);

}  // namespace quelm::opcda::client
