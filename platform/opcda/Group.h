#pragma once

// A client's group: its items, their handles, reading and writing them, and the sinks that are told of changes. The
// read path has no look-up but a vector index and allocates nothing.

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Quality.h"
#include "base/TimeSource.h"
#include "budget/ClientBudget.h"
#include "opcda/Age.h"
#include "opcda/Callbacks.h"
#include "opcda/Coercion.h"
#include "opcda/Connections.h"
#include "opcda/Enumerators.h"
#include "opcda/HResults.h"
#include "opcda/ItemLookup.h"
#include "opcda/PlantAccess.h"
#include "opcda/Subscription.h"
#include "slikda/SLIKNetwork.h"

namespace quelm::opcda {

class Application;
class CallbackColumns;
class Server;

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
    // 0 to 100; kept and without effect, because a deadband is a part of the engineering range, which no item has here.
    float percentDeadband = 0;
    std::uint32_t localeId = 0;
    std::uint32_t clientHandle = 0;
    // Milliseconds without a callback after which a sink gets an empty one, so that the client knows that silence is no
    // failure; 0: never.
    std::uint32_t keepAlive = 0;
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

// What a group has of its client's budget.
struct GroupHolds {
    Hold memory;
    Hold place;
    PlantAccess plant;
};

class Group;

// The plant's answer to a read, for the items as the group had them when the client asked. Those whose cached value was
// young enough by then come from the cache.
class DeviceReading {
 public:
    // Calls sink(const ItemReading&) once for each handle that was asked for, in order. S_OK, or S_FALSE when an item
    // has an error: a failure that the host reports becomes every valid item's.
    template <class Sink>
    HResult deliver(Sink&& sink) const;
    // Bytes that the client's budget has left.
    std::size_t memoryLeft() const;
    void noteDataSent() const;

 private:
    friend class Group;
    struct Asked {
        const SLIKTag* tag = nullptr;
        std::uint32_t handle = 0;
        std::uint32_t clientHandle = 0;
        HResult error = S_OK;  // why it was not asked for
        VarType type = VT_EMPTY;
        std::uint32_t answer = 0;  // its place among the plant's answers
        bool isCached = false;     // the plant was not asked for it
        bool isInService = true;
    };

    // What there is of an item, in some type. Gives the item's error.
    HResult take(const Asked& item, VarType type, std::uint16_t& quality, std::int64_t& fileTime,
                 OpcValue& value) const;

    std::shared_ptr<Group> group_;
    std::vector<Asked> asked_;
    HResult hostError_ = S_OK;
    std::span<const RequestedItem> readings_;  // of those without error
};

class Group : public std::enable_shared_from_this<Group> {
 public:
    // Bytes that a group takes without its items: itself, its object with all interfaces, the books about them.
    static constexpr std::size_t footprint = 4096;

    Group(Server& server, Application& application, GroupHolds holds, std::string name, std::uint32_t serverHandle,
          GroupState state);
    ~Group() = default;
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;

    const std::string& name() const { return name_; }
    std::uint32_t serverHandle() const { return serverHandle_; }
    const GroupState& state() const { return state_; }
    Application& application() { return *application_; }
    // Bytes that its client's budget has left, and a part of them, still empty, for what is made from this group.
    std::size_t memoryLeft() const { return holds_.memory.room(); }
    Hold memory() const { return holds_.memory.another(); }
    // The client removed it or its server object is gone. Who still holds the group gets E_FAIL from all its calls.
    bool isRemoved() const { return server_ == nullptr; }
    // Data of this group went to the client just now: to be called by who sent it.
    void noteDataSent() const;

    // S_OK; OPC_S_UNSUPPORTEDRATE when the rate was revised (see state().updateRate); E_INVALIDARG for a deadband
    // outside 0 to 100: nothing is changed then.
    HResult setState(const GroupChange& change);
    // Milliseconds, at least minimumUpdateRate; 0: none. S_OK; OPC_S_UNSUPPORTEDRATE when it was revised (see
    // state().keepAlive).
    HResult setKeepAlive(std::uint32_t time);
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
    std::size_t activeItemCount() const;  // looks at each slot
    std::size_t slotCount() const { return slots_.size(); }
    // Of callbacks: no sink; all are answered; an answer is waited for; for so long that the client seems out of reach.
    enum class CallbackState : std::uint8_t { none, advised, waiting, failing };
    CallbackState callbackState() const;
    // What comes of every call for a deadband of an item's own, given, asked for or taken back: S_FALSE, and
    // OPC_E_DEADBANDNOTSUPPORTED for each item, as none has an engineering range. No handle at all is E_INVALIDARG.
    HResult refuseDeadbands(std::span<const std::uint32_t> handles, std::vector<HResult>& errors);

    // The rate at which items are sampled, in milliseconds: that of the passes, whatever is asked for. rates and
    // revised are of one length with the handles; 0 for a bad handle. S_FALSE where an item has no S_OK:
    // OPC_S_UNSUPPORTEDRATE for another rate, OPC_E_RATENOTSET where the item was given none. No handle at all is
    // E_INVALIDARG.
    HResult setSamplingRates(std::span<const std::uint32_t> handles, std::span<const std::uint32_t> rates,
                             std::vector<std::uint32_t>& revised, std::vector<HResult>& errors);
    HResult samplingRates(std::span<const std::uint32_t> handles, std::vector<std::uint32_t>& rates,
                          std::vector<HResult>& errors);
    HResult clearSamplingRates(std::span<const std::uint32_t> handles, std::vector<HResult>& errors);

    // Calls sink(const ItemReading&) once for each handle, in order. S_OK, or S_FALSE when an item has an error.
    // An inactive item, and every item of an inactive group, comes with quality "out of service".
    template <class Sink>
    HResult readCache(std::span<const std::uint32_t> handles, Sink&& sink);
    // The same for cached values that are young enough, as long as all are; nothing as soon as one is not, or is of an
    // item that is out of service and has a maximum age: what the sink got is void then, and readDevice is to be asked.
    // maxAges: milliseconds, one for each handle.
    template <class Sink>
    std::optional<HResult> readYoung(std::span<const std::uint32_t> handles, std::span<const std::uint32_t> maxAges,
                                     Sink&& sink);
    // Asks the server host for the values that are too old: OnRead once with all these items, done once, maybe before
    // this returns. Active or not does not matter. handles: at least one.
    void readDevice(std::span<const std::uint32_t> handles, const MaxAges& maxAges,
                    std::function<void(DeviceReading&)> done);
    // OnWrite once for all valid items, done once, maybe before this returns; the values never matter, as no item takes
    // one. Results as of the other calls.
    using WriteDone = std::function<void(HResult result, const std::vector<HResult>& errors)>;
    void write(std::span<const std::uint32_t> handles, WriteDone done);

    // A sink for the group's callbacks. While the group is active and callbacks are enabled, it gets all active items
    // and then each that differs from what it was sent, no more often than the update rate allows: value, quality or
    // error, and also the type when SetDatatypes changed it; a time stamp alone is no difference. What is set active is
    // sent again. CONNECT_E_ADVISELIMIT; E_OUTOFMEMORY when the client's budget has no room for it.
    HResult advise(std::unique_ptr<IDataSink> sink, std::uint32_t& cookie);
    // CONNECT_E_NOCONNECTION for an unknown cookie. The sink is gone then. With the last one go all transactions that
    // are under way.
    HResult unadvise(std::uint32_t cookie);
    // A sink for one stream alone. Values come as those of advise(), whether callbacks are enabled or not and without
    // keep-alives; of the transactions, only those come that name the connection. One for each kind of stream:
    // CONNECT_E_ADVISELIMIT; E_OUTOFMEMORY when the client's budget has no room for it.
    HResult adviseStream(std::unique_ptr<IDataSink> sink, Stream stream, std::uint32_t& connection);
    // CONNECT_E_NOCONNECTION for an unknown connection. The sink is gone then, and the connection's transactions.
    HResult unadviseStream(std::uint32_t connection);
    // A sink has no unanswered callback any more: what waits for it goes out, though not from within this call.
    void sinkAnswered();

    // The transactions. Each that begins ends in one callback, which never comes from within the call that begins it,
    // unless the sinks are gone by then. to: a number of the client's for each sink of advise(), or a stream of the
    // kind that takes the answer. cancelId: ours, for cancel(); 0 when none began. errors: one for each handle, none
    // when the call fails as a whole: E_INVALIDARG (no handle; no such source), CONNECT_E_NOCONNECTION (no such sink),
    // CONNECT_E_ADVISELIMIT (so many callbacks have not ended or not been answered), E_OUTOFMEMORY (the client's
    // budget). S_FALSE: an item has an error; it is not in the callback, and with none left there is no callback.

    // OnRead once with the items whose cached value is too old, then onReadComplete with all.
    HResult asyncRead(std::span<const std::uint32_t> handles, Recipient to, std::uint32_t& cancelId,
                      std::vector<HResult>& errors, const MaxAges& maxAges = MaxAges(noAge));
    // The same, all from one source: 1 cache, 2 device.
    HResult asyncReadFrom(std::uint16_t source, std::span<const std::uint32_t> handles, Recipient to,
                          std::uint32_t& cancelId, std::vector<HResult>& errors);
    // OnWrite once, then onWriteComplete, with the event's error for each item.
    HResult asyncWrite(std::span<const std::uint32_t> handles, Recipient to, std::uint32_t& cancelId,
                       std::vector<HResult>& errors);
    // One onDataChange with all active items, whether callbacks are enabled or not. source: 1 cache, 2 device. E_FAIL
    // for an inactive group and for one without active items.
    HResult refresh(std::uint16_t source, Recipient to, std::uint32_t& cancelId);
    // The same; the device is asked for those items only whose cached value is older than so many milliseconds.
    HResult refreshMaxAge(std::uint32_t maxAge, Recipient to, std::uint32_t& cancelId);
    // S_OK: onCancelComplete comes instead of the transaction's callback. E_FAIL: there is no such transaction, or none
    // any more.
    HResult cancel(std::uint32_t cancelId);
    // The same for a stream's transaction, whose end no stream tells of: S_OK: nothing comes of it.
    HResult cancelStream(std::uint32_t cancelId);
    // Whether values go out by subscription; at first they do. CONNECT_E_NOCONNECTION without a sink.
    HResult setEnabled(bool enabled);
    HResult isEnabled(bool& enabled) const;

 private:
    friend class Server;
    friend class DeviceReading;
    friend class Subscription;
    struct Slot {
        const SLIKTag* tag = nullptr;  // nullptr: free
        std::uint32_t clientHandle = 0;
        VarType requestedType = VT_EMPTY;  // as the client asked
        VarType type = VT_EMPTY;           // what to deliver: the canonical type when the client asked for none
        std::uint16_t generation = 0;      // 1 to 4095
        bool active = false;
        bool hasSamplingRate = false;  // the client gave it one
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
    bool isInService(const Slot& slot) const { return state_.active && slot.active; }
    // What a client gets of an item from the cache. Gives the item's error.
    static HResult fromCache(const SLIKTag& tag, VarType type, bool isInService, std::uint16_t& quality,
                             OpcValue& value);
    HResult fromCache(const Slot& slot, std::uint16_t& quality, OpcValue& value) const {
        return fromCache(*slot.tag, slot.type, isInService(slot), quality, value);
    }
    // Whether the plant need not be asked: the value is young enough, or nobody may read it. now: UTC, FILETIME.
    bool isCacheEnough(const Slot& slot, std::uint32_t maxAge, std::int64_t now) const {
        return maxAge == anyAge || !isReadable(*slot.tag) ||
               (isInService(slot) && isYoungEnough(slot.tag->fileTime(), maxAge, now));
    }
    // isEnough(slot, index): ends the read, without a result, when it is not.
    template <class IsEnough, class Sink>
    std::optional<HResult> readWhile(std::span<const std::uint32_t> handles, IsEnough&& isEnough, Sink&& sink);

    ItemResult validate(const ItemDefinition& item, const SLIKTag*& tag) const;
    template <class Accept>
    HResult validateEach(std::span<const ItemDefinition> items, std::vector<ItemResult>& results,
                         Accept&& accept) const;
    std::uint32_t insert(const ItemDefinition& item, const SLIKTag& tag);
    std::uint32_t handleOf(std::size_t number) const {
        return static_cast<std::uint32_t>(slots_[number].generation) << slotBits | static_cast<std::uint32_t>(number);
    }
    void remove(std::uint32_t handle, Slot& slot);
    // A stream of writes counts as if it took values: there is one at most.
    std::size_t sinks() const { return subscriptions_.size() + streams_.size(); }
    std::size_t memoryFor(std::size_t slots, std::size_t sinks) const {
        return footprint + slots * (slotCost + sinks * sizeof(SentItem)) + sinks * Subscription::footprint;
    }
    bool makeRoom(std::size_t slots);
    bool copyItemsFrom(const Group& other);
    void detach();
    DeviceReading::Asked toAsk(std::uint32_t handle, std::uint32_t maxAge, std::int64_t now);
    void ask(const std::shared_ptr<DeviceReading>& reading, std::function<void(DeviceReading&)> done);

    enum class Stage : std::uint8_t { atPlant, waiting, cancelled };
    // A callback that the client began.
    struct Transaction {
        Recipient to;
        Stage stage;
        Hold memory;
    };
    // So many of them may be on their way to the client.
    static constexpr std::size_t mostTransactions = 64;
    // Bytes of a transaction, and of each of its items on the way to the plant.
    static constexpr std::size_t transactionCost = 512;
    static constexpr std::size_t questionCost = 100;

    enum class Answer : std::uint8_t { values, writes };
    bool hasSinkOf(const Recipient& to, Answer answer) const;
    HResult refusal(const Recipient& to, Answer answer, bool asksForNothing) const;
    HResult begin(Recipient to, Stage stage, std::size_t memory, std::uint32_t& cancelId);
    void beginReading(std::uint32_t cancelId, std::shared_ptr<DeviceReading> reading,
                      void (Group::*complete)(std::uint32_t, const DeviceReading&));
    // Later, and only if the transaction has not ended by then.
    template <class Action>
    void postFor(std::uint32_t cancelId, Action action);
    bool isUnderWay(std::uint32_t cancelId) const;
    Recipient end(std::uint32_t cancelId);
    CallbackColumns& beginCallback(const Recipient& to);
    template <class Action>
    void forEachSinkOf(const Recipient& to, Action&& action) {
        if (!to.isStream) {
            subscriptions_.forEach(action);
        } else if (Subscription* const its = streams_.find(to.connection)) {
            action(*its);
        }
    }
    template <class Action>
    void forEachSink(Action&& action) const {
        subscriptions_.forEach(action);
        streams_.forEach(action);
    }
    HResult adviseTo(Connections<Subscription>& list, std::unique_ptr<Subscription> sink, std::uint32_t& cookie);
    HResult unadviseFrom(Connections<Subscription>& list, std::uint32_t cookie);
    void completeRead(std::uint32_t cancelId, const DeviceReading& reading);
    void completeRefresh(std::uint32_t cancelId, const DeviceReading& reading);
    void completeWrite(std::uint32_t cancelId, std::span<const std::uint32_t> clientHandles, HResult error);
    void completeCancel(std::uint32_t cancelId);

    // Values by subscription, and what a refresh sends.
    bool sendsChanges(const Subscription& to) const {
        return state_.active && to.stream() != Stream::writes && (isEnabled_ || to.stream());
    }
    bool isRefreshWaiting() const;
    bool isAnySinkBusy() const;
    void wakeSinks();
    void restartKeepAlive(const Recipient& to = 0);
    std::size_t sendKeepAlive(Subscription& to, std::uint64_t now);
    // Something besides values changed; what was sent counts no more, of all items or of one.
    void noteChange();
    void forgetSent();
    void forgetSent(std::size_t slot);
    std::size_t sendChanges(Subscription& to, std::uint64_t now);
    bool gatherChanges(Subscription& to, std::size_t begin, std::size_t end);
    std::size_t sendRefresh();
    void addRefreshed(const Recipient& to, CallbackColumns& callback, std::size_t number, std::int64_t fileTime,
                      std::uint16_t quality, HResult error, OpcValue& value);
    void sendRefreshed(const Recipient& to, CallbackColumns& callback);

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
    bool isEnabled_ = true;
    Connections<Subscription> subscriptions_;  // to everything
    Connections<Subscription> streams_;
    std::map<std::uint32_t, Transaction> transactions_;  // by cancel ID, which is their order
};

inline HResult Group::fromCache(const SLIKTag& tag, VarType type, bool isInService, std::uint16_t& quality,
                                OpcValue& value) {
    if (!isReadable(tag)) {
        value.type = VT_EMPTY;
        quality = quality::bad;
        return OPC_E_BADRIGHTS;
    }
    quality = isInService ? tag.qualityWord() : quality::badOutOfService;
    return present(tag.Value(), type, quality, value);
}

template <class Sink>
HResult Group::readCache(std::span<const std::uint32_t> handles, Sink&& sink) {
    return readWhile(
               handles, [](const Slot&, std::size_t) { return true; }, sink)
        .value_or(S_OK);
}

template <class Sink>
std::optional<HResult> Group::readYoung(std::span<const std::uint32_t> handles, std::span<const std::uint32_t> maxAges,
                                        Sink&& sink) {
    const auto isEnough = [this, maxAges, now = timeSource().fileTimeNow()](const Slot& slot, std::size_t index) {
        return isCacheEnough(slot, maxAges[index], now);
    };
    return handles.size() == maxAges.size() ? readWhile(handles, isEnough, sink) : std::optional(E_INVALIDARG);
}

template <class IsEnough, class Sink>
std::optional<HResult> Group::readWhile(std::span<const std::uint32_t> handles, IsEnough&& isEnough, Sink&& sink) {
    if (handles.empty() || isRemoved()) {
        return isRemoved() ? E_FAIL : E_INVALIDARG;
    }
    bool allGood = true;
    OpcValue value;
    for (std::size_t i = 0; i < handles.size(); ++i) {
        if (const Slot* slot = find(handles[i])) {
            if (!isEnough(*slot, i)) {
                return std::nullopt;
            }
            std::uint16_t quality = 0;
            const HResult error = fromCache(*slot, quality, value);
            sink(ItemReading{error, slot->clientHandle, slot->tag->fileTime(), quality, value});
            allGood &= error == S_OK;
        } else {
            value.type = VT_EMPTY;
            sink(ItemReading{OPC_E_INVALIDHANDLE, 0, 0, quality::bad, value});
            allGood = false;
        }
    }
    return allGood ? S_OK : S_FALSE;
}

inline std::size_t DeviceReading::memoryLeft() const {
    return group_->memoryLeft();
}

inline void DeviceReading::noteDataSent() const {
    group_->noteDataSent();
}

template <class Sink>
HResult DeviceReading::deliver(Sink&& sink) const {
    bool allGood = true;
    OpcValue value;
    for (const Asked& item : asked_) {
        std::uint16_t quality = quality::bad;
        std::int64_t fileTime = 0;
        const HResult error = take(item, item.type, quality, fileTime, value);
        sink(ItemReading{error, item.clientHandle, fileTime, quality, value});
        allGood &= error == S_OK;
    }
    return allGood ? S_OK : S_FALSE;
}

}  // namespace quelm::opcda
