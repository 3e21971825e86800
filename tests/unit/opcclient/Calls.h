#pragma once

// A call of each method of each typed interface, and what it gave as a line of text: for a session with our own
// server, for answers that are cut short, and for the fuzzer.

#include <fmt/format.h>

#include <functional>

#include "opcda/client/BrowseStubs.h"
#include "opcda/client/EnumeratorStubs.h"
#include "opcda/client/GroupStubs.h"
#include "opcda/client/ServerStubs.h"
#include "opcda/client/Words.h"

namespace quelm::opcda::client::test {

struct Show {
    static std::string of(HResult result) { return resultName(result); }
    static std::string of(bool value) { return value ? "true" : "false"; }
    static std::string of(const Value& value) { return textOf(value); }
    static std::string of(const std::string& text) { return "'" + text + "'"; }
    static std::string of(const Interface& /*object*/) { return "object"; }
    static std::string of(const Uuid& uuid) { return uuid.toText().substr(0, 8); }
    template <class Number>
    requires std::is_arithmetic_v<Number>
    static std::string of(Number number) { return fmt::format("{}", number); }
    template <class T>
    static std::string of(const std::optional<T>& maybe) {
        return maybe ? of(*maybe) : "null";
    }
    template <class T>
    static std::string of(const std::vector<T>& list) {
        std::string text = "[";
        for (const auto& element : list) {
            text += (text.size() > 1 ? ", " : "") + of(element);
        }
        return text + "]";
    }
    static std::string of(const NewGroup& group) { return all(group.revisedUpdateRate, group.group); }
    static std::string of(const ServerStatus& status) {
        return all(fileTimeText(status.startTime), stateText(status.state), status.groupCount, status.vendorInfo);
    }
    static std::string of(const ClassDetails& details) { return all(details.progId, details.versionIndependentProgId); }
    static std::string of(const AvailableProperties& available) {
        return all(available.count, available.ids, available.descriptions, available.types);
    }
    static std::string of(const PropertyValues& values) { return all(values.values, values.errors); }
    static std::string of(const PropertyItemIds& ids) { return all(ids.itemIds, ids.errors); }
    static std::string of(const Property& property) { return all(property.id, property.value, property.error); }
    static std::string of(const ItemPropertyList& list) { return all(list.error, list.properties); }
    static std::string of(const BrowseElement& element) {
        return all(element.name, element.itemId, element.flags, element.properties);
    }
    static std::string of(const BrowsePortion& portion) {
        return all(portion.continuationPoint.has_value(), portion.moreElements, portion.elements);
    }
    static std::string of(const ReadColumns& columns) {
        return all(columns.values, columns.qualities, columns.fileTimes, columns.errors);
    }
    static std::string of(const GroupState& state) {
        return all(state.updateRate, state.active, state.name, state.timeBias, state.percentDeadband,
                   state.clientHandle);
    }
    static std::string of(const ItemResult& item) { return all(typeName(item.canonicalType), item.accessRights); }
    static std::string of(const ItemResults& results) { return all(results.items, results.errors); }
    static std::string of(const ItemState& state) {
        return all(state.clientHandle, fileTimeText(state.fileTime), qualityText(state.quality), state.value);
    }
    static std::string of(const ItemStates& states) { return all(states.items, states.errors); }
    static std::string of(const Transaction& transaction) { return all(transaction.cancelId != 0, transaction.errors); }
    static std::string of(const Deadbands& deadbands) { return all(deadbands.percent, deadbands.errors); }
    static std::string of(const Sampling& sampling) { return all(sampling.numbers, sampling.errors); }
    static std::string of(const ItemAttributes& item) {
        return all(item.accessPath, item.itemId, item.active, item.clientHandle, typeName(item.canonicalType));
    }
    template <class Out>
    static std::string of(const Reply<Out>& reply) {
        return of(reply.result) + ' ' + of(reply.out);
    }
    template <class... Parts>
    static std::string all(const Parts&... parts) {
        std::string text;
        ((text += (text.empty() ? "(" : ", ") + of(parts)), ...);
        return text + ")";
    }
};

struct Call {
    std::string_view name;
    Uuid iid;
    std::function<std::string(const Interface&)> make;
};

// what(stub): the reply of one method.
template <class Typed, class What>
Call callOf(std::string_view name, What what) {
    return {name, Typed::iid, [what](const Interface& target) { return Show::of(what(Typed(target))); }};
}

#define CALL(Stub, method, ...) \
    callOf<Stub>(#Stub "::" #method, [=](const Stub& stub) { return stub.method(__VA_ARGS__); })

inline std::vector<Call> serverCalls() {
    const std::vector<std::string> items{"A.Temp", "No.Such"};
    const std::vector<std::uint32_t> ages{fromCache, fromDevice};
    const std::vector<std::uint32_t> ids{1, 5, 99999};
    const std::vector<ValueToWrite> vqts{{Value::real(VT_R4, 1), 0xC0, std::nullopt}, {Value::text("a"), {}, 1}};
    GroupRequest group;
    group.name = "a group";
    group.timeBias = -60;
    group.percentDeadband = 5;
    BrowseRequest browse;
    browse.itemId = "A";
    browse.propertyValues = true;
    browse.propertyIds = {1, 2};
    return {
        CALL(IOPCServer, AddGroup, group, IOPCItemMgt::iid),
        CALL(IOPCServer, GetErrorString, E_FAIL, 0x409),
        CALL(IOPCServer, GetGroupByName, "nobody", IOPCItemMgt::iid),
        CALL(IOPCServer, GetStatus),
        CALL(IOPCServer, CreateGroupEnumerator, GroupScope::All, IEnumString::iid),
        CALL(IOPCServer, CreateGroupEnumerator, GroupScope::All, IEnumUnknown::iid),
        CALL(IOPCServer, RemoveGroup, 4711, false),
        CALL(IOPCCommon, SetLocaleID, 0x409),
        CALL(IOPCCommon, GetLocaleID),
        CALL(IOPCCommon, QueryAvailableLocaleIDs),
        CALL(IOPCCommon, GetErrorString, HResult{0x12345678}),
        CALL(IOPCCommon, SetClientName, "test"),
        CALL(IOPCBrowseServerAddressSpace, QueryOrganization),
        CALL(IOPCBrowseServerAddressSpace, ChangeBrowsePosition, BrowseDirection::Down, "A"),
        CALL(IOPCBrowseServerAddressSpace, GetItemID, "Temp"),
        CALL(IOPCBrowseServerAddressSpace, BrowseAccessPaths, "A.Temp"),
        CALL(IOPCBrowseServerAddressSpace, BrowseOPCItemIDs, BrowseType::Leaf, "", VT_EMPTY, 0),
        CALL(IOPCItemProperties, QueryAvailableProperties, "A.Temp"),
        CALL(IOPCItemProperties, GetItemProperties, "A.Temp", ids),
        CALL(IOPCItemProperties, LookupItemIDs, "A.Temp", ids),
        CALL(IOPCBrowse, GetProperties, items, true, ids),
        CALL(IOPCBrowse, Browse, browse),
        CALL(IOPCItemIO, Read, items, ages),
        CALL(IOPCItemIO, WriteVQT, items, vqts),
        CALL(IConnectionPointContainer, EnumConnectionPoints),
        CALL(IConnectionPointContainer, FindConnectionPoint, wire::iidOpcShutdown),
    };
}

// handles: two of the group's; transactions are begun on a group with a sink.
inline std::vector<Call> groupCalls(const std::vector<std::uint32_t>& handles) {
    const std::vector<std::uint32_t> numbers{100, 101};
    const std::vector<VarType> types{VT_BSTR, VT_DISPATCH};
    const std::vector<Value> values{Value::integer(VT_BOOL, -1), Value::text("on")};
    const std::vector<ValueToWrite> vqts{{values[0], {}, {}}, {values[1], 0xC0, 1}};
    const std::vector<float> percents{1, 2};
    const std::vector<ItemDefinition> definitions{
        {.itemId = "A.Count", .accessPath = "x", .clientHandle = 7, .blob = {1}}, {}};
    GroupChange change;
    change.active = true;
    change.updateRate = 137;
    return {
        CALL(IOPCGroupStateMgt2, GetState),
        CALL(IOPCGroupStateMgt2, SetState, change),
        CALL(IOPCGroupStateMgt2, SetName, "renamed"),
        CALL(IOPCGroupStateMgt2, CloneGroup, "clone", IOPCItemMgt::iid),
        CALL(IOPCGroupStateMgt2, SetKeepAlive, 5),
        CALL(IOPCGroupStateMgt2, GetKeepAlive),
        CALL(IOPCItemMgt, ValidateItems, definitions, true),
        CALL(IOPCItemMgt, SetActiveState, handles, true),
        CALL(IOPCItemMgt, SetClientHandles, handles, numbers),
        CALL(IOPCItemMgt, SetDatatypes, handles, types),
        CALL(IOPCSyncIO2, Read, Source::Cache, handles),
        CALL(IOPCSyncIO2, Write, handles, values),
        CALL(IOPCSyncIO2, ReadMaxAge, handles, numbers),
        CALL(IOPCSyncIO2, WriteVQT, handles, vqts),
        CALL(IOPCAsyncIO3, Read, handles, 1),
        CALL(IOPCAsyncIO3, Write, handles, values, 2),
        CALL(IOPCAsyncIO3, Refresh2, Source::Cache, 3),
        CALL(IOPCAsyncIO3, Cancel2, 4711),
        CALL(IOPCAsyncIO3, SetEnable, true),
        CALL(IOPCAsyncIO3, GetEnable),
        CALL(IOPCAsyncIO3, ReadMaxAge, handles, numbers, 4),
        CALL(IOPCAsyncIO3, WriteVQT, handles, vqts, 5),
        CALL(IOPCAsyncIO3, RefreshMaxAge, 0, 6),
        CALL(IOPCItemDeadbandMgt, SetItemDeadband, handles, percents),
        CALL(IOPCItemDeadbandMgt, GetItemDeadband, handles),
        CALL(IOPCItemDeadbandMgt, ClearItemDeadband, handles),
        CALL(IOPCItemSamplingMgt, SetItemSamplingRate, handles, numbers),
        CALL(IOPCItemSamplingMgt, GetItemSamplingRate, handles),
        CALL(IOPCItemSamplingMgt, ClearItemSamplingRate, handles),
        CALL(IOPCItemSamplingMgt, SetItemBufferEnable, handles, numbers),
        CALL(IOPCItemSamplingMgt, GetItemBufferEnable, handles),
        CALL(IOPCItemMgt, AddItems, definitions),
        CALL(IOPCItemMgt, CreateEnumerator, IEnumOPCItemAttributes::iid),
        CALL(IOPCItemMgt, RemoveItems, handles),
    };
}

// Of objects that other calls give.
inline std::vector<Call> objectCalls() {
    const std::vector<Uuid> categories{categoryDa2};
    return {
        CALL(IOPCServerList, EnumClassesOfCategories, categories, {}),
        CALL(IOPCServerList2, GetClassDetails, Uuid()),
        CALL(IOPCServerList2, CLSIDFromProgID, "No.Such.Server"),
        CALL(IEnumGUID, Next, 2),
        CALL(IEnumString, Next, 10),
        CALL(IEnumString, Skip, 10),
        CALL(IEnumString, Reset),
        CALL(IEnumString, Clone),
        CALL(IEnumUnknown, Next, 2),
        CALL(IEnumOPCItemAttributes, Next, 10),
        CALL(IConnectionPoint, GetConnectionInterface),
        CALL(IConnectionPoint, GetConnectionPointContainer),
        CALL(IConnectionPoint, Advise, {}),
        CALL(IConnectionPoint, Unadvise, 4711),
        CALL(IConnectionPoint, EnumConnections),
    };
}

#undef CALL

}  // namespace quelm::opcda::client::test
