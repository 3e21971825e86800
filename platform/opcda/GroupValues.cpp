// A group's sinks, and the values that they get: what changed, by subscription, and all that is active, by a refresh.

#include <algorithm>

#include "base/TimeSource.h"
#include "opcda/Application.h"
#include "opcda/Group.h"

namespace quelm::opcda {

namespace {

// In looks at an item: what a callback costs, and each item in it.
constexpr std::size_t workOfCallback = 500;
constexpr std::size_t workOfSending = 5;

std::size_t workOf(std::size_t slots, std::size_t sent) {
    return slots + (sent > 0 ? workOfCallback + workOfSending * sent : 0);
}

}  // namespace

HResult Group::advise(std::unique_ptr<IDataSink> sink, std::uint32_t& cookie) {
    cookie = 0;
    if (isRemoved()) {
        return E_FAIL;
    }
    if (!holds_.memory.resize(memoryFor(slots_.capacity(), subscriptions_.size() + 1))) {
        return E_OUTOFMEMORY;
    }
    const HResult result = subscriptions_.advise(
        std::make_unique<Subscription>(application_->publisher(), *this, std::move(sink)), cookie);
    holds_.memory.set(memoryFor(slots_.capacity(), subscriptions_.size()));
    wakeSinks();
    return result;
}

HResult Group::unadvise(std::uint32_t cookie) {
    if (isRemoved()) {
        return E_FAIL;
    }
    const HResult result = subscriptions_.unadvise(cookie);
    holds_.memory.set(memoryFor(slots_.capacity(), subscriptions_.size()));
    if (subscriptions_.empty()) {
        transactions_.clear();
    }
    wakeSinks();  // what waited for this one waits no more
    return result;
}

void Group::sinkAnswered() {
    wakeSinks();
}

bool Group::isRefreshWaiting() const {
    return std::any_of(transactions_.begin(), transactions_.end(),
                       [](const auto& each) { return each.second.stage == Stage::waiting; });
}

bool Group::isAnySinkBusy() const {
    bool isAny = false;
    subscriptions_.forEach([&isAny](const Subscription& each) { isAny |= each.isBusy(); });
    return isAny;
}

void Group::wakeSinks() {
    subscriptions_.forEach([this](Subscription& each) { application_->publisher().wake(each); });
}

void Group::restartKeepAlive() {
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    subscriptions_.forEach([now](Subscription& each) { each.lastCalled_ = now; });
}

// It says nothing of data: the client's time of the last update stays.
std::size_t Group::sendKeepAlive(Subscription& to, std::uint64_t now) {
    CallbackColumns& callback = application_->callback();
    callback.begin(0, state_.clientHandle, 0);
    to.lastCalled_ = now;
    to.sink().onDataChange(callback.items());
    return workOfCallback;
}

void Group::noteChange() {
    subscriptions_.forEach([](Subscription& each) { each.isChanged_ = true; });
    wakeSinks();
}

void Group::forgetSent() {
    subscriptions_.forEach([](Subscription& each) {
        each.sent_.clear();
        each.isChanged_ = true;
    });
}

void Group::forgetSent(std::size_t slot) {
    subscriptions_.forEach([slot](Subscription& each) {
        if (slot < each.sent_.size()) {
            each.sent_[slot] = {};
        }
        each.isChanged_ = true;
    });
}

std::size_t Group::sendChanges(Subscription& to, std::uint64_t now) {
    CallbackColumns& callback = application_->callback();
    callback.begin(0, state_.clientHandle, holds_.memory.room());
    to.coverSlots(slots_.size(), slots_.capacity());
    const std::size_t start = std::min(to.next_, slots_.size());
    const bool isWhole = gatherChanges(to, start, slots_.size()) && gatherChanges(to, 0, start);
    const std::size_t changed = callback.size();
    to.seenBlock_ = application_->publisher().block();
    to.isChanged_ = !isWhole;
    to.isCut_ = !isWhole && changed > 0;
    to.next_ = isWhole ? 0 : to.next_;
    if (changed > 0 || !isWhole) {
        to.lastSent_ = now;  // without room for a single item, there is perhaps some after a period
    }
    if (changed > 0) {
        to.lastCalled_ = now;
        noteDataSent();
        to.sink().onDataChange(callback.items());
    }
    return workOf(slots_.size(), changed);
}

// False: it was cut at to.next_.
bool Group::gatherChanges(Subscription& to, std::size_t begin, std::size_t end) {
    CallbackColumns& callback = application_->callback();
    OpcValue value;
    for (std::size_t number = begin; number < end; ++number) {
        const Slot& slot = slots_[number];
        if (slot.tag == nullptr || !slot.active) {
            continue;
        }
        std::uint16_t quality = 0;
        const HResult error = fromCache(slot, quality, value);
        const SentItem item{fingerprint(value), error, quality, value.type};
        SentItem& sent = to.sent_[number];
        if (item == sent) {
            continue;
        }
        if (!callback.hasRoomFor(value)) {
            to.next_ = number;
            return false;
        }
        sent = item;
        callback.add(slot.clientHandle, slot.tag->fileTime(), quality, error, value);
    }
    return true;
}

// The refresh that waits longest goes to all sinks. They have then been sent what is in it.
std::size_t Group::sendRefresh() {
    const auto waiting = std::find_if(transactions_.begin(), transactions_.end(),
                                      [](const auto& each) { return each.second.stage == Stage::waiting; });
    CallbackColumns& callback = endInCallback(waiting->first);
    OpcValue value;
    for (std::size_t number = 0; number < slots_.size(); ++number) {
        const Slot& slot = slots_[number];
        if (slot.tag != nullptr && slot.active) {
            std::uint16_t quality = 0;
            const HResult error = fromCache(slot, quality, value);
            addRefreshed(callback, number, slot.tag->fileTime(), quality, error, value);
        }
    }
    sendRefreshed(callback);
    return workOf(slots_.size(), callback.size());
}

// Items that went or were set inactive meanwhile are left out.
void Group::completeRefresh(std::uint32_t cancelId, const DeviceReading& reading) {
    CallbackColumns& callback = endInCallback(cancelId);
    OpcValue value;
    for (const DeviceReading::Asked& item : reading.asked_) {
        const Slot* slot = find(item.handle);
        if (slot != nullptr && slot->active) {
            std::uint16_t quality = quality::bad;
            std::int64_t fileTime = 0;
            const HResult error = reading.take(item, slot->type, quality, fileTime, value);
            addRefreshed(callback, static_cast<std::size_t>(slot - slots_.data()), fileTime, quality, error, value);
        }
    }
    sendRefreshed(callback);
}

void Group::addRefreshed(CallbackColumns& callback, std::size_t number, std::int64_t fileTime, std::uint16_t quality,
                         HResult error, OpcValue& value) {
    const SentItem item{fingerprint(value), error, quality, value.type};
    const bool isWhole = callback.addOrRefuse(slots_[number].clientHandle, fileTime, quality, error, value);
    subscriptions_.forEach([&](Subscription& each) {
        each.coverSlots(slots_.size(), slots_.capacity());
        each.sent_[number] = isWhole ? item : SentItem{};
    });
}

void Group::sendRefreshed(CallbackColumns& callback) {
    noteDataSent();
    restartKeepAlive();
    subscriptions_.forEach([&callback](Subscription& each) { each.sink().onDataChange(callback.items()); });
    if (callback.items().masterError != S_OK) {
        noteChange();  // where it was the plant that failed, the cache has a value
    }
}

}  // namespace quelm::opcda
