#include "dcom/rpc/ServerConnection.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "dcom/rpc/Fragments.h"

namespace quelm::dcom::rpc {

namespace {

// Enough for a largest message.
constexpr std::size_t inputSizeBeforeLogOn = 8U << 10U;
// A reply larger than this gives its memory back once it is sent.
constexpr std::size_t keptOutput = 1U << 20U;

const std::string noAccount;

}  // namespace

// The call that waits for its answer. Goes with the connection, and the ticket is then worth nothing.
class ServerConnection::Deferral final : public IDeferredAnswer {
 public:
    explicit Deferral(ServerConnection& connection) : connection_(connection) {}

    void complete(Fault fault, std::span<const std::uint8_t> stub) override {
        if (calling) {
            early = {fault, {stub.begin(), stub.end()}};
        } else {
            connection_.answerDeferred(fault, stub);
            connection_.wakeUp();
        }
    }

    bool calling = true;                                               // the handler has not returned yet
    std::optional<std::pair<Fault, std::vector<std::uint8_t>>> early;  // answered while it was calling
    CallHeader header;
    std::optional<std::uint32_t> securityId;

 private:
    ServerConnection& connection_;
};

ServerConnection::ServerConnection(const ServerSettings& settings, CallHandler& handler, Peer peer)
    : settings_(settings),
      handler_(handler),
      peer_(std::move(peer)),
      refusals_(settings.onRefused, peer_),
      input_(inputSizeBeforeLogOn),
      security_(settings) {}

ServerConnection::~ServerConnection() = default;

void ServerConnection::received(std::size_t count) {
    input_.filled(count);
    process();
}

std::size_t ServerConnection::feed(std::span<const std::uint8_t> data) {
    std::size_t taken = 0;
    while (taken < data.size()) {
        const auto space = receiveSpace();
        const std::size_t count = std::min(space.size(), data.size() - taken);
        if (count == 0) {
            break;
        }
        std::memcpy(space.data(), data.data() + taken, count);
        received(count);
        taken += count;
    }
    return taken;
}

void ServerConnection::process() {
    waiting_ = false;
    pause_ = {};
    while (!closing_ && !deferred() && input_.count() >= headerSize) {
        if (output().size() >= settings_.outputLimit) {
            waiting_ = true;
            return;
        }
        const auto waiting = input_.bytes();
        Header header;
        if (const RefusalReason wrong = parseHeader(waiting, header); wrong != RefusalReason::None) {
            if (header.type == PduType::Bind) {
                appendBindNak(output_, header.callId, nakProtocolVersion);
            }
            refusals_.report(wrong);
            closing_ = true;
        } else if (waiting.size() < header.fragmentLength) {
            return input_.expect(header.fragmentLength);
        } else if (pause_ = delayOf(header, waiting.first(header.fragmentLength));
                   pause_.count() != 0 || asksDomain(header, waiting.first(header.fragmentLength))) {
            return;
        } else {
            input_.take(header.fragmentLength);
            dispatch(header, waiting.first(header.fragmentLength));
            held_.set(bytesHeld());
        }
    }
    if (closing_) {
        input_.clear();
    }
}

void ServerConnection::sent(std::size_t count) {
    outputStart_ += count;
    if (outputStart_ == output_.size()) {
        output_.clear();
        outputStart_ = 0;
        if (output_.capacity() > keptOutput) {
            output_.shrink_to_fit();
        }
        held_.set(bytesHeld());
    }
}

void ServerConnection::dispatch(const Header& header, std::span<std::uint8_t> pdu) {
    switch (header.type) {
        case PduType::Request:
            return onRequest(header, pdu);
        case PduType::Bind:
            return onBind(header, pdu);
        case PduType::AlterContext:
            return onAlterContext(header, pdu);
        case PduType::Auth3:
            return onAuth3(header, pdu);
        case PduType::Orphaned:
        case PduType::CoCancel:
            return onCancel(header, pdu);
        case PduType::Shutdown:
            return;
        case PduType::Response:
        case PduType::Fault:
        case PduType::BindAck:
        case PduType::BindNak:
        case PduType::AlterContextResponse:
            break;
    }
    protocolError(header, RefusalReason::NotForClients);
}

// ---- Binding -------------------------------------------------------------------------------------------------

void ServerConnection::onBind(const Header& header, std::span<const std::uint8_t> pdu) {
    const std::optional<Bind> bind = parseBind(pdu);
    AuthTrailer trailer;
    if (!bind || (header.authLength != 0 && !parseTrailer(pdu, header, headerSize, trailer))) {
        appendBindNak(output_, header.callId, nakNotSpecified);
        refusals_.report(RefusalReason::MalformedBind);
        closing_ = true;
        return;
    }
    // A second BIND begins anew on the same connection, log-on included.
    bound_ = true;
    refusals_.beginAnew();
    assembly_.end();
    presentations_.clear();
    maxTransmit_ = std::clamp(bind->maxReceive, leastMaxFragment, ownMaxFragment);
    maxReceive_ = std::clamp(bind->maxTransmit, leastMaxFragment, ownMaxFragment);
    // Connections of one client share nothing here, so that any group that it believes to exist is as good as another.
    group_ = bind->group != 0 ? bind->group : static_cast<std::uint32_t>(peer_.id) | 0x10000U;

    std::vector<std::uint8_t> token;
    if (header.authLength != 0 && logOn(header, trailer, token) == SecurityContexts::Step::Rejected) {
        appendBindNak(output_, header.callId, security_.knows(trailer.type) ? nakNotSpecified : nakAuthenticationType);
        closing_ = true;
        return;
    }
    const auto results = presentations_.answer(*bind, handler_, loggedOn());
    const std::string port = fmt::format("{}", peer_.localPort);
    trailer.token = token;
    appendBindAck(output_, {PduType::BindAck, static_cast<std::uint8_t>(header.flags & flagHeaderSigning),
                            header.callId, maxTransmit_, maxReceive_, group_, port, results, trailer});
}

void ServerConnection::onAlterContext(const Header& header, std::span<const std::uint8_t> pdu) {
    const std::optional<Bind> bind = parseBind(pdu);
    AuthTrailer trailer;
    if (!bound_ || !bind || (header.authLength != 0 && !parseTrailer(pdu, header, headerSize, trailer))) {
        return protocolError(header, bound_ ? RefusalReason::MalformedAlterContext : RefusalReason::DidNotBind);
    }
    std::vector<std::uint8_t> token;
    if (header.authLength != 0 && logOn(header, trailer, token) != SecurityContexts::Step::Answered) {
        appendFault(output_, header.callId, 0, Fault::AccessDenied, flagDidNotExecute);
        closing_ = true;
        return;
    }
    const auto results = presentations_.answer(*bind, handler_, loggedOn());
    trailer.token = token;
    const SecurityContext* const context = header.authLength != 0 ? security_.find(trailer.contextId) : nullptr;
    const std::uint8_t flags = context != nullptr && context->signsHeaders() ? flagHeaderSigning : 0;
    appendBindAck(
        output_,
        {PduType::AlterContextResponse, flags, header.callId, maxTransmit_, maxReceive_, group_, {}, results, trailer});
}

void ServerConnection::onAuth3(const Header& header, std::span<const std::uint8_t> pdu) {
    AuthTrailer trailer;
    if (!bound_ || header.authLength == 0 || !parseTrailer(pdu, header, headerSize, trailer)) {
        return protocolError(header, RefusalReason::MalformedAuth3);
    }
    std::vector<std::uint8_t> token;
    // There is no answer to this message; after a refusal the calls that follow get the fault.
    if (logOn(header, trailer, token) == SecurityContexts::Step::Rejected) {
        closing_ = true;
    }
}

// A call that is given up half-way is forgotten; one that is whole runs to its end, so that a cancel changes nothing.
// Either may be signed, and then counts among the log-on's messages.
void ServerConnection::onCancel(const Header& header, std::span<std::uint8_t> pdu) {
    if (header.authLength != 0) {
        AuthTrailer trailer;
        if (!parseTrailer(pdu, header, headerSize, trailer)) {
            return protocolError(header, RefusalReason::MalformedCall);
        }
        if (!unprotect(header, pdu, headerSize, trailer, security_.find(trailer.contextId))) {
            return;
        }
    }
    if (header.type == PduType::Orphaned) {
        assembly_.orphan(header.callId);
    }
}

// ---- Calls ---------------------------------------------------------------------------------------------------

void ServerConnection::onRequest(const Header& header, std::span<std::uint8_t> pdu) {
    Request request;
    if (!bound_ || !parseRequest(pdu, header, request)) {
        return protocolError(header, bound_ ? RefusalReason::MalformedCall : RefusalReason::DidNotBind);
    }
    SecurityContext* context = nullptr;
    std::size_t stubEnd = pdu.size();
    if (header.authLength == 0) {
        context = security_.unsignedContext();
    } else {
        AuthTrailer trailer;
        if (!parseTrailer(pdu, header, request.stubOffset, trailer)) {
            return protocolError(header, RefusalReason::MalformedCall);
        }
        stubEnd = trailer.offset - trailer.padLength;
        context = security_.find(trailer.contextId);
        if (!unprotect(header, pdu, request.stubOffset, trailer, context)) {
            return;
        }
    }
    if (context != nullptr && context->state() == SecurityContext::State::LoggedOn) {
        countFor(*context);
    }
    const auto stub = pdu.subspan(request.stubOffset, stubEnd - request.stubOffset);
    constexpr std::uint8_t whole = flagFirst | flagLast;
    if ((header.flags & whole) != whole || assembly_.active()) {
        return assemble(header, request, stub, context);
    }
    if (const Fault fault = faultBeforeCall(context, request); fault != Fault::None) {
        return appendFault(output_, header.callId, request.contextId, fault, flagDidNotExecute);
    }
    perform(header.callId, request, stub, context);
}

// None, or the fault that answers the call instead of carrying it out.
Fault ServerConnection::faultBeforeCall(const SecurityContext* context, const Request& request) {
    const Uuid* const interfaceId = presentations_.find(request.contextId);
    if (interfaceId == nullptr) {
        return Fault::UnknownInterface;
    }
    if (!admits(context, *interfaceId)) {
        if (!handler_.isOpenToAll(*interfaceId)) {
            reportInadmissible(context);
        }
        return Fault::AccessDenied;
    }
    return Fault::None;
}

// As well as the settings ask for.
bool ServerConnection::isProtected(const SecurityContext* context) const {
    return context == nullptr ? settings_.minimumLevel <= AuthLevel::None : context->isAdmitted();
}

bool ServerConnection::admits(const SecurityContext* context, const Uuid& interfaceId) {
    const bool isHalfWay = context != nullptr && context->state() != SecurityContext::State::LoggedOn;
    return isProtected(context) || (!isHalfWay && handler_.isOpenToAll(interfaceId));
}

void ServerConnection::reportInadmissible(const SecurityContext* context) {
    if (const SecurityContext* const latest = security_.latest(); context == nullptr && latest != nullptr) {
        refusals_.report(RefusalReason::Unprotected, latest->account(), latest->level());
    } else if (context == nullptr) {
        refusals_.report(RefusalReason::NoLogOn);
    } else if (context->state() != SecurityContext::State::LoggedOn) {
        refusals_.report(RefusalReason::LogOnIncomplete, context->account(), context->level());
    } else {
        refusals_.report(RefusalReason::LevelTooLow, context->account(), context->level(),
                         std::string(levelName(settings_.minimumLevel)));
    }
}

void ServerConnection::assemble(const Header& header, const Request& request, std::span<const std::uint8_t> stub,
                                SecurityContext* context) {
    const CallAssembly::Step step =
        assembly_.take(header.flags, {header.callId, request.contextId, request.opnum,
                                      request.hasObject ? std::optional(request.object) : std::nullopt,
                                      context != nullptr ? std::optional(context->id()) : std::nullopt});
    if (step == CallAssembly::Step::OutOfOrder) {
        return protocolError(header, RefusalReason::FragmentsOutOfOrder);
    }
    if (step == CallAssembly::Step::Mixed) {
        return protocolError(header, RefusalReason::FragmentsMixed);
    }
    if (!assembly_.dropped()) {
        const Fault fault = faultBeforeCall(context, request);
        if (fault != Fault::None && step == CallAssembly::Step::Continued) {
            // The log-on that the call began under was taken back meanwhile, by whoever sits between.
            return protocolError(header, RefusalReason::LogOnChanged);
        }
        if (fault != Fault::None) {
            appendFault(output_, header.callId, request.contextId, fault, flagDidNotExecute);
            assembly_.drop();
        } else if (stub.size() > held_.room()) {
            appendFault(output_, header.callId, request.contextId, Fault::OutOfMemory, flagDidNotExecute);
            assembly_.drop();
            assembly_.release();
        } else if (!assembly_.add(stub, loggedOn()
                                            ? settings_.maxCallSize
                                            : std::min(settings_.maxCallSize, settings_.maxCallSizeBeforeLogOn))) {
            return protocolError(header, RefusalReason::CallTooLarge, context);
        }
    }
    if ((header.flags & flagLast) == 0) {
        return;
    }
    assembly_.end();
    if (!assembly_.dropped()) {
        perform(header.callId, request, assembly_.stub(), context);
    }
    assembly_.release();
}

void ServerConnection::countFor(const SecurityContext& client) {
    if (!isCounted_ && settings_.budgets != nullptr) {
        held_ = memoryOf(settings_.budgets->of(client.account(), peer_.host()));
        isCounted_ = true;
    }
}

// The handler writes its reply right where it is sent from, behind the header of the first fragment.
void ServerConnection::perform(std::uint32_t callId, const Request& request, std::span<const std::uint8_t> stub,
                               SecurityContext* context) {
    served_ = true;
    const std::size_t start = output_.size();
    output_.resize(start + callHeaderSize);
    ndr::Writer reply(output_);
    peer_.level = context != nullptr ? context->level() : AuthLevel::None;
    const Fault fault =
        handler_.call({peer_, *presentations_.find(request.contextId), request.opnum, request.hasObject, request.object,
                       stub, peer_.level, context != nullptr ? context->account() : noAccount, this},
                      reply);
    // The interface is open to all, but not what was asked of it.
    if (fault == Fault::AccessDenied && !isProtected(context)) {
        reportInadmissible(context);
    }
    const CallHeader header{PduType::Response, callId, request.contextId};
    if (fault == Fault::Deferred) {
        output_.resize(start);
        return postpone(header, context);
    }
    deferral_.reset();
    finishReply(start, header, context, fault);
}

CallTicket ServerConnection::ticket() {
    deferral_ = std::make_shared<Deferral>(*this);
    return CallTicket(deferral_);
}

void ServerConnection::postpone(const CallHeader& header, const SecurityContext* context) {
    if (!deferral_) {
        return appendFault(output_, header.callId, header.contextId, Fault::CallFailed, 0);
    }
    deferral_->calling = false;
    deferral_->header = header;
    deferral_->securityId = context != nullptr ? std::optional(context->id()) : std::nullopt;
    if (const auto early = std::exchange(deferral_->early, std::nullopt)) {
        answerDeferred(early->first, early->second);
    }
}

void ServerConnection::answerDeferred(Fault fault, std::span<const std::uint8_t> stub) {
    const auto done = std::exchange(deferral_, nullptr);
    const std::size_t start = output_.size();
    output_.resize(start + callHeaderSize);
    output_.insert(output_.end(), stub.begin(), stub.end());
    finishReply(start, done->header, done->securityId ? security_.find(*done->securityId) : nullptr, fault);
    held_.set(bytesHeld());
}

void ServerConnection::wakeUp() {
    waiting_ = input_.count() >= headerSize;
    if (wake_) {
        wake_();
    }
}

// Makes the reply of the stub data that stands behind the room for one header.
void ServerConnection::finishReply(std::size_t start, const CallHeader& header, SecurityContext* context, Fault fault) {
    if (fault != Fault::None) {
        output_.resize(start);
        return appendFault(output_, header.callId, header.contextId, fault, 0);
    }
    if (context != nullptr && context->protects()) {
        const MessageGuard guard = context->guard();
        cutIntoFragments(output_, start, header, maxTransmit_, &guard);
    } else {
        cutIntoFragments(output_, start, header, maxTransmit_, nullptr);
    }
}

// False when the connection ends over it.
bool ServerConnection::unprotect(const Header& header, std::span<std::uint8_t> pdu, std::size_t bodyOffset,
                                 const AuthTrailer& trailer, SecurityContext* context) {
    if (context == nullptr) {
        return true;
    }
    if (!context->fits(trailer)) {
        protocolError(header, RefusalReason::OtherLevel);
        return false;
    }
    if (context->protects() && !context->guard().unprotect(pdu, bodyOffset, trailer)) {
        refusals_.report(RefusalReason::WrongSignature, context->account(), context->level());
        appendFault(output_, header.callId, 0, Fault::AccessDenied, flagDidNotExecute);
        closing_ = true;
        return false;
    }
    return true;
}

void ServerConnection::protocolError(const Header& header, RefusalReason reason, const SecurityContext* context) {
    if (context != nullptr) {
        refusals_.report(reason, context->account(), context->level());
    } else {
        refusals_.report(reason);
    }
    appendFault(output_, header.callId, 0, Fault::Protocol, flagDidNotExecute);
    closing_ = true;
}

}  // namespace quelm::dcom::rpc
