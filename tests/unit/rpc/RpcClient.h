#pragma once

// The client's end for wire tests: builds RPC PDUs byte by byte, logs on with NTLM in the two ways that real clients
// use, protects requests and takes replies apart.

#include <algorithm>
#include <cstring>
#include <optional>

#include "Bytes.h"
#include "Codes.h"
#include "dcom/rpc/Pdu.h"
#include "ntlm/NtlmClient.h"

namespace quelm::dcom::rpc::test {

using namespace literals;
using Data = quelm::test::Bytes;
using quelm::test::Builder;
using quelm::test::fromHex;
using quelm::test::toHex;

inline constexpr Uuid interfaceA = "39C13A4D-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr Uuid interfaceB = "00000131-0000-0000-C000-000000000046"_uuid;
inline constexpr Uuid interfaceOpen = "99FCFEC4-5260-101B-BBCB-00AA0021347A"_uuid;  // needs no log-on
inline constexpr Uuid interfaceUnknown = "11111111-2222-3333-4444-555555555555"_uuid;
inline constexpr Uuid ndrTransfer = "8A885D04-1CEB-11C9-9FE8-08002B104860"_uuid;

struct Security {
    unsigned level = 0;  // 0: no trailer
    std::uint32_t contextId = 0;
    Data token = {};
    unsigned type = 10;  // NTLM; 9 is the negotiation around it
};

struct Offer {
    std::uint16_t id = 0;
    Uuid interface = interfaceA;
    Uuid transfer = ndrTransfer;
    unsigned transferVersion = 2;
};

// A whole PDU from its body; the trailer of handshakes goes behind it.
inline Data pdu(PduType type, unsigned flags, std::uint32_t callId, const Data& body, const Security& security = {}) {
    const std::size_t trailer = security.level != 0 ? trailerSize + security.token.size() : 0;
    Builder out;
    out.u8(5).u8(0).u8(static_cast<unsigned>(type)).u8(flags).hex("10000000");
    out.u16(headerSize + body.size() + trailer).u16(security.token.size()).u32(callId).add(body);
    if (security.level != 0) {
        out.u8(security.type).u8(security.level).u8(0).u8(0).u32(security.contextId).add(security.token);
    }
    return out.data();
}

inline Data bindBody(const std::vector<Offer>& offers, unsigned maxFragment = 4280, std::uint32_t group = 0) {
    Builder body;
    body.u16(maxFragment).u16(maxFragment).u32(group);
    body.u8(offers.size()).hex("CCCCCC");  // real clients leave rubbish in the padding
    for (const Offer& offer : offers) {
        body.u16(offer.id).u16(1).add(offer.interface.bytes).u32(0);
        body.add(offer.transfer.bytes).u32(offer.transferVersion);
    }
    return body.data();
}

// ---- Replies -------------------------------------------------------------------------------------------------

struct Reply {
    Header header;
    Data raw;

    PduType type() const { return header.type; }
    std::uint32_t u32(std::size_t at) const {
        std::uint32_t value = 0;
        std::memcpy(&value, raw.data() + at, 4);
        return value;
    }
    std::uint16_t u16(std::size_t at) const { return static_cast<std::uint16_t>(u32(at) & 0xFFFF); }
    Fault faultStatus() const { return type() == PduType::Fault ? Fault{u32(24)} : Fault::None; }
    Data token() const { return {raw.end() - header.authLength, raw.end()}; }
};

inline std::vector<Reply> splitReplies(std::span<const std::uint8_t> output) {
    std::vector<Reply> replies;
    while (output.size() >= headerSize) {
        Reply reply;
        if (parseHeader(output, reply.header) != RefusalReason::None || reply.header.fragmentLength > output.size()) {
            break;
        }
        reply.raw.assign(output.begin(), output.begin() + reply.header.fragmentLength);
        output = output.subspan(reply.header.fragmentLength);
        replies.push_back(std::move(reply));
    }
    if (!output.empty()) {
        replies.push_back({});  // never equal to what a test expects
    }
    return replies;
}

// ---- NTLM ----------------------------------------------------------------------------------------------------

// One log-on. V2 with keys as the hardened clients do it, V1 without keys as the connect-level client does it.
class NtlmLogOn : public ntlm::test::NtlmClient {
 public:
    enum class Kind { V1, V2 };

    explicit NtlmLogOn(Kind kind = Kind::V2, std::string user = "opc", std::string_view password = "secret")
        : NtlmClient("PLANT", std::move(user), password), kind_(kind) {}

    Data negotiate() const {
        return ntlm::test::negotiate(kind_ == Kind::V2 ? ntlm::test::sealingFlags : ntlm::test::connectFlags);
    }
    Data authenticate(const Data& challenge) {
        return kind_ == Kind::V2 ? answerV2(challenge) : answerV1Ess(challenge);
    }

 private:
    Kind kind_;
};

// ---- Requests ------------------------------------------------------------------------------------------------

struct CallParts {
    std::uint32_t callId = 0;
    std::uint16_t contextId = 0;
    std::uint16_t opnum = 0;
    Data stub = {};
    unsigned flags = flagFirst | flagLast;
    std::optional<Uuid> object = {};
};

inline Data requestBody(const CallParts& call) {
    Builder body;
    body.u32(call.stub.size()).u16(call.contextId).u16(call.opnum);
    if (call.object) {
        body.add(call.object->bytes);
    }
    return body.add(call.stub).data();
}

// Without protection; a verifier as the connect-level client sends it when the level is not 0.
inline Data request(const CallParts& call, unsigned level = 0, std::uint32_t contextId = 0) {
    const unsigned flags = call.flags | (call.object ? flagObject : 0);
    const Data token = level != 0 ? fromHex("01000000 000000000000000000000000") : Data{};
    return pdu(PduType::Request, flags, call.callId, requestBody(call), {level, contextId, token});
}

// As the level demands: nothing but a verifier up to connect level.
inline Data protectedRequest(const CallParts& call, unsigned level, std::uint32_t contextId, NtlmLogOn& logOn,
                             unsigned type = 10) {
    if (level <= 2) {
        return request(call, level, contextId);
    }
    const unsigned flags = call.flags | (call.object ? flagObject : 0);
    const std::size_t padding = (4 - call.stub.size() % 4) % 4;
    Data body = requestBody(call);
    body.insert(body.end(), padding, 0xBB);
    Data message = pdu(PduType::Request, flags, call.callId, body, {level, contextId, Data(16), type});
    message[message.size() - 22] = static_cast<std::uint8_t>(padding);
    const std::size_t stubAt = callHeaderSize + (call.object ? 16 : 0);
    const auto covered = std::span(message).first(message.size() - 16);
    ntlm::ServerContext::Signature signature{};
    if (level == 6) {
        logOn.security().seal(covered, covered.subspan(stubAt, call.stub.size() + padding), signature);
    } else {
        logOn.security().sign(covered, signature);
    }
    std::copy(signature.begin(), signature.end(), message.end() - 16);
    return message;
}

// A CO_CANCEL or ORPHANED.
inline Data protectedCancel(PduType type, std::uint32_t callId, unsigned level, std::uint32_t contextId,
                            NtlmLogOn& logOn) {
    Data message = pdu(type, flagFirst | flagLast, callId, {}, {level, contextId, Data(16)});
    const auto covered = std::span(message).first(message.size() - 16);
    ntlm::ServerContext::Signature signature{};
    if (level == 6) {
        logOn.security().seal(covered, covered.subspan(headerSize, 0), signature);
    } else {
        logOn.security().sign(covered, signature);
    }
    std::copy(signature.begin(), signature.end(), message.end() - 16);
    return message;
}

// The stub data of a reply's fragment, unsealed; nothing when the signature is wrong.
inline std::optional<Data> openReply(Reply reply, unsigned level, NtlmLogOn& logOn) {
    if (level <= 2) {
        return Data(reply.raw.begin() + callHeaderSize, reply.raw.end());
    }
    AuthTrailer trailer;
    if (!parseTrailer(reply.raw, reply.header, callHeaderSize, trailer) || trailer.level != level) {
        return std::nullopt;
    }
    const auto covered = std::span(reply.raw).first(reply.raw.size() - 16);
    const auto sealed = covered.subspan(callHeaderSize, trailer.offset - callHeaderSize);
    const bool good = level == 6 ? logOn.security().unseal(covered, sealed, trailer.token)
                                 : logOn.security().verify(covered, trailer.token);
    if (!good) {
        return std::nullopt;
    }
    return Data(sealed.begin(), sealed.end() - trailer.padLength);
}

}  // namespace quelm::dcom::rpc::test
