#pragma once

// What protects the messages of one log-on, whatever its mechanism, as seen by whoever sends and receives them. Both
// directions count their messages, so that every message must be given to it, in order.

#include <cstddef>
#include <cstdint>
#include <span>

namespace quelm::dcom {

class MessageKeys {
 public:
    virtual ~MessageKeys() = default;

    // Bytes of the token behind each message that is sent, signed or sealed.
    virtual std::size_t tokenSize(bool seals) const = 0;
    // Outgoing: signs the message, or seals it. message: from the header to the security trailer; stub: the stub data
    // with its padding, a part of message that ends where the trailer begins, and is encrypted in place; token: gets
    // tokenSize() bytes. What cannot be protected is wiped.
    virtual void protect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                         std::span<std::uint8_t> token) = 0;
    // Incoming: true when the token, of whatever size, is right for the message; stub is then in the clear. After a
    // false nothing that follows can be right: the connection is to be closed. The token is used up.
    virtual bool unprotect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                           std::span<std::uint8_t> token) = 0;

 protected:
    MessageKeys() = default;
    MessageKeys(MessageKeys&&) = default;
    MessageKeys& operator=(MessageKeys&&) = default;
};

}  // namespace quelm::dcom
