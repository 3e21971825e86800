// Area 13: what the server says about its items.

#include <algorithm>
#include <array>
#include <cmath>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace itemProperties {
namespace {

using namespace opcda::client;

constexpr std::array<std::uint32_t, 6> fixedIds{1, 2, 3, 4, 5, 6};
const std::string nobodysItem = "no.such.item.anywhere";

IOPCItemProperties properties(Stage& stage) {
    return stage.asOffered<IOPCItemProperties>(stage.server());
}

void available(Stage& stage, Findings& found) {
    const KnownItem& item = stage.item();
    const auto reply = properties(stage).QueryAvailableProperties(item.id);
    found.result("QueryAvailableProperties", reply.result, {S_OK});
    found.need(reply.out.ids && reply.out.types && reply.out.descriptions, "ids, texts or types are missing");
    const std::array<std::pair<const char*, VarType>, 6> expected{{{"Item Canonical DataType", VT_I2},
                                                                   {"Item Value", item.type},
                                                                   {"Item Quality", VT_I2},
                                                                   {"Item Timestamp", VT_DATE},
                                                                   {"Item Access Rights", VT_I4},
                                                                   {"Server Scan Rate", VT_R4}}};
    for (const std::uint32_t id : fixedIds) {
        const auto& ids = *reply.out.ids;
        const auto at = static_cast<std::size_t>(std::find(ids.begin(), ids.end(), id) - ids.begin());
        if (!found.expect(at < ids.size(), fmt::format("property {} is missing", id))) {
            continue;
        }
        const VarType type = (*reply.out.types)[at];
        found.expect(type == expected[id - 1].second, fmt::format("property {} is a {}", id, typeName(type)));
        if ((*reply.out.descriptions)[at] != expected[id - 1].first) {
            found.tolerate(fmt::format("property {} is called \"{}\"", id, (*reply.out.descriptions)[at]));
        }
    }
}

void unknownItems(Stage& stage, Findings& found) {
    const IOPCItemProperties server = properties(stage);
    for (const std::string& id : {nobodysItem, std::string()}) {
        const Findings::Codes codes{OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID};
        const auto query = server.QueryAvailableProperties(id);
        found.result("QueryAvailableProperties", query.result, codes);
        found.expect(!query.out.ids && !query.out.descriptions && !query.out.types, "arrays came with the failure");
        const auto values = server.GetItemProperties(id, fixedIds);
        found.result("GetItemProperties", values.result, codes);
        found.expect(!values.out.values && !values.out.errors, "arrays came with the failure");
        const auto lookup = server.LookupItemIDs(id, fixedIds);
        found.result("LookupItemIDs", lookup.result, codes);
        found.expect(!lookup.out.itemIds && !lookup.out.errors, "arrays came with the failure");
    }
}

void fixedValues(Stage& stage, Findings& found) {
    const KnownItem& item = stage.item();
    const auto reply = properties(stage).GetItemProperties(item.id, fixedIds);
    found.result("GetItemProperties", reply.result, {S_OK});
    found.need(reply.out.values && reply.out.values->size() == fixedIds.size(), "there are no six values");
    const auto& values = *reply.out.values;
    const std::array<VarType, 6> types{VT_I2, item.type, VT_I2, VT_DATE, VT_I4, VT_R4};
    for (std::size_t i = 0; i < types.size(); ++i) {
        found.expect(values[i].type == types[i] || (i == 1 && values[i].isEmpty()),
                     fmt::format("property {} is a {}", i + 1, typeName(values[i].type)));
    }
    found.equal("the canonical type", values[0].number().value_or(-1), static_cast<double>(item.type));
    found.equal("the access rights", values[4].number().value_or(-1), static_cast<double>(item.rights));
}

void unknownProperty(Stage& stage, Findings& found) {
    const auto reply = properties(stage).GetItemProperties(stage.item().id, std::array{2U, 99999U});
    found.codes("GetItemProperties", reply.result, reply.out.errors, {{S_OK}, {OPC_E_INVALID_PID}});
    found.expect(reply.out.values && reply.out.values->size() == 2 && reply.out.values->at(1).isEmpty(),
                 "the unknown property has a value");
}

void agreesWithRead(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto io = stage.as<IOPCSyncIO>(group.state);
    const IOPCItemProperties server = properties(stage);
    // Between the two the item may have been updated; not every time.
    for (int attempt = 0; attempt < 3; ++attempt) {
        const auto said = server.GetItemProperties(stage.item().id, std::array{2U, 3U});
        const auto read = io.Read(Source::Device, group.items);
        found.need(said.out.values && said.out.values->size() == 2 && read.out.items && read.out.items->size() == 1,
                   "no values came");
        const ItemState& state = read.out.items->front();
        const auto quality = static_cast<std::int16_t>(state.quality);
        if (said.out.values->at(0) == state.value && said.out.values->at(1).number() == quality) {
            return;
        }
    }
    found.fail("value or quality differ from those of a read, three times");
}

void lookup(Stage& stage, Findings& found) {
    const auto reply = properties(stage).LookupItemIDs(stage.item().id, fixedIds);
    const Findings::Codes none{OPC_E_INVALID_PID};
    found.codes("LookupItemIDs", reply.result, reply.out.errors, {none, none, none, none, none, none});
}

void byBrowse(Stage& stage, Findings& found) {
    const auto browse = stage.asOffered<IOPCBrowse>(stage.server());
    const std::array ids{stage.item().id, nobodysItem};
    const auto reply = browse.GetProperties(ids, true, {});
    found.result("GetProperties", reply.result, {S_FALSE});
    found.need(reply.out && reply.out->size() == 2, "there are no results for two items");
    found.result("the item", reply.out->at(0).error, {S_OK});
    found.expect(reply.out->at(0).properties.value_or(std::vector<Property>()).size() >= 6, "properties are missing");
    found.result("the unknown item", reply.out->at(1).error, {OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID});
    found.expect(reply.out->at(1).properties.value_or(std::vector<Property>()).empty(),
                 "the unknown item has properties");
}

constexpr std::array<Case, 7> cases{{
    {160, Version::Da2, "QueryAvailableProperties", "1 to 6 at least, with their texts and types", available},
    {161, Version::Da2, "properties of an unknown item, of none", "OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID; nothing",
     unknownItems},
    {162, Version::Da2, "GetItemProperties(1 to 6)", "S_OK; values of their types", fixedValues},
    {163, Version::Da2, "GetItemProperties(2, 99999)", "S_FALSE, S_OK, OPC_E_INVALID_PID with VT_EMPTY",
     unknownProperty},
    {164, Version::Da2, "properties 2 and 3 beside Read(device)", "the same", agreesWithRead},
    {165, Version::Da2, "LookupItemIDs(1 to 6)", "S_FALSE, OPC_E_INVALID_PID for each", lookup},
    {166, Version::Da3, "IOPCBrowse::GetProperties(item, unknown one)", "S_FALSE; its properties; OPC_E_UNKNOWNITEMID",
     byBrowse},
}};

}  // namespace
}  // namespace itemProperties

std::span<const Case> propertyCases() {
    return itemProperties::cases;
}

}  // namespace quelm::opcclient::check
