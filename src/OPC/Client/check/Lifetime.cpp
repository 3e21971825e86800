// Area 16: how long groups live, and what is left of them.

#include <algorithm>
#include <array>
#include <functional>
#include <optional>

#include "OPC/Client/check/Sent.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace lifetime {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;
using dcom::client::Trouble;

Group make(Stage& stage, const char* name, std::size_t items) {
    GroupRequest request;
    request.name = name;
    request.updateRate = 200;
    return stage.groupOf(items, request);
}

// The handle of a group whose interfaces are all let go of.
std::uint32_t releasedGroup(Stage& stage, const char* name) {
    const std::uint32_t handle = make(stage, name, 2).handle;
    stage.settle();
    return handle;
}

std::uint32_t groupCount(Stage& stage) {
    return stage.opcServer().GetStatus().out.value_or(ServerStatus{}).groupCount;
}

std::vector<std::string> listed(Stage& stage) {
    const auto reply = stage.opcServer().CreateGroupEnumerator(GroupScope::Private, IEnumString::iid);
    return reply.out ? IEnumString(*reply.out).Next(100).out : std::vector<std::string>();
}

bool isListed(Stage& stage, const std::string& name) {
    const auto names = listed(stage);
    return std::find(names.begin(), names.end(), name) != names.end();
}

// A call on a group that is no more: a failure, or a fault; never a success, never a broken connection.
void mustFail(Findings& found, std::string_view call, Findings::Codes allowed,
              const std::function<HResult()>& attempt) {
    try {
        const HResult result = attempt();
        if (allowed.size() > 0) {
            found.result(call, result, allowed);
        } else {
            found.expect(failed(result), fmt::format("{}: {}", call, resultName(result)));
        }
    } catch (const Trouble& trouble) {
        found.expect(trouble.kind == Trouble::Kind::Fault, fmt::format("{}: {}", call, trouble.what()));
        if (allowed.size() > 0) {
            found.tolerate(fmt::format("{} ends with a fault", call));
        }
    }
}

void outlivesPointers(Stage& stage, Findings& found) {
    const std::uint32_t before = groupCount(stage);
    releasedGroup(stage, "A");
    found.equal("the group count", groupCount(stage) - before, 1U);
    found.expect(isListed(stage, "A"), "it is not listed");
    const auto reply = stage.opcServer().GetGroupByName("A", IOPCItemMgt::iid);
    found.need(reply.out.has_value(), "GetGroupByName: " + resultName(reply.result));
    const auto items = IOPCItemMgt(*reply.out).CreateEnumerator(IEnumOPCItemAttributes::iid);
    found.expect(
        items.out &&
            IEnumOPCItemAttributes(*items.out).Next(10).out.value_or(std::vector<ItemAttributes>()).size() == 2,
        "its items are gone");
}

void removesReleased(Stage& stage, Findings& found) {
    const std::uint32_t handle = releasedGroup(stage, "A");
    found.result("RemoveGroup", stage.opcServer().RemoveGroup(handle, false), {S_OK});
    found.result("GetGroupByName", stage.opcServer().GetGroupByName("A", IOPCItemMgt::iid).result,
                 {E_INVALIDARG, E_FAIL});
}

void removesHeld(Stage& stage, Findings& found) {
    const Group group = make(stage, "A", 1);
    found.result("RemoveGroup", stage.opcServer().RemoveGroup(group.handle, false), {OPC_S_INUSE});
    found.expect(!isListed(stage, "A"), "it is still listed");
    const Group again = make(stage, "A", 1);
}

void removedFails(Stage& stage, Findings& found) {
    const Group group = make(stage, "A", 1);
    const auto mgt = stage.as<IOPCGroupStateMgt>(group.state);
    const auto io = stage.as<IOPCSyncIO>(group.state);
    const IOPCItemMgt items(group.state);
    stage.opcServer().RemoveGroup(group.handle, false);
    const ItemDefinition definition{stage.item().id, "", true, 1, VT_EMPTY, {}};
    mustFail(found, "GetState", {E_FAIL}, [&mgt] { return mgt.GetState().result; });
    mustFail(found, "SetName", {E_FAIL}, [&mgt] { return mgt.SetName("B"); });
    mustFail(found, "AddItems", {E_FAIL}, [&] { return items.AddItems(std::array{definition}).result; });
    mustFail(found, "Read", {E_FAIL}, [&] { return io.Read(Source::Cache, group.items).result; });
}

void removedIsSilent(Stage& stage, Findings& found) {
    const Group group = make(stage, "A", 2);
    sayAlive(group);
    Sink sink(stage.session(), group.state);
    found.need(stage.waitUntil([&sink] { return !sink.calls().empty(); }, 10s), "no OnDataChange came");
    stage.opcServer().RemoveGroup(group.handle, false);
    forgetLateOnes(stage, sink);
    stage.wait(1500ms);
    found.expect(sink.calls().empty(), "callbacks still come");
}

void removesByForce(Stage& stage, Findings& found) {
    const Group group = make(stage, "A", 1);
    const auto mgt = stage.as<IOPCGroupStateMgt>(group.state);
    found.result("RemoveGroup", stage.opcServer().RemoveGroup(group.handle, true), {S_OK});
    mustFail(found, "GetState", {}, [&mgt] { return mgt.GetState().result; });
    found.result("GetStatus", stage.opcServer().GetStatus().result, {S_OK});
}

void removesTwice(Stage& stage, Findings& found) {
    const IOPCServer server = stage.opcServer();
    const std::uint32_t handle = releasedGroup(stage, "A");
    found.result("RemoveGroup(0)", server.RemoveGroup(0, false), {E_INVALIDARG, E_FAIL});
    found.result("RemoveGroup", server.RemoveGroup(handle, false), {S_OK});
    found.result("RemoveGroup again", server.RemoveGroup(handle, false), {E_INVALIDARG, E_FAIL});
}

void othersGroup(Stage& stage, Findings& found) {
    const Interface other = stage.newServer(stage.otherSession());
    const Group theirs = stage.groupOn(other, {});
    found.expect(failed(stage.opcServer().RemoveGroup(theirs.handle, false)), "another client's group is removed");
    const auto state = stage.as<IOPCGroupStateMgt>(theirs.state).GetState();
    found.result("GetState of that group", state.result, {S_OK});
}

void endsWithServer(Stage& stage, Findings& found) {
    auto sink = std::optional<Sink>();
    {
        const Group group = make(stage, "A", 2);
        sayAlive(group);
        sink.emplace(stage.session(), group.state);
        found.need(stage.waitUntil([&sink] { return !sink->calls().empty(); }, 10s), "no OnDataChange came");
    }
    stage.dropServer();
    sink->release();
    forgetLateOnes(stage, *sink);
    found.expect(!isListed(stage, "A"), "the group is there for a new server object");
    stage.wait(1500ms);
    found.expect(sink->calls().empty(), "callbacks still come");
}

void oldEnumerator(Stage& stage, Findings& found) {
    const std::uint32_t handle = releasedGroup(stage, "A");
    const auto reply = stage.opcServer().CreateGroupEnumerator(GroupScope::Private, IEnumString::iid);
    found.need(reply.out.has_value(), "there is no enumerator");
    stage.opcServer().RemoveGroup(handle, false);
    stage.dropServer();
    stage.settle();
    try {
        const auto next = IEnumString(*reply.out).Next(10);
        found.expect(failed(next.result) || next.out == std::vector<std::string>{"A"}, "the list has changed");
    } catch (const Trouble& trouble) {
        found.expect(trouble.kind == Trouble::Kind::Fault, trouble.what());
    }
}

constexpr std::array<Case, 10> cases{{
    {190, Version::Da2, "every interface of a group is released", "it is found with its items, listed, counted",
     outlivesPointers},
    {191, Version::Da2, "RemoveGroup of such a group", "S_OK; gone", removesReleased},
    {192, Version::Da2, "RemoveGroup of a group that is held", "OPC_S_INUSE; its name is free; not listed",
     removesHeld},
    {193, Version::Da2, "calls on a group that was removed", "E_FAIL from each", removedFails},
    {194, Version::Da2, "RemoveGroup of a group that is held and advised", "no callback any more", removedIsSilent},
    {195, Version::Da2, "RemoveGroup by force", "S_OK; calls on it fail cleanly", removesByForce},
    {196, Version::Da2, "RemoveGroup(0), of a group twice", "E_INVALIDARG or E_FAIL", removesTwice},
    {197, Version::Da2, "RemoveGroup of another client's group", "refused; that group is unharmed", othersGroup},
    {198, Version::Da2, "the server object is released", "its groups end; no callback any more", endsWithServer},
    {199, Version::Da2, "an enumerator outlives group and server object", "its list, or a clean failure",
     oldEnumerator},
}};

}  // namespace
}  // namespace lifetime

std::span<const Case> lifetimeCases() {
    return lifetime::cases;
}

}  // namespace quelm::opcclient::check
