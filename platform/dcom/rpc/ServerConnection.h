#pragma once

// The server's side of one RPC connection: takes the client's byte stream, cut anywhere, and gives the bytes to
// send back. It only sends each message to whom it concerns: log-ons, putting calls together and cutting replies up
// are classes of their own; sockets are elsewhere.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "dcom/rpc/CallAssembly.h"
#include "dcom/rpc/CallHandler.h"
#include "dcom/rpc/InputBuffer.h"
#include "dcom/rpc/Pdu.h"
#include "dcom/rpc/PresentationContexts.h"
#include "dcom/rpc/SecurityContexts.h"
#include "dcom/rpc/ServerSettings.h"

namespace quelm::dcom::rpc {

class ServerConnection final : private ITicketOffice {
 public:
    ServerConnection(const ServerSettings& settings, CallHandler& handler, Peer peer);
    ~ServerConnection() override;
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;

    // Where received bytes belong, and that so many of them came, which carries out all calls that are complete.
    // The space is empty only while output or an answer is waited for.
    std::span<std::uint8_t> receiveSpace() { return input_.space(); }
    void received(std::size_t count);
    // The same for bytes that lie elsewhere. Gives how many were taken: fewer only while output or an answer is
    // waited for.
    std::size_t feed(std::span<const std::uint8_t> data);
    // Carries out calls that had to wait until output was sent, and whether there are any.
    void process();
    bool waiting() const { return waiting_; }

    // Whether a call is to be answered later, or a log-on is for the domain to judge; nothing more is begun until then.
    bool deferred() const { return deferral_ != nullptr || (inquiry_ && !inquiry_->answer); }
    // Called when such an answer has become output, or the log-on can go on: process() then. It may not call members
    // that carry out calls itself.
    void onAnswered(std::function<void()> wake) { wake_ = std::move(wake); }

    // How long the log-on that came has to wait before it is looked at, after too many that failed; process() then.
    std::chrono::milliseconds pause() const { return pause_; }

    // Bytes to send, and that so many of them were sent. The view is good until the next call of a member.
    std::span<const std::uint8_t> output() const { return std::span(output_).subspan(outputStart_); }
    void sent(std::size_t count);

    // Send the output, then close: no further input is looked at.
    bool closing() const { return closing_; }
    // Whether any log-on of this connection succeeded.
    bool loggedOn() const { return security_.loggedOn(); }
    // Of the first log-on that succeeded; empty before.
    const std::string& account() const { return security_.account(); }
    // Whether any call was carried out, be it without a log-on.
    bool served() const { return served_; }
    const Peer& peer() const { return peer_; }
    // Bytes of memory in the buffers for input, for a call being put together and for output.
    std::size_t bytesHeld() const { return input_.bytesHeld() + assembly_.bytesHeld() + output_.capacity(); }

 private:
    void dispatch(const Header& header, std::span<std::uint8_t> pdu);
    void onBind(const Header& header, std::span<const std::uint8_t> pdu);
    void onAlterContext(const Header& header, std::span<const std::uint8_t> pdu);
    void onAuth3(const Header& header, std::span<const std::uint8_t> pdu);
    void onCancel(const Header& header, std::span<std::uint8_t> pdu);
    void onRequest(const Header& header, std::span<std::uint8_t> pdu);

    SecurityContexts::Step logOn(const Header& header, const AuthTrailer& trailer, std::vector<std::uint8_t>& token);
    std::chrono::milliseconds delayOf(const Header& header, std::span<const std::uint8_t> pdu) const;
    bool asksDomain(const Header& header, std::span<const std::uint8_t> pdu);
    void onFailedLogOn(const SecurityContexts::Outcome& outcome);
    bool isMachineAsking(const std::string& account);
    bool isProtected(const SecurityContext* context) const;
    bool admits(const SecurityContext* context, const Uuid& interfaceId);
    void reportInadmissible(const SecurityContext* context);
    Fault faultBeforeCall(const SecurityContext* context, const Request& request);
    void assemble(const Header& header, const Request& request, std::span<const std::uint8_t> stub,
                  SecurityContext* context);
    void perform(std::uint32_t callId, const Request& request, std::span<const std::uint8_t> stub,
                 SecurityContext* context);
    CallTicket ticket() override;
    void postpone(const CallHeader& header, const SecurityContext* context);
    void answerDeferred(Fault fault, std::span<const std::uint8_t> stub);
    void wakeUp();
    void finishReply(std::size_t start, const CallHeader& header, SecurityContext* context, Fault fault);
    bool unprotect(const Header& header, std::span<std::uint8_t> pdu, std::size_t bodyOffset,
                   const AuthTrailer& trailer, SecurityContext* context);
    void countFor(const SecurityContext& client);
    void protocolError(const Header& header, RefusalReason reason, const SecurityContext* context = nullptr);

    const ServerSettings& settings_;
    CallHandler& handler_;
    Peer peer_;
    RefusalReporter refusals_;

    InputBuffer input_;
    std::vector<std::uint8_t> output_;
    std::size_t outputStart_ = 0;

    bool bound_ = false;
    bool served_ = false;
    unsigned failedLogOns_ = 0;
    std::chrono::milliseconds pause_{};
    bool closing_ = false;
    bool waiting_ = false;
    std::uint16_t maxTransmit_ = leastMaxFragment;
    std::uint16_t maxReceive_ = leastMaxFragment;
    std::uint32_t group_ = 0;
    PresentationContexts presentations_;
    SecurityContexts security_;
    CallAssembly assembly_;
    // The buffers, in the budget of whoever logged on here first.
    Hold held_;
    bool isCounted_ = false;

    // What the domain is asked about the log-on that stands first in the input buffer.
    struct Inquiry {
        std::optional<NtlmAnswer> answer;
        std::shared_ptr<void> asked;
    };
    std::unique_ptr<Inquiry> inquiry_;

    class Deferral;
    std::shared_ptr<Deferral> deferral_;  // of the call that is answered later
    std::function<void()> wake_;
};

}  // namespace quelm::dcom::rpc
