// Area 9: what comes of the server's own accord while a sink is advised.

#include <algorithm>
#include <array>
#include <set>

#include "OPC/Client/check/Sent.h"
#include "base/TimeSource.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace subscription {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;
using Kind = Called::Kind;

void setActive(Stage& stage, Findings& found, const Group& group, bool active) {
    GroupChange change;
    change.active = active;
    found.result("SetState", stage.as<IOPCGroupStateMgt>(group.state).SetState(change).result, {S_OK});
}

void expectSilence(Stage& stage, Findings& found, const Group& group, Sink& sink) {
    forgetLateOnes(stage, sink);
    stage.wait(silenceOf(group));
    found.expect(sink.calls().empty(), "a callback came");
}

void beginsWithAll(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3, subscribing(true));
    const auto sink = advised(stage, found, group);
    found.expect(sink->cookie() != 0, "the cookie is 0");
    const std::uint64_t began = timeSource().monotonicMilliseconds();
    const Called& first = awaited(stage, found, *sink, Kind::DataChange, 0);
    found.expect(first.at - began <= group.rate + 1000, fmt::format("it came after {} ms", first.at - began));
    found.equal("the number of items", first.data.items.size(), std::size_t{3});
    found.equal("the group's client handle", first.data.clientGroup, 78U);
    expectMasters(found, first);
}

void silentWhileInactive(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1, subscribing(false));
    const auto sink = advised(stage, found, group);
    stage.wait(silenceOf(group));
    found.expect(sink->calls().empty(), "a callback came");
}

void activationSendsAll(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3, subscribing(false));
    const auto sink = advised(stage, found, group);
    setActive(stage, found, group, true);
    awaitHandles(stage, found, *sink, {100, 101, 102});
}

void deactivationSilences(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3, subscribing(true));
    sayAlive(group);
    const auto sink = advised(stage, found, group);
    awaited(stage, found, *sink, Kind::DataChange, 0);
    setActive(stage, found, group, false);
    expectSilence(stage, found, group, *sink);
}

void activationTwice(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3, subscribing(true));
    const auto sink = advised(stage, found, group);
    awaited(stage, found, *sink, Kind::DataChange, 0);
    setActive(stage, found, group, true);
    stage.wait(silenceOf(group));
    const std::string repeated = repeatedBy(*sink);
    found.expect(repeated.empty(), repeated);
}

void itemActivation(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(2, subscribing(true));
    const auto items = stage.as<IOPCItemMgt>(group.state);
    items.SetActiveState(std::array{group.items[1]}, false);
    const auto sink = advised(stage, found, group);
    awaitHandles(stage, found, *sink, {100});
    stage.settle();
    sink->forget();
    items.SetActiveState(std::array{group.items[1]}, true);
    stage.waitUntil([&] { return handlesIn(*sink).contains(101); }, 10s);
    found.expect(handlesIn(*sink).contains(101), "the item that was made active did not come");
}

void itemDeactivation(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(2, subscribing(true));
    const auto sink = advised(stage, found, group);
    awaited(stage, found, *sink, Kind::DataChange, 0);
    stage.as<IOPCItemMgt>(group.state).SetActiveState(std::array{group.items[1]}, false);
    forgetLateOnes(stage, *sink);
    stage.wait(silenceOf(group));
    found.expect(!handlesIn(*sink).contains(101), "the inactive item came");
}

void newItem(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1, subscribing(true));
    const auto sink = advised(stage, found, group);
    awaited(stage, found, *sink, Kind::DataChange, 0);
    const ItemDefinition definition{stage.item(1).id, "", true, 900, VT_EMPTY, {}};
    found.result("AddItems", stage.as<IOPCItemMgt>(group.state).AddItems(std::array{definition}).result, {S_OK});
    stage.waitUntil([&] { return handlesIn(*sink).contains(900); }, 10s);
    found.expect(handlesIn(*sink).contains(900), "the new item did not come");
}

void newType(Stage& stage, Findings& found) {
    const KnownItem& item =
        stage.itemWhere([](const KnownItem& each) { return each.value.number() && each.type != VT_BOOL; }, "a number");
    const Group group = stage.groupWith({item.id}, subscribing(true));
    const auto sink = advised(stage, found, group);
    const auto set = stage.as<IOPCItemMgt>(group.state).SetDatatypes(group.items, std::array{VT_BSTR});
    found.result("SetDatatypes", set.result, {S_OK});
    found.result("Refresh2", stage.as<IOPCAsyncIO2>(group.state).Refresh2(Source::Cache, 60).result, {S_OK});
    for (const auto& each : awaited(stage, found, *sink, Kind::DataChange, 60).data.items) {
        found.expect(each.value.type == VT_BSTR, "it comes as " + typeName(each.value.type));
    }
}

void sameItemTwice(Stage& stage, Findings& found) {
    const Group group = stage.groupWith({stage.item().id, stage.item().id}, subscribing(true));
    const auto sink = advised(stage, found, group);
    awaitHandles(stage, found, *sink, {100, 101});
}

void connectionPoints(Stage& stage, Findings& found) {
    const auto container = stage.as<IConnectionPointContainer>(stage.group().state);
    const auto data = container.FindConnectionPoint(DataSink::iid);
    found.result("FindConnectionPoint(IOPCDataCallback)", data.result, {S_OK});
    const auto other = container.FindConnectionPoint(ShutdownSink::iid);
    found.result("FindConnectionPoint(IOPCShutdown)", other.result, {CONNECT_E_NOCONNECTION});
    found.expect(!other.out, "a connection point came with the failure");
    const auto list = container.EnumConnectionPoints();
    found.result("EnumConnectionPoints", list.result, {S_OK});
    found.need(list.out.has_value(), "there is no list of connection points");
    bool isListed = false;
    for (const auto& point : IEnumConnectionPoints(*list.out).Next(10).out) {
        isListed = isListed || (point && IConnectionPoint(*point).GetConnectionInterface().out == DataSink::iid);
    }
    found.expect(isListed, "IOPCDataCallback is not in the list");
}

IConnectionPoint pointOf(Stage& stage, Findings& found, const Group& group) {
    const auto point = stage.as<IConnectionPointContainer>(group.state).FindConnectionPoint(DataSink::iid);
    found.need(point.out.has_value(), "FindConnectionPoint: " + resultName(point.result));
    return IConnectionPoint(*point.out);
}

void wrongSink(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1, subscribing(true));
    const auto point = pointOf(stage, found, group);
    ShutdownSink sink;
    const auto reply = point.Advise(stage.session().exportObject(ShutdownSink::iid, sink));
    if (reply.result == S_OK) {
        // A server that does not keep Advise waiting for the sink finds it out later.
        stage.wait(silenceOf(group));
        found.result("Advise: S_OK; Unadvise later", point.Unadvise(reply.out), {CONNECT_E_NOCONNECTION});
        found.tolerate("S_OK; the connection ends when the object turns out to have no IOPCDataCallback");
    } else {
        found.result("Advise", reply.result, {CONNECT_E_CANNOTCONNECT});
        found.equal("the cookie", reply.out, 0U);
    }
    stage.session().withdraw(sink);
}

void secondSink(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1, subscribing(true));
    const auto first = advised(stage, found, group);
    const Sink second(stage.session(), group.state);
    found.result("the second Advise", second.advised(), {S_OK, CONNECT_E_ADVISELIMIT});
    awaited(stage, found, *first, Kind::DataChange, 0);
    if (second.advised() == S_OK) {
        found.expect(second.cookie() != first->cookie(), "both have one cookie");
        awaited(stage, found, second, Kind::DataChange, 0);
    }
}

void unadvise(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1, subscribing(true));
    const auto sink = advised(stage, found, group);
    const auto wrong = pointOf(stage, found, group).Unadvise(sink->cookie() ^ 0x5A5A0000U);
    found.result("Unadvise of another cookie", wrong, {CONNECT_E_NOCONNECTION});
    found.result("Unadvise", sink->unadvise(), {S_OK});
    found.result("the second Unadvise", sink->unadvise(), {CONNECT_E_NOCONNECTION});
}

constexpr std::array<Case, 14> cases{{
    {111, Version::Da2, "Advise to an active group", "OnDataChange with all items within a period", beginsWithAll},
    {112, Version::Da2, "Advise to an inactive group", "no callback", silentWhileInactive},
    {113, Version::Da2, "the group is made active", "OnDataChange with all active items", activationSendsAll},
    {114, Version::Da2, "the group is made inactive", "no callback any more", deactivationSilences},
    {115, Version::Da2, "an active group is made active", "nothing is sent again unchanged", activationTwice},
    {116, Version::Da2, "an item is made active", "it comes", itemActivation},
    {117, Version::Da2, "an item is made inactive", "it comes no more", itemDeactivation},
    {118, Version::Da2, "an item is added", "it comes", newItem},
    {124, Version::Da2, "SetDatatypes(VT_BSTR)", "it comes as a text", newType},
    {125, Version::Da2, "an item stands in the group twice", "it comes with both client handles", sameItemTwice},
    {128, Version::Da2, "FindConnectionPoint, EnumConnectionPoints", "IOPCDataCallback alone", connectionPoints},
    {129, Version::Da2, "Advise of an object without IOPCDataCallback", "CONNECT_E_CANNOTCONNECT", wrongSink},
    {130, Version::Da2, "a second Advise", "both are called, or CONNECT_E_ADVISELIMIT", secondSink},
    {131, Version::Da2, "Unadvise of another cookie, of it, of it again", "CONNECT_E_NOCONNECTION; S_OK; no connection",
     unadvise},
}};

}  // namespace
}  // namespace subscription

std::span<const Case> subscriptionCases() {
    return subscription::cases;
}

}  // namespace quelm::opcclient::check
