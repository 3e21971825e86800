#pragma once

// The protection of the messages of one security context: puts the security trailer and the mechanism's token behind a
// message's stub data, and checks those of a message that came. The same at either end of a connection.

#include <cstdint>
#include <span>

#include "dcom/MessageKeys.h"
#include "dcom/rpc/Pdu.h"

namespace quelm::dcom::rpc {

class MessageGuard {
 public:
    // Type, level and context id count in trailer. The keys must outlive the guard.
    MessageGuard(const AuthTrailer& trailer, bool seals, MessageKeys& keys)
        : type_(trailer.type),
          level_(trailer.level),
          contextId_(trailer.contextId),
          seals_(seals),
          tokenSize_(keys.tokenSize(seals)),
          keys_(keys) {}

    // Bytes of the token, and of all that stands behind stub data and padding.
    std::size_t tokenSize() const { return tokenSize_; }
    std::size_t overhead() const { return trailerSize + tokenSize_; }
    // Stub data is padded to a multiple of it, as Windows does.
    static constexpr std::size_t padding = 16;

    // Finishes a message whose header and stub data (from stubOffset on) stand; room for padLength bytes of padding
    // and the overhead is behind them.
    void protect(std::span<std::uint8_t> message, std::size_t stubOffset, std::size_t padLength) const;
    // True when the token is right; the stub data is then in the clear. After a false nothing that follows can
    // be right. message: the whole of it, of which trailer was read.
    bool unprotect(std::span<std::uint8_t> message, std::size_t stubOffset, const AuthTrailer& trailer) const;

 private:
    std::uint8_t type_;
    std::uint8_t level_;
    std::uint32_t contextId_;
    bool seals_;
    std::size_t tokenSize_;
    MessageKeys& keys_;
};

}  // namespace quelm::dcom::rpc
