// The asynchronous calls of a group's client: what begins, and the one callback in which each ends.

#include <algorithm>
#include <utility>

#include "opcda/Application.h"
#include "opcda/Group.h"

namespace quelm::opcda {

namespace {

enum Source : std::uint16_t { cache = 1, device = 2 };

}  // namespace

bool Group::hasSinkOf(const Recipient& to, Answer answer) const {
    if (!to.isStream) {
        return !subscriptions_.empty();
    }
    const Subscription* const its = streams_.find(to.connection);
    return its != nullptr && (its->stream() == Stream::writes) == (answer == Answer::writes);
}

HResult Group::refusal(const Recipient& to, Answer answer, bool asksForNothing) const {
    if (isRemoved()) {
        return E_FAIL;
    }
    if (asksForNothing) {
        return E_INVALIDARG;
    }
    return hasSinkOf(to, answer) ? S_OK : CONNECT_E_NOCONNECTION;
}

// What a sink has not answered counts too: only so is what waits on the way to a client that never answers bounded.
HResult Group::begin(Recipient to, Stage stage, std::size_t memory, std::uint32_t& cancelId) {
    std::size_t unanswered = 0;
    forEachSink([&unanswered](Subscription& each) { unanswered = std::max(unanswered, each.sink().unanswered()); });
    if (transactions_.size() + unanswered >= mostTransactions) {
        return CONNECT_E_ADVISELIMIT;
    }
    Hold hold = holds_.memory.another();
    if (!hold.resize(transactionCost + memory)) {
        return E_OUTOFMEMORY;
    }
    cancelId = application_->nextCancelId();
    to.number = to.isStream ? cancelId : to.number;
    transactions_.emplace(cancelId, Transaction{to, stage, std::move(hold)});
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

HResult Group::asyncReadFrom(std::uint16_t source, std::span<const std::uint32_t> handles, Recipient to,
                             std::uint32_t& cancelId, std::vector<HResult>& errors) {
    const bool isSource = source == cache || source == device;
    return asyncRead(isSource ? handles : std::span<const std::uint32_t>(), to, cancelId, errors,
                     MaxAges(source == cache ? anyAge : noAge));
}

HResult Group::asyncRead(std::span<const std::uint32_t> handles, Recipient to, std::uint32_t& cancelId,
                         std::vector<HResult>& errors, const MaxAges& maxAges) {
    cancelId = 0;
    errors.clear();
    if (const HResult refused = refusal(to, Answer::values, handles.empty()); refused != S_OK) {
        return refused;
    }
    auto reading = std::make_shared<DeviceReading>();
    const std::int64_t now = timeSource().fileTimeNow();
    for (std::size_t i = 0; i < handles.size(); ++i) {
        const DeviceReading::Asked item = toAsk(handles[i], maxAges[i], now);
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
    if (const HResult refused = begin(to, Stage::atPlant, memory, cancelId); refused != S_OK) {
        errors.clear();
        return refused;
    }
    beginReading(cancelId, std::move(reading), &Group::completeRead);
    return valid == handles.size() ? S_OK : S_FALSE;
}

HResult Group::asyncWrite(std::span<const std::uint32_t> handles, Recipient to, std::uint32_t& cancelId,
                          std::vector<HResult>& errors) {
    cancelId = 0;
    errors.clear();
    if (const HResult refused = refusal(to, Answer::writes, handles.empty()); refused != S_OK) {
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
    if (const HResult refused = begin(to, Stage::atPlant, memory, cancelId); refused != S_OK) {
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

HResult Group::refresh(std::uint16_t source, Recipient to, std::uint32_t& cancelId) {
    cancelId = 0;
    const HResult refused = refusal(to, Answer::values, source != cache && source != device);
    return refused != S_OK ? refused : refreshMaxAge(source == cache ? anyAge : noAge, to, cancelId);
}

HResult Group::refreshMaxAge(std::uint32_t maxAge, Recipient to, std::uint32_t& cancelId) {
    cancelId = 0;
    if (const HResult refused = refusal(to, Answer::values, false); refused != S_OK) {
        return refused;
    }
    auto reading = std::make_shared<DeviceReading>();
    const std::int64_t now = timeSource().fileTimeNow();
    bool isCached = true;
    for (std::size_t number = 0; number < slots_.size(); ++number) {
        if (slots_[number].tag != nullptr && slots_[number].active) {
            isCached &= reading->asked_.emplace_back(toAsk(handleOf(number), maxAge, now)).isCached;
        }
    }
    const std::size_t active = reading->asked_.size();
    if (!state_.active || active == 0) {
        return E_FAIL;
    }
    const bool waits = isCached && !to.isStream;
    const std::size_t memory = active * (CallbackColumns::itemSize + (waits ? 0 : questionCost));
    const HResult result = begin(to, waits ? Stage::waiting : Stage::atPlant, memory, cancelId);
    if (result == S_OK && waits) {
        wakeSinks();
    } else if (result == S_OK) {
        beginReading(cancelId, std::move(reading), &Group::completeRefresh);
    }
    return result;
}

HResult Group::cancel(std::uint32_t cancelId) {
    if (isRemoved() || !isUnderWay(cancelId) || transactions_.at(cancelId).to.isStream) {
        return E_FAIL;
    }
    transactions_.at(cancelId).stage = Stage::cancelled;
    postFor(cancelId, [cancelId](Group& group) { group.completeCancel(cancelId); });
    wakeSinks();  // what waited for a refresh waits no more
    return S_OK;
}

HResult Group::cancelStream(std::uint32_t cancelId) {
    const auto found = transactions_.find(cancelId);
    if (isRemoved() || found == transactions_.end() || !found->second.to.isStream) {
        return E_FAIL;
    }
    transactions_.erase(found);
    return S_OK;
}

HResult Group::setEnabled(bool enabled) {
    if (const HResult refused = refusal(0, Answer::values, false); refused != S_OK) {
        return refused;
    }
    if (enabled && !isEnabled_) {
        restartKeepAlive();
    }
    isEnabled_ = enabled;
    wakeSinks();
    return S_OK;
}

HResult Group::isEnabled(bool& enabled) const {
    enabled = isEnabled_;
    return refusal(0, Answer::values, false);
}

// The transaction's memory is free for its callback.
Recipient Group::end(std::uint32_t cancelId) {
    return transactions_.extract(cancelId).mapped().to;
}

CallbackColumns& Group::beginCallback(const Recipient& to) {
    CallbackColumns& callback = application_->callback();
    callback.begin(to.number, state_.clientHandle, holds_.memory.room(),
                   to.isStream ? ValueForm::inMemory : ValueForm::marshalled);
    return callback;
}

void Group::completeRead(std::uint32_t cancelId, const DeviceReading& reading) {
    const Recipient to = end(cancelId);
    CallbackColumns& callback = beginCallback(to);
    OpcValue value;
    for (const DeviceReading::Asked& item : reading.asked_) {
        std::uint16_t quality = quality::bad;
        std::int64_t fileTime = 0;
        const HResult error = reading.take(item, item.type, quality, fileTime, value);
        callback.addOrRefuse(item.clientHandle, fileTime, quality, error, value);
    }
    noteDataSent();
    restartKeepAlive(to);
    forEachSinkOf(to, [&callback](Subscription& each) { each.sink().onReadComplete(callback.items()); });
}

void Group::completeWrite(std::uint32_t cancelId, std::span<const std::uint32_t> clientHandles, HResult error) {
    if (!isUnderWay(cancelId)) {
        return;
    }
    const Recipient to = end(cancelId);
    const std::vector<HResult> errors(clientHandles.size(), error);
    restartKeepAlive(to);
    forEachSinkOf(to, [&](Subscription& each) {
        each.sink().onWriteComplete(to.number, state_.clientHandle, error == S_OK ? S_OK : S_FALSE, clientHandles,
                                    errors);
    });
}

void Group::completeCancel(std::uint32_t cancelId) {
    const Recipient to = end(cancelId);
    forEachSinkOf(to, [&](Subscription& each) { each.sink().onCancelComplete(to.number, state_.clientHandle); });
}

}  // namespace quelm::opcda
