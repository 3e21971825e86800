#pragma once

// A client's group: its items, their handles, and reading and writing them. The read path has no look-up but a vector
// index and allocates nothing.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Quality.h"
#include "budget/ClientBudget.h"
#include "opcda/Coercion.h"
#include "opcda/Enumerators.h"
#include "opcda/HResults.h"
#include "slikda/SLIKNetwork.h"

namespace quelm::opcda {

class Application;
class Server;

inline constexpr std::uint32_t accessReadable = 1;

// One item as AddItems and ValidateItems get it. The access path is of no use to this server and not asked for.
struct ItemDefinition {
    std::string_view itemId;
    bool active = true;
    std::uint32_t clientHandle = 0;
    VarType requestedType = VT_EMPTY;
};

struct ItemResult {
    HResult error = S_OK;
    std::uint32_t serverHandle = 0;  // 0 on failure and from ValidateItems
    VarType canonicalType = VT_EMPTY;
    std::uint32_t accessRights = 0;  // 1 readable, 2 writable
};

// One item of a group as it was when somebody asked. Its name, canonical type and access rights stand in the item,
// which lives as long as the server.
struct ItemAttributes {
    const SLIKTag* tag = nullptr;
    std::uint32_t clientHandle = 0;
    std::uint32_t serverHandle = 0;
    VarType requestedType = VT_EMPTY;
    bool active = false;
};

// One item of a read. value lives until the sink returns.
struct ItemReading {
    HResult error;
    std::uint32_t clientHandle;
    std::int64_t fileTime;  // UTC, FILETIME
    std::uint16_t quality;
    const OpcValue& value;
};

struct GroupState {
    std::uint32_t updateRate = 0;  // milliseconds
    bool active = false;
    std::int32_t timeBias = 0;  // minutes
    float percentDeadband = 0;  // 0 to 100
    std::uint32_t localeId = 0;
    std::uint32_t clientHandle = 0;
};

// What SetState changes: only what is given.
struct GroupChange {
    std::optional<std::uint32_t> updateRate;
    std::optional<bool> active;
    std::optional<std::int32_t> timeBias;
    std::optional<float> percentDeadband;
    std::optional<std::uint32_t> localeId;
    std::optional<std::uint32_t> clientHandle;
};

// Milliseconds: the fastest update rate that a group gets.
inline constexpr std::uint32_t minimumUpdateRate = 100;
std::uint32_t revisedRate(std::uint32_t requested);
// Bytes of a group's name.
inline constexpr std::size_t longestGroupName = 1024;
bool isDeadband(float percent);

// What a group takes of its client's budget.
struct GroupHolds {
    Hold memory;
    Hold place;
};

class Group;

// The plant's answer to a device read, for the items as the group had them when the client asked.
class DeviceReading {
 public:
    // Calls sink(const ItemReading&) once for each handle that was asked for, in order. S_OK, or S_FALSE when an item
    // has an error: a failure that the host reports becomes every valid item's.
    template <class Sink>
    HResult deliver(Sink&& sink);
    // Bytes that the client's budget has left.
    std::size_t memoryLeft() const;

 private:
    friend class Group;
    struct Asked {
        HResult error = S_OK;  // why it was not asked for
        std::uint32_t clientHandle = 0;
        VarType type = VT_EMPTY;
    };

    std::shared_ptr<Group> group_;
    std::vector<Asked> asked_;
    HResult hostError_ = S_OK;
    std::span<const RequestedItem> readings_;  // of those without error
};

class Group : public std::enable_shared_from_this<Group> {
 public:
    // Bytes that a group takes without its items: itself, its object with four interfaces, the books about them.
    static constexpr std::size_t footprint = 3072;

    Group(Server& server, Application& application, GroupHolds holds, std::string name, std::uint32_t serverHandle,
          GroupState state);
    ~Group();
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;

    const std::string& name() const { return name_; }
    std::uint32_t serverHandle() const { return serverHandle_; }
    const GroupState& state() const { return state_; }
    Application& application() { return *application_; }
    // Bytes that its client's budget has left, and a part of them, still empty, for what is made from this group.
    std::size_t memoryLeft() const { return holds_.memory.room(); }
    Hold memory() const { return holds_.memory.another(); }
    // The client removed it or its server object is gone. Who still holds the group answers such a client with E_FAIL;
    // the group's calls do no harm then and find no item.
    bool isRemoved() const { return server_ == nullptr; }

    // S_OK; OPC_S_UNSUPPORTEDRATE when the rate was revised (see state().updateRate); E_INVALIDARG for a deadband
    // outside 0 to 100: nothing is changed then.
    HResult setState(const GroupChange& change);
    // OPC_E_DUPLICATENAME; E_INVALIDARG for an empty name or one that is too long.
    HResult setName(std::string_view name);

    // S_OK, or S_FALSE when at least one item has an error; results and errors get one entry for each item, and are
    // reused without allocation when they are large enough. No item at all is E_INVALIDARG. An item for which the
    // client's budget has no room gets E_OUTOFMEMORY.
    HResult addItems(std::span<const ItemDefinition> items, std::vector<ItemResult>& results);
    HResult validateItems(std::span<const ItemDefinition> items, std::vector<ItemResult>& results) const;
    HResult removeItems(std::span<const std::uint32_t> handles, std::vector<HResult>& errors);
    HResult setActiveState(std::span<const std::uint32_t> handles, bool active, std::vector<HResult>& errors);
    // Both spans are of one length.
    HResult setClientHandles(std::span<const std::uint32_t> handles, std::span<const std::uint32_t> clientHandles,
                             std::vector<HResult>& errors);
    HResult setDatatypes(std::span<const std::uint32_t> handles, std::span<const VarType> types,
                         std::vector<HResult>& errors);
    // The items as they are now, one list for all who ask until something of it changes. S_OK; S_FALSE for a group
    // without items; E_OUTOFMEMORY when the client's budget has no room for the list.
    HResult enumerateItems(Enumerator<ItemAttributes>& items) const;
    std::size_t itemCount() const { return itemCount_; }

    // Calls sink(const ItemReading&) once for each handle, in order. S_OK, or S_FALSE when an item has an error.
    // An inactive item, and every item of an inactive group, comes with quality "out of service".
    template <class Sink>
    HResult readCache(std::span<const std::uint32_t> handles, Sink&& sink);
    // Asks the server host for the values: OnRead once with all valid items, done once, maybe before this returns.
    // Active or not does not matter. handles: at least one.
    void readDevice(std::span<const std::uint32_t> handles, std::function<void(DeviceReading&)> done);
    // OnWrite once for all valid items, done once, maybe before this returns; the values never matter, as no item takes
    // one. Results as of the other calls.
    using WriteDone = std::function<void(HResult result, const std::vector<HResult>& errors)>;
    void write(std::span<const std::uint32_t> handles, WriteDone done);

 private:
    friend class Server;
    friend class DeviceReading;
    struct Slot {
        const SLIKTag* tag = nullptr;  // nullptr: free
        std::uint32_t clientHandle = 0;
        VarType requestedType = VT_EMPTY;  // as the client asked
        VarType type = VT_EMPTY;           // what to deliver: the canonical type when the client asked for none
        std::uint16_t generation = 0;      // 1 to 4095
        bool active = false;
    };
    // A handle is a slot number and the slot's generation, so that the handle of a removed item is known as dead.
    static constexpr unsigned slotBits = 20;
    static constexpr std::uint32_t slotMask = (1U << slotBits) - 1;
    static constexpr std::uint32_t maxGeneration = 0xFFF;
    // Bytes: the slot, and its number among the free ones.
    static constexpr std::size_t slotCost = sizeof(Slot) + sizeof(std::uint32_t);

    Slot* find(std::uint32_t handle) {
        const std::uint32_t number = handle & slotMask;
        if (number >= slots_.size()) {
            return nullptr;
        }
        Slot& slot = slots_[number];
        return slot.generation == handle >> slotBits && slot.tag != nullptr ? &slot : nullptr;
    }
    template <class Action>
    HResult forEach(std::span<const std::uint32_t> handles, std::vector<HResult>& errors, Action&& action);
    template <class Sink>
    bool deliver(std::uint32_t clientHandle, VarType type, const Variant& value, std::uint16_t quality,
                 std::int64_t fileTime, Sink&& sink);
    // nullptr with the reason.
    const Slot* findReadable(std::uint32_t handle, HResult& error, std::uint32_t& clientHandle);
    template <class Sink>
    void deliverError(std::uint32_t clientHandle, HResult error, Sink&& sink);

    ItemResult validate(const ItemDefinition& item, const SLIKTag*& tag) const;
    template <class Accept>
    HResult validateEach(std::span<const ItemDefinition> items, std::vector<ItemResult>& results,
                         Accept&& accept) const;
    std::uint32_t insert(const ItemDefinition& item, const SLIKTag& tag);
    void remove(std::uint32_t handle, Slot& slot);
    void noteDataSent();
    bool makeRoom(std::size_t slots);
    bool copyItemsFrom(const Group& other);
    void detach();

    Server* server_;
    Application* application_;
    GroupHolds holds_;
    std::string name_;
    std::uint32_t serverHandle_;
    GroupState state_;
    std::vector<Slot> slots_;
    std::deque<std::uint32_t> freeSlots_;  // the slot that was freed first is used first
    std::size_t itemCount_ = 0;
    std::uint16_t firstGeneration_;
    mutable std::weak_ptr<const Enumerator<ItemAttributes>::List> listed_;
    OpcValue value_;
};

template <class Sink>
bool Group::deliver(std::uint32_t clientHandle, VarType type, const Variant& value, std::uint16_t quality,
                    std::int64_t fileTime, Sink&& sink) {
    const HResult error = convert(value, type, value_);
    sink(ItemReading{error, clientHandle, fileTime, error == S_OK ? quality : quality::bad, value_});
    return error == S_OK;
}

template <class Sink>
void Group::deliverError(std::uint32_t clientHandle, HResult error, Sink&& sink) {
    value_.type = VT_EMPTY;
    sink(ItemReading{error, clientHandle, 0, quality::bad, value_});
}

inline const Group::Slot* Group::findReadable(std::uint32_t handle, HResult& error, std::uint32_t& clientHandle) {
    const Slot* slot = find(handle);
    clientHandle = slot != nullptr ? slot->clientHandle : 0;
    if (slot == nullptr || (slot->tag->accessRights() & accessReadable) == 0) {
        error = slot == nullptr ? OPC_E_INVALIDHANDLE : OPC_E_BADRIGHTS;
        return nullptr;
    }
    return slot;
}

template <class Sink>
HResult Group::readCache(std::span<const std::uint32_t> handles, Sink&& sink) {
    if (handles.empty()) {
        return E_INVALIDARG;
    }
    bool allGood = true;
    for (const std::uint32_t handle : handles) {
        HResult error = S_OK;
        std::uint32_t clientHandle = 0;
        const Slot* slot = findReadable(handle, error, clientHandle);
        if (slot == nullptr) {
            deliverError(clientHandle, error, sink);
            allGood = false;
            continue;
        }
        const SLIKTag& tag = *slot->tag;
        const std::uint16_t quality = state_.active && slot->active ? tag.qualityWord() : quality::badOutOfService;
        allGood &= deliver(slot->clientHandle, slot->type, tag.Value(), quality, tag.fileTime(), sink);
    }
    noteDataSent();
    return allGood ? S_OK : S_FALSE;
}

inline std::size_t DeviceReading::memoryLeft() const {
    return group_->memoryLeft();
}

template <class Sink>
HResult DeviceReading::deliver(Sink&& sink) {
    bool allGood = true;
    std::size_t next = 0;
    for (const Asked& item : asked_) {
        const RequestedItem* reading = nullptr;
        HResult error = item.error != S_OK ? item.error : hostError_;
        if (item.error == S_OK && hostError_ == S_OK) {
            reading = &readings_[next++];
            error = reading->isFilled() ? S_OK : E_FAIL;
        }
        if (error != S_OK) {
            group_->deliverError(item.clientHandle, error, sink);
            allGood = false;
            continue;
        }
        allGood &= group_->deliver(item.clientHandle, item.type, reading->value(), reading->qualityWord(),
                                   reading->fileTime(), sink);
    }
    group_->noteDataSent();
    return allGood ? S_OK : S_FALSE;
}

}  // namespace quelm::opcda
