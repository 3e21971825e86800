#include "opcda/client/GroupStubs.h"

namespace quelm::opcda::client {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

Reply<GroupState> IOPCGroupStateMgt::GetState() const {
    Answer answer = ask(wire::GroupStateMgt::GetState, "IOPCGroupStateMgt::GetState");
    Reader& in = answer.in();
    Reply<GroupState> reply;
    reply.out.updateRate = in.u32();
    reply.out.active = in.u32() != 0;
    reply.out.name = readText(in);
    reply.out.timeBias = in.i32();
    reply.out.percentDeadband = in.f32();
    reply.out.localeId = in.u32();
    reply.out.clientHandle = in.u32();
    reply.out.serverHandle = in.u32();
    reply.result = answer.done();
    return reply;
}

Reply<std::uint32_t> IOPCGroupStateMgt::SetState(const GroupChange& change) const {
    return number(wire::GroupStateMgt::SetState, "IOPCGroupStateMgt::SetState", [&](Writer& out) {
        const auto u32 = [&](std::uint32_t value) { out.u32(value); };
        writeOptional(out, change.updateRate, u32);
        writeOptional(out, change.active, [&](bool active) { out.u32(active ? 1 : 0); });
        writeOptional(out, change.timeBias, [&](std::int32_t bias) { out.i32(bias); });
        writeOptional(out, change.percentDeadband, [&](float percent) { out.f32(percent); });
        writeOptional(out, change.localeId, u32);
        writeOptional(out, change.clientHandle, u32);
    });
}

HResult IOPCGroupStateMgt::SetName(std::string_view name) const {
    return tell(wire::GroupStateMgt::SetName, "IOPCGroupStateMgt::SetName", [&](Writer& out) { out.wideString(name); });
}

Reply<Maybe<Interface>> IOPCGroupStateMgt::CloneGroup(std::string_view name, const Uuid& groupIid) const {
    return fetch(wire::GroupStateMgt::CloneGroup, "IOPCGroupStateMgt::CloneGroup", [&](Writer& out) {
        out.wideString(name);
        out.uuid(groupIid);
    });
}

Reply<std::uint32_t> IOPCGroupStateMgt2::SetKeepAlive(std::uint32_t time) const {
    return number(wire::GroupStateMgt2::SetKeepAlive, "IOPCGroupStateMgt2::SetKeepAlive",
                  [&](Writer& out) { out.u32(time); });
}

Reply<std::uint32_t> IOPCGroupStateMgt2::GetKeepAlive() const {
    return number(wire::GroupStateMgt2::GetKeepAlive, "IOPCGroupStateMgt2::GetKeepAlive");
}

namespace {

constexpr std::size_t resultSize = 20;
constexpr std::size_t stateSize = 20;

// Structures first, and behind all of them what they point to.
void writeDefinitions(Writer& out, std::span<const ItemDefinition> items) {
    const auto count = static_cast<std::uint32_t>(items.size());
    out.u32(count);
    out.u32(count);
    for (const ItemDefinition& item : items) {
        out.pointer();
        out.pointer();
        out.u32(item.active ? 1 : 0);
        out.u32(item.clientHandle);
        out.u32(static_cast<std::uint32_t>(item.blob.size()));
        item.blob.empty() ? out.nullPointer() : out.pointer();
        out.u16(item.requestedType);
        out.u16(0);  // reserved
    }
    for (const ItemDefinition& item : items) {
        out.wideString(item.accessPath);
        out.align(4);
        out.wideString(item.itemId);
        out.align(4);
        if (!item.blob.empty()) {
            out.u32(static_cast<std::uint32_t>(item.blob.size()));
            out.bytes(item.blob);
            out.align(4);
        }
    }
}

ItemResults readResults(Reader& in, std::size_t count) {
    ItemResults results;
    if (readArrayHead(in, count, resultSize) && in.good()) {
        std::vector<ItemResult>& items = results.items.emplace(count);
        std::vector<bool> hasBlob(count);
        for (std::size_t i = 0; i < count; ++i) {
            items[i].serverHandle = in.u32();
            items[i].canonicalType = in.u16();
            in.u16();  // reserved
            items[i].accessRights = in.u32();
            in.u32();  // size of the blob, which its conformance repeats
            hasBlob[i] = in.pointer();
        }
        for (std::size_t i = 0; i < count && in.good(); ++i) {
            if (hasBlob[i]) {
                items[i].blob = readBlob(in);
            }
        }
    }
    results.errors = readErrors(in, count);
    return results;
}

ItemStates readStates(Reader& in, std::size_t count) {
    ItemStates states;
    if (readArrayHead(in, count, stateSize) && in.good()) {
        std::vector<ItemState>& items = states.items.emplace(count);
        std::vector<bool> hasValue(count);
        for (std::size_t i = 0; i < count; ++i) {
            items[i].clientHandle = in.u32();
            items[i].fileTime = readFileTime(in);
            items[i].quality = in.u16();
            in.u16();  // reserved
            hasValue[i] = in.pointer();
        }
        for (std::size_t i = 0; i < count && in.good(); ++i) {
            if (hasValue[i]) {
                items[i].value = readValue(in);
            }
        }
    }
    states.errors = readErrors(in, count);
    return states;
}

}  // namespace

Reply<ItemResults> IOPCItemMgt::AddItems(std::span<const ItemDefinition> items) const {
    Answer answer =
        ask(wire::ItemMgt::AddItems, "IOPCItemMgt::AddItems", [&](Writer& out) { writeDefinitions(out, items); });
    Reply<ItemResults> reply;
    reply.out = readResults(answer.in(), items.size());
    reply.result = answer.done();
    return reply;
}

Reply<ItemResults> IOPCItemMgt::ValidateItems(std::span<const ItemDefinition> items, bool blobUpdate) const {
    Answer answer = ask(wire::ItemMgt::ValidateItems, "IOPCItemMgt::ValidateItems", [&](Writer& out) {
        writeDefinitions(out, items);
        out.u32(blobUpdate ? 1 : 0);
    });
    Reply<ItemResults> reply;
    reply.out = readResults(answer.in(), items.size());
    reply.result = answer.done();
    return reply;
}

Reply<Errors> IOPCItemMgt::RemoveItems(Handles handles) const {
    return errors(wire::ItemMgt::RemoveItems, "IOPCItemMgt::RemoveItems", handles.size(),
                  [&](Writer& out) { writeCounted(out, handles); });
}

Reply<Errors> IOPCItemMgt::SetActiveState(Handles handles, bool active) const {
    return errors(wire::ItemMgt::SetActiveState, "IOPCItemMgt::SetActiveState", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        out.u32(active ? 1 : 0);
    });
}

Reply<Errors> IOPCItemMgt::SetClientHandles(Handles handles, std::span<const std::uint32_t> clientHandles) const {
    return errors(wire::ItemMgt::SetClientHandles, "IOPCItemMgt::SetClientHandles", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        writeNumbers(out, clientHandles);
    });
}

Reply<Errors> IOPCItemMgt::SetDatatypes(Handles handles, std::span<const VarType> types) const {
    return errors(wire::ItemMgt::SetDatatypes, "IOPCItemMgt::SetDatatypes", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        out.u32(static_cast<std::uint32_t>(types.size()));
        for (const VarType type : types) {
            out.u16(type);
        }
    });
}

Reply<Maybe<Interface>> IOPCItemMgt::CreateEnumerator(const Uuid& enumeratorIid) const {
    return fetch(wire::ItemMgt::CreateEnumerator, "IOPCItemMgt::CreateEnumerator",
                 [&](Writer& out) { out.uuid(enumeratorIid); });
}

Reply<ItemStates> IOPCSyncIO::Read(Source source, Handles handles) const {
    Answer answer = ask(wire::SyncIo::Read, "IOPCSyncIO::Read", [&](Writer& out) {
        out.u16(static_cast<std::uint16_t>(source));
        writeCounted(out, handles);
    });
    Reply<ItemStates> reply;
    reply.out = readStates(answer.in(), handles.size());
    reply.result = answer.done();
    return reply;
}

Reply<Errors> IOPCSyncIO::Write(Handles handles, std::span<const Value> values) const {
    return errors(wire::SyncIo::Write, "IOPCSyncIO::Write", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        writeValues(out, values);
    });
}

Reply<ReadColumns> IOPCSyncIO2::ReadMaxAge(Handles handles, std::span<const std::uint32_t> maxAges) const {
    Answer answer = ask(wire::SyncIo2::ReadMaxAge, "IOPCSyncIO2::ReadMaxAge", [&](Writer& out) {
        writeCounted(out, handles);
        writeNumbers(out, maxAges);
    });
    Reply<ReadColumns> reply;
    reply.out = readColumns(answer.in(), handles.size());
    reply.result = answer.done();
    return reply;
}

Reply<Errors> IOPCSyncIO2::WriteVQT(Handles handles, std::span<const ValueToWrite> values) const {
    return errors(wire::SyncIo2::WriteVqt, "IOPCSyncIO2::WriteVQT", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        writeVqts(out, values);
    });
}

// A call whose answer is a cancel id and a result for each of count items.
template <class Opnum>
Reply<Transaction> IOPCAsyncIO2::begin(Opnum opnum, std::string_view method, std::size_t count,
                                       const Stub::Write& parameters) const {
    Answer answer = ask(opnum, method, parameters);
    Reply<Transaction> reply;
    reply.out.cancelId = answer.in().u32();
    reply.out.errors = readErrors(answer.in(), count);
    reply.result = answer.done();
    return reply;
}

Reply<Transaction> IOPCAsyncIO2::Read(Handles handles, std::uint32_t transaction) const {
    return begin(wire::AsyncIo2::Read, "IOPCAsyncIO2::Read", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        out.u32(transaction);
    });
}

Reply<Transaction> IOPCAsyncIO2::Write(Handles handles, std::span<const Value> values,
                                       std::uint32_t transaction) const {
    return begin(wire::AsyncIo2::Write, "IOPCAsyncIO2::Write", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        writeValues(out, values);
        out.u32(transaction);
    });
}

Reply<std::uint32_t> IOPCAsyncIO2::Refresh2(Source source, std::uint32_t transaction) const {
    return number(wire::AsyncIo2::Refresh2, "IOPCAsyncIO2::Refresh2", [&](Writer& out) {
        out.u16(static_cast<std::uint16_t>(source));
        out.u32(transaction);
    });
}

HResult IOPCAsyncIO2::Cancel2(std::uint32_t cancelId) const {
    return tell(wire::AsyncIo2::Cancel2, "IOPCAsyncIO2::Cancel2", [&](Writer& out) { out.u32(cancelId); });
}

HResult IOPCAsyncIO2::SetEnable(bool enabled) const {
    return tell(wire::AsyncIo2::SetEnable, "IOPCAsyncIO2::SetEnable", [&](Writer& out) { out.u32(enabled ? 1 : 0); });
}

Reply<bool> IOPCAsyncIO2::GetEnable() const {
    const auto reply = number(wire::AsyncIo2::GetEnable, "IOPCAsyncIO2::GetEnable");
    return {reply.result, reply.out != 0};
}

Reply<Transaction> IOPCAsyncIO3::ReadMaxAge(Handles handles, std::span<const std::uint32_t> maxAges,
                                            std::uint32_t transaction) const {
    return begin(wire::AsyncIo3::ReadMaxAge, "IOPCAsyncIO3::ReadMaxAge", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        writeNumbers(out, maxAges);
        out.u32(transaction);
    });
}

Reply<Transaction> IOPCAsyncIO3::WriteVQT(Handles handles, std::span<const ValueToWrite> values,
                                          std::uint32_t transaction) const {
    return begin(wire::AsyncIo3::WriteVqt, "IOPCAsyncIO3::WriteVQT", handles.size(), [&](Writer& out) {
        writeCounted(out, handles);
        writeVqts(out, values);
        out.u32(transaction);
    });
}

Reply<std::uint32_t> IOPCAsyncIO3::RefreshMaxAge(std::uint32_t maxAge, std::uint32_t transaction) const {
    return number(wire::AsyncIo3::RefreshMaxAge, "IOPCAsyncIO3::RefreshMaxAge", [&](Writer& out) {
        out.u32(maxAge);
        out.u32(transaction);
    });
}

Reply<Errors> IOPCItemDeadbandMgt::SetItemDeadband(Handles handles, std::span<const float> percent) const {
    return errors(wire::ItemDeadbandMgt::SetItemDeadband, "IOPCItemDeadbandMgt::SetItemDeadband", handles.size(),
                  [&](Writer& out) {
                      writeCounted(out, handles);
                      out.u32(static_cast<std::uint32_t>(percent.size()));
                      for (const float each : percent) {
                          out.f32(each);
                      }
                  });
}

Reply<Deadbands> IOPCItemDeadbandMgt::GetItemDeadband(Handles handles) const {
    Answer answer = ask(wire::ItemDeadbandMgt::GetItemDeadband, "IOPCItemDeadbandMgt::GetItemDeadband",
                        [&](Writer& out) { writeCounted(out, handles); });
    Reply<Deadbands> reply;
    reply.out.percent =
        readArray<float>(answer.in(), handles.size(), sizeof(float), [](Reader& each) { return each.f32(); });
    reply.out.errors = readErrors(answer.in(), handles.size());
    reply.result = answer.done();
    return reply;
}

Reply<Errors> IOPCItemDeadbandMgt::ClearItemDeadband(Handles handles) const {
    return errors(wire::ItemDeadbandMgt::ClearItemDeadband, "IOPCItemDeadbandMgt::ClearItemDeadband", handles.size(),
                  [&](Writer& out) { writeCounted(out, handles); });
}

Reply<Sampling> IOPCItemSamplingMgt::sampling(wire::ItemSamplingMgt opnum, std::string_view method, std::size_t count,
                                              const Write& parameters) const {
    Answer answer = ask(opnum, method, parameters);
    Reply<Sampling> reply;
    reply.out.numbers =
        readArray<std::uint32_t>(answer.in(), count, sizeof(std::uint32_t), [](Reader& each) { return each.u32(); });
    reply.out.errors = readErrors(answer.in(), count);
    reply.result = answer.done();
    return reply;
}

Reply<Sampling> IOPCItemSamplingMgt::SetItemSamplingRate(Handles handles, std::span<const std::uint32_t> rates) const {
    return sampling(wire::ItemSamplingMgt::SetItemSamplingRate, "IOPCItemSamplingMgt::SetItemSamplingRate",
                    handles.size(), [&](Writer& out) {
                        writeCounted(out, handles);
                        writeNumbers(out, rates);
                    });
}

Reply<Sampling> IOPCItemSamplingMgt::GetItemSamplingRate(Handles handles) const {
    return sampling(wire::ItemSamplingMgt::GetItemSamplingRate, "IOPCItemSamplingMgt::GetItemSamplingRate",
                    handles.size(), [&](Writer& out) { writeCounted(out, handles); });
}

Reply<Errors> IOPCItemSamplingMgt::ClearItemSamplingRate(Handles handles) const {
    return errors(wire::ItemSamplingMgt::ClearItemSamplingRate, "IOPCItemSamplingMgt::ClearItemSamplingRate",
                  handles.size(), [&](Writer& out) { writeCounted(out, handles); });
}

Reply<Errors> IOPCItemSamplingMgt::SetItemBufferEnable(Handles handles, std::span<const std::uint32_t> enable) const {
    return errors(wire::ItemSamplingMgt::SetItemBufferEnable, "IOPCItemSamplingMgt::SetItemBufferEnable",
                  handles.size(), [&](Writer& out) {
                      writeCounted(out, handles);
                      writeNumbers(out, enable);
                  });
}

Reply<Sampling> IOPCItemSamplingMgt::GetItemBufferEnable(Handles handles) const {
    return sampling(wire::ItemSamplingMgt::GetItemBufferEnable, "IOPCItemSamplingMgt::GetItemBufferEnable",
                    handles.size(), [&](Writer& out) { writeCounted(out, handles); });
}

}  // namespace quelm::opcda::client
