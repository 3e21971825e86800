#include "opcda/Group.h"

#include <algorithm>

#include "opcda/Application.h"
#include "opcda/Server.h"
#include "slikda/Identity.h"

namespace quelm::opcda {

namespace {

// So many slots stay unused after their items were removed, which keeps a dead handle dead for a million removals.
constexpr std::size_t restingSlots = 256;

}  // namespace

std::uint32_t revisedRate(std::uint32_t requested) {
    return std::max(requested, minimumUpdateRate);
}

bool isDeadband(float percent) {
    return percent >= 0 && percent <= 100;
}

// Each group counts its generations from another start, so that a handle of one group seldom means an item of another.
Group::Group(Server& server, Application& application, GroupHolds holds, std::string name, std::uint32_t serverHandle,
             GroupState state)
    : server_(&server),
      application_(&application),
      holds_(std::move(holds)),
      name_(std::move(name)),
      serverHandle_(serverHandle),
      state_(state),
      firstGeneration_(static_cast<std::uint16_t>(serverHandle * 37U % maxGeneration + 1)) {}

HResult Group::setState(const GroupChange& change) {
    if (isRemoved()) {
        return E_FAIL;
    }
    if (change.percentDeadband && !isDeadband(*change.percentDeadband)) {
        return E_INVALIDARG;
    }
    if (change.updateRate) {
        state_.updateRate = revisedRate(*change.updateRate);
    }
    if (change.active.value_or(false) && !state_.active) {
        forgetSent();
        restartKeepAlive();
    }
    state_.active = change.active.value_or(state_.active);
    state_.timeBias = change.timeBias.value_or(state_.timeBias);
    state_.percentDeadband = change.percentDeadband.value_or(state_.percentDeadband);
    state_.localeId = change.localeId.value_or(state_.localeId);
    state_.clientHandle = change.clientHandle.value_or(state_.clientHandle);
    wakeSinks();
    return change.updateRate && *change.updateRate != state_.updateRate ? OPC_S_UNSUPPORTEDRATE : S_OK;
}

// A group's own update rate may be slower: a client that hears of values every hour may want a sign of life each
// minute.
HResult Group::setKeepAlive(std::uint32_t time) {
    if (isRemoved()) {
        return E_FAIL;
    }
    state_.keepAlive = time == 0 ? 0 : revisedRate(time);
    restartKeepAlive();
    wakeSinks();
    return state_.keepAlive == time ? S_OK : OPC_S_UNSUPPORTEDRATE;
}

HResult Group::setName(std::string_view name) {
    if (isRemoved()) {
        return E_FAIL;
    }
    if (name.empty() || name.size() > longestGroupName) {
        return E_INVALIDARG;
    }
    if (name == name_) {
        return S_OK;
    }
    if (server_->isNameTaken(name)) {
        return OPC_E_DUPLICATENAME;
    }
    server_->rename(*this, name);
    return S_OK;
}

ItemResult Group::validate(const ItemDefinition& item, const SLIKTag*& tag) const {
    const HResult found = findItem(application_->items(), item.itemId, tag);
    if (found != S_OK) {
        return {found, 0, VT_EMPTY, 0};
    }
    const HResult error = isConvertible(tag->varType(), item.requestedType) ? S_OK : OPC_E_BADTYPE;
    return {error, 0, tag->varType(), tag->accessRights()};
}

std::uint32_t Group::insert(const ItemDefinition& item, const SLIKTag& tag) {
    std::uint32_t number = 0;
    if (freeSlots_.size() > restingSlots) {
        number = freeSlots_.front();
        freeSlots_.pop_front();
    } else if (slots_.size() <= slotMask && makeRoom(slots_.size() + 1)) {
        number = static_cast<std::uint32_t>(slots_.size());
        slots_.emplace_back().generation = firstGeneration_;
    } else {
        return 0;
    }
    Slot& slot = slots_[number];
    slot.tag = &tag;
    slot.clientHandle = item.clientHandle;
    slot.requestedType = item.requestedType;
    slot.type = item.requestedType == VT_EMPTY ? tag.varType() : item.requestedType;
    slot.active = item.active;
    ++itemCount_;
    listed_.reset();
    forgetSent(number);
    return handleOf(number);
}

// Ahead of need by half, so that adding items one by one stays cheap.
bool Group::makeRoom(std::size_t slots) {
    if (slots <= slots_.capacity()) {
        return true;
    }
    const std::size_t ahead = std::max<std::size_t>(slots + slots / 2, 8);
    for (const std::size_t wanted : {ahead, slots}) {
        if (holds_.memory.resize(memoryFor(wanted, sinks()))) {
            slots_.reserve(wanted);
            return true;
        }
    }
    return false;
}

void Group::remove(std::uint32_t handle, Slot& slot) {
    freeSlots_.push_back(handle & slotMask);
    slot.tag = nullptr;
    slot.generation = static_cast<std::uint16_t>(slot.generation % maxGeneration + 1);
    --itemCount_;
}

// accept(item, tag, result) does what is to be done with each item that there is.
template <class Accept>
HResult Group::validateEach(std::span<const ItemDefinition> items, std::vector<ItemResult>& results,
                            Accept&& accept) const {
    results.clear();
    if (isRemoved()) {
        return E_FAIL;
    }
    if (items.empty()) {
        return E_INVALIDARG;
    }
    HResult all = S_OK;
    for (const ItemDefinition& item : items) {
        const SLIKTag* tag = nullptr;
        ItemResult& result = results.emplace_back(validate(item, tag));
        if (result.error == S_OK && tag != nullptr) {
            accept(item, *tag, result);
        }
        all = result.error == S_OK ? all : S_FALSE;
    }
    return all;
}

HResult Group::addItems(std::span<const ItemDefinition> items, std::vector<ItemResult>& results) {
    const HResult result =
        validateEach(items, results, [this](const ItemDefinition& item, const SLIKTag& tag, ItemResult& added) {
            added.serverHandle = insert(item, tag);
            added.error = added.serverHandle == 0 ? E_OUTOFMEMORY : S_OK;
        });
    wakeSinks();
    return result;
}

HResult Group::validateItems(std::span<const ItemDefinition> items, std::vector<ItemResult>& results) const {
    return validateEach(items, results, [](const ItemDefinition&, const SLIKTag&, ItemResult&) {});
}

// action(index, handle, slot) decides on each item that there is.
template <class Action>
HResult Group::forEach(std::span<const std::uint32_t> handles, std::vector<HResult>& errors, Action&& action) {
    errors.clear();
    if (handles.empty() || isRemoved()) {
        return isRemoved() ? E_FAIL : E_INVALIDARG;
    }
    listed_.reset();
    HResult all = S_OK;
    for (std::size_t i = 0; i < handles.size(); ++i) {
        Slot* slot = find(handles[i]);
        errors.push_back(slot == nullptr ? OPC_E_INVALIDHANDLE : action(i, handles[i], *slot));
        all = errors.back() == S_OK ? all : S_FALSE;
    }
    return all;
}

HResult Group::removeItems(std::span<const std::uint32_t> handles, std::vector<HResult>& errors) {
    return forEach(handles, errors, [this](std::size_t, std::uint32_t handle, Slot& slot) {
        remove(handle, slot);
        return S_OK;
    });
}

HResult Group::setActiveState(std::span<const std::uint32_t> handles, bool active, std::vector<HResult>& errors) {
    const HResult result = forEach(handles, errors, [this, active](std::size_t, std::uint32_t handle, Slot& slot) {
        if (active && !slot.active) {
            forgetSent(handle & slotMask);
        }
        slot.active = active;
        return S_OK;
    });
    wakeSinks();
    return result;
}

HResult Group::setClientHandles(std::span<const std::uint32_t> handles, std::span<const std::uint32_t> clientHandles,
                                std::vector<HResult>& errors) {
    if (handles.size() != clientHandles.size()) {
        errors.clear();
        return E_INVALIDARG;
    }
    return forEach(handles, errors, [clientHandles](std::size_t index, std::uint32_t, Slot& slot) {
        slot.clientHandle = clientHandles[index];
        return S_OK;
    });
}

HResult Group::setDatatypes(std::span<const std::uint32_t> handles, std::span<const VarType> types,
                            std::vector<HResult>& errors) {
    if (handles.size() != types.size()) {
        errors.clear();
        return E_INVALIDARG;
    }
    const HResult result = forEach(handles, errors, [types](std::size_t index, std::uint32_t, Slot& slot) {
        if (!isConvertible(slot.tag->varType(), types[index])) {
            return OPC_E_BADTYPE;
        }
        slot.requestedType = types[index];
        slot.type = types[index] == VT_EMPTY ? slot.tag->varType() : types[index];
        return S_OK;
    });
    noteChange();
    return result;
}

HResult Group::refuseDeadbands(std::span<const std::uint32_t> handles, std::vector<HResult>& errors) {
    return forEach(handles, errors, [](std::size_t, std::uint32_t, Slot&) { return OPC_E_DEADBANDNOTSUPPORTED; });
}

HResult Group::setSamplingRates(std::span<const std::uint32_t> handles, std::span<const std::uint32_t> rates,
                                std::vector<std::uint32_t>& revised, std::vector<HResult>& errors) {
    revised.assign(handles.size(), 0);
    return forEach(handles, errors, [&](std::size_t i, std::uint32_t, Slot& slot) {
        slot.hasSamplingRate = true;
        revised[i] = identity::scanRateMilliseconds;
        return rates[i] == revised[i] ? S_OK : OPC_S_UNSUPPORTEDRATE;
    });
}

HResult Group::samplingRates(std::span<const std::uint32_t> handles, std::vector<std::uint32_t>& rates,
                             std::vector<HResult>& errors) {
    rates.assign(handles.size(), 0);
    return forEach(handles, errors, [&](std::size_t i, std::uint32_t, const Slot& slot) {
        rates[i] = slot.hasSamplingRate ? identity::scanRateMilliseconds : 0;
        return slot.hasSamplingRate ? S_OK : OPC_E_RATENOTSET;
    });
}

HResult Group::clearSamplingRates(std::span<const std::uint32_t> handles, std::vector<HResult>& errors) {
    return forEach(handles, errors, [](std::size_t, std::uint32_t, Slot& slot) {
        return std::exchange(slot.hasSamplingRate, false) ? S_OK : OPC_E_RATENOTSET;
    });
}

HResult Group::enumerateItems(Enumerator<ItemAttributes>& items) const {
    if (isRemoved()) {
        return E_FAIL;
    }
    const HResult result = itemCount_ == 0 ? S_FALSE : S_OK;
    if (auto listed = listed_.lock()) {
        items = Enumerator<ItemAttributes>(std::move(listed));
        return result;
    }
    Hold memory = holds_.memory.another();
    if (!memory.resize(itemCount_ * sizeof(ItemAttributes))) {
        return E_OUTOFMEMORY;
    }
    std::vector<ItemAttributes> list;
    list.reserve(itemCount_);
    for (std::size_t number = 0; number < slots_.size(); ++number) {
        const Slot& slot = slots_[number];
        if (slot.tag != nullptr) {
            list.push_back({slot.tag, slot.clientHandle, handleOf(number), slot.requestedType, slot.active});
        }
    }
    using List = Enumerator<ItemAttributes>::List;
    auto made = std::make_shared<const List>(List{std::move(list), std::move(memory)});
    listed_ = made;
    items = Enumerator<ItemAttributes>(std::move(made));
    return result;
}

DeviceReading::Asked Group::toAsk(std::uint32_t handle, std::uint32_t maxAge, std::int64_t now) {
    const Slot* slot = find(handle);
    if (slot == nullptr) {
        return {nullptr, handle, 0, OPC_E_INVALIDHANDLE};
    }
    const HResult error = isReadable(*slot->tag) ? S_OK : OPC_E_BADRIGHTS;
    const bool isCached = isCacheEnough(*slot, maxAge, now);
    return {slot->tag, handle, slot->clientHandle, error, slot->type, 0, isCached, isInService(*slot)};
}

void Group::ask(const std::shared_ptr<DeviceReading>& reading, std::function<void(DeviceReading&)> done) {
    std::vector<const SLIKTag*>& tags = application_->callBuffers().asked;
    tags.clear();
    for (DeviceReading::Asked& item : reading->asked_) {
        if (item.error == S_OK && !item.isCached) {
            item.answer = static_cast<std::uint32_t>(tags.size());
            tags.push_back(item.tag);
        }
    }
    holds_.plant.read(tags, [reading, done = std::move(done)](HResult error, std::span<const RequestedItem> readings) {
        reading->hostError_ = error;
        reading->readings_ = readings;
        done(*reading);
    });
}

void Group::readDevice(std::span<const std::uint32_t> handles, const MaxAges& maxAges,
                       std::function<void(DeviceReading&)> done) {
    const auto reading = std::make_shared<DeviceReading>();
    const std::int64_t now = timeSource().fileTimeNow();
    reading->group_ = shared_from_this();
    reading->asked_.reserve(handles.size());
    for (std::size_t i = 0; i < handles.size(); ++i) {
        reading->asked_.push_back(toAsk(handles[i], maxAges[i], now));
    }
    ask(reading, std::move(done));
}

HResult DeviceReading::take(const Asked& item, VarType type, std::uint16_t& quality, std::int64_t& fileTime,
                            OpcValue& value) const {
    if (item.error == S_OK && item.isCached) {
        fileTime = item.tag->fileTime();
        return Group::fromCache(*item.tag, type, item.isInService, quality, value);
    }
    const HResult error = item.error != S_OK ? item.error : hostError_;
    if (error != S_OK || !readings_[item.answer].isFilled()) {
        value.type = VT_EMPTY;
        return error != S_OK ? error : E_FAIL;
    }
    const RequestedItem& reading = readings_[item.answer];
    quality = reading.qualityWord();
    fileTime = reading.fileTime();
    return present(reading.value(), type, quality, value);
}

void Group::write(std::span<const std::uint32_t> handles, WriteDone done) {
    std::vector<HResult> errors;
    std::size_t valid = 0;
    const HResult all = forEach(handles, errors, [&valid](std::size_t, std::uint32_t, Slot&) {
        ++valid;
        return S_OK;
    });
    holds_.plant.write(valid, [all, errors = std::move(errors), done = std::move(done)](HResult error) mutable {
        std::replace(errors.begin(), errors.end(), S_OK, error);
        done(error != S_OK ? S_FALSE : all, errors);
    });
}

void Group::noteDataSent() const {
    if (server_ != nullptr) {
        server_->lastUpdate()->note();
    }
}

// False when the client's budget has no room for them.
bool Group::copyItemsFrom(const Group& other) {
    if (!makeRoom(other.itemCount_)) {
        return false;
    }
    for (const Slot& slot : other.slots_) {
        if (slot.tag != nullptr) {
            insert({slot.tag->Name(), slot.active, slot.clientHandle, slot.requestedType}, *slot.tag);
        }
    }
    return true;
}

// Items, sinks and transactions go at once, whoever still holds the group; it keeps its own place until then.
void Group::detach() {
    server_ = nullptr;
    subscriptions_.clear();
    streams_.clear();
    transactions_.clear();
    slots_ = {};
    freeSlots_ = {};
    itemCount_ = 0;
    holds_.memory.set(footprint);
}

}  // namespace quelm::opcda
