// Area 8: transactions, whose results come by callbacks.

#include <array>

#include "OPC/Client/check/Sent.h"
#include "base/Quality.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace asynchronous {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;
using Kind = Called::Kind;

constexpr std::uint32_t fast = 200;  // ms: so waiting for what must not come is short

// An advised group with some items, whose first callback is behind it.
struct Scene {
    Group group;
    std::unique_ptr<Sink> sink;
    IOPCAsyncIO2 io;
};

Scene sceneOf(Stage& stage, Findings& found, Group group) {
    auto io = stage.as<IOPCAsyncIO2>(group.state);
    auto sink = advised(stage, found, group);
    return {std::move(group), std::move(sink), std::move(io)};
}

Scene sceneWith(Stage& stage, Findings& found, std::size_t items, bool active = true) {
    GroupRequest request;
    request.active = active;
    request.updateRate = fast;
    request.clientHandle = 77;
    Scene scene = sceneOf(stage, found, items > 0 ? stage.groupOf(items, request) : stage.group(request));
    if (active && items > 0) {
        awaited(stage, found, *scene.sink, Kind::DataChange, 0);
    }
    return scene;
}

void expectNone(Stage& stage, Findings& found, const Scene& scene, std::uint32_t transaction) {
    stage.wait(silenceOf(scene.group));
    for (const Called& each : scene.sink->calls()) {
        found.expect(each.data.transaction != transaction, "a callback came for it");
    }
}

void expectOne(Stage& stage, Findings& found, const Scene& scene, Kind kind, std::uint32_t transaction,
               std::size_t items) {
    const Called& called = awaited(stage, found, *scene.sink, kind, transaction);
    found.equal("the group's client handle", called.data.clientGroup, 77U);
    found.equal("the number of items", called.data.items.size(), items);
    expectMasters(found, called);
    stage.wait(500ms);
    found.equal("the number of callbacks", sentOf(*scene.sink, kind, transaction).size(), std::size_t{1});
}

void begun(Findings& found, std::string_view call, const Reply<Transaction>& reply) {
    found.result(call, reply.result, {S_OK});
    found.expect(reply.out.cancelId != 0, "the cancel id is 0");
}

void withoutSink(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto io = stage.as<IOPCAsyncIO2>(group.state);
    const auto read = io.Read(group.items, 1);
    found.result("Read", read.result, {CONNECT_E_NOCONNECTION});
    found.expect(read.out.cancelId == 0 && !read.out.errors, "Read gives a cancel id or codes");
    found.result("Refresh2", io.Refresh2(Source::Cache, 1).result, {CONNECT_E_NOCONNECTION});
    found.result("SetEnable", io.SetEnable(true), {CONNECT_E_NOCONNECTION});
    found.result("GetEnable", io.GetEnable().result, {CONNECT_E_NOCONNECTION});
    if (const auto io3 = ask<IOPCAsyncIO3>(group.state).out) {
        found.result("ReadMaxAge", io3->ReadMaxAge(group.items, std::array{fromDevice}, 1).result,
                     {CONNECT_E_NOCONNECTION});
        found.result("RefreshMaxAge", io3->RefreshMaxAge(fromDevice, 1).result, {CONNECT_E_NOCONNECTION});
    }
}

void read(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 2);
    begun(found, "Read", scene.io.Read(scene.group.items, 11));
    expectOne(stage, found, scene, Kind::ReadComplete, 11, 2);
}

void readWrongHandle(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    const std::array handles{scene.group.items[0], ~scene.group.items[0]};
    const auto reply = scene.io.Read(handles, 12);
    found.codes("Read", reply.result, reply.out.errors, {{S_OK}, {OPC_E_INVALIDHANDLE}});
    expectOne(stage, found, scene, Kind::ReadComplete, 12, 1);
}

void readNothing(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    const auto reply = scene.io.Read(std::array{~scene.group.items[0]}, 13);
    found.codes("Read", reply.result, reply.out.errors, {{OPC_E_INVALIDHANDLE}});
    expectNone(stage, found, scene, 13);
}

void readBadItem(Stage& stage, Findings& found) {
    const KnownItem& item =
        stage.itemWhere([](const KnownItem& each) { return quality::isBad(each.quality); }, "of bad quality");
    const Scene scene = sceneOf(stage, found, stage.groupWith({item.id}));
    begun(found, "Read", scene.io.Read(scene.group.items, 14));
    expectMasters(found, awaited(stage, found, *scene.sink, Kind::ReadComplete, 14));
}

void readInactive(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1, false);
    begun(found, "Read", scene.io.Read(scene.group.items, 15));
    for (const auto& item : awaited(stage, found, *scene.sink, Kind::ReadComplete, 15).data.items) {
        found.expect(item.quality != quality::badOutOfService, "it is out of service");
    }
}

void anyTransaction(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    for (const std::uint32_t transaction : {0U, 0xFFFFFFFFU, 5U, 5U}) {
        scene.sink->forget();
        begun(found, "Read", scene.io.Read(scene.group.items, transaction));
        awaited(stage, found, *scene.sink, Kind::ReadComplete, transaction);
    }
}

void twoAtOnce(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    begun(found, "the first Read", scene.io.Read(scene.group.items, 16));
    const auto second = scene.io.Read(scene.group.items, 17);
    found.result("the second Read", second.result, {S_OK, CONNECT_E_ADVISELIMIT});
    awaited(stage, found, *scene.sink, Kind::ReadComplete, 16);
    if (second.result == S_OK) {
        awaited(stage, found, *scene.sink, Kind::ReadComplete, 17);
    } else {
        expectNone(stage, found, scene, 17);
    }
}

// Each item refused at once, or in the callback.
void expectRefused(Stage& stage, Findings& found, const Scene& scene, const Reply<Transaction>& reply,
                   std::uint32_t transaction) {
    const Findings::Codes refusals{OPC_E_BADRIGHTS, OPC_E_NOTSUPPORTED, E_FAIL};
    if (reply.result == S_FALSE) {
        found.codes("the write", reply.out.errors, {refusals});
        return expectNone(stage, found, scene, transaction);
    }
    begun(found, "the write", reply);
    const Called& called = awaited(stage, found, *scene.sink, Kind::WriteComplete, transaction);
    found.result("the master error", called.data.masterError, {S_FALSE});
    for (const auto& item : called.data.items) {
        found.result("the item", item.error, refusals);
    }
}

Scene readOnlyScene(Stage& stage, Findings& found) {
    if ((stage.item().rights & 2U) != 0) {
        found.skip(stage.item().id + " may be written to");
    }
    return sceneWith(stage, found, 1);
}

void refusesWrite(Stage& stage, Findings& found) {
    const Scene scene = readOnlyScene(stage, found);
    const auto reply = scene.io.Write(scene.group.items, std::array{Value::integer(VT_I4, 1)}, 20);
    expectRefused(stage, found, scene, reply, 20);
}

void refusesVqt(Stage& stage, Findings& found) {
    const Scene scene = readOnlyScene(stage, found);
    const auto io = stage.asOffered<IOPCAsyncIO3>(scene.group.state);
    const ValueToWrite value{Value::integer(VT_I4, 1), quality::good, {}};
    expectRefused(stage, found, scene, io.WriteVQT(scene.group.items, std::array{value}, 21), 21);
}

void refresh(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 3);
    found.result("Refresh2", scene.io.Refresh2(Source::Cache, 30).result, {S_OK});
    expectOne(stage, found, scene, Kind::DataChange, 30, 3);
}

void refreshActive(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 3);
    stage.as<IOPCItemMgt>(scene.group.state).SetActiveState(std::array{scene.group.items[1]}, false);
    found.result("Refresh2", scene.io.Refresh2(Source::Device, 31).result, {S_OK});
    expectOne(stage, found, scene, Kind::DataChange, 31, 2);
}

void expectNoRefresh(Stage& stage, Findings& found, const Scene& scene) {
    found.result("Refresh2", scene.io.Refresh2(Source::Cache, 32).result, {E_FAIL});
    if (const auto io3 = ask<IOPCAsyncIO3>(scene.group.state).out) {
        found.result("RefreshMaxAge", io3->RefreshMaxAge(fromDevice, 32).result, {E_FAIL});
    }
    expectNone(stage, found, scene, 32);
}

void refreshInactive(Stage& stage, Findings& found) {
    expectNoRefresh(stage, found, sceneWith(stage, found, 1, false));
}

void refreshNothing(Stage& stage, Findings& found) {
    expectNoRefresh(stage, found, sceneWith(stage, found, 0));
    const Scene scene = sceneWith(stage, found, 1);
    stage.as<IOPCItemMgt>(scene.group.state).SetActiveState(scene.group.items, false);
    expectNoRefresh(stage, found, scene);
}

void refreshWrongSource(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    for (const std::uint16_t source : {0, 3}) {
        found.result(fmt::format("Refresh2(source {})", source),
                     scene.io.Refresh2(static_cast<Source>(source), 33).result, {E_INVALIDARG});
    }
    expectNone(stage, found, scene, 33);
}

void refreshDisabled(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    found.result("SetEnable", scene.io.SetEnable(false), {S_OK});
    found.result("Refresh2", scene.io.Refresh2(Source::Cache, 34).result, {S_OK});
    expectOne(stage, found, scene, Kind::DataChange, 34, 1);
}

void refreshCounts(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 3);
    found.result("Refresh2", scene.io.Refresh2(Source::Cache, 35).result, {S_OK});
    awaited(stage, found, *scene.sink, Kind::DataChange, 35);
    stage.wait(silenceOf(scene.group));
    const std::string repeated = repeatedBy(*scene.sink);
    found.expect(repeated.empty(), repeated);
}

void expectNoCancel(Stage& stage, Findings& found, const Scene& scene, std::uint32_t cancelId) {
    found.result("Cancel2", scene.io.Cancel2(cancelId), {E_FAIL});
    stage.wait(silenceOf(scene.group));
    for (const Called& each : scene.sink->calls()) {
        found.expect(each.kind != Kind::Cancel, "an OnCancelComplete came");
    }
}

void cancelUnknown(Stage& stage, Findings& found) {
    expectNoCancel(stage, found, sceneWith(stage, found, 1), 0x7A7A7A7A);
}

void cancelTooLate(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    const auto reply = scene.io.Read(scene.group.items, 36);
    begun(found, "Read", reply);
    awaited(stage, found, *scene.sink, Kind::ReadComplete, 36);
    expectNoCancel(stage, found, scene, reply.out.cancelId);
}

void cancelAtOnce(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    const auto reply = scene.io.Read(scene.group.items, 40);
    begun(found, "Read", reply);
    const HResult cancelled = scene.io.Cancel2(reply.out.cancelId);
    found.result("Cancel2", cancelled, {S_OK, E_FAIL});
    const Kind expected = cancelled == S_OK ? Kind::Cancel : Kind::ReadComplete;
    awaited(stage, found, *scene.sink, expected, 40);
    stage.wait(500ms);
    const Kind other = cancelled == S_OK ? Kind::ReadComplete : Kind::Cancel;
    found.expect(sentOf(*scene.sink, other, 40).empty(), "both OnReadComplete and OnCancelComplete came");
}

void enable(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    for (const bool enabled : {true, false}) {
        const auto reply = scene.io.GetEnable();
        found.result("GetEnable", reply.result, {S_OK});
        found.equal("GetEnable", reply.out, enabled);
        found.result("SetEnable", scene.io.SetEnable(false), {S_OK});
    }
}

void silentAfterUnadvise(Stage& stage, Findings& found) {
    const Scene scene = sceneWith(stage, found, 1);
    sayAlive(scene.group);
    begun(found, "Read", scene.io.Read(scene.group.items, 41));
    found.result("Unadvise", scene.sink->unadvise(), {S_OK});
    forgetLateOnes(stage, *scene.sink);
    stage.wait(silenceOf(scene.group));
    found.expect(scene.sink->calls().empty(), "a callback came behind it");
}

constexpr std::array<Case, 22> cases{{
    {89, Version::Da2, "no sink: Read, Refresh2, SetEnable, GetEnable", "CONNECT_E_NOCONNECTION; nothing given",
     withoutSink},
    {90, Version::Da2, "Read of two items", "one OnReadComplete with both", read},
    {91, Version::Da2, "Read(item, wrong handle)", "S_FALSE; OnReadComplete with the one item", readWrongHandle},
    {92, Version::Da2, "Read(wrong handle)", "S_FALSE; no callback", readNothing},
    {93, Version::Da2, "Read of an item of bad quality", "OnReadComplete; its master quality S_FALSE", readBadItem},
    {94, Version::Da2, "inactive group: Read", "OnReadComplete; not out of service", readInactive},
    {95, Version::Da2, "Read with the transactions 0, FFFFFFFF, and 5 twice", "each answered with its own",
     anyTransaction},
    {96, Version::Da2, "two Reads at once", "two callbacks, or CONNECT_E_ADVISELIMIT for the second", twoAtOnce},
    {97, Version::Da2, "Write to a read-only item", "refused at once or by OnWriteComplete", refusesWrite, true},
    {98, Version::Da3, "WriteVQT to a read-only item", "refused at once or by OnWriteComplete", refusesVqt, true},
    {99, Version::Da2, "Refresh2(cache)", "one OnDataChange with all items", refresh},
    {100, Version::Da2, "one of three items inactive: Refresh2(device)", "one OnDataChange with the other two",
     refreshActive},
    {101, Version::Da2, "inactive group: Refresh2, RefreshMaxAge", "E_FAIL; no callback", refreshInactive},
    {102, Version::Da2, "no items, or none active: Refresh2, RefreshMaxAge", "E_FAIL; no callback", refreshNothing},
    {103, Version::Da2, "Refresh2 with the sources 0 and 3", "E_INVALIDARG; no callback", refreshWrongSource},
    {104, Version::Da2, "callbacks disabled: Refresh2", "one OnDataChange all the same", refreshDisabled},
    {105, Version::Da2, "Refresh2, and two periods more", "nothing is sent again unchanged", refreshCounts},
    {106, Version::Da2, "Cancel2 of nothing", "E_FAIL; no OnCancelComplete", cancelUnknown},
    {107, Version::Da2, "Cancel2 behind the callback", "E_FAIL; no OnCancelComplete", cancelTooLate},
    {108, Version::Da2, "Read, Cancel2", "OnCancelComplete alone, or E_FAIL and OnReadComplete alone", cancelAtOnce},
    {109, Version::Da2, "GetEnable, SetEnable, GetEnable", "true; S_OK; false", enable},
    {110, Version::Da2, "Read, Unadvise", "no callback behind Unadvise", silentAfterUnadvise},
}};

}  // namespace
}  // namespace asynchronous

std::span<const Case> asyncCases() {
    return asynchronous::cases;
}

}  // namespace quelm::opcclient::check
