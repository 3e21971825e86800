#pragma once

// The client's end for wire tests: builds RPC PDUs byte by byte, logs on with NTLM in the two ways that real clients
// use, protects requests and takes replies apart.

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "DCOM/Uuid.h"
#include "DCOM/ntlm/Crypto.h"
#include "DCOM/ntlm/MessageSecurity.h"
#include "DCOM/rpc/Pdu.h"

namespace quelm::dcom::rpc::test {

using namespace literals;
using Data = std::vector<std::uint8_t>;

// "05 00 0B" with blanks where they help.
inline Data hex(std::string_view text) {
    Data result;
    int half = -1;
    for (const char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            const int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
            if (half < 0) {
                half = digit;
            } else {
                result.push_back(static_cast<std::uint8_t>(half << 4 | digit));
                half = -1;
            }
        }
    }
    return result;
}

inline std::string toHex(std::span<const std::uint8_t> data) {
    std::string text;
    for (const std::uint8_t byte : data) {
        constexpr std::string_view digits = "0123456789ABCDEF";
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

class Builder {
 public:
    Builder& u8(unsigned value) { return number(value, 1); }
    Builder& u16(unsigned value) { return number(value, 2); }
    Builder& u32(std::uint32_t value) { return number(value, 4); }
    Builder& add(std::span<const std::uint8_t> more) {
        data_.insert(data_.end(), more.begin(), more.end());
        return *this;
    }
    Builder& pad(std::size_t multiple, std::uint8_t with) {
        while (data_.size() % multiple != 0) {
            data_.push_back(with);
        }
        return *this;
    }
    std::size_t size() const { return data_.size(); }
    const Data& data() const { return data_; }

 private:
    Builder& number(std::uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            data_.push_back(static_cast<std::uint8_t>(value >> 8 * i));
        }
        return *this;
    }
    Data data_;
};

inline constexpr Uuid interfaceA = "39C13A4D-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr Uuid interfaceB = "00000131-0000-0000-C000-000000000046"_uuid;
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
    out.u8(5).u8(0).u8(static_cast<unsigned>(type)).u8(flags).add(hex("10000000"));
    out.u16(static_cast<unsigned>(headerSize + body.size() + trailer));
    out.u16(static_cast<unsigned>(security.token.size())).u32(callId).add(body);
    if (security.level != 0) {
        out.u8(security.type).u8(security.level).u8(0).u8(0).u32(security.contextId).add(security.token);
    }
    return out.data();
}

inline Data bindBody(const std::vector<Offer>& offers, unsigned maxFragment = 4280, std::uint32_t group = 0) {
    Builder body;
    body.u16(maxFragment).u16(maxFragment).u32(group);
    body.u8(static_cast<unsigned>(offers.size())).add(hex("CCCCCC"));  // real clients leave rubbish in the padding
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
    std::uint32_t faultStatus() const { return type() == PduType::Fault ? u32(24) : 0; }
    Data token() const { return {raw.end() - header.authLength, raw.end()}; }
};

inline std::vector<Reply> splitReplies(std::span<const std::uint8_t> output) {
    std::vector<Reply> replies;
    while (output.size() >= headerSize) {
        Reply reply;
        if (!parseHeader(output, reply.header).empty() || reply.header.fragmentLength > output.size()) {
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
class NtlmLogOn {
 public:
    enum class Kind { V1, V2 };

    NtlmLogOn(Kind kind, std::string user, std::string_view password)
        : kind_(kind), user_(std::move(user)), hash_(ntlm::ntHash(password)) {}

    Data negotiate() const {
        Builder out;
        out.add(hex("4E544C4D53535000")).u32(1).u32(kind_ == Kind::V2 ? 0xE0888235 : 0xA0088207);
        return out.add(hex("0000000000000000 0000000000000000")).data();
    }

    Data authenticate(const Data& challenge) {
        flags_ = read32(challenge, 20);
        std::copy_n(challenge.begin() + 24, 8, serverChallenge_.begin());
        kind_ == Kind::V2 ? respondV2(challenge) : respondV1();
        return message();
    }

    ntlm::MessageSecurity& protection() { return *protection_; }
    // The first signature of the session, made without moving on.
    Data firstSignature(const Data& text) const {
        ntlm::MessageSecurity aside(exported_, flags_, ntlm::Side::client);
        ntlm::ServerContext::Signature signature{};
        aside.sign(text, signature);
        return {signature.begin(), signature.end()};
    }

 private:
    static std::uint32_t read32(const Data& from, std::size_t at) {
        std::uint32_t value = 0;
        std::memcpy(&value, from.data() + at, 4);
        return value;
    }

    void respondV1() {
        const Data nonce = hex("AAAAAAAAAAAAAAAA");
        lm_ = Builder().add(nonce).add(Data(16)).data();
        const auto response = ntlm::responseV1Ess(hash_, serverChallenge_, nonce);
        nt_.assign(response.begin(), response.end());
        flags_ &= ~0x40020030U;  // neither signs nor seals
    }

    void respondV2(const Data& challenge) {
        const std::size_t infoSize = read32(challenge, 40) & 0xFFFF;
        const std::size_t infoAt = read32(challenge, 44);
        const Data info(challenge.begin() + static_cast<std::ptrdiff_t>(infoAt),
                        challenge.begin() + static_cast<std::ptrdiff_t>(infoAt + infoSize));
        const Data clientData =
            Builder().add(hex("0101 000000000000 0011223344556677 AAAAAAAAAAAAAAAA 00000000")).add(info).u32(0).data();
        const auto key = ntlm::responseKeyV2(hash_, wide(user_), u"PLANT");
        const auto proof = ntlm::proofV2(key, serverChallenge_, clientData);
        lm_.assign(24, 0);
        nt_ = Builder().add(proof).add(clientData).data();
        const auto encrypted = ntlm::rc4(ntlm::sessionBaseKeyV2(key, proof), exported_);
        sessionKey_.assign(encrypted.begin(), encrypted.end());
        protection_.emplace(exported_, flags_, ntlm::Side::client);
    }

    static std::u16string wide(const std::string& text) { return {text.begin(), text.end()}; }

    Data message() const {
        const Data domain = ntlm::littleEndian(u"PLANT");
        const Data user = ntlm::littleEndian(wide(user_));
        Builder fields;
        Builder payload;
        for (const Data* part : {&lm_, &nt_, &domain, &user, &none_, &sessionKey_}) {
            fields.u16(static_cast<unsigned>(part->size())).u16(static_cast<unsigned>(part->size()));
            fields.u32(static_cast<std::uint32_t>(64 + payload.size()));
            payload.add(*part);
        }
        return Builder().add(hex("4E544C4D53535000")).u32(3).add(fields.data()).u32(flags_).add(payload.data()).data();
    }

    static constexpr ntlm::Key exported_{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    Kind kind_;
    std::string user_;
    ntlm::NtHash hash_;
    std::uint32_t flags_ = 0;
    ntlm::Nonce serverChallenge_{};
    Data lm_;
    Data nt_;
    Data none_;
    Data sessionKey_;
    std::optional<ntlm::MessageSecurity> protection_;
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
    body.u32(static_cast<std::uint32_t>(call.stub.size())).u16(call.contextId).u16(call.opnum);
    if (call.object) {
        body.add(call.object->bytes);
    }
    return body.add(call.stub).data();
}

// Without protection; a verifier as the connect-level client sends it when the level is not 0.
inline Data request(const CallParts& call, unsigned level = 0, std::uint32_t contextId = 0) {
    const unsigned flags = call.flags | (call.object ? flagObject : 0);
    const Data token = level != 0 ? hex("01000000 000000000000000000000000") : Data{};
    return pdu(PduType::Request, flags, call.callId, requestBody(call), {level, contextId, token});
}

inline Data protectedRequest(const CallParts& call, unsigned level, std::uint32_t contextId, NtlmLogOn& logOn,
                             unsigned type = 10) {
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
        logOn.protection().seal(covered, covered.subspan(stubAt, call.stub.size() + padding), signature);
    } else {
        logOn.protection().sign(covered, signature);
    }
    std::copy(signature.begin(), signature.end(), message.end() - 16);
    return message;
}

// The stub data of a reply's fragment, unsealed; nothing when the signature is wrong.
inline std::optional<Data> openReply(Reply reply, unsigned level, NtlmLogOn& logOn) {
    AuthTrailer trailer;
    if (!parseTrailer(reply.raw, reply.header, callHeaderSize, trailer) || trailer.level != level) {
        return std::nullopt;
    }
    const auto covered = std::span(reply.raw).first(reply.raw.size() - 16);
    const auto sealed = covered.subspan(callHeaderSize, trailer.offset - callHeaderSize);
    const bool good = level == 6 ? logOn.protection().unseal(covered, sealed, trailer.token)
                                 : logOn.protection().verify(covered, trailer.token);
    if (!good) {
        return std::nullopt;
    }
    return Data(sealed.begin(), sealed.end() - trailer.padLength);
}

}  // namespace quelm::dcom::rpc::test
