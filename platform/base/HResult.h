#pragma once

// The COM result codes and the RPC fault codes.

#include <cstdint>

namespace quelm {

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
inline constexpr HResult CLASS_E_NOAGGREGATION = 0x80040110;
inline constexpr HResult CO_E_SERVER_STOPPING = 0x80080008;
inline constexpr HResult CONNECT_E_NOCONNECTION = 0x80040200;
inline constexpr HResult CONNECT_E_ADVISELIMIT = 0x80040201;
inline constexpr HResult CONNECT_E_CANNOTCONNECT = 0x80040202;
inline constexpr HResult DISP_E_TYPEMISMATCH = 0x80020005;
inline constexpr HResult DISP_E_OVERFLOW = 0x8002000A;
inline constexpr HResult RPC_E_DISCONNECTED = 0x80010108;

constexpr bool failed(HResult result) {
    return (result & 0x80000000U) != 0;
}

// Status codes of a FAULT PDU (nca_s_... of the RPC protocol, RPC_X_... of its runtime).
inline constexpr std::uint32_t faultAccessDenied = 0x00000005;
inline constexpr std::uint32_t faultOpnumRange = 0x1C010002;
inline constexpr std::uint32_t faultUnknownInterface = 0x1C010003;
inline constexpr std::uint32_t faultProtocol = 0x1C01000B;
inline constexpr std::uint32_t faultServerTooBusy = 0x1C010014;
inline constexpr std::uint32_t faultBadStubData = 0x000006F7;
inline constexpr std::uint32_t faultOutOfMemory = E_OUTOFMEMORY;        // what COM hands on to the caller as it stands
inline constexpr std::uint32_t faultDisconnected = RPC_E_DISCONNECTED;  // the object behind the IPID is gone

}  // namespace quelm
