#pragma once

// What this end says to other machines when it is the client: asks where an object is called, for an interface of it,
// lets go of it, and pings it. Parameters and results as bytes; whatever an answer holds may be wrong.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/HResult.h"
#include "base/Uuid.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "dcom/orpc/OrpcTypes.h"

namespace quelm::dcom::orpc {

// An address at which a machine says that it can be reached over TCP.
struct StringBinding {
    std::string address;     // a name or a numeric address, as it was written; never empty
    std::uint16_t port = 0;  // 0: none was given, which means the activation port

    bool operator==(const StringBinding&) const = default;
};

// Bindings and names beyond these are passed over: no machine has more, and each one costs a try.
inline constexpr std::size_t mostBindings = 16;
inline constexpr std::size_t longestAddress = 255;

// The string bindings of a list of addresses, whose two counts stand in front; those for security are skipped. What is
// wrong with it latches in the reader.
std::vector<StringBinding> readBindings(ndr::Reader& in);

// Where an object of another process is found, and how many references came with it.
struct RemoteReference {
    Uuid iid;
    ObjectReference object;
    std::vector<StringBinding> resolver;  // where its addresses are asked for
};
// Nothing for references that do not decode or are not standard ones (those made by custom marshalling included).
std::optional<RemoteReference> parseRemoteReference(std::span<const std::uint8_t> objectReference);

// Where the objects of one process are called.
struct ResolvedOxid {
    std::vector<StringBinding> bindings;
    Uuid remUnknownIpid;
    std::uint32_t levelHint = 0;
    std::uint16_t minorVersion = 0;  // of the protocol that the process speaks, 5.x
    std::uint32_t status = 0;        // 0: success
};

// IObjectExporter (no header in front).
void writeResolveOxid2(ndr::Writer& out, std::uint64_t oxid);
std::optional<ResolvedOxid> parseResolveOxid2(std::span<const std::uint8_t> stub);
void writeSimplePing(ndr::Writer& out, std::uint64_t setId);
std::optional<std::uint32_t> parseSimplePing(std::span<const std::uint8_t> stub);
// At least one object to add or to take out; each list goes as a null pointer where it is empty.
void writeComplexPing(ndr::Writer& out, std::uint64_t setId, std::uint16_t sequence, std::span<const std::uint64_t> add,
                      std::span<const std::uint64_t> remove);
struct ComplexPingAnswer {
    std::uint64_t setId = 0;
    std::uint32_t status = 0;
};
std::optional<ComplexPingAnswer> parseComplexPing(std::span<const std::uint8_t> stub);

// The header in front of an object call's parameters.
struct ObjectCallHeader {
    std::uint16_t minorVersion = comMinorVersion;  // 5.x; a newer one than its own is refused by whoever is called
    Uuid causality;                                // another one for each call that nothing else is waiting for
    std::uint32_t flags = 0;                       // 1: a request to the service that makes objects
};
void writeOrpcThis(ndr::Writer& out, const ObjectCallHeader& header);

// IRemUnknown.
void writeRemQueryInterface(ndr::Writer& out, const ObjectCallHeader& header, const Uuid& ipid, const Uuid& iid,
                            std::uint32_t references);
struct QueriedInterface {
    HResult result = S_OK;  // of the call or of the entry, whichever failed
    ObjectReference reference;
};
std::optional<QueriedInterface> parseRemQueryInterface(std::span<const std::uint8_t> stub);
struct HeldReferences {
    Uuid ipid;
    std::uint32_t count = 0;
};
void writeRemRelease(ndr::Writer& out, const ObjectCallHeader& header, std::span<const HeldReferences> held);

}  // namespace quelm::dcom::orpc
