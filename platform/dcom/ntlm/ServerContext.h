#pragma once

// One NTLM log-on seen from the server, and the message protection that follows from it. Takes bytes in and
// gives bytes out; it knows nothing of sockets or PDUs. Built on MS-NLMP's published algorithms.

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dcom/RefusalReason.h"
#include "dcom/domain/PassThrough.h"
#include "dcom/ntlm/MessageProtection.h"

namespace quelm::dcom::ntlm {

using NtHash = std::array<std::uint8_t, 16>;

// The accounts that may log on. The names compare without regard to case.
class AccountStore {
 public:
    virtual ~AccountStore() = default;
    // MD4 of the UTF-16 password of DOMAIN\user; nothing for an unknown account. The domain is the one that the
    // client typed; which domains an account answers to is the store's business.
    virtual std::optional<NtHash> find(std::string_view domain, std::string_view user) const = 0;
    // Whether a user of that name exists in any domain: tells the operator a wrong domain from an unknown account.
    virtual bool knowsUser(std::string_view) const { return false; }
};

struct ServerSettings {
    std::string computerName;     // NetBIOS name offered to clients
    std::string domainName;       // NetBIOS domain or workgroup offered to clients
    std::string dnsComputerName;  // full host name; empty: not offered
    std::string dnsDomainName;    // DNS domain of the host; empty: not offered
    bool allowNtlmV1Ess = false;  // accept NTLMv1 with extended session security (never plain NTLMv1 or LM)
    bool allowAnonymous = false;  // accept a type 3 message without user, as the empty account
};

class ServerContext final : public MessageProtection {
 public:
    // store and settings must outlive the context. challenge: 8 random bytes, given by tests only.
    ServerContext(const AccountStore& store, const ServerSettings& settings,
                  std::optional<std::array<std::uint8_t, 8>> challenge = std::nullopt);
    ~ServerContext() override;
    ServerContext(ServerContext&&) noexcept;
    ServerContext& operator=(ServerContext&&) noexcept;

    // 1, 2 or 3 when the token begins as an NTLM message of that type, else 0.
    static int messageType(std::span<const std::uint8_t> token);

    // Takes the client's type 1 message and gives the type 2 answer; nothing when it is malformed. Starts a new log-on
    // whatever went before. The answer's time stamp comes from the time source in force.
    std::optional<std::vector<std::uint8_t>> challenge(std::span<const std::uint8_t> negotiate);

    // What only the domain can say about the client's type 3 message; nothing where the message is to be taken without
    // it. Changes nothing.
    std::optional<NtlmQuestion> question(std::span<const std::uint8_t> authenticateMessage) const;
    // Takes the client's type 3 message, once after each challenge. None: logged on. Otherwise why not. answer: of the
    // domain to the question about it, where it was asked; counts for accounts only that the store does not know.
    RefusalReason authenticate(std::span<const std::uint8_t> authenticateMessage, const NtlmAnswer* answer = nullptr);

    bool authenticated() const;
    // "DOMAIN\\user" as the client gave it (also after a refusal, for the refusal's line), "user" when it gave no
    // domain, empty when anonymous. Control and format characters show as "?", so that no client writes log lines of
    // its own. Of a log-on that the domain has let in, as the domain says it.
    const std::string& account() const;
    // Who logged on by the domain's word; nullptr: nobody, or an account of the store.
    const Person* person() const;
    // Whether keys for signing and sealing were agreed on. Never without extended session security.
    bool canSign() const;
    bool canSeal() const;

    // Without canSign() the dummy signature, which protects nothing.
    void sign(std::span<const std::uint8_t> message, Signature& signature) override;
    // Without canSeal() sealed is filled with zeros: a caller's mistake must not send plant data in the clear.
    void seal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed, Signature& signature) override;
    // Without canSign() never true.
    bool verify(std::span<const std::uint8_t> message, std::span<const std::uint8_t> signature) override;
    // Without canSeal() never true.
    bool unseal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed,
                std::span<const std::uint8_t> signature) override;
    // The exchange of signatures that ends a negotiation, before the first message: the client's over text is checked
    // and answered with one of our own. False, and no signature, when the client's is wrong. Needs canSign().
    bool exchangeSignatures(std::span<const std::uint8_t> text, std::span<const std::uint8_t> clientSignature,
                            Signature& signature);

 private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quelm::dcom::ntlm
