// What a group sends without being asked, and the answers to its client's asynchronous calls.

#include <algorithm>
#include <utility>

#include "opcda/Application.h"
#include "opcda/Group.h"

namespace quelm::opcda {

namespace {

enum Source : std::uint16_t { cache = 1, device = 2 };

// In looks at an item: what its way to the client costs on top.
constexpr std::size_t workOfSending = 3;

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

// --- Transactions

HResult Group::refusal(bool asksForNothing) const {
    if (isRemoved()) {
        return E_FAIL;
    }
    if (asksForNothing) {
        return E_INVALIDARG;
    }
    return subscriptions_.empty() ? CONNECT_E_NOCONNECTION : S_OK;
}

// What a sink has not answered counts too: only so is what waits on the way to a client that never answers bounded.
HResult Group::begin(std::uint32_t transaction, Stage stage, std::size_t memory, std::uint32_t& cancelId) {
    std::size_t unanswered = 0;
    subscriptions_.forEach(
        [&unanswered](Subscription& each) { unanswered = std::max(unanswered, each.sink().unanswered()); });
    if (transactions_.size() + unanswered >= mostTransactions) {
        return CONNECT_E_ADVISELIMIT;
    }
    Hold hold = holds_.memory.another();
    if (!hold.resize(transactionCost + memory)) {
        return E_OUTOFMEMORY;
    }
    cancelId = application_->nextCancelId();
    transactions_.emplace(cancelId, Transaction{transaction, stage, std::move(hold)});
    return S_OK;
}

// The client may get its callback before the answer to its call unless the one is posted behind the other.
template <class Action>
void Group::postFor(std::uint32_t cancelId, Action action) {
    application_->loop().post([weak = weak_from_this(), cancelId, action = std::move(action)] {
        const auto group = weak.lock();
        if (group != nullptr && group->transactions_.contains(cancelId)) {
            action(*group);
        }
    });
}

bool Group::isUnderWay(std::uint32_t cancelId) const {
    const auto found = transactions_.find(cancelId);
    return found != transactions_.end() && found->second.stage != Stage::cancelled;
}

void Group::beginReading(std::uint32_t cancelId, std::shared_ptr<DeviceReading> reading,
                         void (Group::*complete)(std::uint32_t, const DeviceReading&)) {
    reading->group_ = shared_from_this();
    postFor(cancelId, [cancelId, reading = std::move(reading), complete](Group& group) {
        group.ask(reading, [cancelId, complete](const DeviceReading& answered) {
            if (answered.group_->isUnderWay(cancelId)) {
                ((*answered.group_).*complete)(cancelId, answered);
            }
        });
    });
}

HResult Group::asyncRead(std::span<const std::uint32_t> handles, std::uint32_t transaction, std::uint32_t& cancelId,
                         std::vector<HResult>& errors) {
    cancelId = 0;
    errors.clear();
    if (const HResult refused = refusal(handles.empty()); refused != S_OK) {
        return refused;
    }
    auto reading = std::make_shared<DeviceReading>();
    for (const std::uint32_t handle : handles) {
        const DeviceReading::Asked item = toAsk(handle);
        errors.push_back(item.error);
        if (item.error == S_OK) {
            reading->asked_.push_back(item);
        }
    }
    const std::size_t valid = reading->asked_.size();
    if (valid == 0) {
        return S_FALSE;
    }
    const std::size_t memory = valid * (questionCost + CallbackColumns::itemSize);
    if (const HResult refused = begin(transaction, Stage::atPlant, memory, cancelId); refused != S_OK) {
        errors.clear();
        return refused;
    }
    beginReading(cancelId, std::move(reading), &Group::completeRead);
    return valid == handles.size() ? S_OK : S_FALSE;
}

HResult Group::asyncWrite(std::span<const std::uint32_t> handles, std::uint32_t transaction, std::uint32_t& cancelId,
                          std::vector<HResult>& errors) {
    cancelId = 0;
    errors.clear();
    if (const HResult refused = refusal(handles.empty()); refused != S_OK) {
        return refused;
    }
    std::vector<std::uint32_t> valid;
    for (const std::uint32_t handle : handles) {
        const Slot* slot = find(handle);
        errors.push_back(slot == nullptr ? OPC_E_INVALIDHANDLE : S_OK);
        if (slot != nullptr) {
            valid.push_back(slot->clientHandle);
        }
    }
    if (valid.empty()) {
        return S_FALSE;
    }
    const HResult result = valid.size() == handles.size() ? S_OK : S_FALSE;
    const std::size_t memory = valid.size() * CallbackColumns::itemSize;
    if (const HResult refused = begin(transaction, Stage::atPlant, memory, cancelId); refused != S_OK) {
        errors.clear();
        return refused;
    }
    postFor(cancelId, [cancelId = cancelId, valid = std::move(valid)](Group& group) {
        group.holds_.plant.write(valid.size(), [cancelId, valid, asking = group.shared_from_this()](HResult error) {
            asking->completeWrite(cancelId, valid, error);
        });
    });
    return result;
}

HResult Group::refresh(std::uint16_t source, std::uint32_t transaction, std::uint32_t& cancelId) {
    cancelId = 0;
    if (const HResult refused = refusal(source != cache && source != device); refused != S_OK) {
        return refused;
    }
    auto reading = std::make_shared<DeviceReading>();
    for (std::size_t number = 0; number < slots_.size(); ++number) {
        if (slots_[number].tag != nullptr && slots_[number].active) {
            reading->asked_.push_back(toAsk(handleOf(number)));
        }
    }
    const std::size_t active = reading->asked_.size();
    if (!state_.active || active == 0) {
        return E_FAIL;
    }
    const bool isCached = source == cache;
    const std::size_t memory = active * (CallbackColumns::itemSize + (isCached ? 0 : questionCost));
    const HResult result = begin(transaction, isCached ? Stage::waiting : Stage::atPlant, memory, cancelId);
    if (result == S_OK && isCached) {
        wakeSinks();
    } else if (result == S_OK) {
        beginReading(cancelId, std::move(reading), &Group::completeRefresh);
    }
    return result;
}

HResult Group::cancel(std::uint32_t cancelId) {
    if (isRemoved() || !isUnderWay(cancelId)) {
        return E_FAIL;
    }
    transactions_.at(cancelId).stage = Stage::cancelled;
    postFor(cancelId, [cancelId](Group& group) { group.completeCancel(cancelId); });
    wakeSinks();  // what waited for a refresh waits no more
    return S_OK;
}

HResult Group::setEnabled(bool enabled) {
    if (const HResult refused = refusal(false); refused != S_OK) {
        return refused;
    }
    isEnabled_ = enabled;
    wakeSinks();
    return S_OK;
}

HResult Group::isEnabled(bool& enabled) const {
    enabled = isEnabled_;
    return refusal(false);
}

// The transaction's memory is free for its callback.
CallbackColumns& Group::endInCallback(std::uint32_t cancelId) {
    const std::uint32_t transaction = transactions_.extract(cancelId).mapped().number;
    CallbackColumns& callback = application_->callback();
    callback.begin(transaction, state_.clientHandle, holds_.memory.room());
    return callback;
}

void Group::completeRead(std::uint32_t cancelId, const DeviceReading& reading) {
    CallbackColumns& callback = endInCallback(cancelId);
    OpcValue value;
    for (std::size_t i = 0; i < reading.asked_.size(); ++i) {
        const DeviceReading::Asked& item = reading.asked_[i];
        std::uint16_t quality = quality::bad;
        std::int64_t fileTime = 0;
        const HResult error = reading.take(i, item.type, quality, fileTime, value);
        callback.addOrRefuse(item.clientHandle, fileTime, quality, error, value);
    }
    noteDataSent();
    subscriptions_.forEach([&callback](Subscription& each) { each.sink().onReadComplete(callback.items()); });
}

void Group::completeWrite(std::uint32_t cancelId, std::span<const std::uint32_t> clientHandles, HResult error) {
    if (!isUnderWay(cancelId)) {
        return;
    }
    const std::uint32_t transaction = transactions_.extract(cancelId).mapped().number;
    const std::vector<HResult> errors(clientHandles.size(), error);
    subscriptions_.forEach([&](Subscription& each) {
        each.sink().onWriteComplete(transaction, state_.clientHandle, error == S_OK ? S_OK : S_FALSE, clientHandles,
                                    errors);
    });
}

void Group::completeCancel(std::uint32_t cancelId) {
    const std::uint32_t transaction = transactions_.extract(cancelId).mapped().number;
    subscriptions_.forEach([&](Subscription& each) { each.sink().onCancelComplete(transaction, state_.clientHandle); });
}

// --- Values

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
        noteDataSent();
        to.sink().onDataChange(callback.items());
    }
    return slots_.size() + workOfSending * changed;
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
    return slots_.size() + workOfSending * callback.size();
}

// Items that went or were set inactive meanwhile are left out.
void Group::completeRefresh(std::uint32_t cancelId, const DeviceReading& reading) {
    CallbackColumns& callback = endInCallback(cancelId);
    OpcValue value;
    for (std::size_t i = 0; i < reading.asked_.size(); ++i) {
        const Slot* slot = find(reading.asked_[i].handle);
        if (slot != nullptr && slot->active) {
            std::uint16_t quality = quality::bad;
            std::int64_t fileTime = 0;
            const HResult error = reading.take(i, slot->type, quality, fileTime, value);
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
    subscriptions_.forEach([&callback](Subscription& each) { each.sink().onDataChange(callback.items()); });
    if (callback.items().masterError != S_OK) {
        noteChange();  // where it was the plant that failed, the cache has a value
    }
}

}  // namespace quelm::opcda
