#pragma once

// The OPC DA interfaces' own result codes, and the texts of all codes that clients get.

#include <cstdint>
#include <string_view>

#include "base/HResult.h"

namespace quelm::opcda {

inline constexpr HResult OPC_E_INVALIDHANDLE{0xC0040001};
inline constexpr HResult OPC_E_BADTYPE{0xC0040004};
inline constexpr HResult OPC_E_PUBLIC{0xC0040005};
inline constexpr HResult OPC_E_BADRIGHTS{0xC0040006};
inline constexpr HResult OPC_E_UNKNOWNITEMID{0xC0040007};
inline constexpr HResult OPC_E_INVALIDITEMID{0xC0040008};
inline constexpr HResult OPC_E_INVALIDFILTER{0xC0040009};
inline constexpr HResult OPC_E_UNKNOWNPATH{0xC004000A};
inline constexpr HResult OPC_E_RANGE{0xC004000B};
inline constexpr HResult OPC_E_DUPLICATENAME{0xC004000C};
inline constexpr HResult OPC_S_UNSUPPORTEDRATE{0x0004000D};
inline constexpr HResult OPC_S_CLAMP{0x0004000E};
inline constexpr HResult OPC_S_INUSE{0x0004000F};
inline constexpr HResult OPC_E_INVALIDCONFIGFILE{0xC0040010};
inline constexpr HResult OPC_E_NOTFOUND{0xC0040011};
inline constexpr HResult OPC_E_INVALID_PID{0xC0040203};
inline constexpr HResult OPC_E_DEADBANDNOTSET{0xC0040400};
inline constexpr HResult OPC_E_DEADBANDNOTSUPPORTED{0xC0040401};
inline constexpr HResult OPC_E_NOBUFFERING{0xC0040402};
inline constexpr HResult OPC_E_INVALIDCONTINUATIONPOINT{0xC0040403};
inline constexpr HResult OPC_S_DATAQUEUEOVERFLOW{0x00040404};
inline constexpr HResult OPC_E_RATENOTSET{0xC0040405};
inline constexpr HResult OPC_E_NOTSUPPORTED{0xC0040406};

// The English text of a result code; empty for a code that clients get neither from this server nor on the way to it.
std::string_view errorText(HResult result);

}  // namespace quelm::opcda
