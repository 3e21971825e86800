#include "opcda/Subscription.h"

#include <functional>
#include <string>
#include <string_view>

#include "opcda/Group.h"

namespace quelm::opcda {

Subscription::Subscription(Publisher& publisher, Group& group, std::unique_ptr<IDataSink> sink)
    : Member(publisher), group_(&group), sink_(std::move(sink)) {}

// A refresh goes to all sinks of the group at once, before anything else that waits.
std::optional<std::uint64_t> Subscription::due() const {
    if (group_->isRefreshWaiting()) {
        return group_->isAnySinkBusy() ? std::nullopt : std::optional<std::uint64_t>(0);
    }
    const bool isNew = isChanged_ || seenBlock_ != publisher().block();
    if (!isNew || !group_->sendsChanges() || isBusy()) {
        return std::nullopt;
    }
    return isCut_ || !lastSent_ ? 0 : *lastSent_ + group_->state().updateRate;
}

std::size_t Subscription::deliver(std::uint64_t now) {
    return group_->isRefreshWaiting() ? group_->sendRefresh() : group_->sendChanges(*this, now);
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
