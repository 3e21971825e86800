#pragma once

// Who this server is to the outside: the settings that the control carries on its form. OPC clients and the
// registration find the server by these.

#include <cstdint>
#include <string_view>

namespace quelm::identity {

inline constexpr std::string_view progId = "Ombrel.QuelmOPCServer.5";
inline constexpr std::string_view classId = "{43FB6634-CC72-4EE9-A292-BEDF9FF018BD}";
inline constexpr std::string_view applicationId = "{5A24BCDD-AEB1-4ED4-849D-27B85648B932}";
inline constexpr std::string_view description = "Quelm 5 OPC DA Server";
inline constexpr std::string_view vendor = "Ombrel";

// As the build says it, in one text and in parts.
inline constexpr std::string_view version = QUELM_VERSION;
inline constexpr std::uint16_t majorVersion = QUELM_VERSION_MAJOR;
inline constexpr std::uint16_t minorVersion = QUELM_VERSION_MINOR;
inline constexpr std::uint16_t buildNumber = QUELM_VERSION_PATCH;

// Milliseconds between two update passes of the items: the fastest that a value can change.
inline constexpr std::uint32_t scanRateMilliseconds = 20000;

}  // namespace quelm::identity
