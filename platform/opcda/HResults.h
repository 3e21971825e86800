#pragma once

// Result codes of the OPC DA interfaces and their texts.

#include <cstdint>
#include <string_view>

namespace quelm::opcda {

using HResult = std::uint32_t;

inline constexpr HResult S_OK = 0;
inline constexpr HResult S_FALSE = 1;
inline constexpr HResult E_NOTIMPL = 0x80004001;
inline constexpr HResult E_NOINTERFACE = 0x80004002;
inline constexpr HResult E_FAIL = 0x80004005;
inline constexpr HResult E_ACCESSDENIED = 0x80070005;
inline constexpr HResult E_OUTOFMEMORY = 0x8007000E;
inline constexpr HResult E_INVALIDARG = 0x80070057;
inline constexpr HResult REGDB_E_CLASSNOTREG = 0x80040154;
inline constexpr HResult CONNECT_E_NOCONNECTION = 0x80040200;
inline constexpr HResult CONNECT_E_ADVISELIMIT = 0x80040201;
inline constexpr HResult CONNECT_E_CANNOTCONNECT = 0x80040202;
inline constexpr HResult DISP_E_TYPEMISMATCH = 0x80020005;
inline constexpr HResult DISP_E_OVERFLOW = 0x8002000A;
inline constexpr HResult RPC_E_DISCONNECTED = 0x80010108;

inline constexpr HResult OPC_E_INVALIDHANDLE = 0xC0040001;
inline constexpr HResult OPC_E_BADTYPE = 0xC0040004;
inline constexpr HResult OPC_E_PUBLIC = 0xC0040005;
inline constexpr HResult OPC_E_BADRIGHTS = 0xC0040006;
inline constexpr HResult OPC_E_UNKNOWNITEMID = 0xC0040007;
inline constexpr HResult OPC_E_INVALIDITEMID = 0xC0040008;
inline constexpr HResult OPC_E_INVALIDFILTER = 0xC0040009;
inline constexpr HResult OPC_E_UNKNOWNPATH = 0xC004000A;
inline constexpr HResult OPC_E_RANGE = 0xC004000B;
inline constexpr HResult OPC_E_DUPLICATENAME = 0xC004000C;
inline constexpr HResult OPC_S_UNSUPPORTEDRATE = 0x0004000D;
inline constexpr HResult OPC_S_CLAMP = 0x0004000E;
inline constexpr HResult OPC_S_INUSE = 0x0004000F;
inline constexpr HResult OPC_E_INVALIDCONFIGFILE = 0xC0040010;
inline constexpr HResult OPC_E_NOTFOUND = 0xC0040011;
inline constexpr HResult OPC_E_INVALID_PID = 0xC0040203;
inline constexpr HResult OPC_E_DEADBANDNOTSET = 0xC0040400;
inline constexpr HResult OPC_E_DEADBANDNOTSUPPORTED = 0xC0040401;
inline constexpr HResult OPC_E_NOBUFFERING = 0xC0040402;
inline constexpr HResult OPC_E_INVALIDCONTINUATIONPOINT = 0xC0040403;
inline constexpr HResult OPC_S_DATAQUEUEOVERFLOW = 0x00040404;
inline constexpr HResult OPC_E_RATENOTSET = 0xC0040405;
inline constexpr HResult OPC_E_NOTSUPPORTED = 0xC0040406;

constexpr bool failed(HResult result) {
    return (result & 0x80000000U) != 0;
}

// Quality words that the object model itself gives.
inline constexpr std::uint16_t qualityBad = 0x00;
inline constexpr std::uint16_t qualityOutOfService = 0x1C;

// The English text of a result code; empty for a code that no call of this server returns.
std::string_view errorText(HResult result);

}  // namespace quelm::opcda
