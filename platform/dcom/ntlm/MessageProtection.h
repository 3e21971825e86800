#pragma once

// Signing and sealing with the keys of one NTLM log-on, at either end. The signature covers the whole message, header
// and trailer included, whatever the two ends agreed on.

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "dcom/MessageKeys.h"

namespace quelm::dcom::ntlm {

class MessageProtection : public MessageKeys {
 public:
    static constexpr std::size_t signatureSize = 16;
    using Signature = std::array<std::uint8_t, signatureSize>;

    // Outgoing: signature over message.
    virtual void sign(std::span<const std::uint8_t> message, Signature& signature) = 0;
    // Outgoing: encrypts sealed (a part of message, in place) after signing message in the clear.
    virtual void seal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed, Signature& signature) = 0;
    // Incoming: true when signature is right for message; the message counter moves on either way. After a false
    // nothing that follows can be right: the connection is to be closed.
    virtual bool verify(std::span<const std::uint8_t> message, std::span<const std::uint8_t> signature) = 0;
    // Incoming: decrypts sealed (a part of message, in place) and then verifies as above.
    virtual bool unseal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed,
                        std::span<const std::uint8_t> signature) = 0;

    std::size_t tokenSize(bool) const final { return signatureSize; }
    void protect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                 std::span<std::uint8_t> token) final {
        Signature signature{};
        if (seals) {
            seal(message, stub, signature);
        } else {
            sign(message, signature);
        }
        std::copy(signature.begin(), signature.end(), token.begin());
    }
    bool unprotect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                   std::span<std::uint8_t> token) final {
        if (token.size() != signatureSize) {
            return false;
        }
        return seals ? unseal(message, stub, token) : verify(message, token);
    }

 protected:
    MessageProtection() = default;
    MessageProtection(MessageProtection&&) = default;
    MessageProtection& operator=(MessageProtection&&) = default;
};

}  // namespace quelm::dcom::ntlm
