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

// Milliseconds: a client that is well answers a thousand times sooner.
constexpr std::uint64_t longestAnswer = 10'000;

}  // namespace

HResult Group::advise(std::unique_ptr<IDataSink> sink, std::uint32_t& cookie) {
    return adviseTo(subscriptions_, std::make_unique<Subscription>(application_->publisher(), *this, std::move(sink)),
                    cookie);
}

HResult Group::adviseStream(std::unique_ptr<IDataSink> sink, Stream stream, std::uint32_t& connection) {
    connection = 0;
    bool isAdvised = false;
    streams_.forEach([&](const Subscription& each) { isAdvised |= each.stream() == stream; });
    if (isAdvised) {
        return CONNECT_E_ADVISELIMIT;
    }
    return adviseTo(streams_, std::make_unique<Subscription>(application_->publisher(), *this, std::move(sink), stream),
                    connection);
}

HResult Group::adviseTo(Connections<Subscription>& list, std::unique_ptr<Subscription> sink, std::uint32_t& cookie) {
    cookie = 0;
    if (isRemoved()) {
        return E_FAIL;
    }
    if (!holds_.memory.resize(memoryFor(slots_.capacity(), sinks() + 1))) {
        return E_OUTOFMEMORY;
    }
    const HResult result = list.advise(std::move(sink), cookie);
    holds_.memory.set(memoryFor(slots_.capacity(), sinks()));
    wakeSinks();
    return result;
}

HResult Group::unadvise(std::uint32_t cookie) {
    return unadviseFrom(subscriptions_, cookie);
}

HResult Group::unadviseStream(std::uint32_t connection) {
    return unadviseFrom(streams_, connection);
}

HResult Group::unadviseFrom(Connections<Subscription>& list, std::uint32_t cookie) {
    if (isRemoved()) {
        return E_FAIL;
    }
    const HResult result = list.unadvise(cookie);
    holds_.memory.set(memoryFor(slots_.capacity(), sinks()));
    std::erase_if(transactions_, [this](const auto& each) {
        const Recipient& to = each.second.to;
        return to.isStream ? streams_.find(to.connection) == nullptr : subscriptions_.empty();
    });
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
    forEachSink([this](Subscription& each) { application_->publisher().wake(each); });
}

// Of whoever is called now.
void Group::restartKeepAlive(const Recipient& to) {
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    forEachSinkOf(to, [now](Subscription& each) { each.lastCalled_ = now; });
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
    forEachSink([](Subscription& each) { each.isChanged_ = true; });
    wakeSinks();
}

void Group::forgetSent() {
    forEachSink([](Subscription& each) {
        each.sent_.clear();
        each.isChanged_ = true;
    });
}

void Group::forgetSent(std::size_t slot) {
    forEachSink([slot](Subscription& each) {
        if (slot < each.sent_.size()) {
            each.sent_[slot] = {};
        }
        each.isChanged_ = true;
    });
}

std::size_t Group::sendChanges(Subscription& to, std::uint64_t now) {
    CallbackColumns& callback = application_->callback();
    callback.begin(0, state_.clientHandle, holds_.memory.room(),
                   to.stream() ? ValueForm::inMemory : ValueForm::marshalled);
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
    const Recipient to = end(waiting->first);
    CallbackColumns& callback = beginCallback(to);
    OpcValue value;
    for (std::size_t number = 0; number < slots_.size(); ++number) {
        const Slot& slot = slots_[number];
        if (slot.tag != nullptr && slot.active) {
            std::uint16_t quality = 0;
            const HResult error = fromCache(slot, quality, value);
            addRefreshed(to, callback, number, slot.tag->fileTime(), quality, error, value);
        }
    }
    sendRefreshed(to, callback);
    return workOf(slots_.size(), callback.size());
}

// Items that went or were set inactive meanwhile are left out.
void Group::completeRefresh(std::uint32_t cancelId, const DeviceReading& reading) {
    const Recipient to = end(cancelId);
    CallbackColumns& callback = beginCallback(to);
    OpcValue value;
    for (const DeviceReading::Asked& item : reading.asked_) {
        const Slot* slot = find(item.handle);
        if (slot != nullptr && slot->active) {
            std::uint16_t quality = quality::bad;
            std::int64_t fileTime = 0;
            const HResult error = reading.take(item, slot->type, quality, fileTime, value);
            const auto number = static_cast<std::size_t>(slot - slots_.data());
            addRefreshed(to, callback, number, fileTime, quality, error, value);
        }
    }
    sendRefreshed(to, callback);
}

void Group::addRefreshed(const Recipient& to, CallbackColumns& callback, std::size_t number, std::int64_t fileTime,
                         std::uint16_t quality, HResult error, OpcValue& value) {
    const SentItem item{fingerprint(value), error, quality, value.type};
    const bool isWhole = callback.addOrRefuse(slots_[number].clientHandle, fileTime, quality, error, value);
    forEachSinkOf(to, [&](Subscription& each) {
        each.coverSlots(slots_.size(), slots_.capacity());
        each.sent_[number] = isWhole ? item : SentItem{};
    });
}

void Group::sendRefreshed(const Recipient& to, CallbackColumns& callback) {
    noteDataSent();
    restartKeepAlive(to);
    forEachSinkOf(to, [&callback](Subscription& each) { each.sink().onDataChange(callback.items()); });
    if (callback.items().masterError != S_OK) {
        noteChange();  // where it was the plant that failed, the cache has a value
    }
}

Group::CallbackState Group::callbackState() const {
    CallbackState state = sinks() == 0 ? CallbackState::none : CallbackState::advised;
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    forEachSink([&](const Subscription& each) {
        if (each.isBusy()) {
            state = std::max(state,
                             now - each.lastCalled() > longestAnswer ? CallbackState::failing : CallbackState::waiting);
        }
    });
    return state;
}

std::size_t Group::activeItemCount() const {
    return static_cast<std::size_t>(std::count_if(slots_.begin(), slots_.end(),
                                                  [](const Slot& slot) { return slot.tag != nullptr && slot.active; }));
}

}  // namespace quelm::opcda
