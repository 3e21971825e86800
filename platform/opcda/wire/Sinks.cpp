#include "opcda/wire/Sinks.h"

#include <algorithm>
#include <utility>

#include "opcda/Server.h"

namespace quelm::opcda::wire {

namespace {

// Whoever gets a copy of the client's object from here takes references of its own from the client.
std::vector<std::uint8_t> withoutReferences(std::span<const std::uint8_t> reference) {
    constexpr std::size_t publicReferences = 28;  // behind signature, kind, interface and flags
    std::vector<std::uint8_t> copy(reference.begin(), reference.end());
    std::fill_n(copy.begin() + publicReferences, sizeof(std::uint32_t), std::uint8_t{0});
    return copy;
}

}  // namespace

std::unique_ptr<SinkConnection> connectSink(OutgoingCalls& outgoing, std::shared_ptr<ConnectionBook> book, Hold memory,
                                            std::span<const std::uint8_t> reference, const Uuid& iid,
                                            const dcom::orpc::CallContext& context, HResult& result) {
    auto object = dcom::orpc::parseRemoteReference(reference);
    if (!object) {
        result = CONNECT_E_CANNOTCONNECT;
        return nullptr;
    }
    if (!memory.resize(SinkConnection::footprint + reference.size())) {
        result = E_OUTOFMEMORY;
        return nullptr;
    }
    auto connection =
        std::make_unique<SinkConnection>(outgoing, std::move(book), std::move(memory), withoutReferences(reference));
    const bool reached = connection->reach(
        {.reference = std::move(*object),
         .iid = iid,
         .client = "OPC client " + context.peer().remoteAddress + " (account '" + context.account() + "')",
         .account = context.account(),
         .host = std::string(context.peer().host()),
         .givenUp = {}});
    result = reached ? S_OK : CONNECT_E_ADVISELIMIT;
    return reached ? std::move(connection) : nullptr;
}

SinkConnection::SinkConnection(OutgoingCalls& outgoing, std::shared_ptr<ConnectionBook> book, Hold memory,
                               std::vector<std::uint8_t> reference)
    : outgoing_(outgoing), book_(std::move(book)), memory_(std::move(memory)), reference_(std::move(reference)) {
    book_->push_back(this);
}

SinkConnection::~SinkConnection() {
    std::erase(*book_, this);
}

bool SinkConnection::reach(dcom::orpc::RemoteObjectRequest request) {
    // It outlives the connection, which it may end.
    request.givenUp = [this] {
        outgoing_.callbacksFailed += unanswered_;
        std::exchange(lost_, nullptr)();
    };
    object_ = outgoing_.objects.connect(std::move(request));
    return object_ != nullptr;
}

void SinkConnection::setHandlers(std::function<void()> lost, std::function<void()> answered) {
    lost_ = std::move(lost);
    answered_ = std::move(answered);
}

// What is under way counts whatever the budget says: it is one callback with values and as many others as the client
// began itself, and it is told of by what is refused next.
void SinkConnection::call(std::uint16_t opnum, Message message) {
    const std::size_t size = message->capacity();
    memory_.set(memory_.amount() + size);
    ++unanswered_;
    ++outgoing_.callbacks;
    latest_ = message;
    object_->call(opnum, std::move(message), [this, size] { onAnswered(size); });
}

void SinkConnection::onAnswered(std::size_t size) {
    memory_.set(memory_.amount() - size);
    if (--unanswered_ == 0) {
        outgoing_.messages.giveBack(std::move(latest_));
        answered_();
    }
}

DataSink::DataSink(Group& group, std::unique_ptr<SinkConnection> connection) : connection_(std::move(connection)) {
    SinkConnection* const its = connection_.get();
    its->setHandlers([&group, its] { group.unadvise(its->cookie()); }, [&group] { group.sinkAnswered(); });
}

void DataSink::send(DataCallback method, Message message) {
    connection_->call(static_cast<std::uint16_t>(method), std::move(message));
}

void DataSink::onDataChange(const CallbackItems& items) {
    send(DataCallback::OnDataChange, connection_->outgoing().messages.items(items));
}

void DataSink::onReadComplete(const CallbackItems& items) {
    send(DataCallback::OnReadComplete, connection_->outgoing().messages.items(items));
}

void DataSink::onWriteComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                               std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) {
    send(DataCallback::OnWriteComplete,
         connection_->outgoing().messages.writeComplete(transaction, clientGroup, masterError, clientHandles, errors));
}

void DataSink::onCancelComplete(std::uint32_t transaction, std::uint32_t clientGroup) {
    send(DataCallback::OnCancelComplete, connection_->outgoing().messages.cancelComplete(transaction, clientGroup));
}

StreamSink::StreamSink(Group& group, Stream stream, std::unique_ptr<SinkConnection> connection)
    : stream_(stream), connection_(std::move(connection)) {
    SinkConnection* const its = connection_.get();
    its->setHandlers([&group, its] { group.unadviseStream(its->cookie()); }, [&group] { group.sinkAnswered(); });
}

void StreamSink::send(Message message) {
    connection_->call(static_cast<std::uint16_t>(AdviseSink::OnDataChange), std::move(message));
}

void StreamSink::onDataChange(const CallbackItems& items) {
    send(connection_->outgoing().messages.dataStream(items, stream_));
}

void StreamSink::onWriteComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                                 std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) {
    send(connection_->outgoing().messages.writeStream(transaction, clientGroup, masterError, clientHandles, errors));
}

ShutdownSink::ShutdownSink(Server& server, std::unique_ptr<SinkConnection> connection)
    : connection_(std::move(connection)) {
    SinkConnection* const its = connection_.get();
    its->setHandlers([&server, its] { server.unadvise(its->cookie()); }, [this] { settle(); });
}

ShutdownSink::~ShutdownSink() {
    settle();
}

void ShutdownSink::onShutdownRequest(std::string_view reason) {
    if (std::exchange(asked_, true)) {
        return;
    }
    OutgoingCalls& outgoing = connection_->outgoing();
    ++outgoing.shutdownRequests;
    connection_->call(static_cast<std::uint16_t>(Shutdown::ShutdownRequest), outgoing.messages.shutdownRequest(reason));
}

void ShutdownSink::settle() {
    connection_->outgoing().shutdownRequests -= std::exchange(asked_, false) ? 1 : 0;
}

}  // namespace quelm::opcda::wire
