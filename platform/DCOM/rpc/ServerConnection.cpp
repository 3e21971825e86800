#include "DCOM/rpc/ServerConnection.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "DCOM/HResult.h"
#include "DCOM/rpc/Spnego.h"

namespace quelm::dcom::rpc {

using namespace literals;

namespace {

constexpr std::size_t inputSize = 32U << 10U;
// A reply larger than this gives its memory back once it is sent.
constexpr std::size_t keptOutput = 1U << 20U;
// Clients exist that log on anew at each change of interface and never use the old log-on again.
constexpr std::size_t maxSecurityContexts = 64;
// Enough for any one BIND; after a log-on only the numbering of contexts is the limit.
constexpr std::size_t maxPresentationsBeforeLogOn = 256;
constexpr std::size_t maxCallSizeBeforeLogOn = 64U << 10U;

constexpr std::uint8_t authTypeNegotiate = 9;
constexpr std::uint8_t authTypeNtlm = 10;
constexpr std::size_t signatureSize = ntlm::ServerContext::signatureSize;
constexpr std::size_t responsePadding = 16;  // protected stubs are padded to it, as Windows does

constexpr Syntax ndrSyntax{"8A885D04-1CEB-11C9-9FE8-08002B104860"_uuid, 2, 0};
// Not a transfer syntax: a client that offers it asks for the optional features in its last eight bytes.
constexpr Uuid featureNegotiation = "6CB71C2C-9812-4540-0000-000000000000"_uuid;
constexpr std::uint8_t supportedFeatures =
    0x03;  // several log-ons per connection; connection outlives an orphaned call

constexpr std::string_view checkPeer = "check which program connects to this port";
constexpr std::string_view useNtlm = "let the client log on by NTLM or Negotiate";
constexpr std::string_view checkLevel =
    "set the client's authentication level to packet integrity or packet privacy, or lower the minimum level in the "
    "DCOM settings";

const std::string noAccount;

bool isFeatureNegotiation(const Syntax& syntax) {
    return std::equal(syntax.uuid.bytes.begin(), syntax.uuid.bytes.begin() + 8, featureNegotiation.bytes.begin());
}

// What a level on the wire amounts to with NTLM over TCP; None for a level that does not exist.
AuthLevel effectiveLevel(std::uint8_t wireLevel) {
    if (wireLevel >= 3 && wireLevel <= 5) {
        return AuthLevel::Integrity;
    }
    return wireLevel == 2 ? AuthLevel::Connect : wireLevel == 6 ? AuthLevel::Privacy : AuthLevel::None;
}

AuthLevel effectiveMinimum(AuthLevel minimum) {
    return minimum <= AuthLevel::Connect ? minimum : effectiveLevel(static_cast<std::uint8_t>(minimum));
}

std::string_view remedyForLogOn(std::string_view reason) {
    if (reason.find("NTLMv1") != std::string_view::npos) {
        return "let the client use NTLMv2, or allow NTLMv1 with extended session security in the DCOM settings";
    }
    if (reason.find("account") != std::string_view::npos) {
        return "add the account to the DCOM settings, or let the client use one that is there";
    }
    if (reason.find("password") != std::string_view::npos) {
        return "give client and DCOM settings the same password";
    }
    return "check the client's account and its NTLM settings";
}

// Client text in a log line: no line breaks or other control characters, and not without end.
std::string printable(std::string_view text) {
    constexpr std::size_t longest = 128;
    std::string result(text.substr(0, longest));
    for (char& c : result) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            c = '?';
        }
    }
    return result;
}

std::size_t padded(std::size_t size, std::size_t multiple) {
    return (size + multiple - 1) / multiple * multiple;
}

}  // namespace

std::string_view levelName(AuthLevel level) {
    switch (level) {
        case AuthLevel::Connect:
            return "connect";
        case AuthLevel::Call:
            return "call";
        case AuthLevel::Packet:
            return "packet";
        case AuthLevel::Integrity:
            return "integrity";
        case AuthLevel::Privacy:
            return "privacy";
        case AuthLevel::None:
            break;
    }
    return "none";
}

std::string Refusal::line() const {
    const std::string who = account.empty() ? "no account" : fmt::format("account '{}'", printable(account));
    return fmt::format("Refused OPC client {}: {}, level {}: {}; remedy: {}", peer.remoteAddress, who, levelName(level),
                       reason, remedy);
}

ServerConnection::ServerConnection(const ServerSettings& settings, CallHandler& handler, Peer peer)
    : settings_(settings), handler_(handler), peer_(std::move(peer)), input_(inputSize) {}

std::span<std::uint8_t> ServerConnection::receiveSpace() {
    if (inputStart_ == inputEnd_) {
        inputStart_ = inputEnd_ = 0;
    } else if (inputSize - inputEnd_ < ownMaxFragment) {
        std::memmove(input_.data(), input_.data() + inputStart_, inputEnd_ - inputStart_);
        inputEnd_ -= std::exchange(inputStart_, 0);
    }
    return std::span(input_).subspan(inputEnd_);
}

void ServerConnection::received(std::size_t count) {
    inputEnd_ += count;
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
    while (!closing_ && inputEnd_ - inputStart_ >= headerSize) {
        if (output().size() >= settings_.outputLimit) {
            waiting_ = true;
            return;
        }
        const auto waiting = std::span(input_).subspan(inputStart_, inputEnd_ - inputStart_);
        Header header;
        if (const std::string_view wrong = parseHeader(waiting, header); !wrong.empty()) {
            if (header.type == PduType::Bind) {
                appendBindNak(output_, header.callId, nakProtocolVersion);
            }
            refuse({}, AuthLevel::None, wrong, checkPeer);
            closing_ = true;
        } else if (waiting.size() < header.fragmentLength) {
            return;
        } else {
            inputStart_ += header.fragmentLength;
            dispatch(header, waiting.first(header.fragmentLength));
        }
    }
    if (closing_) {
        inputStart_ = inputEnd_ = 0;
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
            return onOrphaned(header);
        case PduType::CoCancel:
        case PduType::Shutdown:
            return;  // calls run to their end at once, so that there is never one left to cancel
        case PduType::Response:
        case PduType::Fault:
        case PduType::BindAck:
        case PduType::BindNak:
        case PduType::AlterContextResponse:
            break;
    }
    protocolError(header, "it sent a message that no client may send");
}

// ---- Binding -------------------------------------------------------------------------------------------------

void ServerConnection::onBind(const Header& header, std::span<const std::uint8_t> pdu) {
    const std::optional<Bind> bind = parseBind(pdu);
    AuthTrailer trailer;
    if (!bind || (header.authLength != 0 && !parseTrailer(pdu, header, headerSize, trailer))) {
        appendBindNak(output_, header.callId, nakNotSpecified);
        refuse({}, AuthLevel::None, "a bind message is malformed", checkPeer);
        closing_ = true;
        return;
    }
    // A second BIND begins anew on the same connection, log-on included.
    bound_ = true;
    refusalReported_ = false;
    assembly_.active = false;
    presentations_.clear();
    maxTransmit_ = std::clamp(bind->maxReceive, leastMaxFragment, ownMaxFragment);
    maxReceive_ = std::clamp(bind->maxTransmit, leastMaxFragment, ownMaxFragment);
    // Connections of one client share nothing here, so that any group that it believes to exist is as good as another.
    group_ = bind->group != 0 ? bind->group : static_cast<std::uint32_t>(peer_.id) | 0x10000U;

    std::vector<std::uint8_t> token;
    if (header.authLength != 0 && logOn(trailer, token) == LogOnStep::Rejected) {
        const bool known = trailer.type == authTypeNtlm || trailer.type == authTypeNegotiate;
        appendBindNak(output_, header.callId, known ? nakNotSpecified : nakAuthenticationType);
        closing_ = true;
        return;
    }
    answerContexts(*bind);
    const std::string port = fmt::format("{}", peer_.localPort);
    trailer.token = token;
    // NTLM covers the header in any case, so that a client may well ask for it.
    appendBindAck(output_, {PduType::BindAck, static_cast<std::uint8_t>(header.flags & flagHeaderSigning),
                            header.callId, maxTransmit_, maxReceive_, group_, port, results_, trailer});
}

void ServerConnection::onAlterContext(const Header& header, std::span<const std::uint8_t> pdu) {
    const std::optional<Bind> bind = parseBind(pdu);
    AuthTrailer trailer;
    if (!bound_ || !bind || (header.authLength != 0 && !parseTrailer(pdu, header, headerSize, trailer))) {
        return protocolError(header, bound_ ? "a change of context is malformed" : "it did not bind first");
    }
    std::vector<std::uint8_t> token;
    if (header.authLength != 0 && logOn(trailer, token) != LogOnStep::Answered) {
        appendFault(output_, header.callId, 0, faultAccessDenied, flagDidNotExecute);
        closing_ = true;
        return;
    }
    answerContexts(*bind);
    trailer.token = token;
    appendBindAck(
        output_,
        {PduType::AlterContextResponse, 0, header.callId, maxTransmit_, maxReceive_, group_, {}, results_, trailer});
}

void ServerConnection::answerContexts(const Bind& bind) {
    results_.clear();
    for (const ContextElement& element : bind.contexts) {
        results_.push_back(answerContext(element));
    }
}

ContextResult ServerConnection::answerContext(const ContextElement& element) {
    const Syntax& offered = element.interface;
    if (element.transfers.size() == 1 && isFeatureNegotiation(element.transfers.front())) {
        const std::uint8_t wanted = element.transfers.front().uuid.bytes[8];
        return {resultNegotiated, static_cast<std::uint16_t>(wanted & supportedFeatures), {}};
    }
    if (!handler_.supports(offered.uuid, offered.versionMajor, offered.versionMinor)) {
        return {resultProviderRejection, reasonInterfaceUnknown, {}};
    }
    if (std::find(element.transfers.begin(), element.transfers.end(), ndrSyntax) == element.transfers.end()) {
        return {resultProviderRejection, reasonTransferUnknown, {}};
    }
    if (!addPresentation(element.id, offered.uuid)) {
        return {resultProviderRejection, reasonLocalLimit, {}};
    }
    return {resultAccepted, reasonNotSpecified, ndrSyntax};
}

bool ServerConnection::addPresentation(std::uint16_t id, const Uuid& interfaceId) {
    const auto at = std::lower_bound(presentations_.begin(), presentations_.end(), id,
                                     [](const Presentation& entry, std::uint16_t key) { return entry.id < key; });
    if (at != presentations_.end() && at->id == id) {
        at->interfaceId = interfaceId;
        return true;
    }
    if (!loggedOn_ && presentations_.size() >= maxPresentationsBeforeLogOn) {
        return false;
    }
    presentations_.insert(at, {id, interfaceId});
    return true;
}

const Uuid* ServerConnection::findPresentation(std::uint16_t id) const {
    // Clients number their contexts from 0, so that the place mostly is the number.
    if (id < presentations_.size() && presentations_[id].id == id) {
        return &presentations_[id].interfaceId;
    }
    const auto at = std::lower_bound(presentations_.begin(), presentations_.end(), id,
                                     [](const Presentation& entry, std::uint16_t key) { return entry.id < key; });
    return at != presentations_.end() && at->id == id ? &at->interfaceId : nullptr;
}

// ---- Log-on --------------------------------------------------------------------------------------------------

void ServerConnection::onAuth3(const Header& header, std::span<const std::uint8_t> pdu) {
    AuthTrailer trailer;
    if (!bound_ || header.authLength == 0 || !parseTrailer(pdu, header, headerSize, trailer)) {
        return protocolError(header, "the end of its log-on is malformed");
    }
    std::vector<std::uint8_t> token;
    // There is no answer to this message; after a refusal the calls that follow get the fault.
    if (logOn(trailer, token) == LogOnStep::Rejected) {
        closing_ = true;
    }
}

ServerConnection::LogOnStep ServerConnection::logOn(const AuthTrailer& trailer, std::vector<std::uint8_t>& token) {
    if (trailer.type != authTypeNtlm && trailer.type != authTypeNegotiate) {
        refuse({}, effectiveLevel(trailer.level),
               fmt::format("authentication service {} is not supported", trailer.type), useNtlm);
        return LogOnStep::Rejected;
    }
    // A negotiation may leave out its wrapping where only one mechanism is possible.
    const bool wrapped = trailer.type == authTypeNegotiate && ntlm::ServerContext::messageType(trailer.token) == 0;
    return wrapped ? negotiate(trailer, token) : ntlmStep(trailer, trailer.token, token);
}

ServerConnection::LogOnStep ServerConnection::negotiate(const AuthTrailer& trailer, std::vector<std::uint8_t>& token) {
    const auto said = spnego::parse(trailer.token);
    if (!said || (said->initial && !said->offersNtlm)) {
        refuse({}, effectiveLevel(trailer.level),
               said ? "it offers log-ons, but none by NTLM" : "its log-on negotiation is malformed", useNtlm);
        return LogOnStep::Rejected;
    }
    SecurityContext* context = findSecurity(trailer.contextId);
    if (!said->initial && context == nullptr) {
        refuse({}, effectiveLevel(trailer.level), "its log-on negotiation has no beginning", useNtlm);
        return LogOnStep::Rejected;
    }
    std::vector<std::uint8_t> mechanisms =
        said->initial ? std::vector(said->mechanisms.begin(), said->mechanisms.end()) : context->mechanisms;
    if (said->initial && !said->prefersNtlm) {
        // Its token is for another mechanism: it is to come again, with NTLM.
        addSecurity(trailer, SecurityContext::State::Negotiating, {settings_.accounts, settings_.logOn}).mechanisms =
            std::move(mechanisms);
        token = spnego::response(spnego::State::WantsSignature, true, {}, {});
        return LogOnStep::Answered;
    }
    const bool finishes = context != nullptr && context->state == SecurityContext::State::Challenged;
    const LogOnStep step = ntlmStep(trailer, said->inner, token);
    context = findSecurity(trailer.contextId);
    if (step != LogOnStep::Answered || context == nullptr) {
        return step;
    }
    if (!token.empty()) {
        context->mechanisms = std::move(mechanisms);
        token = spnego::response(spnego::State::Incomplete, true, token, {});
        return step;
    }
    return finishes ? completeNegotiation(*context, said->signature, token) : step;
}

ServerConnection::LogOnStep ServerConnection::completeNegotiation(SecurityContext& context,
                                                                  std::span<const std::uint8_t> signature,
                                                                  std::vector<std::uint8_t>& token) {
    ntlm::ServerContext::Signature own{};
    if (!signature.empty() && !context.logOn.exchangeSignatures(context.mechanisms, signature, own)) {
        return refuseLogOn(context, "message altered on its way");
    }
    token = spnego::response(spnego::State::Completed, false, {},
                             signature.empty() ? std::span<const std::uint8_t>() : own);
    return LogOnStep::Answered;
}

// One step of a log-on, told apart by the kind of NTLM message alone: some clients begin a new one in a change of
// context, others repeat an empty last message there, which must not undo the log-on that they have.
ServerConnection::LogOnStep ServerConnection::ntlmStep(const AuthTrailer& trailer,
                                                       std::span<const std::uint8_t> message,
                                                       std::vector<std::uint8_t>& token) {
    switch (ntlm::ServerContext::messageType(message)) {
        case 1:
            return beginLogOn(trailer, message, token);
        case 3: {
            SecurityContext* const context = findSecurity(trailer.contextId);
            const bool awaited = context != nullptr && context->state == SecurityContext::State::Challenged;
            return awaited ? finishLogOn(*context, message) : LogOnStep::Answered;
        }
        default:
            refuse({}, effectiveLevel(trailer.level), "its log-on is not an NTLM message", useNtlm);
            return LogOnStep::Rejected;
    }
}

ServerConnection::LogOnStep ServerConnection::beginLogOn(const AuthTrailer& trailer,
                                                         std::span<const std::uint8_t> message,
                                                         std::vector<std::uint8_t>& token) {
    const AuthLevel level = effectiveLevel(trailer.level);
    ntlm::ServerContext logOn(settings_.accounts, settings_.logOn, settings_.challenge);
    auto answer = logOn.challenge(message);
    if (level == AuthLevel::None || !answer) {
        refuse({}, level, level == AuthLevel::None ? "its authentication level does not exist" : "malformed message",
               "check the client's authentication settings");
        return LogOnStep::Rejected;
    }
    token = std::move(*answer);
    addSecurity(trailer, SecurityContext::State::Challenged, std::move(logOn));
    return LogOnStep::Answered;
}

ServerConnection::SecurityContext& ServerConnection::addSecurity(const AuthTrailer& trailer,
                                                                 SecurityContext::State state,
                                                                 ntlm::ServerContext logOn) {
    std::erase_if(security_, [&trailer](const SecurityContext& old) { return old.id == trailer.contextId; });
    if (security_.size() >= maxSecurityContexts) {
        security_.erase(
            std::min_element(security_.begin(), security_.end(),
                             [](const SecurityContext& a, const SecurityContext& b) { return a.lastUse < b.lastUse; }));
    }
    return security_.emplace_back(SecurityContext{trailer.contextId,
                                                  trailer.type,
                                                  trailer.level,
                                                  effectiveLevel(trailer.level),
                                                  state,
                                                  std::move(logOn),
                                                  ++securityUses_,
                                                  {}});
}

ServerConnection::LogOnStep ServerConnection::finishLogOn(SecurityContext& context,
                                                          std::span<const std::uint8_t> message) {
    const std::string reason = context.logOn.authenticate(message);
    if (!reason.empty()) {
        return refuseLogOn(context, reason);
    }
    if ((context.level >= AuthLevel::Integrity && !context.logOn.canSign()) ||
        (context.level == AuthLevel::Privacy && !context.logOn.canSeal())) {
        return refuseLogOn(context, "the log-on gives no keys for signing and sealing at this level");
    }
    context.state = SecurityContext::State::LoggedOn;
    loggedOn_ = true;
    return LogOnStep::Answered;
}

ServerConnection::LogOnStep ServerConnection::refuseLogOn(SecurityContext& context, std::string_view reason) {
    context.state = SecurityContext::State::Refused;
    if (!isMachineAsking(context.logOn.account())) {
        refuse(context.logOn.account(), context.level, reason, remedyForLogOn(reason));
    }
    return LogOnStep::Refused;
}

// A client's machine pings with its own account (its name ends in $) or as nobody, and when that fails without any
// log-on. There is nothing to mend about that. Any other account is one that somebody tries.
bool ServerConnection::isMachineAsking(std::string_view account) const {
    const bool asksOnly = !presentations_.empty() &&
                          std::all_of(presentations_.begin(), presentations_.end(), [this](const Presentation& entry) {
                              return handler_.isOpenToAll(entry.interfaceId);
                          });
    return asksOnly && (account.empty() || account.back() == '\\' || account.back() == '$');
}

ServerConnection::SecurityContext* ServerConnection::findSecurity(std::uint32_t id) {
    // The last one made is the one in use.
    for (auto context = security_.rbegin(); context != security_.rend(); ++context) {
        if (context->id == id) {
            context->lastUse = ++securityUses_;
            return &*context;
        }
    }
    return nullptr;
}

// At connect level some clients send their calls without any verifier; these belong to the latest such log-on.
ServerConnection::SecurityContext* ServerConnection::unsignedSecurity() {
    for (auto context = security_.rbegin(); context != security_.rend(); ++context) {
        if (context->level == AuthLevel::Connect) {
            return &*context;
        }
    }
    return nullptr;
}

// ---- Calls ---------------------------------------------------------------------------------------------------

void ServerConnection::onRequest(const Header& header, std::span<std::uint8_t> pdu) {
    Request request;
    if (!bound_ || !parseRequest(pdu, header, request)) {
        return protocolError(header, bound_ ? "a call is malformed" : "it did not bind first");
    }
    SecurityContext* context = nullptr;
    std::size_t stubEnd = pdu.size();
    if (header.authLength == 0) {
        context = unsignedSecurity();
    } else {
        AuthTrailer trailer;
        if (!parseTrailer(pdu, header, request.stubOffset, trailer)) {
            return protocolError(header, "a call is malformed");
        }
        stubEnd = trailer.offset - trailer.padLength;
        context = findSecurity(trailer.contextId);
        if (context != nullptr && (trailer.level != context->wireLevel || trailer.type != context->authType)) {
            return protocolError(header, "a call has another authentication level than its log-on");
        }
        if (context != nullptr && context->protects() && !unprotect(*context, pdu, request.stubOffset, trailer)) {
            refuse(context->logOn.account(), context->level, "a message's signature is wrong",
                   "look for a program or device that changes or repeats messages between client and server");
            appendFault(output_, header.callId, request.contextId, faultAccessDenied, flagDidNotExecute);
            closing_ = true;
            return;
        }
    }
    const auto stub = pdu.subspan(request.stubOffset, stubEnd - request.stubOffset);
    constexpr std::uint8_t whole = flagFirst | flagLast;
    if ((header.flags & whole) != whole || assembly_.active) {
        return assemble(header, request, stub, context);
    }
    if (const std::uint32_t status = faultBeforeCall(context, request); status != 0) {
        return appendFault(output_, header.callId, request.contextId, status, flagDidNotExecute);
    }
    perform(header.callId, request, stub, context);
}

bool ServerConnection::unprotect(SecurityContext& context, std::span<std::uint8_t> pdu, std::size_t stubOffset,
                                 const AuthTrailer& trailer) {
    const auto message = pdu.first(trailer.offset + trailerSize);
    if (trailer.token.size() != signatureSize) {
        return false;
    }
    if (context.level == AuthLevel::Privacy) {
        return context.logOn.unseal(message, pdu.subspan(stubOffset, trailer.offset - stubOffset), trailer.token);
    }
    return context.logOn.verify(message, trailer.token);
}

// 0, or the fault that answers the call instead of carrying it out.
std::uint32_t ServerConnection::faultBeforeCall(const SecurityContext* context, const Request& request) {
    const Uuid* const interfaceId = findPresentation(request.contextId);
    if (interfaceId == nullptr) {
        return faultUnknownInterface;
    }
    if (!admits(context, *interfaceId)) {
        if (!handler_.isOpenToAll(*interfaceId)) {
            reportInadmissible(context);
        }
        return faultAccessDenied;
    }
    return 0;
}

bool ServerConnection::admits(const SecurityContext* context, const Uuid& interfaceId) {
    const AuthLevel minimum = effectiveMinimum(settings_.minimumLevel);
    if (context == nullptr) {
        return minimum <= AuthLevel::None || handler_.isOpenToAll(interfaceId);
    }
    if (context->state != SecurityContext::State::LoggedOn) {
        return false;
    }
    return context->level >= minimum || handler_.isOpenToAll(interfaceId);
}

void ServerConnection::reportInadmissible(const SecurityContext* context) {
    if (context == nullptr && !security_.empty()) {
        refuse(security_.back().logOn.account(), security_.back().level,
               "a call lacks the protection that its log-on promised", checkLevel);
    } else if (context == nullptr) {
        refuse({}, AuthLevel::None, "the client did not log on",
               "let the client log on with an account of the DCOM settings");
    } else if (context->state != SecurityContext::State::LoggedOn) {
        refuse(context->logOn.account(), context->level, "the client called before its log-on was complete",
               "check the client's account and its NTLM settings");
    } else {
        refuse(context->logOn.account(), context->level,
               fmt::format("the level is below {}", levelName(settings_.minimumLevel)), checkLevel);
    }
}

void ServerConnection::assemble(const Header& header, const Request& request, std::span<const std::uint8_t> stub,
                                SecurityContext* context) {
    const bool first = (header.flags & flagFirst) != 0;
    const auto securityId = context != nullptr ? std::optional(context->id) : std::nullopt;
    if (first == assembly_.active) {
        return protocolError(header, "the fragments of a call are out of order");
    }
    if (first) {
        assembly_.active = true;
        assembly_.callId = header.callId;
        assembly_.request = request;
        assembly_.securityId = securityId;
        assembly_.stub.clear();
        const std::uint32_t status = faultBeforeCall(context, request);
        assembly_.dropped = status != 0;
        if (assembly_.dropped) {
            appendFault(output_, header.callId, request.contextId, status, flagDidNotExecute);
        }
    } else if (header.callId != assembly_.callId || request.opnum != assembly_.request.opnum ||
               request.contextId != assembly_.request.contextId || request.object != assembly_.request.object ||
               securityId != assembly_.securityId) {
        return protocolError(header, "the fragments of different calls are mixed");
    } else if (!assembly_.dropped && faultBeforeCall(context, request) != 0) {
        // The log-on that the call began under was taken back meanwhile, by whoever sits between.
        return protocolError(header, "a log-on changed in the middle of a call");
    }
    const std::size_t limit =
        loggedOn_ ? settings_.maxCallSize : std::min(settings_.maxCallSize, maxCallSizeBeforeLogOn);
    if (!assembly_.dropped) {
        if (stub.size() > limit - std::min(limit, assembly_.stub.size())) {
            return protocolError(header, "a call is larger than this server takes");
        }
        assembly_.stub.insert(assembly_.stub.end(), stub.begin(), stub.end());
    }
    if ((header.flags & flagLast) == 0) {
        return;
    }
    assembly_.active = false;
    if (!assembly_.dropped) {
        perform(assembly_.callId, assembly_.request, assembly_.stub, context);
    }
    if (assembly_.stub.capacity() > keptOutput) {
        assembly_.stub = {};
    }
}

void ServerConnection::onOrphaned(const Header& header) {
    if (assembly_.active && assembly_.callId == header.callId) {
        assembly_.active = false;
    }
}

// The handler writes its reply right where it is sent from, behind the header of the first fragment.
void ServerConnection::perform(std::uint32_t callId, const Request& request, std::span<const std::uint8_t> stub,
                               SecurityContext* context) {
    served_ = true;
    const std::size_t start = output_.size();
    output_.resize(start + callHeaderSize);
    ndr::Writer reply(output_);
    const std::uint32_t status =
        handler_.call({peer_, *findPresentation(request.contextId), request.opnum, request.hasObject, request.object,
                       stub, context != nullptr ? context->level : AuthLevel::None,
                       context != nullptr ? context->logOn.account() : noAccount},
                      reply);
    if (status != 0) {
        output_.resize(start);
        appendFault(output_, callId, request.contextId, status, 0);
    } else {
        finishResponse(start, callId, request.contextId, context);
    }
}

// Makes a RESPONSE of the stub data that stands behind the room for one header at start: in place when it fits one
// fragment, else by moving each piece once to where its fragment will stand, the last one first.
void ServerConnection::finishResponse(std::size_t start, std::uint32_t callId, std::uint16_t contextId,
                                      SecurityContext* context) {
    SecurityContext* const guard = context != nullptr && context->protects() ? context : nullptr;
    const std::size_t behind = guard != nullptr ? trailerSize + signatureSize : 0;
    const std::size_t unit = guard != nullptr ? responsePadding : 8;
    const std::size_t piece = (maxTransmit_ - callHeaderSize - behind) / unit * unit;
    const std::size_t stubSize = output_.size() - start - callHeaderSize;
    const std::size_t count = std::max<std::size_t>(1, (stubSize + piece - 1) / piece);
    const std::size_t stride = callHeaderSize + piece + behind;
    const std::size_t lastPiece = stubSize - (count - 1) * piece;
    const std::size_t lastPadding = guard != nullptr ? padded(lastPiece, unit) - lastPiece : 0;

    output_.resize(start + (count - 1) * stride + callHeaderSize + lastPiece + lastPadding + behind);
    std::uint8_t* const base = output_.data() + start;
    for (std::size_t i = count - 1; i > 0; --i) {
        const std::size_t size = i == count - 1 ? lastPiece : piece;
        std::memmove(base + i * stride + callHeaderSize, base + callHeaderSize + i * piece, size);
    }
    for (std::size_t i = 0; i < count; ++i) {
        const bool last = i == count - 1;
        const std::size_t padding = last ? lastPadding : 0;
        const std::size_t size = callHeaderSize + (last ? lastPiece : piece) + padding + behind;
        const auto flags = static_cast<std::uint8_t>((i == 0 ? flagFirst : 0) | (last ? flagLast : 0));
        putResponseHeader(base + i * stride, flags, size, guard != nullptr ? signatureSize : 0, callId,
                          stubSize - i * piece, contextId);
        if (guard != nullptr) {
            protect(*guard, {base + i * stride, size}, padding);
        }
    }
}

void ServerConnection::protect(SecurityContext& context, std::span<std::uint8_t> fragment, std::size_t padLength) {
    const auto message = fragment.first(fragment.size() - signatureSize);
    std::uint8_t* const trailer = message.data() + message.size() - trailerSize;
    const auto stubAndPad = message.subspan(callHeaderSize, message.size() - callHeaderSize - trailerSize);
    // Zeros, not what the buffer held before: padding must never show a client the bytes of another reply.
    std::memset(trailer - padLength, 0, padLength);
    putTrailer(trailer, context.authType, context.wireLevel, padLength, context.id);
    ntlm::ServerContext::Signature signature{};
    if (context.level == AuthLevel::Privacy) {
        context.logOn.seal(message, stubAndPad, signature);
    } else {
        context.logOn.sign(message, signature);
    }
    std::memcpy(message.data() + message.size(), signature.data(), signature.size());
}

// ---- Refusals ------------------------------------------------------------------------------------------------

void ServerConnection::protocolError(const Header& header, std::string_view reason) {
    refuse({}, AuthLevel::None, reason, checkPeer);
    appendFault(output_, header.callId, 0, faultProtocol, flagDidNotExecute);
    closing_ = true;
}

void ServerConnection::refuse(std::string_view account, AuthLevel level, std::string_view reason,
                              std::string_view remedy) {
    if (!refusalReported_ && settings_.onRefused) {
        refusalReported_ = true;
        settings_.onRefused({peer_, account, level, reason, remedy});
    }
}

}  // namespace quelm::dcom::rpc
