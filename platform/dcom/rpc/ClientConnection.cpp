#include "dcom/rpc/ClientConnection.h"

#include <algorithm>
#include <utility>

#include "dcom/rpc/Fragments.h"

namespace quelm::dcom::rpc {

std::string_view clientFailureText(ClientFailure failure) {
    switch (failure) {
        case ClientFailure::None:
            break;
        case ClientFailure::NoRandomNumbers:
            return "this machine has no random numbers to give";
        case ClientFailure::NotRpc:
            return "what answers there does not speak RPC";
        case ClientFailure::BindRefused:
            return "it takes no binding";
        case ClientFailure::LogOnRefused:
            return "it refused the log-on";
        case ClientFailure::LogOnTooWeak:
            return "it offers no log-on by NTLMv2 with 128-bit keys";
        case ClientFailure::Unprotected:
            return "an answer was not protected as agreed";
        case ClientFailure::AnswerTooLarge:
            return "an answer is too large";
        case ClientFailure::OutOfOrder:
            return "it answered out of order";
    }
    return {};
}

ClientConnection::ClientConnection(const LogOnSettings& logOn, const Uuid& firstInterface, std::size_t maxAnswer)
    : logOn_(logOn), maxAnswer_(maxAnswer) {
    if (const auto trailer = logOn_.begin()) {
        sendBind(PduType::Bind, firstInterface, *trailer);
    } else {
        fail(ClientFailure::NoRandomNumbers);
    }
}

// Where it is not bound to yet, the number that it will have.
std::ptrdiff_t ClientConnection::contextOf(const Uuid& interfaceId) const {
    return std::find(interfaces_.begin(), interfaces_.end(), interfaceId) - interfaces_.begin();
}

void ClientConnection::sendBind(PduType type, const Uuid& interfaceId, const AuthTrailer& trailer) {
    asked_ = interfaceId;
    appendBindRequest(output_, {type, ++lastCallId_, static_cast<std::uint16_t>(contextOf(interfaceId)), group_,
                                interfaceId, trailer});
}

void ClientConnection::call(const CallTarget& target, const WriteStub& stub, Done done, SharedStub more) {
    target_ = target;
    done_ = std::move(done);
    front_.clear();
    ndr::Writer out(front_);
    stub(out);
    more_ = std::move(more);
    if (contextOf(target.interfaceId) == std::ssize(interfaces_)) {
        stage_ = Stage::Altering;
        // The calls' own log-on covers every interface of the connection.
        return sendBind(PduType::AlterContext, target.interfaceId, {});
    }
    beginSending();
}

void ClientConnection::beginSending() {
    stage_ = Stage::Calling;
    ++lastCallId_;
    cut_ = 0;
    cutting_ = true;
    fill();
}

void ClientConnection::fill() {
    if (!cutting_ || output().size() > sendAhead / 2) {
        return;
    }
    output_.erase(output_.begin(), output_.begin() + static_cast<std::ptrdiff_t>(outputStart_));
    outputStart_ = 0;
    while (cutting_ && output_.size() < sendAhead) {
        cutNext();
    }
}

void ClientConnection::cutNext() {
    const auto guard = logOn_.guard();
    const MessageGuard* const protection = guard ? &*guard : nullptr;
    const CallHeader header{PduType::Request, lastCallId_, static_cast<std::uint16_t>(contextOf(target_.interfaceId)),
                            target_.opnum, target_.object};
    const std::span<const std::uint8_t> front(front_);
    const std::span<const std::uint8_t> more = more_ ? std::span(*more_) : std::span<const std::uint8_t>();
    const std::size_t whole = front.size() + more.size();
    const std::size_t end = std::min(whole, cut_ + pieceSize(header, maxTransmit_, protection));
    const std::size_t frontEnd = std::min(end, front.size());
    const std::size_t frontBegin = std::min(cut_, frontEnd);
    const std::size_t moreBegin = cut_ - std::min(cut_, front.size());
    const StubPiece piece{front.subspan(frontBegin, frontEnd - frontBegin),
                          more.subspan(moreBegin, end - frontEnd - moreBegin), cut_ == 0, end == whole, whole - cut_};
    appendFragment(output_, header, piece, protection);
    cut_ = end;
    if (end == whole) {
        cutting_ = false;
        more_.reset();
    }
}

void ClientConnection::sent(std::size_t count) {
    outputStart_ += count;
    if (outputStart_ == output_.size()) {
        constexpr std::size_t kept = 16U << 10U;  // what a large call needed is not kept for the next one
        output_.clear();
        outputStart_ = 0;
        if (!cutting_ && output_.capacity() > kept) {
            output_ = {};
        }
    }
    fill();
}

void ClientConnection::received(std::span<const std::uint8_t> data) {
    if (stage_ == Stage::Failed) {
        return;
    }
    input_.insert(input_.end(), data.begin(), data.end());
    std::size_t taken = 0;
    while (stage_ != Stage::Failed && input_.size() - taken >= headerSize) {
        const auto waiting = std::span(input_).subspan(taken);
        Header header;
        if (parseHeader(waiting, header) != RefusalReason::None) {
            return fail(ClientFailure::NotRpc);
        }
        if (waiting.size() < header.fragmentLength) {
            break;
        }
        taken += header.fragmentLength;
        dispatch(header, waiting.first(header.fragmentLength));
    }
    input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(std::min(taken, input_.size())));
}

void ClientConnection::dispatch(const Header& header, std::span<std::uint8_t> pdu) {
    const bool awaitsBinding = stage_ == Stage::Binding || stage_ == Stage::LoggingOn || stage_ == Stage::Altering;
    switch (header.type) {
        case PduType::BindAck:
        case PduType::AlterContextResponse:
            return awaitsBinding ? onBindAnswer(header, pdu) : fail(ClientFailure::OutOfOrder);
        case PduType::BindNak:
            return fail(ClientFailure::BindRefused);
        case PduType::Fault:
            return onFault(header, pdu);
        case PduType::Response:
            return stage_ == Stage::Calling ? onResponse(header, pdu) : fail(ClientFailure::OutOfOrder);
        case PduType::Shutdown:
            // A wish to close the connection, which may come in the middle of a call; nobody has two of them.
            if (std::exchange(toldToClose_, true)) {
                fail(ClientFailure::OutOfOrder);
            }
            return;
        default:
            return fail(ClientFailure::OutOfOrder);
    }
}

void ClientConnection::onBindAnswer(const Header& header, std::span<const std::uint8_t> pdu) {
    const auto answer = parseBindAnswer(pdu);
    if (!answer) {
        return fail(ClientFailure::NotRpc);
    }
    if (stage_ == Stage::LoggingOn) {
        return goOnLoggingOn(header, pdu);
    }
    if (stage_ == Stage::Binding) {
        // Either end may take less than it was offered.
        maxTransmit_ = std::clamp(answer->maxReceive, leastMaxFragment, ownMaxFragment);
        group_ = answer->group;
        if (!answer->accepted) {
            return fail(ClientFailure::BindRefused);
        }
        interfaces_.push_back(asked_);
        return goOnLoggingOn(header, pdu);
    }
    if (!answer->accepted) {
        return finish({Fault::UnknownInterface, {}});
    }
    interfaces_.push_back(asked_);
    beginSending();
}

void ClientConnection::goOnLoggingOn(const Header& header, std::span<const std::uint8_t> pdu) {
    AuthTrailer trailer;
    if (header.authLength != 0 && !parseTrailer(pdu, header, headerSize, trailer)) {
        return fail(ClientFailure::NotRpc);
    }
    switch (logOn_.take(trailer.token)) {
        case ClientLogOn::Next::Failed:
            return fail(ClientFailure::LogOnTooWeak);
        case ClientLogOn::Next::Alter:
            stage_ = Stage::LoggingOn;
            return sendBind(PduType::AlterContext, asked_, logOn_.trailer());
        case ClientLogOn::Next::Auth3:
            appendAuth3(output_, lastCallId_, logOn_.trailer());
            break;
        case ClientLogOn::Next::Nothing:
            break;
    }
    stage_ = Stage::Idle;
}

void ClientConnection::onFault(const Header& header, std::span<std::uint8_t> pdu) {
    Answer answer;
    if (!parseAnswer(pdu, header, answer)) {
        return fail(ClientFailure::NotRpc);
    }
    if (stage_ == Stage::Binding || stage_ == Stage::LoggingOn) {
        return fail(ClientFailure::LogOnRefused);
    }
    if (stage_ != Stage::Calling && stage_ != Stage::Altering) {
        return fail(ClientFailure::OutOfOrder);
    }
    // Some ends sign their faults; the signature takes its number then.
    if (const auto guard = logOn_.guard(); guard && header.authLength != 0) {
        AuthTrailer trailer;
        if (!parseTrailer(pdu, header, callHeaderSize, trailer) || !guard->unprotect(pdu, callHeaderSize, trailer) ||
            !parseAnswer(pdu, header, answer)) {
            return fail(ClientFailure::Unprotected);
        }
    }
    finish({answer.fault == Fault::None ? Fault::Unspecified : answer.fault, {}});
}

void ClientConnection::onResponse(const Header& header, std::span<std::uint8_t> pdu) {
    Answer answer;
    AuthTrailer trailer;
    if (!parseAnswer(pdu, header, answer) ||
        (header.authLength != 0 && !parseTrailer(pdu, header, answer.stubOffset, trailer))) {
        return fail(ClientFailure::NotRpc);
    }
    if (const auto guard = logOn_.guard();
        guard && (header.authLength == 0 || !guard->unprotect(pdu, answer.stubOffset, trailer))) {
        return fail(ClientFailure::Unprotected);
    }
    const CallAssembly::Key key{header.callId, answer.contextId, 0, {}, {}};
    const CallAssembly::Step step = assembly_.take(header.flags, key);
    if (header.callId != lastCallId_ || step == CallAssembly::Step::OutOfOrder || step == CallAssembly::Step::Mixed) {
        return fail(ClientFailure::OutOfOrder);
    }
    const std::size_t end = header.authLength == 0 ? pdu.size() : trailer.offset - trailer.padLength;
    if (!assembly_.add(pdu.subspan(answer.stubOffset, end - answer.stubOffset), maxAnswer_)) {
        return fail(ClientFailure::AnswerTooLarge);
    }
    if ((header.flags & flagLast) != 0) {
        assembly_.end();
        finish({Fault::None, assembly_.stub()});
    }
}

void ClientConnection::finish(const CallResult& result) {
    stage_ = Stage::Idle;
    // The handler may begin the next call.
    std::exchange(done_, nullptr)(result);
}

void ClientConnection::fail(ClientFailure failure) {
    stage_ = Stage::Failed;
    failure_ = failure;
    done_ = nullptr;
    more_.reset();
    cutting_ = false;
    output_.clear();
    outputStart_ = 0;
}

}  // namespace quelm::dcom::rpc
