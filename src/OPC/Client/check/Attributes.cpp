// Area 6: the enumerator of a group's items.

#include <algorithm>
#include <array>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace attributes {
namespace {

using namespace opcda::client;

IEnumOPCItemAttributes enumerate(Stage& stage, Findings& found, const Group& group) {
    const auto reply = stage.as<IOPCItemMgt>(group.state).CreateEnumerator(IEnumOPCItemAttributes::iid);
    found.result("CreateEnumerator", reply.result, {S_OK});
    found.need(reply.out.has_value(), "there is no enumerator");
    return IEnumOPCItemAttributes(*reply.out);
}

// The handles of what came, the result held against what was to come.
std::vector<std::uint32_t> next(const IEnumOPCItemAttributes& enumerator, std::uint32_t count, HResult expected,
                                Findings& found) {
    const auto reply = enumerator.Next(count);
    found.result(fmt::format("Next({})", count), reply.result, {expected});
    std::vector<std::uint32_t> handles;
    for (const ItemAttributes& each : reply.out.value_or(std::vector<ItemAttributes>())) {
        handles.push_back(each.serverHandle);
    }
    return handles;
}

void emptyGroup(Stage& stage, Findings& found) {
    const auto reply = stage.as<IOPCItemMgt>(stage.group().state).CreateEnumerator(IEnumOPCItemAttributes::iid);
    found.result("CreateEnumerator", reply.result, {S_FALSE});
    if (reply.out) {
        found.expect(next(IEnumOPCItemAttributes(*reply.out), 1, S_FALSE, found).empty(), "an item came");
    }
}

void wrongInterface(Stage& stage, Findings& found) {
    const auto reply = stage.as<IOPCItemMgt>(stage.groupOf(3).state).CreateEnumerator(unknownIid);
    found.result("CreateEnumerator", reply.result, {E_INVALIDARG, E_NOINTERFACE});
    found.expect(!reply.out, "an enumerator came with the failure");
    if (reply.result == E_NOINTERFACE) {
        found.tolerate("E_NOINTERFACE");
    }
}

void nextItems(Stage& stage, Findings& found) {
    const auto items = enumerate(stage, found, stage.groupOf(3));
    found.equal<std::size_t>("the first portion", next(items, 2, S_OK, found).size(), 2);
    found.equal<std::size_t>("the second portion", next(items, 2, S_FALSE, found).size(), 1);
    found.equal<std::size_t>("the third portion", next(items, 1, S_FALSE, found).size(), 0);
}

void skipItems(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3);
    const auto items = enumerate(stage, found, group);
    found.result("Skip(2)", items.Skip(2), {S_OK});
    found.expect(next(items, 1, S_OK, found) == std::vector{group.items[2]}, "it is not the third item that comes");
    found.result("Skip(1) at the end", items.Skip(1), {S_FALSE});
    found.result("Reset", items.Reset(), {S_OK});
    found.expect(next(items, 3, S_OK, found) == group.items, "the three items do not come again");
}

void cloneItems(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3);
    const auto items = enumerate(stage, found, group);
    next(items, 2, S_OK, found);
    const auto reply = items.Clone();
    found.result("Clone", reply.result, {S_OK});
    found.need(reply.out.has_value(), "there is no clone");
    const std::vector third{group.items[2]};
    found.expect(next(IEnumOPCItemAttributes(*reply.out), 1, S_OK, found) == third, "the clone stands elsewhere");
    found.expect(next(items, 1, S_OK, found) == third, "the clone has moved the enumerator");
}

void attributes(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3);
    const auto reply = enumerate(stage, found, group).Next(3);
    found.need(reply.out && reply.out->size() == 3, "Next(3): " + resultName(reply.result));
    for (std::size_t i = 0; i < 3; ++i) {
        const ItemAttributes& item = (*reply.out)[i];
        found.equal("the id", item.itemId.value_or("(null)"), stage.item(i).id);
        found.equal("the client handle", item.clientHandle, 100 + static_cast<std::uint32_t>(i));
        found.equal("the server handle", item.serverHandle, group.items[i]);
        found.expect(item.active, "the item is not active");
        found.equal("the access rights", item.accessRights, stage.item(i).rights);
        found.equal("the canonical type", typeName(item.canonicalType), typeName(stage.item(i).type));
        found.expect(item.unitsType <= 2 && (item.unitsType != 0) == !item.units.isEmpty(),
                     "the kind of units and the units contradict each other");
    }
}

void oldList(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3);
    const auto items = enumerate(stage, found, group);
    stage.as<IOPCItemMgt>(group.state).RemoveItems(std::array{group.items[1]});
    found.expect(next(items, 3, S_OK, found) == group.items, "the list is not what it was when it was made");
}

constexpr std::array<Case, 7> cases{{
    {66, Version::Da2, "a group without items: CreateEnumerator", "S_FALSE; nothing to enumerate", emptyGroup},
    {67, Version::Da2, "CreateEnumerator by an interface that nobody has", "E_INVALIDARG; no pointer", wrongInterface},
    {68, Version::Da2, "three items: Next(2), Next(2), Next(1)", "S_OK, 2; S_FALSE, 1; S_FALSE, 0", nextItems},
    {69, Version::Da2, "Skip(2), Next(1), Skip(1), Reset, Next(3)", "the third; S_FALSE; all again", skipItems},
    {70, Version::Da2, "Clone behind the second item", "the third one from both", cloneItems},
    {71, Version::Da2, "the items' attributes", "ids, handles, active flags, rights, types, units", attributes},
    {72, Version::Da2, "an item is removed; Next", "the list as it was", oldList},
}};

}  // namespace
}  // namespace attributes

std::span<const Case> attributeCases() {
    return attributes::cases;
}

}  // namespace quelm::opcclient::check
