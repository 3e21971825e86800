// Area 4, second part: names of groups, copies of them, and how they are enumerated.

#include <algorithm>
#include <array>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace groupNames {
namespace {

using namespace opcda::client;

Group make(Stage& stage, std::string name) {
    GroupRequest request;
    request.name = std::move(name);
    return stage.group(request);
}

std::string nameOf(const Interface& group) {
    return ask<IOPCGroupStateMgt>(group).out ? ask<IOPCGroupStateMgt>(group).out->GetState().out.name.value_or("")
                                             : std::string();
}

void duplicate(Stage& stage, Findings& found) {
    const Group group = make(stage, "A");
    GroupRequest request;
    request.name = "A";
    const auto count = [&stage] { return stage.opcServer().GetStatus().out.value_or(ServerStatus{}).groupCount; };
    const std::uint32_t before = count();
    const auto reply = stage.opcServer().AddGroup(request, IOPCItemMgt::iid);
    found.result("AddGroup", reply.result, {OPC_E_DUPLICATENAME});
    found.expect(!reply.out.group, "a group came with the failure");
    found.equal("the group count", count(), before);
}

void caseOfNames(Stage& stage, Findings& /*found*/) {
    const Group upper = make(stage, "A");
    const Group lower = make(stage, "a");
}

void othersNames(Stage& stage, Findings& /*found*/) {
    const Group own = make(stage, "A");
    GroupRequest request;
    request.name = "A";
    stage.groupOn(stage.newServer(stage.otherSession()), request);
}

void madeNames(Stage& stage, Findings& found) {
    const std::string first = nameOf(make(stage, "").state);
    const Group kept = make(stage, "");
    const std::string second = nameOf(kept.state);
    found.expect(!first.empty() && !second.empty(), "a name is empty");
    found.expect(first != second, "both are named " + first);
}

void setName(Stage& stage, Findings& found) {
    const Group a = make(stage, "A");
    const Group b = make(stage, "B");
    const auto mgt = stage.as<IOPCGroupStateMgt>(a.state);
    found.result("SetName(\"B\")", mgt.SetName("B"), {OPC_E_DUPLICATENAME});
    found.result("SetName(\"C\")", mgt.SetName("C"), {S_OK});
    found.result("GetGroupByName(\"C\")", stage.opcServer().GetGroupByName("C", IOPCItemMgt::iid).result, {S_OK});
}

void emptyName(Stage& stage, Findings& found) {
    const Group group = make(stage, "A");
    found.result("SetName(\"\")", stage.as<IOPCGroupStateMgt>(group.state).SetName(""), {E_INVALIDARG});
}

void byName(Stage& stage, Findings& found) {
    const Group group = make(stage, "A");
    const auto reply = stage.opcServer().GetGroupByName("A", IOPCSyncIO::iid);
    found.result("GetGroupByName", reply.result, {S_OK});
    found.expect(reply.out && reply.out->oid() == group.state.oid(), "it is another object");
}

void byWrongName(Stage& stage, Findings& found) {
    const Group group = make(stage, "A");
    for (const char* name : {"a", "none"}) {
        const auto reply = stage.opcServer().GetGroupByName(name, IOPCSyncIO::iid);
        found.result(fmt::format("GetGroupByName(\"{}\")", name), reply.result, {E_INVALIDARG, E_FAIL});
        found.expect(!reply.out, "a group came with the failure");
    }
}

std::vector<ItemAttributes> attributes(Stage& stage, Findings& found, const Interface& group) {
    const auto reply = stage.as<IOPCItemMgt>(group).CreateEnumerator(IEnumOPCItemAttributes::iid);
    found.need(reply.out.has_value(), "CreateEnumerator: " + resultName(reply.result));
    return IEnumOPCItemAttributes(*reply.out).Next(100).out.value_or(std::vector<ItemAttributes>());
}

void cloneGroup(Stage& stage, Findings& found) {
    GroupRequest request;
    request.name = "A";
    request.timeBias = 60;
    request.clientHandle = 7;
    const Group group = stage.groupOf(2, request);
    const auto mgt = stage.as<IOPCGroupStateMgt>(group.state);
    const auto reply = mgt.CloneGroup("B", IOPCGroupStateMgt::iid);
    found.result("CloneGroup", reply.result, {S_OK});
    found.need(reply.out.has_value(), "there is no clone");
    const GroupState a = mgt.GetState().out;
    const GroupState b = IOPCGroupStateMgt(*reply.out).GetState().out;
    found.expect(!b.active, "the clone is active");
    found.expect(b.name == "B", "the clone's name is " + b.name.value_or("(null)"));
    found.expect(a.updateRate == b.updateRate && a.timeBias == b.timeBias && a.percentDeadband == b.percentDeadband &&
                     a.localeId == b.localeId && a.clientHandle == b.clientHandle,
                 "the clone differs in rate, bias, deadband, locale or client handle");
    found.expect(a.serverHandle != b.serverHandle, "the clone has the same handle");
}

void clonedItems(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3);
    const auto items = stage.as<IOPCItemMgt>(group.state);
    items.SetActiveState(std::array{group.items[1]}, false);
    const auto reply = stage.as<IOPCGroupStateMgt>(group.state).CloneGroup("B", IOPCItemMgt::iid);
    found.need(reply.out.has_value(), "CloneGroup: " + resultName(reply.result));
    const auto own = attributes(stage, found, group.state);
    const auto cloned = attributes(stage, found, *reply.out);
    found.expect(std::equal(own.begin(), own.end(), cloned.begin(), cloned.end(),
                            [](const ItemAttributes& a, const ItemAttributes& b) {
                                return a.itemId == b.itemId && a.clientHandle == b.clientHandle &&
                                       a.active == b.active && a.requestedType == b.requestedType;
                            }),
                 "the clone's items have other ids, client handles, types or active flags");
}

void cloneNames(Stage& stage, Findings& found) {
    const Group a = make(stage, "A");
    const Group b = make(stage, "B");
    const auto mgt = stage.as<IOPCGroupStateMgt>(a.state);
    const auto taken = mgt.CloneGroup("B", IOPCGroupStateMgt::iid);
    found.result("CloneGroup(\"B\")", taken.result, {OPC_E_DUPLICATENAME});
    found.expect(!taken.out, "a group came with the failure");
    const auto made = mgt.CloneGroup("", IOPCGroupStateMgt::iid);
    found.result("CloneGroup(\"\")", made.result, {S_OK});
    found.expect(made.out && !nameOf(*made.out).empty() && nameOf(*made.out) != "A",
                 "the clone has no name of its own");
}

void noGroups(Stage& stage, Findings& found) {
    const auto reply = stage.opcServer().CreateGroupEnumerator(GroupScope::Private, IEnumString::iid);
    found.result("CreateGroupEnumerator", reply.result, {S_FALSE});
    found.need(reply.out.has_value(), "there is no enumerator");
    const auto next = IEnumString(*reply.out).Next(1);
    found.result("Next", next.result, {S_FALSE});
    found.expect(next.out.empty(), "a name came");
}

void scopes(Stage& stage, Findings& found) {
    const Group a = make(stage, "A");
    const Group b = make(stage, "B");
    for (const std::uint16_t scope : {1, 3, 4, 6, 2, 5}) {
        const bool isPublic = scope == 2 || scope == 5;
        const auto reply = stage.opcServer().CreateGroupEnumerator(GroupScope{scope}, IEnumString::iid);
        const std::string call = fmt::format("CreateGroupEnumerator({})", scope);
        found.result(call, reply.result, {isPublic ? S_FALSE : S_OK});
        if (!found.expect(reply.out.has_value(), call + ": no enumerator")) {
            continue;
        }
        auto names = IEnumString(*reply.out).Next(10).out;
        std::sort(names.begin(), names.end());
        found.expect(names == (isPublic ? std::vector<std::string>() : std::vector<std::string>{"A", "B"}),
                     call + ": other groups than there are");
    }
}

void groupObjects(Stage& stage, Findings& found) {
    const Group a = make(stage, "A");
    const Group b = make(stage, "B");
    const auto reply = stage.opcServer().CreateGroupEnumerator(GroupScope::Private, IEnumUnknown::iid);
    found.result("CreateGroupEnumerator", reply.result, {S_OK});
    found.need(reply.out.has_value(), "there is no enumerator");
    const auto next = IEnumUnknown(*reply.out).Next(10);
    found.result("Next(10)", next.result, {S_FALSE});
    found.equal<std::size_t>("the number of groups", next.out.size(), 2);
    for (const auto& group : next.out) {
        found.expect(group && ask<IOPCGroupStateMgt>(*group).out, "a group has no IOPCGroupStateMgt");
    }
}

void wrongScopes(Stage& stage, Findings& found) {
    const Group group = make(stage, "A");
    for (const std::uint16_t scope : {0, 7}) {
        const auto reply = stage.opcServer().CreateGroupEnumerator(GroupScope{scope}, IEnumString::iid);
        found.result(fmt::format("CreateGroupEnumerator({})", scope), reply.result, {E_INVALIDARG});
    }
    const auto reply = stage.opcServer().CreateGroupEnumerator(GroupScope::Private, IEnumGUID::iid);
    found.result("CreateGroupEnumerator(IEnumGUID)", reply.result, {E_NOINTERFACE});
}

constexpr std::array<Case, 15> cases{{
    {32, Version::Da2, "AddGroup(\"A\") when there is one", "OPC_E_DUPLICATENAME; no pointer; group count as before",
     duplicate},
    {33, Version::Da2, "AddGroup(\"a\") when there is \"A\"", "S_OK: names have their case", caseOfNames},
    {34, Version::Da2, "two clients: AddGroup(\"A\")", "S_OK for both", othersNames},
    {35, Version::Da2, "AddGroup(\"\") twice", "two names made by the server", madeNames},
    {44, Version::Da2, "\"A\" and \"B\": SetName(\"B\"), (\"C\") of A", "OPC_E_DUPLICATENAME; S_OK and found by it",
     setName},
    {45, Version::Da2, "SetName(\"\")", "E_INVALIDARG", emptyName},
    {46, Version::Da2, "GetGroupByName(\"A\")", "S_OK; the same object", byName},
    {47, Version::Da2, "GetGroupByName(\"a\"), (\"none\")", "E_INVALIDARG or E_FAIL; no pointer", byWrongName},
    {48, Version::Da2, "CloneGroup(\"B\")", "inactive; rate, bias, deadband, locale, client handle as before",
     cloneGroup},
    {49, Version::Da2, "a clone's items", "ids, client handles, types, active flags as before", clonedItems},
    {50, Version::Da2, "CloneGroup by a name that is taken, by none", "OPC_E_DUPLICATENAME; a new name", cloneNames},
    {51, Version::Da2, "no group: CreateGroupEnumerator", "S_FALSE; an empty enumerator", noGroups},
    {52, Version::Da2, "two groups: CreateGroupEnumerator by each scope", "both names; none by the public scopes",
     scopes},
    {53, Version::Da2, "two groups: CreateGroupEnumerator by IEnumUnknown", "both groups", groupObjects},
    {54, Version::Da2, "CreateGroupEnumerator: wrong scopes, wrong interface", "E_INVALIDARG; E_NOINTERFACE",
     wrongScopes},
}};

}  // namespace
}  // namespace groupNames

std::span<const Case> groupNameCases() {
    return groupNames::cases;
}

}  // namespace quelm::opcclient::check
