#pragma once

// The calling end of one RPC connection: gives the bytes that bind, log on and call, and takes the other end's byte
// stream, cut anywhere. One call at a time. Sockets and time limits are elsewhere.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/Uuid.h"
#include "dcom/ndr/Writer.h"
#include "dcom/rpc/CallAssembly.h"
#include "dcom/rpc/ClientLogOn.h"
#include "dcom/rpc/ClientPdu.h"

namespace quelm::dcom::rpc {

// Why a connection is of no further use.
enum class ClientFailure : std::uint8_t {
    None,
    NoRandomNumbers,  // of this machine
    NotRpc,           // the other end speaks some other protocol, or garbage
    BindRefused,      // it takes no binding at all
    LogOnRefused,     // by the other end
    LogOnTooWeak,     // what it offers is malformed or too little
    Unprotected,      // an answer without its protection, or with a wrong signature
    AnswerTooLarge,
    OutOfOrder,  // an answer to nothing, or fragments of different answers
};
// "it refused the log-on": plain words for the operator.
std::string_view clientFailureText(ClientFailure failure);

struct CallTarget {
    Uuid interfaceId;
    std::uint16_t opnum = 0;
    std::optional<Uuid> object = {};  // the IPID of an object call
};

// How a call ended: with the stub data of the reply, or a fault.
struct CallResult {
    Fault fault = Fault::None;
    std::span<const std::uint8_t> stub;  // valid until the connection takes or begins anything further
};

class ClientConnection {
 public:
    using Done = std::function<void(const CallResult&)>;
    using WriteStub = std::function<void(ndr::Writer&)>;
    using SharedStub = std::shared_ptr<const std::vector<std::uint8_t>>;

    // Bytes of a large call that are cut and protected ahead of what the other end takes: what is done in one go takes
    // a fraction of a millisecond, and a small part of the call stands there twice.
    static constexpr std::size_t sendAhead = 64U << 10U;

    // The bytes that bind to the first interface wait in output(). maxAnswer: bytes of a reply's stub data, all
    // fragments together.
    ClientConnection(const LogOnSettings& logOn, const Uuid& firstInterface, std::size_t maxAnswer = 64U << 10U);

    // Whether bound, logged on and free for a call. One that was answered early has to go out whole all the same.
    bool idle() const { return stage_ == Stage::Idle && !cutting_; }
    ClientFailure failure() const { return failure_; }

    // Begins a call; only while idle(). stub writes the parameters, or those in front of more. done is called once,
    // from received(), unless the connection fails before; it may begin the next call where the connection is idle()
    // then. The first call to an interface binds to it first; where the other end does not take it the call ends with
    // the fault of an unknown interface.
    void call(const CallTarget& target, const WriteStub& stub, Done done, SharedStub more = nullptr);

    // Takes what came, all of it. After a failure nothing is taken any more.
    void received(std::span<const std::uint8_t> data);
    // Bytes to send, and that so many of them were sent. The view is good until the next call of a member.
    std::span<const std::uint8_t> output() const { return std::span(output_).subspan(outputStart_); }
    void sent(std::size_t count);

 private:
    enum class Stage : std::uint8_t { Binding, LoggingOn, Idle, Altering, Calling, Failed };

    void sendBind(PduType type, const Uuid& interfaceId, const AuthTrailer& trailer);
    void beginSending();
    void fill();
    void cutNext();
    void dispatch(const Header& header, std::span<std::uint8_t> pdu);
    void onBindAnswer(const Header& header, std::span<const std::uint8_t> pdu);
    void goOnLoggingOn(const Header& header, std::span<const std::uint8_t> pdu);
    void onFault(const Header& header, std::span<std::uint8_t> pdu);
    void onResponse(const Header& header, std::span<std::uint8_t> pdu);
    void finish(const CallResult& result);
    void fail(ClientFailure failure);
    std::ptrdiff_t contextOf(const Uuid& interfaceId) const;

    ClientLogOn logOn_;
    std::size_t maxAnswer_;
    Stage stage_ = Stage::Binding;
    ClientFailure failure_ = ClientFailure::None;

    std::vector<std::uint8_t> input_;
    std::vector<std::uint8_t> output_;
    std::size_t outputStart_ = 0;

    std::vector<Uuid> interfaces_;  // bound to, by context id
    Uuid asked_;                    // being bound to
    std::uint32_t lastCallId_ = 0;
    std::uint32_t group_ = 0;
    std::uint16_t maxTransmit_ = leastMaxFragment;
    bool toldToClose_ = false;
    CallTarget target_;
    std::vector<std::uint8_t> front_;  // of the call's stub data
    SharedStub more_;                  // and what stands behind it
    std::size_t cut_ = 0;              // bytes of both that have become output
    bool cutting_ = false;             // not all of them yet
    Done done_;
    CallAssembly assembly_;
};

}  // namespace quelm::dcom::rpc
