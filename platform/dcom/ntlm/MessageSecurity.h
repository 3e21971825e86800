#pragma once

// Signing and sealing of one NTLM session with extended session security: two independent directions, each with its
// keys, its running cipher and its message counter. Both ends must see every message, in order.

#include <cstdint>
#include <span>

#include "dcom/ntlm/Crypto.h"

namespace quelm::dcom::ntlm {

class MessageSecurity {
 public:
    using Signature = ServerContext::Signature;

    // own: the end that this object stands at.
    MessageSecurity(const Key& exportedSessionKey, std::uint32_t negotiatedFlags, Side own);

    void sign(Bytes message, Signature& signature);
    // sealed is a part of message and encrypted in place, after the signature has been made over the clear text.
    void seal(Bytes message, std::span<std::uint8_t> sealed, Signature& signature);
    bool verify(Bytes message, Bytes signature);
    // sealed is a part of message and decrypted in place.
    bool unseal(Bytes message, std::span<std::uint8_t> sealed, Bytes signature);
    // The signatures over the text that a negotiation ends with, one from each end, before the first message. The
    // messages go on with the next number, their ciphers from the start.
    void signNegotiation(Bytes text, Signature& signature);
    bool verifyNegotiation(Bytes text, Bytes peerSignature);

 private:
    struct Direction {
        Direction(Key signing, Key sealing);
        Key checksum(Bytes message) const;

        HmacMd5 mac;
        Rc4 cipher;
        std::uint32_t sequence = 0;
    };
    Signature finish(Direction& direction, const Key& checksum) const;

    bool encryptsChecksum_;
    Direction outgoing_;
    Direction incoming_;
};

}  // namespace quelm::dcom::ntlm
