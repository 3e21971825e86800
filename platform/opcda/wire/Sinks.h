#pragma once

// Clients' callback interfaces as the object model calls them: each callback becomes one message to the client's
// object. A client's callbacks and all that is held for them count in its own budget.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "budget/ClientBudget.h"
#include "dcom/orpc/MethodTable.h"
#include "dcom/orpc/RemoteObjects.h"
#include "opcda/Callbacks.h"
#include "opcda/wire/CallbackMessages.h"

namespace quelm::opcda {
class Group;
class Server;
}  // namespace quelm::opcda

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcDataCallback = "39C13A70-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr Uuid iidOpcShutdown = "F31DFDE1-07B6-11D2-B2D8-0060083BA1FB"_uuid;

inline constexpr Uuid iidAdviseSink = "0000010F-0000-0000-C000-000000000046"_uuid;

enum class DataCallback : std::uint16_t {
    OnDataChange = dcom::orpc::firstOpnum,
    OnReadComplete,
    OnWriteComplete,
    OnCancelComplete,
};

enum class AdviseSink : std::uint16_t { OnDataChange = dcom::orpc::firstOpnum };

enum class Shutdown : std::uint16_t { ShutdownRequest = dcom::orpc::firstOpnum };

// What all calls to clients' objects go through.
struct OutgoingCalls {
    dcom::orpc::IRemoteObjects& objects;
    CallbackMessages& messages;
    // Shutdown requests that their clients have not answered yet.
    std::size_t shutdownRequests = 0;
    // Since the start: calls to clients' objects, and those whose object was lost before it answered.
    std::uint64_t callbacks = 0;
    std::uint64_t callbacksFailed = 0;
};

class SinkConnection;
// The connections of one connection point, in the order in which they were made.
using ConnectionBook = std::vector<const SinkConnection*>;

// An object that a client advised, from Advise until Unadvise or until it is lost, with all that is held for it.
class SinkConnection {
 public:
    // Bytes: itself, its sink, and the books about the object and the way to it.
    static constexpr std::size_t footprint = 2048;

    // memory: footprint and the reference's bytes, taken already. Stands in the book as long as it lives.
    SinkConnection(OutgoingCalls& outgoing, std::shared_ptr<ConnectionBook> book, Hold memory,
                   std::vector<std::uint8_t> reference);
    ~SinkConnection();
    SinkConnection(const SinkConnection&) = delete;
    SinkConnection& operator=(const SinkConnection&) = delete;

    // Begins to reach the object; the request's givenUp is this one's own business. False: so many objects are held for
    // this client already.
    bool reach(dcom::orpc::RemoteObjectRequest request);
    // lost: the object cannot be called any more; may end this. answered: all calls have been answered; may be empty.
    void setHandlers(std::function<void()> lost, std::function<void()> answered);
    // Of the connection; none before it is made.
    void setCookie(std::uint32_t cookie) { cookie_ = cookie; }
    std::uint32_t cookie() const { return cookie_; }
    // The client's object as the client gave it.
    const std::vector<std::uint8_t>& reference() const { return reference_; }

    void call(std::uint16_t opnum, Message message);
    std::size_t unanswered() const { return unanswered_; }
    OutgoingCalls& outgoing() { return outgoing_; }

 private:
    void onAnswered(std::size_t size);

    OutgoingCalls& outgoing_;
    std::shared_ptr<ConnectionBook> book_;
    Hold memory_;
    std::vector<std::uint8_t> reference_;
    std::uint32_t cookie_ = 0;
    std::size_t unanswered_ = 0;
    Message latest_;  // for the next callback, once it is answered
    std::function<void()> lost_;
    std::function<void()> answered_;
    std::unique_ptr<dcom::orpc::IRemoteObject> object_;  // its end comes first
};

// Takes a client's object, to be called by that interface; nothing is sent from within this. memory: a part of the
// client's budget, still empty. nullptr, and the result: CONNECT_E_CANNOTCONNECT for what is no reference that can be
// called, E_OUTOFMEMORY, CONNECT_E_ADVISELIMIT.
std::unique_ptr<SinkConnection> connectSink(OutgoingCalls& outgoing, std::shared_ptr<ConnectionBook> book, Hold memory,
                                            std::span<const std::uint8_t> reference, const Uuid& iid,
                                            const dcom::orpc::CallContext& context, HResult& result);

// IOPCDataCallback. The group that holds it outlives it.
class DataSink final : public IDataSink {
 public:
    DataSink(Group& group, std::unique_ptr<SinkConnection> connection);

    std::size_t unanswered() const override { return connection_->unanswered(); }
    void onDataChange(const CallbackItems& items) override;
    void onReadComplete(const CallbackItems& items) override;
    void onWriteComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                         std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) override;
    void onCancelComplete(std::uint32_t transaction, std::uint32_t clientGroup) override;

 private:
    void send(DataCallback method, Message message);

    std::unique_ptr<SinkConnection> connection_;
};

// IAdviseSink for one stream. The group that holds it outlives it.
class StreamSink final : public IDataSink {
 public:
    StreamSink(Group& group, Stream stream, std::unique_ptr<SinkConnection> connection);

    std::size_t unanswered() const override { return connection_->unanswered(); }
    void onDataChange(const CallbackItems& items) override;
    void onReadComplete(const CallbackItems& items) override { onDataChange(items); }
    void onWriteComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                         std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) override;
    void onCancelComplete(std::uint32_t /*transaction*/, std::uint32_t /*clientGroup*/) override {}

 private:
    void send(Message message);

    Stream stream_;
    std::unique_ptr<SinkConnection> connection_;
};

// IOPCShutdown. The server object that holds it outlives it.
class ShutdownSink final : public IShutdownSink {
 public:
    ShutdownSink(Server& server, std::unique_ptr<SinkConnection> connection);
    ~ShutdownSink() override;
    ShutdownSink(const ShutdownSink&) = delete;
    ShutdownSink& operator=(const ShutdownSink&) = delete;

    // A client that has not answered the latest one is not asked again.
    void onShutdownRequest(std::string_view reason) override;

 private:
    void settle();

    std::unique_ptr<SinkConnection> connection_;
    bool asked_ = false;  // and the client has not answered yet
};

}  // namespace quelm::opcda::wire
