// Area 5: items of a group.

#include <array>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace items {
namespace {

using namespace opcda::client;

ItemDefinition of(const std::string& id, VarType type = VT_EMPTY) {
    return {id, "", true, 100, type, {}};
}

const std::string nobodysItem = "no.such.item.anywhere";

bool isConversionCode(HResult code) {
    return code == OPC_E_BADTYPE || (static_cast<std::uint32_t>(code) & 0xFFFF0000U) == 0x80020000U;
}

std::vector<ItemAttributes> attributesOf(const IOPCItemMgt& items) {
    const auto reply = items.CreateEnumerator(IEnumOPCItemAttributes::iid);
    return reply.out ? IEnumOPCItemAttributes(*reply.out).Next(100).out.value_or(std::vector<ItemAttributes>())
                     : std::vector<ItemAttributes>();
}

void addItem(Stage& stage, Findings& found) {
    const auto items = stage.as<IOPCItemMgt>(stage.group().state);
    const auto reply = items.AddItems(std::array{of(stage.item().id)});
    found.result("AddItems", reply.result, {S_OK});
    found.need(reply.out.items && reply.out.items->size() == 1, "there is no result for the item");
    const ItemResult& item = reply.out.items->front();
    found.expect(item.canonicalType != VT_NULL, "the canonical type is VT_NULL");
    found.expect((item.accessRights & ~3U) == 0 && (item.accessRights & 1U) != 0,
                 fmt::format("the access rights are {}", item.accessRights));
    if (!item.blob.empty()) {
        found.tolerate("a blob came with it");
    }
}

void addTwice(Stage& stage, Findings& found) {
    const auto items = stage.as<IOPCItemMgt>(stage.group().state);
    const auto reply = items.AddItems(std::array{of(stage.item().id), of(stage.item().id)});
    found.result("AddItems", reply.result, {S_OK});
    found.need(reply.out.items && reply.out.items->size() == 2, "there are no two results");
    found.expect(reply.out.items->at(0).serverHandle != reply.out.items->at(1).serverHandle, "both have one handle");
}

void addWrongItems(Stage& stage, Findings& found) {
    const auto items = stage.as<IOPCItemMgt>(stage.group().state);
    const auto reply = items.AddItems(std::array{of(stage.item().id), of(nobodysItem), of("")});
    found.codes("AddItems", reply.result, reply.out.errors,
                {{S_OK}, {OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID}, {OPC_E_INVALIDITEMID, OPC_E_UNKNOWNITEMID}});
    found.equal<std::size_t>("the number of items in the group", attributesOf(items).size(), 1);
}

void accessPath(Stage& stage, Findings& found) {
    const auto items = stage.as<IOPCItemMgt>(stage.group().state);
    ItemDefinition item = of(stage.item().id);
    item.accessPath = "x";
    const auto reply = items.AddItems(std::array{item});
    if (reply.out.errors && !reply.out.errors->empty() && reply.out.errors->front() == OPC_E_UNKNOWNPATH) {
        found.skip("the server has access paths");
    }
    found.result("AddItems", reply.result, {S_OK});
    const auto attributes = attributesOf(items);
    found.need(attributes.size() == 1, "the item is not enumerated");
    found.expect(attributes[0].accessPath.value_or("").empty(), "it has the access path that was given");
}

void wrongTypes(Stage& stage, Findings& found) {
    const auto items = stage.as<IOPCItemMgt>(stage.group().state);
    const auto& item = stage.itemWhere([](const KnownItem& each) { return (each.type & VT_ARRAY) == 0; }, "no array");
    for (const VarType type : {VarType(VT_ARRAY | VT_I4), VarType(VT_DISPATCH), VarType(0x0FFF)}) {
        const auto reply = items.AddItems(std::array{of(item.id, type)});
        const std::string call = fmt::format("AddItems({})", typeName(type));
        found.result(call, reply.result, {S_FALSE});
        found.expect(reply.out.errors && reply.out.errors->size() == 1 && isConversionCode(reply.out.errors->front()),
                     call + ": the item's code is no refusal of the type");
    }
}

void validate(Stage& stage, Findings& found) {
    const auto items = stage.as<IOPCItemMgt>(stage.group().state);
    const auto reply = items.ValidateItems(std::array{of(stage.item().id), of(nobodysItem)}, false);
    found.codes("ValidateItems", reply.result, reply.out.errors, {{S_OK}, {OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID}});
    found.expect(attributesOf(items).empty(), "the group has items now");
}

void removeItem(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto removed = stage.as<IOPCItemMgt>(group.state).RemoveItems(group.items);
    found.result("RemoveItems", removed.result, {S_OK});
    const auto read = stage.as<IOPCSyncIO>(group.state).Read(Source::Cache, group.items);
    found.codes("Read", read.result, read.out.errors, {{OPC_E_INVALIDHANDLE}});
}

void setActive(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto items = stage.as<IOPCItemMgt>(group.state);
    const std::uint32_t handle = group.items.front();
    const auto reply = items.SetActiveState(std::array{handle, ~handle}, false);
    found.codes("SetActiveState", reply.result, reply.out, {{S_OK}, {OPC_E_INVALIDHANDLE}});
    const auto attributes = attributesOf(items);
    found.expect(attributes.size() == 1 && !attributes[0].active, "the item is still active");
}

void setClientHandle(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto reply = stage.as<IOPCItemMgt>(group.state).SetClientHandles(group.items, std::array{5U});
    found.result("SetClientHandles", reply.result, {S_OK});
    const auto read = stage.as<IOPCSyncIO>(group.state).Read(Source::Cache, group.items);
    found.need(read.out.items && read.out.items->size() == 1, "Read: " + resultName(read.result));
    found.equal("the client handle", read.out.items->front().clientHandle, 5U);
}

Group numericItem(Stage& stage) {
    const auto fits = [](const KnownItem& each) {
        return (each.type >= VT_I2 && each.type <= VT_R8) || (each.type >= VT_I1 && each.type <= VT_UINT);
    };
    return stage.groupWith({stage.itemWhere(fits, "a number").id});
}

void setType(Stage& stage, Findings& found) {
    const Group group = numericItem(stage);
    const auto reply = stage.as<IOPCItemMgt>(group.state).SetDatatypes(group.items, std::array{VarType(VT_BSTR)});
    found.result("SetDatatypes", reply.result, {S_OK});
    const auto read = stage.as<IOPCSyncIO>(group.state).Read(Source::Device, group.items);
    found.need(read.out.items && read.out.items->size() == 1, "Read: " + resultName(read.result));
    const VarType type = read.out.items->front().value.type;
    found.expect(type == VT_BSTR || type == VT_EMPTY, "the value is a " + typeName(type));
}

void setWrongType(Stage& stage, Findings& found) {
    const Group group = numericItem(stage);
    const auto items = stage.as<IOPCItemMgt>(group.state);
    const auto reply = items.SetDatatypes(group.items, std::array{VarType(VT_DISPATCH)});
    found.result("SetDatatypes", reply.result, {S_FALSE});
    found.expect(reply.out && reply.out->size() == 1 && isConversionCode(reply.out->front()),
                 "the item's code is no refusal of the type");
    const auto attributes = attributesOf(items);
    found.expect(attributes.size() == 1 && attributes[0].requestedType != VT_DISPATCH, "the type has changed");
}

constexpr std::array<Case, 11> cases{{
    {55, Version::Da2, "AddItems(an item)", "S_OK; a type other than VT_NULL; readable", addItem},
    {56, Version::Da2, "AddItems(the same item twice)", "S_OK; two handles", addTwice},
    {57, Version::Da2, "AddItems(an item, an unknown one, an empty id)",
     "S_FALSE, S_OK, OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID; one item in the group", addWrongItems},
    {58, Version::Da2, "AddItems with an access path, where there are none", "S_OK; the item has an empty one",
     accessPath},
    {59, Version::Da2, "AddItems as VT_ARRAY|VT_I4, VT_DISPATCH, 0x0FFF", "S_FALSE, OPC_E_BADTYPE or DISP_E_...",
     wrongTypes},
    {60, Version::Da2, "ValidateItems(an item, an unknown one)", "S_FALSE, S_OK, OPC_E_UNKNOWNITEMID; nothing added",
     validate},
    {61, Version::Da2, "RemoveItems; Read", "S_OK; S_FALSE, OPC_E_INVALIDHANDLE", removeItem},
    {62, Version::Da2, "SetActiveState(item, wrong handle; inactive)", "S_FALSE, S_OK, OPC_E_INVALIDHANDLE", setActive},
    {63, Version::Da2, "SetClientHandles(5); Read", "S_OK; client handle 5", setClientHandle},
    {64, Version::Da2, "SetDatatypes(VT_BSTR) of a number; Read", "S_OK; a text", setType},
    {65, Version::Da2, "SetDatatypes(VT_DISPATCH) of a number", "S_FALSE, OPC_E_BADTYPE; the type as before",
     setWrongType},
}};

}  // namespace
}  // namespace items

std::span<const Case> itemCases() {
    return items::cases;
}

}  // namespace quelm::opcclient::check
