#pragma once

// The client's side of an NTLM log-on, for tests: writes type 1 and type 3 messages, well formed or spoilt at will,
// and protects messages like a client.

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "Bytes.h"
#include "base/Utf.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/ntlm/MessageSecurity.h"

namespace quelm::dcom::ntlm::test {

using Buffer = quelm::test::Bytes;
using quelm::test::Builder;
using quelm::test::fromHex;
using quelm::test::toHex;

inline Buffer utf16(std::string_view text) {
    return littleEndian(utf8ToUtf16(text));
}

// What a signing and sealing client on NTLMv2 asks for, and what one on CONNECT level with NTLMv1 asks for.
inline constexpr std::uint32_t sealingFlags = 0xE0888235;
inline constexpr std::uint32_t connectFlags = 0xA0088207;

inline Buffer negotiate(std::uint32_t asked) {
    return Builder().hex("4E544C4D53535000 01000000").u32(asked).add(Buffer(16)).data();
}

struct Type3 {
    std::uint32_t flags = 0;
    Buffer lm, nt;
    std::string domain, user;
    Buffer sessionKey;
    bool roomForMic = false;
};

inline Buffer encode(const Type3& message) {
    Builder fields;
    Builder payload;
    const std::size_t fixedSize = message.roomForMic ? micOffset + micSize : 64;
    for (const Buffer& part :
         {message.lm, message.nt, utf16(message.domain), utf16(message.user), utf16("STATION"), message.sessionKey}) {
        fields.u16(part.size()).u16(part.size()).u32(fixedSize + payload.data().size());
        payload.add(part);
    }
    Builder out;
    out.hex("4E544C4D53535000 03000000").add(fields.data()).u32(message.flags).add(Buffer(fixedSize - 64));
    return out.add(payload.data()).data();
}

class NtlmClient {
 public:
    NtlmClient(std::string domain, std::string user, std::string_view password)
        : domain_(std::move(domain)), user_(std::move(user)), hash_(ntHash(password)) {}

    // NTLMv2 with the server's own AV pairs. type1 is needed for the MIC only.
    Buffer answerV2(Bytes challenge, std::optional<Buffer> type1 = std::nullopt) {
        readChallenge(challenge);
        const std::size_t infoSize = challenge[40] + 256U * challenge[41];
        const std::size_t infoAt = challenge[44] + 256U * challenge[45];
        Builder data;
        data.hex("0101000000000000 0090D336B734C301 AAAAAAAAAAAAAAAA 00000000");
        data.add(challenge.subspan(infoAt, infoSize - 4)).hex(type1 ? "06000400 02000000" : "");
        data.hex("00000000 00000000");
        const Key responseKey = responseKeyV2(hash_, utf8ToUtf16(user_), utf8ToUtf16(domain_));
        const Key proof = proofV2(responseKey, serverChallenge_, data.data());
        Buffer message = finish(sessionBaseKeyV2(responseKey, proof), Buffer(24, 0x11),
                                Builder().add(proof).add(data.data()).data(), type1.has_value());
        if (type1) {
            const Key mic = hmacMd5(exported_, {*type1, challenge, message});
            std::copy(mic.begin(), mic.end(), message.begin() + micOffset);
        }
        return message;
    }

    Buffer answerV1Ess(Bytes challenge) {
        readChallenge(challenge);
        Buffer lm = fromHex("0102030405060708");
        const auto response = responseV1Ess(hash_, serverChallenge_, lm);
        const Key baseKey = keyExchangeKeyV1Ess(hash_, serverChallenge_, lm);
        lm.resize(24);
        return finish(baseKey, lm, Buffer(response.begin(), response.end()), false);
    }

    // Drops flags from what the server offers before the answer is made.
    void without(std::uint32_t dropped) { dropped_ = dropped; }
    MessageSecurity& security() { return *security_; }
    // The first signature of the session, made without moving on.
    MessageSecurity::Signature firstSignature(Bytes text) const {
        MessageSecurity::Signature signature{};
        MessageSecurity(exported_, flags_, Side::client).sign(text, signature);
        return signature;
    }

 private:
    void readChallenge(Bytes challenge) {
        std::copy_n(challenge.begin() + 24, 8, serverChallenge_.begin());
        flags_ = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            flags_ |= static_cast<std::uint32_t>(challenge[20 + i]) << 8 * i;
        }
        flags_ &= ~dropped_;
    }

    Buffer finish(const Key& baseKey, Buffer lm, Buffer nt, bool roomForMic) {
        Buffer sessionKey;
        exported_ = baseKey;
        if ((flags_ & flags::keyExchange) != 0) {
            exported_.fill(0x55);
            const Key encrypted = rc4(baseKey, exported_);
            sessionKey.assign(encrypted.begin(), encrypted.end());
        }
        security_.emplace(exported_, flags_, Side::client);
        return encode({flags_, std::move(lm), std::move(nt), domain_, user_, sessionKey, roomForMic});
    }

    std::string domain_;
    std::string user_;
    NtHash hash_;
    std::uint32_t dropped_ = 0;
    Nonce serverChallenge_{};
    std::uint32_t flags_ = 0;
    Key exported_{};
    std::optional<MessageSecurity> security_;
};

}  // namespace quelm::dcom::ntlm::test
