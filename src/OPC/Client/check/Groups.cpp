// Area 4, first part: how groups are made, and what of them can be asked for and changed.

#include <array>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace groups {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;

GroupRequest named(std::string name) {
    GroupRequest request;
    request.name = std::move(name);
    request.clientHandle = 7;
    return request;
}

GroupState stateOf(const IOPCGroupStateMgt& group, Findings& found) {
    const auto reply = group.GetState();
    found.result("GetState", reply.result, {S_OK});
    return reply.out;
}

// A group that must not come to be.
void refused(Stage& stage, Findings& found, const GroupRequest& request, const Uuid& iid, Findings::Codes allowed) {
    const auto reply = stage.opcServer().AddGroup(request, iid);
    found.result("AddGroup", reply.result, allowed);
    found.expect(!reply.out.group, "a group came with the failure");
}

void addGroup(Stage& stage, Findings& found) {
    const auto reply = stage.opcServer().AddGroup(named("A"), IOPCItemMgt::iid);
    found.result("AddGroup", reply.result, {S_OK, OPC_S_UNSUPPORTEDRATE});
    found.expect(reply.out.serverHandle != 0, "the group's handle is 0");
    found.expect(reply.out.group.has_value(), "there is no pointer");
    found.expect((reply.out.revisedUpdateRate != 1000) == (reply.result == OPC_S_UNSUPPORTEDRATE),
                 fmt::format("the rate is {} with {}", reply.out.revisedUpdateRate, resultName(reply.result)));
}

void fastestRate(Stage& stage, Findings& found) {
    GroupRequest request;
    request.updateRate = 0;
    const auto reply = stage.opcServer().AddGroup(request, IOPCItemMgt::iid);
    found.result("AddGroup", reply.result, {S_OK, OPC_S_UNSUPPORTEDRATE});
    found.expect(reply.out.revisedUpdateRate > 0, "the revised rate is 0");
}

void revisesRates(Stage& stage, Findings& found) {
    for (const std::uint32_t rate : {1U, 137U, 3'600'000U}) {
        GroupRequest request;
        request.updateRate = rate;
        const auto first = stage.opcServer().AddGroup(request, IOPCItemMgt::iid);
        const auto second = stage.opcServer().AddGroup(request, IOPCItemMgt::iid);
        const std::uint32_t revised = first.out.revisedUpdateRate;
        found.equal(fmt::format("the second revision of {}", rate), second.out.revisedUpdateRate, revised);
        found.expect(revised >= rate, fmt::format("{} is revised to {}", rate, revised));
        found.result(fmt::format("AddGroup({} ms), revised to {}", rate, revised), first.result,
                     {revised == rate ? S_OK : OPC_S_UNSUPPORTEDRATE});
    }
}

void defaultBias(Stage& stage, Findings& found) {
    GroupRequest request;
    request.timeBias = -90;
    const Group standard = stage.group();
    const Group own = stage.group(request);
    const GroupState state = stateOf(stage.as<IOPCGroupStateMgt>(standard.state), found);
    found.expect(state.timeBias > -16 * 60 && state.timeBias < 16 * 60,
                 fmt::format("the standard bias is {} minutes", state.timeBias));
    found.equal("the bias", stateOf(stage.as<IOPCGroupStateMgt>(own.state), found).timeBias, -90);
}

void unknownInterface(Stage& stage, Findings& found) {
    const auto count = [&stage] { return stage.opcServer().GetStatus().out.value_or(ServerStatus{}).groupCount; };
    const std::uint32_t before = count();
    refused(stage, found, named("A"), unknownIid, {E_NOINTERFACE});
    found.equal("the group count", count(), before);
    const auto again = stage.opcServer().AddGroup(named("A"), IOPCItemMgt::iid);
    found.expect(!failed(again.result), "its name is still taken: " + resultName(again.result));
}

void wrongDeadband(Stage& stage, Findings& found) {
    for (const float percent : {-1.0F, 100.5F}) {
        GroupRequest request;
        request.percentDeadband = percent;
        refused(stage, found, request, IOPCItemMgt::iid, {E_INVALIDARG});
    }
}

void deadband(Stage& stage, Findings& found) {
    GroupRequest request;
    request.percentDeadband = 10.0F;
    const auto reply = stage.opcServer().AddGroup(request, IOPCGroupStateMgt::iid);
    found.result("AddGroup", reply.result, {S_OK, OPC_S_UNSUPPORTEDRATE, E_INVALIDARG, OPC_E_DEADBANDNOTSUPPORTED});
    if (reply.out.group) {
        found.equal("the deadband", stateOf(IOPCGroupStateMgt(*reply.out.group), found).percentDeadband, 10.0F);
    }
}

void getState(Stage& stage, Findings& found) {
    GroupRequest request = named("State");
    request.active = false;
    request.timeBias = 60;
    const Group group = stage.group(request);
    const GroupState state = stateOf(stage.as<IOPCGroupStateMgt>(group.state), found);
    found.equal("the rate", state.updateRate, group.rate);
    found.expect(!state.active, "the group is active");
    found.expect(state.name == "State", "the name is " + state.name.value_or("(null)"));
    found.equal("the bias", state.timeBias, 60);
    found.equal("the deadband", state.percentDeadband, 0.0F);
    found.equal("the locale", state.localeId, request.localeId);
    found.equal("the client handle", state.clientHandle, 7U);
    found.equal("the server handle", state.serverHandle, group.handle);
}

bool sameState(const GroupState& a, const GroupState& b) {
    return a.updateRate == b.updateRate && a.active == b.active && a.name == b.name && a.timeBias == b.timeBias &&
           a.percentDeadband == b.percentDeadband && a.localeId == b.localeId && a.clientHandle == b.clientHandle &&
           a.serverHandle == b.serverHandle;
}

void setState(Stage& stage, Findings& found) {
    const Group group = stage.group(named("A"));
    const auto mgt = stage.as<IOPCGroupStateMgt>(group.state);
    const GroupState before = stateOf(mgt, found);
    const auto nothing = mgt.SetState({});
    found.result("SetState(nothing)", nothing.result, {S_OK});
    found.equal("the revised rate", nothing.out, before.updateRate);
    found.expect(sameState(before, stateOf(mgt, found)), "something changed");

    GroupChange change;
    change.updateRate = 5000;
    const auto slower = mgt.SetState(change);
    found.result("SetState(5000 ms)", slower.result, {slower.out == 5000 ? S_OK : OPC_S_UNSUPPORTEDRATE});
    GroupState expected = before;
    expected.updateRate = slower.out;
    found.expect(sameState(expected, stateOf(mgt, found)), "something else than the rate changed");
}

void refusedState(Stage& stage, Findings& found) {
    GroupRequest request;
    request.active = false;
    const Group group = stage.group(request);
    const auto mgt = stage.as<IOPCGroupStateMgt>(group.state);
    const GroupState before = stateOf(mgt, found);
    GroupChange change;
    change.percentDeadband = 101.0F;
    change.active = true;
    found.result("SetState", mgt.SetState(change).result, {E_INVALIDARG});
    found.expect(sameState(before, stateOf(mgt, found)), "something changed");
}

void newClientHandle(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    GroupChange change;
    change.clientHandle = 99;
    found.result("SetState", stage.as<IOPCGroupStateMgt>(group.state).SetState(change).result, {S_OK});
    const Sink sink(stage.session(), group.state);
    found.need(stage.waitUntil([&sink] { return !sink.calls().empty(); }, 10s), "no OnDataChange came");
    found.equal("its group", sink.calls().front().data.clientGroup, 99U);
}

constexpr std::array<Case, 11> cases{{
    {29, Version::Da2, "AddGroup(\"A\", active, 1000 ms)", "S_OK or OPC_S_UNSUPPORTEDRATE; a handle; a pointer",
     addGroup},
    {30, Version::Da2, "AddGroup(0 ms)", "a rate above 0", fastestRate},
    {31, Version::Da2, "AddGroup(1, 137, 3600000 ms), each twice",
     "the same both times, not faster; OPC_S_UNSUPPORTEDRATE where different", revisesRates},
    {36, Version::Da2, "AddGroup by an interface that nobody has", "E_NOINTERFACE; no pointer, no group",
     unknownInterface},
    {37, Version::Da2, "AddGroup(deadband -1, 100.5)", "E_INVALIDARG", wrongDeadband},
    {38, Version::Da2, "AddGroup(deadband 10)", "S_OK and kept, or refused", deadband},
    {39, Version::Da2, "AddGroup(no time bias, -90)", "the server's own; -90", defaultBias},
    {40, Version::Da2, "GetState", "what AddGroup was given and gave", getState},
    {41, Version::Da2, "SetState(nothing), (5000 ms)", "the present rate, nothing changed; the rate alone", setState},
    {42, Version::Da2, "SetState(deadband 101, active)", "E_INVALIDARG; nothing changed", refusedState},
    {43, Version::Da2, "SetState(client handle 99)", "OnDataChange for group 99", newClientHandle},
}};

}  // namespace
}  // namespace groups

std::span<const Case> groupCases() {
    return groups::cases;
}

}  // namespace quelm::opcclient::check
