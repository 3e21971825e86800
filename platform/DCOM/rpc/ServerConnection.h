#pragma once

// The server's side of one RPC connection: takes the client's byte stream, cut anywhere, and gives the bytes to
// send back. Log-ons, protection, fragments and refusals happen here; sockets do not.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "DCOM/Uuid.h"
#include "DCOM/ntlm/ServerContext.h"
#include "DCOM/rpc/CallHandler.h"
#include "DCOM/rpc/Pdu.h"

namespace quelm::dcom::rpc {

// Why a client was turned away, for one plain line in the log.
struct Refusal {
    const Peer& peer;
    std::string_view account;  // as the client gave it; empty without a log-on
    AuthLevel level = AuthLevel::None;
    std::string_view reason;
    std::string_view remedy;

    // "Refused OPC client 192.0.2.7:51234: account 'DOM\user', level connect: reason; remedy: ..."
    // What the client typed is cut to a sane length and freed of control characters.
    std::string line() const;
};

std::string_view levelName(AuthLevel level);

// What all connections have in common; must outlive them.
struct ServerSettings {
    const ntlm::AccountStore& accounts;
    ntlm::ServerSettings logOn;
    // Calls below it are refused. Call, packet and integrity are one and the same here: over TCP, NTLM protects the
    // lower two like integrity.
    AuthLevel minimumLevel = AuthLevel::Integrity;
    std::size_t maxCallSize = 16U << 20U;           // bytes of a request's stub data, all fragments together
    std::size_t outputLimit = 256U << 10U;          // bytes waiting to be sent from which on no further call is begun
    std::function<void(const Refusal&)> onRefused;  // at most once per connection and log-on
    std::optional<std::array<std::uint8_t, 8>> challenge;  // fixed NTLM challenge, for tests only
};

class ServerConnection {
 public:
    ServerConnection(const ServerSettings& settings, CallHandler& handler, Peer peer);

    // Where received bytes belong, and that so many of them came, which carries out all calls that are complete.
    // The space is empty only while output waits.
    std::span<std::uint8_t> receiveSpace();
    void received(std::size_t count);
    // The same for bytes that lie elsewhere. Gives how many were taken: fewer only while output waits.
    std::size_t feed(std::span<const std::uint8_t> data);
    // Carries out calls that had to wait until output was sent, and whether there are any.
    void process();
    bool waiting() const { return waiting_; }

    // Bytes to send, and that so many of them were sent. The view is good until the next call of a member.
    std::span<const std::uint8_t> output() const { return std::span(output_).subspan(outputStart_); }
    void sent(std::size_t count);

    // Send the output, then close: no further input is looked at.
    bool closing() const { return closing_; }
    // Whether any log-on of this connection succeeded.
    bool loggedOn() const { return loggedOn_; }
    // Whether any call was carried out, be it without a log-on.
    bool served() const { return served_; }
    const Peer& peer() const { return peer_; }

 private:
    struct Presentation {
        std::uint16_t id;
        Uuid interfaceId;
    };
    struct SecurityContext {
        std::uint32_t id;
        std::uint8_t authType;   // NTLM, or the negotiation around it
        std::uint8_t wireLevel;  // as the client says it, echoed in replies
        AuthLevel level;         // what it amounts to
        enum class State : std::uint8_t { Negotiating, Challenged, LoggedOn, Refused } state;
        ntlm::ServerContext logOn;
        std::uint64_t lastUse;
        std::vector<std::uint8_t> mechanisms;  // that the client offered in a negotiation, which its signature covers

        bool protects() const { return state == State::LoggedOn && level >= AuthLevel::Integrity; }
    };
    // The request whose fragments are being put together.
    struct Assembly {
        bool active = false;
        bool dropped = false;  // answered with a fault already: its further fragments are only checked
        std::uint32_t callId = 0;
        Request request;
        std::optional<std::uint32_t> securityId;  // none: without a log-on
        std::vector<std::uint8_t> stub;
    };
    enum class LogOnStep { Answered, Refused, Rejected };

    void dispatch(const Header& header, std::span<std::uint8_t> pdu);
    void onBind(const Header& header, std::span<const std::uint8_t> pdu);
    void onAlterContext(const Header& header, std::span<const std::uint8_t> pdu);
    void onAuth3(const Header& header, std::span<const std::uint8_t> pdu);
    void onRequest(const Header& header, std::span<std::uint8_t> pdu);
    void onOrphaned(const Header& header);

    void answerContexts(const Bind& bind);
    ContextResult answerContext(const ContextElement& element);
    bool addPresentation(std::uint16_t id, const Uuid& interfaceId);
    const Uuid* findPresentation(std::uint16_t id) const;

    LogOnStep logOn(const AuthTrailer& trailer, std::vector<std::uint8_t>& token);
    LogOnStep negotiate(const AuthTrailer& trailer, std::vector<std::uint8_t>& token);
    LogOnStep completeNegotiation(SecurityContext& context, std::span<const std::uint8_t> signature,
                                  std::vector<std::uint8_t>& token);
    LogOnStep ntlmStep(const AuthTrailer& trailer, std::span<const std::uint8_t> message,
                       std::vector<std::uint8_t>& token);
    LogOnStep beginLogOn(const AuthTrailer& trailer, std::span<const std::uint8_t> message,
                         std::vector<std::uint8_t>& token);
    SecurityContext& addSecurity(const AuthTrailer& trailer, SecurityContext::State state, ntlm::ServerContext logOn);
    LogOnStep finishLogOn(SecurityContext& context, std::span<const std::uint8_t> message);
    LogOnStep refuseLogOn(SecurityContext& context, std::string_view reason);
    bool isMachineAsking(std::string_view account) const;
    SecurityContext* findSecurity(std::uint32_t id);
    SecurityContext* unsignedSecurity();

    bool unprotect(SecurityContext& context, std::span<std::uint8_t> pdu, std::size_t stubOffset,
                   const AuthTrailer& trailer);
    bool admits(const SecurityContext* context, const Uuid& interfaceId);
    void reportInadmissible(const SecurityContext* context);
    std::uint32_t faultBeforeCall(const SecurityContext* context, const Request& request);
    void assemble(const Header& header, const Request& request, std::span<const std::uint8_t> stub,
                  SecurityContext* context);
    void perform(std::uint32_t callId, const Request& request, std::span<const std::uint8_t> stub,
                 SecurityContext* context);
    void finishResponse(std::size_t start, std::uint32_t callId, std::uint16_t contextId, SecurityContext* context);
    void protect(SecurityContext& context, std::span<std::uint8_t> fragment, std::size_t padLength);

    void protocolError(const Header& header, std::string_view reason);
    void refuse(std::string_view account, AuthLevel level, std::string_view reason, std::string_view remedy);

    const ServerSettings& settings_;
    CallHandler& handler_;
    Peer peer_;

    std::vector<std::uint8_t> input_;
    std::size_t inputStart_ = 0;
    std::size_t inputEnd_ = 0;
    std::vector<std::uint8_t> output_;
    std::size_t outputStart_ = 0;

    bool bound_ = false;
    bool loggedOn_ = false;
    bool served_ = false;
    bool closing_ = false;
    bool waiting_ = false;
    bool refusalReported_ = false;
    std::uint16_t maxTransmit_ = leastMaxFragment;
    std::uint16_t maxReceive_ = leastMaxFragment;
    std::uint32_t group_ = 0;
    std::vector<Presentation> presentations_;  // in the order of their ids
    std::vector<ContextResult> results_;
    std::vector<SecurityContext> security_;
    std::uint64_t securityUses_ = 0;
    Assembly assembly_;
};

}  // namespace quelm::dcom::rpc
