#pragma once

// The log-ons of one connection, each with its own level and keys: takes the tokens of BIND, ALTER_CONTEXT and AUTH3,
// NTLM and Kerberos, bare or wrapped in a negotiation, and gives those of the answers.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "dcom/RefusalReason.h"
#include "dcom/domain/Kerberos.h"
#include "dcom/ntlm/ServerContext.h"
#include "dcom/rpc/AuthLevel.h"
#include "dcom/rpc/MessageGuard.h"
#include "dcom/rpc/Pdu.h"
#include "dcom/rpc/ServerSettings.h"

namespace quelm::dcom::rpc {

// One log-on.
class SecurityContext {
 public:
    enum class State : std::uint8_t { Negotiating, Challenged, LoggedOn, Refused };

    std::uint32_t id() const { return trailer_.contextId; }
    AuthLevel level() const { return effectiveLevel(trailer_.level); }
    State state() const { return state_; }
    // "DOMAIN\\user" as the client gave it, also after a refusal; for an account of the domain as the domain has it.
    const std::string& account() const { return kerberos_ ? ticketAccount_ : logOn_.account(); }
    // Logged on, and as well protected as was asked for then: what is asked for later concerns later log-ons.
    bool isAdmitted() const { return isAdmitted_; }
    // Whether the context's messages are signed at least.
    bool protects() const { return state_ == State::LoggedOn && level() >= AuthLevel::Integrity; }
    // For a context that protects.
    MessageGuard guard() { return {trailer_, level() == AuthLevel::Privacy, keys()}; }
    // Whether the client asked for this log-on that headers be signed as well, which NTLM does in any case.
    bool signsHeaders() const { return signsHeaders_; }
    // Whether a message says that it is of this context's kind.
    bool fits(const AuthTrailer& trailer) const {
        return trailer.level == trailer_.level && trailer.type == trailer_.type;
    }

 private:
    friend class SecurityContexts;
    SecurityContext(const AuthTrailer& trailer, State state, ntlm::ServerContext logOn)
        : trailer_{trailer.type, trailer.level, 0, trailer.contextId, 0, {}}, state_(state), logOn_(std::move(logOn)) {}

    MessageKeys& keys() { return kerberos_ ? static_cast<MessageKeys&>(*kerberos_) : logOn_; }
    bool canSign() const { return kerberos_ || logOn_.canSign(); }
    bool exchangeSignatures(std::span<const std::uint8_t> signature, std::vector<std::uint8_t>& own);
    bool canSeal() const { return kerberos_ ? kerberos_->canSeal() : logOn_.canSeal(); }

    AuthTrailer trailer_;  // type, level and context id, as the client says them and replies echo them
    State state_;
    ntlm::ServerContext logOn_;
    std::unique_ptr<KerberosLogOn> kerberos_;  // none: the log-on is NTLM's
    std::string ticketAccount_;
    std::uint64_t lastUse_ = 0;
    bool isAdmitted_ = false;
    bool signsHeaders_ = false;
    std::vector<std::uint8_t> mechanisms_;  // that the client offered in a negotiation, which its signature covers
};

class SecurityContexts {
 public:
    // Clients exist that log on anew at each change of interface and never use the old log-on again.
    static constexpr std::size_t most = 64;
    // Those that clients send have up to 200 bytes.
    static constexpr std::size_t longestFirstMessage = 1024;
    static constexpr std::size_t longestMechanismList = 512;

    explicit SecurityContexts(const ServerSettings& settings) : settings_(settings) {}

    // Answered: token is what goes back, if anything. Refused: the log-on failed, and its context stays to say so.
    // Rejected: there is no context to speak of.
    enum class Step : std::uint8_t { Answered, Refused, Rejected };
    // account and level: of a log-on that ended, either way.
    struct Outcome {
        Step step = Step::Answered;
        RefusalReason reason = RefusalReason::None;
        std::string account = {};
        AuthLevel level = AuthLevel::None;
        std::string detail = {};
        bool isByTicket = false;  // no password was tried
    };
    // header: of the message that the trailer came with. answer: of the domain to the question about it; nullptr where
    // there was none.
    Outcome take(const AuthTrailer& trailer, const Header& header, std::vector<std::uint8_t>& token,
                 const NtlmAnswer* answer = nullptr);
    // What the domain is to be asked before this message can be taken.
    std::optional<NtlmQuestion> questionIn(const AuthTrailer& trailer) const;
    // Whether log-ons of this type on the wire are taken at all.
    bool knows(std::uint8_t type) const;

    // Whose log-on this message would end; empty when it would end none.
    static std::string userIn(const AuthTrailer& trailer);

    // nullptr for an id without log-on. Pointers are good until the next take().
    SecurityContext* find(std::uint32_t id);
    // At connect level some clients send their calls without any verifier; these belong to the latest such log-on.
    SecurityContext* unsignedContext();
    // The one begun last; nullptr when there is none.
    const SecurityContext* latest() const { return contexts_.empty() ? nullptr : &contexts_.back(); }
    // Whether any log-on of the connection succeeded.
    bool loggedOn() const { return loggedOn_; }
    // Of the first that succeeded; empty before.
    const std::string& account() const { return account_; }

 private:
    using Token = std::vector<std::uint8_t>;

    Outcome step(const AuthTrailer& trailer, Token& token);
    Outcome negotiate(const AuthTrailer& trailer, Token& token);
    Outcome completeNegotiation(SecurityContext& context, std::span<const std::uint8_t> signature, Token& token);
    Outcome negotiateTicket(const AuthTrailer& trailer, std::span<const std::uint8_t> mechanism,
                            std::span<const std::uint8_t> message, std::span<const std::uint8_t> signature,
                            std::vector<std::uint8_t> mechanisms, Token& token);
    Outcome kerberosStep(const AuthTrailer& trailer, std::span<const std::uint8_t> message, Token& token);
    Outcome finishTicket(SecurityContext& context);
    Outcome enter(SecurityContext& context);
    Outcome ntlmStep(const AuthTrailer& trailer, std::span<const std::uint8_t> message, Token& token);
    Outcome begin(const AuthTrailer& trailer, std::span<const std::uint8_t> message, Token& token);
    SecurityContext& add(SecurityContext context);
    Outcome finish(SecurityContext& context, std::span<const std::uint8_t> message);
    Outcome admit(SecurityContext& context, const Person& person);
    static Outcome refuse(SecurityContext& context, RefusalReason reason, std::string detail = {});
    static Outcome reject(const AuthTrailer& trailer, RefusalReason reason, std::string detail = {});

    const ServerSettings& settings_;
    std::vector<SecurityContext> contexts_;
    std::uint64_t uses_ = 0;
    bool loggedOn_ = false;
    bool bindCoversHeaders_ = false;  // for all log-ons of the connection
    std::string account_;
    const NtlmAnswer* answer_ = nullptr;  // while a message is taken
};

}  // namespace quelm::dcom::rpc
