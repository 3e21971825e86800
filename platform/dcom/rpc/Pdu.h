#pragma once

// The connection-oriented RPC 5.0 PDUs that a server meets: takes them apart without believing any length, and
// puts its own together at the end of a buffer. Little endian only, which every DCOM client sends.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/Uuid.h"
#include "dcom/Fault.h"
#include "dcom/RefusalReason.h"
#include "dcom/ndr/Writer.h"

namespace quelm::dcom::rpc {

enum class PduType : std::uint8_t {
    Request = 0,
    Response = 2,
    Fault = 3,
    Bind = 11,
    BindAck = 12,
    BindNak = 13,
    AlterContext = 14,
    AlterContextResponse = 15,
    Auth3 = 16,
    Shutdown = 17,
    CoCancel = 18,
    Orphaned = 19,
};

inline constexpr std::size_t headerSize = 16;
inline constexpr std::size_t callHeaderSize = 24;  // of a request without object, and of a response
inline constexpr std::size_t faultSize = 32;
inline constexpr std::size_t trailerSize = 8;          // of the security trailer, before the token
inline constexpr std::uint16_t ownMaxFragment = 5840;  // what this server takes and gives at most
// Of a BIND, ALTER_CONTEXT or AUTH3: Windows lets the ticket in it grow to 48,000 bytes, whatever size was agreed on.
inline constexpr std::uint16_t maxHandshake = 48'000 + ownMaxFragment;
inline constexpr std::uint16_t leastMaxFragment = 1432;  // what every client must be able to take

inline constexpr std::uint8_t flagFirst = 0x01;
inline constexpr std::uint8_t flagLast = 0x02;
inline constexpr std::uint8_t flagHeaderSigning = 0x04;  // in bind PDUs; a pending cancel in requests
inline constexpr std::uint8_t flagDidNotExecute = 0x20;
inline constexpr std::uint8_t flagObject = 0x80;

struct Header {
    PduType type{};
    std::uint8_t flags = 0;
    std::uint16_t fragmentLength = 0;
    std::uint16_t authLength = 0;
    std::uint32_t callId = 0;
};

// Takes the first headerSize bytes. None: usable, and fragmentLength is from headerSize to
// ownMaxFragment (maxHandshake where a log-on may be in it). The call id of a big-endian client is right even so.
RefusalReason parseHeader(std::span<const std::uint8_t> raw, Header& header);

inline constexpr std::uint8_t authTypeNegotiate = 9;
inline constexpr std::uint8_t authTypeNtlm = 10;
inline constexpr std::uint8_t authTypeKerberos = 16;

struct AuthTrailer {
    std::uint8_t type = 0;
    std::uint8_t level = 0;
    std::uint8_t padLength = 0;
    std::uint32_t contextId = 0;
    std::size_t offset = 0;  // of the trailer in the PDU
    std::span<const std::uint8_t> token;
};

// The security trailer of a whole PDU whose authLength is not 0. False when it does not fit behind bodyOffset.
bool parseTrailer(std::span<const std::uint8_t> pdu, const Header& header, std::size_t bodyOffset,
                  AuthTrailer& trailer);

struct Syntax {
    Uuid uuid;
    std::uint16_t versionMajor = 0;
    std::uint16_t versionMinor = 0;

    bool operator==(const Syntax&) const = default;
};

// The one coding of parameters that either end here speaks (NDR 2.0).
inline constexpr Syntax ndrSyntax{Uuid::parse("8A885D04-1CEB-11C9-9FE8-08002B104860"), 2, 0};

struct ContextElement {
    std::uint16_t id = 0;
    Syntax interface;
    std::vector<Syntax> transfers;
};

struct Bind {
    std::uint16_t maxTransmit = 0;
    std::uint16_t maxReceive = 0;
    std::uint32_t group = 0;
    std::vector<ContextElement> contexts;
};

// A BIND or ALTER_CONTEXT PDU's body; nothing when it does not decode.
std::optional<Bind> parseBind(std::span<const std::uint8_t> pdu);

struct Request {
    std::uint16_t contextId = 0;
    std::uint16_t opnum = 0;
    bool hasObject = false;
    Uuid object;
    std::size_t stubOffset = 0;
};

// False when the PDU is too short for what its flags promise.
bool parseRequest(std::span<const std::uint8_t> pdu, const Header& header, Request& request);

// What becomes of one offered presentation context.
struct ContextResult {
    std::uint16_t result = 0;  // 0 acceptance, 2 provider rejection, 3 answer to a feature negotiation
    std::uint16_t reason = 0;  // of a rejection; the features agreed on in a negotiation
    Syntax transfer;
};

inline constexpr std::uint16_t resultAccepted = 0;
inline constexpr std::uint16_t resultProviderRejection = 2;
inline constexpr std::uint16_t resultNegotiated = 3;
inline constexpr std::uint16_t reasonNotSpecified = 0;
inline constexpr std::uint16_t reasonInterfaceUnknown = 1;
inline constexpr std::uint16_t reasonTransferUnknown = 2;
inline constexpr std::uint16_t reasonLocalLimit = 3;

inline constexpr std::uint16_t nakNotSpecified = 0;
inline constexpr std::uint16_t nakProtocolVersion = 4;
inline constexpr std::uint16_t nakAuthenticationType = 8;

// A BIND_ACK or ALTER_CONTEXT_RESP (both have the same form). An empty token leaves the security trailer out.
struct BindAck {
    PduType type = PduType::BindAck;
    std::uint8_t flags = 0;  // in addition to first and last
    std::uint32_t callId = 0;
    std::uint16_t maxTransmit = 0;
    std::uint16_t maxReceive = 0;
    std::uint32_t group = 0;
    std::string_view secondaryAddress;  // the port as text
    std::span<const ContextResult> results;
    AuthTrailer trailer;  // type, level, contextId and token count
};

void appendBindAck(std::vector<std::uint8_t>& out, const BindAck& ack);
void appendBindNak(std::vector<std::uint8_t>& out, std::uint32_t callId, std::uint16_t reason);
void appendFault(std::vector<std::uint8_t>& out, std::uint32_t callId, std::uint16_t contextId, Fault fault,
                 std::uint8_t flags);

// The parts of which both ends build their PDUs: fills in headerSize bytes; writes an interface or transfer syntax.
void putHeader(std::uint8_t* at, PduType type, std::uint8_t flags, std::size_t fragmentLength, std::size_t authLength,
               std::uint32_t callId);
void writeSyntax(ndr::Writer& out, const Syntax& syntax);

// What the headers of all fragments of one REQUEST or RESPONSE have in common.
struct CallHeader {
    PduType type = PduType::Response;
    std::uint32_t callId = 0;
    std::uint16_t contextId = 0;
    std::uint16_t opnum = 0;          // of a request only
    std::optional<Uuid> object = {};  // of a request only

    std::size_t size() const { return object ? callHeaderSize + sizeof object->bytes : callHeaderSize; }
};

// Fills in header.size() bytes. flags: in addition to that of an object. allocHint: stub bytes of this and all later
// fragments.
void putCallHeader(std::uint8_t* at, const CallHeader& header, std::uint8_t flags, std::size_t fragmentLength,
                   std::size_t authLength, std::size_t allocHint);
// Fills in trailerSize bytes.
void putTrailer(std::uint8_t* at, std::uint8_t type, std::uint8_t level, std::size_t padLength,
                std::uint32_t contextId);

}  // namespace quelm::dcom::rpc
