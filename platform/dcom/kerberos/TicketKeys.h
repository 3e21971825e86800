#pragma once

// The keys of one Kerberos session: signs, seals, and checks what comes, its order included. The library counts the
// messages too, but loses count where a client numbers the signature that ends a negotiation apart from its messages,
// as Windows does; so its word on the order counts for the first message only.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "dcom/kerberos/GssLibrary.h"

namespace quelm::dcom::kerberos {

class TicketKeys {
 public:
    explicit TicketKeys(const GssLibrary& library) : library_(library) {}
    ~TicketKeys();
    TicketKeys(const TicketKeys&) = delete;
    TicketKeys& operator=(const TicketKeys&) = delete;

    gss_ctx_id_t* context() { return &context_; }
    // Learns the sizes of tokens, once the context is there. False when its encryption is too old.
    bool ready();
    void coverHeaders() { coversHeaders_ = true; }

    std::size_t tokenSize(bool seals) const { return seals ? sealedSize_ : signedSize_; }
    // As in MessageKeys.
    bool protect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                 std::span<std::uint8_t> token);
    bool unprotect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                   std::span<std::uint8_t> token);
    bool signText(std::span<const std::uint8_t> text, std::vector<std::uint8_t>& signature);
    bool verifyText(std::span<const std::uint8_t> text, std::span<const std::uint8_t> signature);

 private:
    // Header and trailer, where they are covered, stub data and token, as the library takes them.
    struct Parts {
        std::array<gss_iov_buffer_desc, 4> buffers{};
        int count = 0;
        void add(OM_uint32 type, std::span<std::uint8_t> bytes);
        const gss_iov_buffer_desc& token() const { return buffers[static_cast<std::size_t>(count) - 1]; }
    };
    Parts partsOf(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, OM_uint32 tokenType,
                  std::span<std::uint8_t> token) const;
    bool isModern() const;
    bool isNext(std::uint64_t number, bool isInOrder);

    const GssLibrary& library_;
    gss_ctx_id_t context_ = GSS_C_NO_CONTEXT;
    bool coversHeaders_ = false;
    std::size_t sealedSize_ = 0;
    std::size_t signedSize_ = 0;
    std::optional<std::uint64_t> next_;  // number of the message that is due
    bool startsApart_ = false;           // the negotiation's signature had a number of its own
};

}  // namespace quelm::dcom::kerberos
