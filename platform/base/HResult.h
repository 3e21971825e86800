#pragma once

// The COM result codes: a type of their own, so that no other number is taken for one.

#include <cstdint>

namespace quelm {

enum class HResult : std::uint32_t {};

inline constexpr HResult S_OK{0};
inline constexpr HResult S_FALSE{1};
inline constexpr HResult E_NOTIMPL{0x80004001};
inline constexpr HResult E_NOINTERFACE{0x80004002};
inline constexpr HResult E_FAIL{0x80004005};
inline constexpr HResult E_ACCESSDENIED{0x80070005};
inline constexpr HResult E_OUTOFMEMORY{0x8007000E};
inline constexpr HResult E_INVALIDARG{0x80070057};
inline constexpr HResult REGDB_E_CLASSNOTREG{0x80040154};
inline constexpr HResult CLASS_E_NOAGGREGATION{0x80040110};
inline constexpr HResult CO_E_SERVER_STOPPING{0x80080008};
inline constexpr HResult CO_E_CLASSSTRING{0x800401F3};
inline constexpr HResult CONNECT_E_NOCONNECTION{0x80040200};
inline constexpr HResult CONNECT_E_ADVISELIMIT{0x80040201};
inline constexpr HResult CONNECT_E_CANNOTCONNECT{0x80040202};
inline constexpr HResult OLE_E_NOCONNECTION{0x80040004};
inline constexpr HResult DV_E_FORMATETC{0x80040064};
inline constexpr HResult DV_E_TYMED{0x80040069};
inline constexpr HResult DISP_E_TYPEMISMATCH{0x80020005};
inline constexpr HResult DISP_E_OVERFLOW{0x8002000A};
inline constexpr HResult RPC_E_DISCONNECTED{0x80010108};

constexpr bool failed(HResult result) {
    return (static_cast<std::uint32_t>(result) & 0x80000000U) != 0;
}

// As the number that events take and give for a result, and back.
constexpr std::int32_t asNumber(HResult result) {
    return static_cast<std::int32_t>(result);
}
constexpr HResult asResult(std::int32_t number) {
    return HResult{static_cast<std::uint32_t>(number)};
}

}  // namespace quelm
