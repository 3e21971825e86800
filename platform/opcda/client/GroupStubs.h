#pragma once

// The interfaces of a group. Spans that go with each other have one length; calls with other counts are made by
// target().call().

#include "opcda/client/Columns.h"
#include "opcda/client/Stub.h"
#include "opcda/client/Value.h"
#include "opcda/wire/AsyncIo3Interface.h"
#include "opcda/wire/GroupStateMgtInterface.h"
#include "opcda/wire/ItemDeadbandMgtInterface.h"
#include "opcda/wire/ItemMgtInterface.h"
#include "opcda/wire/ItemSamplingMgtInterface.h"
#include "opcda/wire/SyncIo2Interface.h"

namespace quelm::opcda::client {

using Handles = std::span<const std::uint32_t>;

// As GetState gives it. Times in milliseconds, the bias in minutes.
struct GroupState {
    std::uint32_t updateRate = 0;
    bool active = false;
    Maybe<std::string> name;
    std::int32_t timeBias = 0;
    float percentDeadband = 0;
    std::uint32_t localeId = 0;
    std::uint32_t clientHandle = 0;
    std::uint32_t serverHandle = 0;
};

// What SetState is to change; nothing is a null pointer: it stays.
using opcda::GroupChange;

class IOPCGroupStateMgt : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcGroupStateMgt;
    using Stub::Stub;

    Reply<GroupState> GetState() const;
    // Gives the revised update rate.
    Reply<std::uint32_t> SetState(const GroupChange& change) const;
    HResult SetName(std::string_view name) const;
    Reply<Maybe<Interface>> CloneGroup(std::string_view name, const Uuid& groupIid) const;
};

class IOPCGroupStateMgt2 : public IOPCGroupStateMgt {
 public:
    static constexpr Uuid iid = wire::iidOpcGroupStateMgt2;
    using IOPCGroupStateMgt::IOPCGroupStateMgt;

    // Gives the revised time.
    Reply<std::uint32_t> SetKeepAlive(std::uint32_t time) const;
    Reply<std::uint32_t> GetKeepAlive() const;
};

struct ItemDefinition {
    std::string itemId = {};
    std::string accessPath = {};
    bool active = true;
    std::uint32_t clientHandle = 0;
    VarType requestedType = VT_EMPTY;  // the item's own
    std::vector<std::uint8_t> blob = {};
};

struct ItemResult {
    std::uint32_t serverHandle = 0;
    VarType canonicalType = VT_EMPTY;
    std::uint32_t accessRights = 0;  // 1 readable, 2 writable
    std::vector<std::uint8_t> blob;
};

struct ItemResults {
    Maybe<std::vector<ItemResult>> items;
    Errors errors;
};

class IOPCItemMgt : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcItemMgt;
    using Stub::Stub;

    Reply<ItemResults> AddItems(std::span<const ItemDefinition> items) const;
    Reply<ItemResults> ValidateItems(std::span<const ItemDefinition> items, bool blobUpdate) const;
    Reply<Errors> RemoveItems(Handles handles) const;
    Reply<Errors> SetActiveState(Handles handles, bool active) const;
    Reply<Errors> SetClientHandles(Handles handles, std::span<const std::uint32_t> clientHandles) const;
    Reply<Errors> SetDatatypes(Handles handles, std::span<const VarType> types) const;
    Reply<Maybe<Interface>> CreateEnumerator(const Uuid& enumeratorIid) const;
};

enum class Source : std::uint16_t { Cache = 1, Device };

struct ItemState {
    std::uint32_t clientHandle = 0;
    std::int64_t fileTime = 0;  // UTC, 100-nanosecond units since 1601-01-01
    std::uint16_t quality = 0;
    Value value;
};

struct ItemStates {
    Maybe<std::vector<ItemState>> items;
    Errors errors;
};

class IOPCSyncIO : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcSyncIo;
    using Stub::Stub;

    Reply<ItemStates> Read(Source source, Handles handles) const;
    Reply<Errors> Write(Handles handles, std::span<const Value> values) const;
};

class IOPCSyncIO2 : public IOPCSyncIO {
 public:
    static constexpr Uuid iid = wire::iidOpcSyncIo2;
    using IOPCSyncIO::IOPCSyncIO;

    Reply<ReadColumns> ReadMaxAge(Handles handles, std::span<const std::uint32_t> maxAges) const;
    Reply<Errors> WriteVQT(Handles handles, std::span<const ValueToWrite> values) const;
};

// A transaction that was begun: its results come by a callback unless each item failed at once.
struct Transaction {
    std::uint32_t cancelId = 0;
    Errors errors;
};

// transaction: the client's own number, which the callback has again.
class IOPCAsyncIO2 : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcAsyncIo2;
    using Stub::Stub;

    Reply<Transaction> Read(Handles handles, std::uint32_t transaction) const;
    Reply<Transaction> Write(Handles handles, std::span<const Value> values, std::uint32_t transaction) const;
    // Gives the cancel id.
    Reply<std::uint32_t> Refresh2(Source source, std::uint32_t transaction) const;
    HResult Cancel2(std::uint32_t cancelId) const;
    HResult SetEnable(bool enabled) const;
    Reply<bool> GetEnable() const;

 protected:
    template <class Opnum>
    Reply<Transaction> begin(Opnum opnum, std::string_view method, std::size_t count,
                             const Stub::Write& parameters) const;
};

class IOPCAsyncIO3 : public IOPCAsyncIO2 {
 public:
    static constexpr Uuid iid = wire::iidOpcAsyncIo3;
    using IOPCAsyncIO2::IOPCAsyncIO2;

    Reply<Transaction> ReadMaxAge(Handles handles, std::span<const std::uint32_t> maxAges,
                                  std::uint32_t transaction) const;
    Reply<Transaction> WriteVQT(Handles handles, std::span<const ValueToWrite> values, std::uint32_t transaction) const;
    // Gives the cancel id.
    Reply<std::uint32_t> RefreshMaxAge(std::uint32_t maxAge, std::uint32_t transaction) const;
};

struct Deadbands {
    Maybe<std::vector<float>> percent;
    Errors errors;
};

class IOPCItemDeadbandMgt : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcItemDeadbandMgt;
    using Stub::Stub;

    Reply<Errors> SetItemDeadband(Handles handles, std::span<const float> percent) const;
    Reply<Deadbands> GetItemDeadband(Handles handles) const;
    Reply<Errors> ClearItemDeadband(Handles handles) const;
};

// Rates in milliseconds, or whether samples are buffered.
struct Sampling {
    Maybe<std::vector<std::uint32_t>> numbers;
    Errors errors;
};

class IOPCItemSamplingMgt : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcItemSamplingMgt;
    using Stub::Stub;

    Reply<Sampling> SetItemSamplingRate(Handles handles, std::span<const std::uint32_t> rates) const;
    Reply<Sampling> GetItemSamplingRate(Handles handles) const;
    Reply<Errors> ClearItemSamplingRate(Handles handles) const;
    Reply<Errors> SetItemBufferEnable(Handles handles, std::span<const std::uint32_t> enable) const;
    Reply<Sampling> GetItemBufferEnable(Handles handles) const;

 private:
    Reply<Sampling> sampling(wire::ItemSamplingMgt opnum, std::string_view method, std::size_t count,
                             const Write& parameters) const;
};

}  // namespace quelm::opcda::client
