#pragma once

// One NTLM log-on seen from the end that calls: for calls back into a client, whose machine is the server then. NTLMv2
// with extended session security only; the messages carry a MIC wherever the other end can check one. Bytes in, bytes
// out, like the server's side.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "dcom/ntlm/ServerContext.h"

namespace quelm::dcom::ntlm {

// Who logs on. The names are UTF-8; an empty domain leaves the choice to the other end.
struct ClientAccount {
    std::string domain;
    std::string user;
    NtHash hash{};
    std::string workstation;  // NetBIOS name of this computer, for the other end's log; may be empty
};

class ClientContext final : public MessageProtection {
 public:
    // account must outlive the context. seals: whether messages are to be encrypted as well as signed. nonces: the
    // client's challenge and the session's key, given by tests only; else random.
    struct Nonces {
        std::array<std::uint8_t, 8> challenge{};
        std::array<std::uint8_t, 16> sessionKey{};
    };
    ClientContext(const ClientAccount& account, bool seals, std::optional<Nonces> nonces = std::nullopt);
    ~ClientContext() override;
    ClientContext(ClientContext&&) noexcept;
    ClientContext& operator=(ClientContext&&) noexcept;

    // The type 1 message that begins the log-on. Begins it anew whatever went before. Nothing when the machine has no
    // random numbers to give.
    std::optional<std::vector<std::uint8_t>> negotiate();

    // Takes the type 2 message and gives the type 3 answer, after which messages can be protected. Nothing when the
    // message is malformed, comes out of turn, or offers less than extended session security, signing with 128 bits
    // (and encryption where this end seals), so that nobody on the way can talk the two ends down.
    std::optional<std::vector<std::uint8_t>> authenticate(std::span<const std::uint8_t> challenge);

    // Whether the log-on's messages are complete. That the other end took them shows in its first right signature.
    bool ready() const;

    // Before ready() nothing verifies and what is to be sealed is wiped.
    void sign(std::span<const std::uint8_t> message, Signature& signature) override;
    void seal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed, Signature& signature) override;
    bool verify(std::span<const std::uint8_t> message, std::span<const std::uint8_t> signature) override;
    bool unseal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed,
                std::span<const std::uint8_t> signature) override;
    // The exchange of signatures that ends a negotiation, before the first message: our own over text, then the other
    // end's. Only when ready().
    void signNegotiation(std::span<const std::uint8_t> text, Signature& signature);
    bool verifyNegotiation(std::span<const std::uint8_t> text, std::span<const std::uint8_t> signature);

 private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quelm::dcom::ntlm
