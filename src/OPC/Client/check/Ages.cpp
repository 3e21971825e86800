// Area 14: what OPC DA 3.0 has added: reads by maximum age, signs of life, deadbands and sampling rates of items.

#include <algorithm>
#include <array>

#include "OPC/Client/check/Sent.h"
#include "base/Quality.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace ages {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;

void itemIoRead(Stage& stage, Findings& found) {
    const auto io = stage.asOffered<IOPCItemIO>(stage.server());
    for (const std::uint32_t age : {fromCache, fromDevice}) {
        const auto reply = io.Read(std::array{stage.item().id}, std::array{age});
        found.result(fmt::format("Read({:#x})", age), reply.result, {S_OK});
        found.expect(reply.out.values && reply.out.values->size() == 1 && reply.out.fileTimes, "there is no value");
    }
}

void itemIoWrongIds(Stage& stage, Findings& found) {
    const auto io = stage.asOffered<IOPCItemIO>(stage.server());
    const std::array ids{stage.item().id, std::string("no.such.item.anywhere"), std::string()};
    const auto reply = io.Read(ids, std::array{fromCache, fromCache, fromCache});
    const Findings::Codes unknown{OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID};
    found.codes("Read", reply.result, reply.out.errors, {{S_OK}, unknown, unknown});
}

std::int64_t timeOf(const Reply<ReadColumns>& reply, Findings& found) {
    found.need(reply.result == S_OK && reply.out.fileTimes && reply.out.fileTimes->size() == 1,
               "ReadMaxAge: " + resultName(reply.result));
    return reply.out.fileTimes->front();
}

void readByAge(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto io = stage.asOffered<IOPCSyncIO2>(group.state);
    const std::int64_t cached = timeOf(io.ReadMaxAge(group.items, std::array{fromCache}), found);
    const std::int64_t lenient = timeOf(io.ReadMaxAge(group.items, std::array{0xFFFFFFFEU}), found);
    const std::int64_t strict = timeOf(io.ReadMaxAge(group.items, std::array{1U}), found);
    found.expect(lenient >= cached && strict >= lenient, "a stricter age gives an older value");
}

void inactiveByAge(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto io = stage.asOffered<IOPCSyncIO2>(group.state);
    stage.as<IOPCItemMgt>(group.state).SetActiveState(group.items, false);
    const auto device = io.ReadMaxAge(group.items, std::array{fromDevice});
    found.result("ReadMaxAge(0)", device.result, {S_OK});
    found.expect(device.out.qualities && device.out.qualities->front() != quality::badOutOfService,
                 "the device's quality is out of service");
    const auto cache = io.ReadMaxAge(group.items, std::array{fromCache});
    found.result("ReadMaxAge(FFFFFFFF)", cache.result, {S_OK});
    if (cache.out.qualities && cache.out.qualities->front() != quality::badOutOfService) {
        found.tolerate("the cache gives " + qualityText(cache.out.qualities->front()));
    }
}

std::ptrdiff_t counted(const Sink& sink, Called::Kind kind, std::uint32_t transaction) {
    return std::count_if(sink.calls().begin(), sink.calls().end(),
                         [&](const Called& each) { return each.kind == kind && each.data.transaction == transaction; });
}

void asyncByAge(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(2);
    const auto io = stage.asOffered<IOPCAsyncIO3>(group.state);
    const Sink sink(stage.session(), group.state);
    found.result("ReadMaxAge", io.ReadMaxAge(group.items, std::array{fromDevice, fromCache}, 50).result, {S_OK});
    const auto came = [&sink] { return counted(sink, Called::Kind::ReadComplete, 50) > 0; };
    found.need(stage.waitUntil(came, 10s), "no OnReadComplete came");
    stage.wait(500ms);
    found.equal<std::ptrdiff_t>("the number of OnReadComplete", counted(sink, Called::Kind::ReadComplete, 50), 1);
    for (const Called& each : sink.calls()) {
        found.expect(each.kind != Called::Kind::ReadComplete || each.data.items.size() == 2, "it has not both items");
    }
}

void refreshByAge(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(3);
    const auto io = stage.asOffered<IOPCAsyncIO3>(group.state);
    const Sink sink(stage.session(), group.state);
    found.result("RefreshMaxAge", io.RefreshMaxAge(fromDevice, 51).result, {S_OK});
    const auto came = [&sink] { return counted(sink, Called::Kind::DataChange, 51) > 0; };
    found.need(stage.waitUntil(came, 10s), "no OnDataChange came");
    for (const Called& each : sink.calls()) {
        found.expect(each.data.transaction != 51 || each.data.items.size() == 3, "it has not all items");
    }
}

void keepAliveTime(Stage& stage, Findings& found) {
    const auto group = stage.asOffered<IOPCGroupStateMgt2>(stage.group().state);
    const auto before = group.GetKeepAlive();
    found.result("GetKeepAlive", before.result, {S_OK});
    found.equal("the time at first", before.out, 0U);
    const auto set = group.SetKeepAlive(3000);
    found.result("SetKeepAlive", set.result, {set.out == 3000 ? S_OK : OPC_S_UNSUPPORTEDRATE});
    found.equal("the time", group.GetKeepAlive().out, set.out);
}

struct Idle {
    Group group;
    std::unique_ptr<Sink> sink;
};

// A group without items that is kept alive and advised: nothing but signs of life comes.
Idle idle(Stage& stage, Findings& found, std::uint32_t keepAlive) {
    Idle made{stage.group(), nullptr};
    const auto set = stage.asOffered<IOPCGroupStateMgt2>(made.group.state).SetKeepAlive(keepAlive);
    found.need(!failed(set.result), "SetKeepAlive: " + resultName(set.result));
    made.sink = std::make_unique<Sink>(stage.session(), made.group.state);
    return made;
}

void keepsAlive(Stage& stage, Findings& found) {
    const Idle made = idle(stage, found, 1000);
    found.need(stage.waitUntil([&made] { return made.sink->calls().size() >= 4; }, 10s),
               "no four of them came in 10 s");
    const auto& calls = made.sink->calls();
    for (std::size_t i = 0; i < calls.size(); ++i) {
        const DataEvent& event = calls[i].data;
        found.expect(
            event.items.empty() && event.transaction == 0 && event.masterQuality == S_OK && event.masterError == S_OK,
            "it is not empty, or not of its own accord, or not S_OK");
        found.expect(i == 0 || calls[i].at - calls[i - 1].at <= 1500,
                     fmt::format("{} ms between two of them", i == 0 ? 0 : calls[i].at - calls[i - 1].at));
    }
}

// Data tells as much as a sign of life does.
void noneBesideData(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto set = stage.asOffered<IOPCGroupStateMgt2>(group.state).SetKeepAlive(2000);
    found.need(!failed(set.result), "SetKeepAlive: " + resultName(set.result));
    const auto io = stage.as<IOPCAsyncIO2>(group.state);
    const Sink sink(stage.session(), group.state);
    for (std::uint32_t transaction = 1; transaction <= 8; ++transaction) {
        found.result("Refresh2", io.Refresh2(Source::Cache, transaction).result, {S_OK});
        stage.wait(700ms);
    }
    found.expect(std::none_of(sink.calls().begin(), sink.calls().end(),
                              [](const Called& each) { return each.data.items.empty(); }),
                 "empty callbacks come beside the data");
}

void keepsIdleAlive(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(2);
    stage.as<IOPCItemMgt>(group.state).SetActiveState(group.items, false);
    const auto set = stage.asOffered<IOPCGroupStateMgt2>(group.state).SetKeepAlive(500);
    found.need(!failed(set.result), "SetKeepAlive: " + resultName(set.result));
    const Sink sink(stage.session(), group.state);
    found.expect(stage.waitUntil([&sink] { return sink.calls().size() >= 2; }, 10s), "no two of them came in 10 s");
}

void noneWhileInactive(Stage& stage, Findings& found) {
    const Idle made = idle(stage, found, 500);
    GroupChange change;
    change.active = false;
    stage.as<IOPCGroupStateMgt>(made.group.state).SetState(change);
    forgetLateOnes(stage, *made.sink);
    stage.wait(2s);
    found.expect(made.sink->calls().empty(), "they come while the group is inactive");
    change.active = true;
    stage.as<IOPCGroupStateMgt>(made.group.state).SetState(change);
    found.result("SetEnable", stage.as<IOPCAsyncIO2>(made.group.state).SetEnable(false), {S_OK});
    forgetLateOnes(stage, *made.sink);
    stage.wait(2s);
    found.expect(made.sink->calls().empty(), "they come while callbacks are disabled");
}

void noneAnyMore(Stage& stage, Findings& found) {
    const Idle made = idle(stage, found, 500);
    found.need(stage.waitUntil([&made] { return !made.sink->calls().empty(); }, 10s), "none came");
    const auto off = stage.as<IOPCGroupStateMgt2>(made.group.state).SetKeepAlive(0);
    found.result("SetKeepAlive(0)", off.result, {S_OK});
    found.equal("the time", off.out, 0U);
    forgetLateOnes(stage, *made.sink);
    stage.wait(2s);
    found.expect(made.sink->calls().empty(), "they still come");
}

void deadbands(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto mgt = stage.asOffered<IOPCItemDeadbandMgt>(group.state);
    const std::array handles{group.items.front(), ~group.items.front()};
    const auto set = mgt.SetItemDeadband(handles, std::array{10.0F, 10.0F});
    if (failed(set.result)) {
        found.result("SetItemDeadband", set.result, {OPC_E_DEADBANDNOTSUPPORTED, E_NOTIMPL});
        return;
    }
    found.codes("SetItemDeadband", set.result, set.out, {{S_OK, OPC_E_DEADBANDNOTSUPPORTED}, {OPC_E_INVALIDHANDLE}});
    const auto get = mgt.GetItemDeadband(handles);
    found.codes("GetItemDeadband", get.result, get.out.errors,
                {{S_OK, OPC_E_DEADBANDNOTSUPPORTED, OPC_E_DEADBANDNOTSET}, {OPC_E_INVALIDHANDLE}});
    const auto clear = mgt.ClearItemDeadband(handles);
    found.codes("ClearItemDeadband", clear.result, clear.out,
                {{S_OK, OPC_E_DEADBANDNOTSUPPORTED, OPC_E_DEADBANDNOTSET}, {OPC_E_INVALIDHANDLE}});
}

void samplingRates(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto mgt = stage.asOffered<IOPCItemSamplingMgt>(group.state);
    const std::array handles{group.items.front(), ~group.items.front()};
    const auto unset = mgt.GetItemSamplingRate(handles);
    found.codes("GetItemSamplingRate", unset.result, unset.out.errors, {{OPC_E_RATENOTSET}, {OPC_E_INVALIDHANDLE}});
    const auto set = mgt.SetItemSamplingRate(handles, std::array{0U, 0U});
    found.codes("SetItemSamplingRate(0)", set.result, set.out.errors,
                {{S_OK, OPC_S_UNSUPPORTEDRATE}, {OPC_E_INVALIDHANDLE}});
    const auto get = mgt.GetItemSamplingRate(handles);
    found.codes("GetItemSamplingRate", get.result, get.out.errors, {{S_OK}, {OPC_E_INVALIDHANDLE}});
    found.need(set.out.numbers.has_value() && get.out.numbers.has_value(), "no rates came");
    found.equal("the rate", get.out.numbers->front(), set.out.numbers->front());
    const auto clear = mgt.ClearItemSamplingRate(handles);
    found.codes("ClearItemSamplingRate", clear.result, clear.out, {{S_OK}, {OPC_E_INVALIDHANDLE}});
    const auto gone = mgt.GetItemSamplingRate(handles);
    found.codes("GetItemSamplingRate", gone.result, gone.out.errors, {{OPC_E_RATENOTSET}, {OPC_E_INVALIDHANDLE}});
}

void noBuffering(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto mgt = stage.asOffered<IOPCItemSamplingMgt>(group.state);
    const std::array handles{group.items.front()};
    const auto set = mgt.SetItemBufferEnable(handles, std::array{1U});
    if (!failed(set.result)) {
        found.skip("the server buffers");
        return;
    }
    found.result("SetItemBufferEnable", set.result, {OPC_E_NOBUFFERING});
    found.expect(!set.out.has_value(), "errors came with it");
    const auto get = mgt.GetItemBufferEnable(handles);
    found.result("GetItemBufferEnable", get.result, {OPC_E_NOBUFFERING});
    found.expect(!get.out.numbers.has_value() && !get.out.errors.has_value(), "something came with it");
}

constexpr std::array<Case, 15> cases{{
    {167, Version::Da3, "IOPCItemIO::Read by any age, by none", "S_OK; a value", itemIoRead},
    {168, Version::Da3, "IOPCItemIO::Read(item, unknown one, empty id)",
     "S_FALSE, S_OK, OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID", itemIoWrongIds},
    {169, Version::Da3, "ReadMaxAge(any age), (49 days), (1 ms)", "no stricter age gives an older value", readByAge},
    {170, Version::Da3, "inactive item: ReadMaxAge(0), (any age)", "the device's; out of service", inactiveByAge},
    {171, Version::Da3, "IOPCAsyncIO3::ReadMaxAge", "one OnReadComplete with both items", asyncByAge},
    {172, Version::Da3, "RefreshMaxAge", "one OnDataChange with all items", refreshByAge},
    {173, Version::Da3, "GetKeepAlive, SetKeepAlive(3000), GetKeepAlive", "0; S_OK or revised; that", keepAliveTime},
    {174, Version::Da3, "keep-alive 1000 ms, no items", "empty OnDataChange, at most 1500 ms apart", keepsAlive},
    {175, Version::Da3, "keep-alive 2000 ms, data all the while", "no empty OnDataChange", noneBesideData},
    {176, Version::Da3, "keep-alive, no item active", "empty OnDataChange all the same", keepsIdleAlive},
    {177, Version::Da3, "keep-alive, group inactive, callbacks disabled", "none", noneWhileInactive},
    {178, Version::Da3, "SetKeepAlive(0)", "S_OK, 0; none any more", noneAnyMore},
    {179, Version::Da3, "deadbands of an item, of a wrong handle", "not supported or kept; OPC_E_INVALIDHANDLE",
     deadbands},
    {180, Version::Da3, "sampling rate of an item: Get, Set(0), Get, Clear, Get",
     "OPC_E_RATENOTSET; revised; that; S_OK; OPC_E_RATENOTSET", samplingRates},
    {181, Version::Da3, "SetItemBufferEnable, GetItemBufferEnable without buffering", "OPC_E_NOBUFFERING; nothing else",
     noBuffering},
}};

}  // namespace
}  // namespace ages

std::span<const Case> ageCases() {
    return ages::cases;
}

}  // namespace quelm::opcclient::check
