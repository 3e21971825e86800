#pragma once

// How a call ends that no method answered: the status of a FAULT PDU. A method's own outcome is an HResult, which
// stands in the reply; the two are different types, because a client reads the reply's results after one of them only.

#include <cstdint>

#include "base/HResult.h"

namespace quelm::dcom {

enum class Fault : std::uint32_t {
    None = 0,  // there is a reply
    AccessDenied = 0x00000005,
    CallFailed = 0x000006BE,  // whoever had to answer never did
    BadStubData = 0x000006F7,
    OpnumRange = 0x1C010002,
    UnknownInterface = 0x1C010003,
    Protocol = 0x1C01000B,
    ServerTooBusy = 0x1C010014,
    Unspecified = 0x1C000012,  // names no reason
    // Codes that COM hands on to the caller as they stand.
    Server = 0x80010105,           // a method broke down inside
    VersionMismatch = 0x80010110,  // a client of another protocol generation
    OutOfMemory = static_cast<std::uint32_t>(E_OUTOFMEMORY),
    Disconnected = static_cast<std::uint32_t>(RPC_E_DISCONNECTED),  // the object behind the IPID is gone
    // The call is answered later, by its ticket. Never goes out.
    Deferred = 0xFFFFFFFF,
};

// The fault that carries a failure: COM hands it on to the caller as it stands. There is no way back.
constexpr Fault faultOf(HResult failure) {
    return Fault{static_cast<std::uint32_t>(failure)};
}

}  // namespace quelm::dcom
