#include "dcom/rpc/GuessGuard.h"

#include <algorithm>

#include "base/Text.h"
#include "base/TimeSource.h"

namespace quelm::dcom::rpc {

GuessGuard::Key GuessGuard::keyOf(std::string_view host, std::string_view account) {
    const std::string_view user = account.substr(account.rfind('\\') + 1);
    return {std::string(host), foldCase(user.substr(0, user.find('@')))};
}

std::chrono::milliseconds GuessGuard::delay(std::string_view host, std::string_view account) const {
    const auto found = entries_.find(keyOf(host, account));
    if (found == entries_.end() || found->second.failures <= freeFailures) {
        return {};
    }
    const auto doublings = std::min(found->second.failures - freeFailures - 1, 10U);
    const auto whole = std::min(firstDelay * (1U << doublings), longestDelay);
    const std::chrono::milliseconds passed(timeSource().monotonicMilliseconds() - found->second.last);
    return std::max(whole - passed, std::chrono::milliseconds{});
}

void GuessGuard::failed(std::string_view host, std::string_view account) {
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    const auto isOver = [now](const Entry& entry) { return std::chrono::milliseconds(now - entry.last) >= memory; };
    if (entries_.size() >= most && std::erase_if(entries_, [&](const auto& old) { return isOver(old.second); }) == 0) {
        entries_.erase(std::ranges::min_element(entries_, {}, [](const auto& old) { return old.second.last; }));
    }
    Entry& entry = entries_[keyOf(host, account)];
    entry.failures = isOver(entry) ? 1 : entry.failures + 1;
    entry.last = now;
}

void GuessGuard::succeeded(std::string_view host, std::string_view account) {
    if (!entries_.empty()) {
        entries_.erase(keyOf(host, account));
    }
}

}  // namespace quelm::dcom::rpc
