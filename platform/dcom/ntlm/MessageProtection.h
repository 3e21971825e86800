#pragma once

// Signing and sealing with the keys of one log-on, as seen by whoever sends and receives its messages, whether server
// or client. Both directions count their messages, so that every message must be given to it, in order.

#include <array>
#include <cstdint>
#include <span>

namespace quelm::dcom::ntlm {

class MessageProtection {
 public:
    static constexpr std::size_t signatureSize = 16;
    using Signature = std::array<std::uint8_t, signatureSize>;

    virtual ~MessageProtection() = default;

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

 protected:
    MessageProtection() = default;
    MessageProtection(MessageProtection&&) = default;
    MessageProtection& operator=(MessageProtection&&) = default;
};

}  // namespace quelm::dcom::ntlm
