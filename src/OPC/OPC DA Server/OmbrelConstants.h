#pragma once

// The product's names and numbers that several parts of this server share.

#include <cstdint>
#include <string_view>

namespace quelm::ombrel {

inline constexpr std::string_view applicationTitle = "Quelm 5 OPC DA Server";
inline constexpr std::string_view executableName = "Q5OPCServer";

// TagType of the OPCDef records that become OPC DA items; others belong to other servers.
inline constexpr std::int32_t opcDATag = 1;

}  // namespace quelm::ombrel
