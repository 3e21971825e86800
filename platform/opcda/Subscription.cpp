#include "opcda/Subscription.h"

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>

#include "base/TimeSource.h"
#include "opcda/Group.h"

namespace quelm::opcda {

namespace {

// Clients count from the last callback's arrival and take a late one as a failure, so that it leaves by so much
// earlier.
constexpr std::uint64_t leadOf(std::uint64_t keepAlive) {
    constexpr std::uint64_t part = 20;
    constexpr std::uint64_t most = 500;  // milliseconds
    return std::min(keepAlive / part, most);
}

}  // namespace

Subscription::Subscription(Publisher& publisher, Group& group, std::unique_ptr<IDataSink> sink,
                           std::optional<Stream> stream)
    : Member(publisher),
      group_(&group),
      sink_(std::move(sink)),
      stream_(stream),
      lastCalled_(timeSource().monotonicMilliseconds()) {}

bool Subscription::awaitsRefresh() const {
    return !stream_ && group_->isRefreshWaiting();
}

std::optional<std::uint64_t> Subscription::changesDue() const {
    if (awaitsRefresh() || (!isChanged_ && seenBlock_ == publisher().block())) {
        return std::nullopt;
    }
    return isCut_ || !lastSent_ ? 0 : *lastSent_ + group_->state().updateRate;
}

// A refresh goes to all sinks of the group at once, before any change that waits.
std::optional<std::uint64_t> Subscription::due() const {
    if (awaitsRefresh() && !group_->isAnySinkBusy()) {
        return 0;
    }
    if (!group_->sendsChanges(*this) || isBusy()) {
        return std::nullopt;
    }
    const std::uint64_t keepAlive = stream_ ? 0 : group_->state().keepAlive;  // no stream is empty
    const std::optional<std::uint64_t> changes = changesDue();
    if (keepAlive == 0 || (changes && *changes <= lastCalled_ + keepAlive)) {
        return changes;  // which are a sign of life too, unless it then shows that nothing differs
    }
    return lastCalled_ + keepAlive - leadOf(keepAlive);
}

std::size_t Subscription::deliver(std::uint64_t now) {
    if (awaitsRefresh() && !group_->isAnySinkBusy()) {
        return group_->sendRefresh();
    }
    if (const auto changes = changesDue(); changes && *changes <= now) {
        return group_->sendChanges(*this, now);
    }
    return group_->sendKeepAlive(*this, now);
}

std::uint64_t hashOfLarge(const OpcValue& value) {
    const std::hash<std::string_view> hashOf;
    if (value.type == VT_BSTR) {
        return hashOf(value.text);
    }
    if (value.type == VT_DECIMAL) {
        const Decimal& decimal = value.decimal;
        const std::uint64_t parts[] = {decimal.low, decimal.high, decimal.scale, decimal.negative ? 1U : 0U};
        return hashOf({reinterpret_cast<const char*>(parts), sizeof parts});
    }
    std::uint64_t hash = value.texts.size();
    for (const std::string& text : value.texts) {
        constexpr std::uint64_t oddNumber = 0x9E3779B97F4A7C15;
        hash = (hash ^ hashOf(text)) * oddNumber;
    }
    return hash;
}

}  // namespace quelm::opcda
