#include "dcom/rpc/PresentationContexts.h"

#include <algorithm>

namespace quelm::dcom::rpc {

using namespace literals;

namespace {

// Not a transfer syntax: a client that offers it asks for the optional features in its last eight bytes.
constexpr Uuid featureNegotiation = "6CB71C2C-9812-4540-0000-000000000000"_uuid;
constexpr std::uint8_t supportedFeatures =
    0x03;  // several log-ons per connection; connection outlives an orphaned call

bool isFeatureNegotiation(const Syntax& syntax) {
    return std::equal(syntax.uuid.bytes.begin(), syntax.uuid.bytes.begin() + 8, featureNegotiation.bytes.begin());
}

}  // namespace

std::span<const ContextResult> PresentationContexts::answer(const Bind& bind, CallHandler& handler, bool loggedOn) {
    results_.clear();
    for (const ContextElement& element : bind.contexts) {
        results_.push_back(answerOne(element, handler, loggedOn));
    }
    return results_;
}

ContextResult PresentationContexts::answerOne(const ContextElement& element, CallHandler& handler, bool loggedOn) {
    const Syntax& offered = element.interface;
    if (element.transfers.size() == 1 && isFeatureNegotiation(element.transfers.front())) {
        const std::uint8_t wanted = element.transfers.front().uuid.bytes[8];
        return {resultNegotiated, static_cast<std::uint16_t>(wanted & supportedFeatures), {}};
    }
    if (!handler.supports(offered.uuid, offered.versionMajor, offered.versionMinor)) {
        return {resultProviderRejection, reasonInterfaceUnknown, {}};
    }
    if (std::find(element.transfers.begin(), element.transfers.end(), ndrSyntax) == element.transfers.end()) {
        return {resultProviderRejection, reasonTransferUnknown, {}};
    }
    if (!add(element.id, offered.uuid, loggedOn)) {
        return {resultProviderRejection, reasonLocalLimit, {}};
    }
    return {resultAccepted, reasonNotSpecified, ndrSyntax};
}

bool PresentationContexts::add(std::uint16_t id, const Uuid& interfaceId, bool loggedOn) {
    const auto at = std::ranges::lower_bound(entries_, id, {}, &Entry::id);
    if (at != entries_.end() && at->id == id) {
        at->interfaceId = interfaceId;
        return true;
    }
    if (!loggedOn && entries_.size() >= maxBeforeLogOn) {
        return false;
    }
    entries_.insert(at, {id, interfaceId});
    return true;
}

bool PresentationContexts::onlyOpenToAll(CallHandler& handler) const {
    return !entries_.empty() && std::ranges::all_of(entries_, [&handler](const Entry& entry) {
        return handler.isOpenToAll(entry.interfaceId);
    });
}

const Uuid* PresentationContexts::find(std::uint16_t id) const {
    // Clients number their contexts from 0, so that the place mostly is the number.
    if (id < entries_.size() && entries_[id].id == id) {
        return &entries_[id].interfaceId;
    }
    const auto at = std::ranges::lower_bound(entries_, id, {}, &Entry::id);
    return at != entries_.end() && at->id == id ? &at->interfaceId : nullptr;
}

}  // namespace quelm::dcom::rpc
