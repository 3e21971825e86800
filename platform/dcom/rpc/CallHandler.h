#pragma once

// What the RPC layer asks of the layer above it: which interfaces exist, and to carry out calls.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "base/Uuid.h"
#include "dcom/ndr/Writer.h"
#include "dcom/rpc/AuthLevel.h"
#include "dcom/rpc/CallTicket.h"

namespace quelm::dcom::rpc {

// One client connection, for as long as it lasts. Layers above may key their books by id.
struct Peer {
    std::uint64_t id = 0;               // unique for the life of the process
    std::string remoteAddress;          // "192.0.2.7:51234", for messages
    std::string localAddress;           // numeric address that the client dialled, without port
    std::uint16_t localPort = 0;        // port that the client dialled
    AuthLevel level = AuthLevel::None;  // of the latest call

    // The address that the client comes from, without port.
    std::string_view host() const { return std::string_view(remoteAddress).substr(0, remoteAddress.rfind(':')); }
};

// One call as it arrived, already authenticated, unsealed and put together from its fragments.
struct Call {
    const Peer& peer;
    Uuid interfaceId;
    std::uint16_t opnum = 0;
    bool hasObject = false;
    Uuid object;                         // the IPID of an object call
    std::span<const std::uint8_t> stub;  // valid during the call only
    AuthLevel level = AuthLevel::None;
    const std::string& account;       // "DOMAIN\\user" as it logged on; empty without a log-on
    ITicketOffice* office = nullptr;  // none in tests of single layers

    // For a handler that cannot answer at once; it then returns Fault::Deferred. Whoever returns anything else has
    // answered, and the ticket is worth nothing. One for each call.
    CallTicket defer() const { return office != nullptr ? office->ticket() : CallTicket(); }
};

class CallHandler {
 public:
    virtual ~CallHandler() = default;

    // Whether a client may bind to this interface on this listener.
    virtual bool supports(const Uuid& interfaceId, std::uint16_t versionMajor, std::uint16_t versionMinor) = 0;

    // Whether this interface is for whoever asks, at any level and without a log-on: client machines ask and ping with
    // their own accounts, which are unknown here, or with none.
    virtual bool isOpenToAll(const Uuid& interfaceId) {
        static_cast<void>(interfaceId);
        return false;
    }

    // Carries out one call and writes the reply's stub data. Returns Fault::None, or the fault to answer with;
    // what was written is then dropped. Must not throw.
    //
    // A handler that has to wait for somebody takes call.defer(), keeps the ticket and what it needs of the call (of
    // which nothing is valid later, stub and account included), returns Fault::Deferred, and later completes the ticket
    // with the same fault and stub data that it would have given here; what it wrote to reply is dropped. Until then
    // this connection begins no further call: what its client goes on sending waits, in its input buffer first, then
    // in the network. All other connections go on.
    virtual Fault call(const Call& call, ndr::Writer& reply) = 0;

    // Whether the client behind this connection holds anything by it, which it would lose with the connection. One that
    // holds nothing may be closed while it is idle.
    virtual bool holdsAnything(const Peer& peer) const {
        static_cast<void>(peer);
        return false;
    }

    // The connection is gone. abrupt: reset by the network or the peer rather than closed in order.
    virtual void connectionClosed(const Peer& peer, bool abrupt) = 0;
};

}  // namespace quelm::dcom::rpc
