// Area 15: counts of nothing, counts of very much, and parameters that contradict each other.

#include <algorithm>
#include <array>
#include <span>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace limits {
namespace {

using namespace opcda::client;
using dcom::client::Trouble;

constexpr std::size_t manyItems = 10'000;
constexpr std::size_t manyGroups = 200;
constexpr std::size_t itemsEach = 50;
constexpr std::size_t longText = 10'000;

// Neither results nor codes come with the refusal of no items.
template <class Out>
void nothing(Findings& found, std::string_view call, const Reply<Out>& reply, bool hasArrays) {
    found.result(call, reply.result, {E_INVALIDARG});
    found.expect(!hasArrays, std::string(call) + ": arrays came with the failure");
}

void countZero(Stage& stage, Findings& found) {
    const Group group = stage.group();
    const auto items = stage.as<IOPCItemMgt>(group.state);
    const auto io = stage.as<IOPCSyncIO>(group.state);
    const auto added = items.AddItems({});
    nothing(found, "AddItems", added, added.out.items || added.out.errors);
    const auto validated = items.ValidateItems({}, false);
    nothing(found, "ValidateItems", validated, validated.out.items || validated.out.errors);
    const auto removed = items.RemoveItems({});
    nothing(found, "RemoveItems", removed, removed.out.has_value());
    const auto active = items.SetActiveState({}, true);
    nothing(found, "SetActiveState", active, active.out.has_value());
    const auto read = io.Read(Source::Cache, {});
    nothing(found, "Read", read, read.out.items || read.out.errors);
    const auto written = io.Write({}, {});
    nothing(found, "Write", written, written.out.has_value());
}

void countZeroOfTransactions(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const Sink sink(stage.session(), group.state);
    found.need(sink.advised() == S_OK, "Advise: " + resultName(sink.advised()));
    const auto io = stage.as<IOPCAsyncIO2>(group.state);
    const auto begun = [&found](std::string_view call, const Reply<Transaction>& reply) {
        nothing(found, call, reply, reply.out.errors.has_value());
        found.equal("the cancel id", reply.out.cancelId, 0U);
    };
    begun("Read", io.Read({}, 60));
    begun("Write", io.Write({}, {}, 60));
    if (const auto younger = ask<IOPCAsyncIO3>(group.state).out) {
        begun("ReadMaxAge", younger->ReadMaxAge({}, {}, 60));
    }
    stage.wait(std::chrono::seconds(2));
    for (const Called& each : sink.calls()) {
        found.expect(each.data.transaction != 60, "a callback came");
    }
}

void countZeroOfServer(Stage& stage, Findings& found) {
    if (const auto properties = ask<IOPCItemProperties>(stage.server()).out) {
        const auto reply = properties->GetItemProperties(stage.item().id, {});
        nothing(found, "GetItemProperties", reply, reply.out.values || reply.out.errors);
    }
    if (const auto itemIo = ask<IOPCItemIO>(stage.server()).out) {
        const auto reply = itemIo->Read({}, {});
        nothing(found, "IOPCItemIO::Read", reply, reply.out.values || reply.out.errors);
    }
    if (const auto browse = ask<IOPCBrowse>(stage.server()).out) {
        const auto reply = browse->GetProperties({}, false, {});
        nothing(found, "IOPCBrowse::GetProperties", reply, reply.out.has_value());
    }
}

void wrongSource(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    for (const std::uint16_t source : {0, 3}) {
        const auto reply = stage.as<IOPCSyncIO>(group.state).Read(Source{source}, group.items);
        nothing(found, fmt::format("Read from source {}", source), reply, reply.out.items || reply.out.errors);
    }
}

// Whether the server still does what it is there for.
void goesOn(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    found.result("a read behind it", stage.as<IOPCSyncIO>(group.state).Read(Source::Cache, group.items).result, {S_OK});
}

void manyAtOnce(Stage& stage, Findings& found) {
    const Group group = stage.group();
    const ItemDefinition definition{stage.item().id, "", true, 1, VT_EMPTY, {}};
    const std::vector<ItemDefinition> definitions(manyItems, definition);
    const auto added = stage.as<IOPCItemMgt>(group.state).AddItems(definitions);
    found.result("AddItems", added.result, {S_OK, E_OUTOFMEMORY});
    if (added.result == S_OK) {
        found.need(added.out.items && added.out.items->size() == manyItems, "results are missing");
        std::vector<std::uint32_t> handles;
        for (const ItemResult& item : *added.out.items) {
            handles.push_back(item.serverHandle);
        }
        const auto read = stage.as<IOPCSyncIO>(group.state).Read(Source::Cache, handles);
        found.result("Read", read.result, {S_OK, E_OUTOFMEMORY});
        found.expect(read.result != S_OK || (read.out.items && read.out.items->size() == manyItems),
                     "values are missing");
    }
    goesOn(stage, found);
}

std::uint32_t groupCount(Stage& stage) {
    return stage.opcServer().GetStatus().out.value_or(ServerStatus{}).groupCount;
}

void manyOfThem(Stage& stage, Findings& found) {
    const std::uint32_t before = groupCount(stage);
    std::vector<std::uint32_t> handles;
    GroupRequest idle;
    idle.active = false;
    const ItemDefinition definition{stage.item().id, "", true, 1, VT_EMPTY, {}};
    const std::vector<ItemDefinition> definitions(itemsEach, definition);
    for (std::size_t i = 0; i < manyGroups; ++i) {
        const Group group = stage.group(idle);
        handles.push_back(group.handle);
        found.need(IOPCItemMgt(group.state).AddItems(definitions).result == S_OK, "items are refused");
    }
    const IOPCServer server = stage.opcServer();
    for (const std::uint32_t handle : handles) {
        found.result("RemoveGroup", server.RemoveGroup(handle, false), {S_OK, OPC_S_INUSE});
    }
    found.equal("the group count at the end", groupCount(stage), before);
}

void longTexts(Stage& stage, Findings& found) {
    const std::string text(longText, 'x');
    const ItemDefinition definition{text, "", true, 1, VT_EMPTY, {}};
    const auto added = stage.as<IOPCItemMgt>(stage.group().state).AddItems(std::array{definition});
    found.codes("AddItems", added.result, added.out.errors, {{OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID}});
    GroupRequest request;
    request.name = text;
    found.result("AddGroup", stage.opcServer().AddGroup(request, IOPCItemMgt::iid).result,
                 {S_OK, E_INVALIDARG, OPC_S_UNSUPPORTEDRATE, E_OUTOFMEMORY});
    goesOn(stage, found);
}

void contradiction(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const auto io = stage.as<IOPCSyncIO>(group.state);
    const Interface other = stage.newServer(stage.otherSession());
    try {
        // Five handles are announced, one of them comes.
        const auto answer =
            io.target().call(dcom::orpc::opnumOf(opcda::wire::SyncIo::Read), [&](dcom::ndr::Writer& out) {
                out.u16(static_cast<std::uint16_t>(Source::Cache));
                out.u32(5);
                out.u32(1);
                out.u32(group.items.front());
            });
        const std::span<const std::uint8_t> bytes(answer);
        dcom::ndr::Reader result(bytes.last(std::min<std::size_t>(bytes.size(), 4)));
        found.expect(failed(result.hresult()), "the call goes well");
    } catch (const Trouble& trouble) {
        found.expect(trouble.kind == Trouble::Kind::Fault || trouble.kind == Trouble::Kind::Closed, trouble.what());
        if (trouble.kind == Trouble::Kind::Closed) {
            found.tolerate("the connection ends");
        }
    }
    found.result("the other client's GetStatus", stage.as<IOPCServer>(other).GetStatus().result, {S_OK});
}

constexpr std::array<Case, 8> cases{{
    {182, Version::Da2, "calls of a group without items", "E_INVALIDARG; nothing", countZero},
    {183, Version::Da2, "transactions without items", "E_INVALIDARG; no cancel id; no callback",
     countZeroOfTransactions},
    {184, Version::Da2, "calls of the server without items", "E_INVALIDARG; nothing", countZeroOfServer},
    {185, Version::Da2, "Read from source 0, 3", "E_INVALIDARG; nothing", wrongSource},
    {186, Version::Da2, "AddItems and Read of 10,000 items at once", "S_OK and all, or E_OUTOFMEMORY", manyAtOnce},
    {187, Version::Da2, "200 groups with 50 items each, and away with them", "S_OK; no group is left", manyOfThem},
    {188, Version::Da2, "item id and group name of 10,000 characters", "a clean answer; the server goes on", longTexts},
    {189, Version::Da2, "a count that contradicts its array", "refused; others go on", contradiction},
}};

}  // namespace
}  // namespace limits

std::span<const Case> limitCases() {
    return limits::cases;
}

}  // namespace quelm::opcclient::check
