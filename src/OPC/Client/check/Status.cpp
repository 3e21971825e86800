// Area 2: what the server says about itself, and the texts of its codes.

#include <array>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace status {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;

constexpr std::uint32_t systemLocale = 0x0800;
constexpr std::uint16_t running = 1;
constexpr std::uint16_t commFault = 6;

ServerStatus statusOf(const IOPCServer& server, Findings& found) {
    const auto reply = server.GetStatus();
    found.result("GetStatus", reply.result, {S_OK});
    found.need(reply.out.has_value(), "GetStatus gave no status");
    return *reply.out;
}

ServerStatus status(Stage& stage, Findings& found) {
    return statusOf(stage.opcServer(), found);
}

void getStatus(Stage& stage, Findings& found) {
    const ServerStatus now = status(stage, found);
    found.expect(now.state == running || now.state == commFault, "the state is " + stateText(now.state));
    found.expect(now.vendorInfo.has_value(), "there is no vendor text");
    found.expect(now.startTime > 0 && now.startTime <= now.currentTime, "the start is not before the present");
    const ServerStatus later = status(stage, found);
    found.equal("the second start time", later.startTime, now.startTime);
    found.equal("the second version", later.majorVersion, now.majorVersion);
    found.expect(later.currentTime >= now.currentTime, "the time goes backwards");
}

void freshStatus(Stage& stage, Findings& found) {
    const ServerStatus now = status(stage, found);
    found.expect(now.lastUpdateTime == 0 || now.lastUpdateTime == now.startTime,
                 "last update is " + fileTimeText(now.lastUpdateTime) + " before the first");
    if (now.groupCount != 0) {
        found.tolerate(fmt::format("counts {} groups, those of other clients perhaps", now.groupCount));
    }
}

void countsGroups(Stage& stage, Findings& found) {
    const std::uint32_t before = status(stage, found).groupCount;
    const Group first = stage.group();
    Group second = stage.group();
    found.equal("the group count with two groups", status(stage, found).groupCount - before, 2U);
    const std::uint32_t handle = second.handle;
    second.state = first.state;  // lets go of it
    found.result("RemoveGroup", stage.opcServer().RemoveGroup(handle, false), {S_OK, OPC_S_INUSE});
    found.equal("the group count with one group", status(stage, found).groupCount - before, 1U);
}

void lastUpdateMoves(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const Sink sink(stage.session(), group.state);
    found.result("Advise", sink.advised(), {S_OK});
    found.need(stage.waitUntil([&sink] { return !sink.calls().empty(); }, 10s), "no OnDataChange came");
    const ServerStatus now = status(stage, found);
    found.expect(now.lastUpdateTime >= now.startTime && now.lastUpdateTime <= now.currentTime &&
                     now.currentTime - now.lastUpdateTime < 150'000'000,
                 "last update is " + fileTimeText(now.lastUpdateTime));
}

void keepAliveIsNoUpdate(Stage& stage, Findings& found) {
    GroupRequest idle;
    idle.updateRate = 500;
    const Group group = stage.group(idle);
    const auto state = stage.asOffered<IOPCGroupStateMgt2>(group.state);
    const Sink sink(stage.session(), group.state);
    const std::int64_t before = status(stage, found).lastUpdateTime;
    const auto kept = state.SetKeepAlive(500);
    found.need(!failed(kept.result), "SetKeepAlive: " + resultName(kept.result));
    found.expect(stage.waitUntil([&sink] { return sink.calls().size() >= 2; }, 10s), "no two keep-alives came");
    found.equal("last update", status(stage, found).lastUpdateTime, before);
}

void lastUpdateIsOwn(Stage& stage, Findings& found) {
    const IOPCServer other = stage.as<IOPCServer>(stage.newServer(stage.otherSession()));
    const std::int64_t before = statusOf(other, found).lastUpdateTime;
    const Group group = stage.groupOf(1);
    const auto read = stage.as<IOPCSyncIO>(group.state).Read(Source::Cache, group.items);
    found.result("Read", read.result, {S_OK});
    found.equal("the other client's last update", statusOf(other, found).lastUpdateTime, before);
}

void stateWithSources(Stage& stage, Findings& found) {
    const ServerStatus now = status(stage, found);
    if (now.state == commFault) {
        const Group group = stage.groupOf(1);
        const auto read = stage.as<IOPCSyncIO>(group.state).Read(Source::Device, group.items);
        found.need(read.out.items && !read.out.items->empty(), "Read: " + resultName(read.result));
        found.tolerate("the sources are away now; the first item is " + qualityText(read.out.items->front().quality));
    }
    found.expect(now.state == running || now.state == commFault, "the state is " + stateText(now.state));
}

void errorTexts(Stage& stage, Findings& found) {
    constexpr std::array codes{0xC0040001U, 0xC0040004U, 0xC0040005U, 0xC0040006U, 0xC0040007U, 0xC0040008U,
                               0xC0040009U, 0xC004000AU, 0xC004000BU, 0xC004000CU, 0x0004000DU, 0x0004000EU,
                               0x0004000FU, 0xC0040010U, 0xC0040011U, 0xC0040203U, 0x80040200U, 0x80040201U,
                               0x80040202U, 0x80004005U, 0x8002000AU};
    const IOPCServer server = stage.opcServer();
    for (const std::uint32_t code : codes) {
        const auto reply = server.GetErrorString(HResult{code}, systemLocale);
        found.expect(reply.result == S_OK && !reply.out.value_or("").empty(),
                     resultName(HResult{code}) + ": " + resultName(reply.result));
    }
}

void rpcErrorText(Stage& stage, Findings& found) {
    const auto reply = stage.opcServer().GetErrorString(HResult{0x800706BA}, systemLocale);
    found.result("GetErrorString", reply.result, {S_OK});
    found.expect(!reply.out.value_or("").empty(), "there is no text");
}

void unknownErrorText(Stage& stage, Findings& found) {
    const auto reply = stage.opcServer().GetErrorString(HResult{0x8F1E2D3C}, systemLocale);
    found.result("GetErrorString", reply.result, {E_INVALIDARG});
    found.expect(!reply.out, "a text came with the failure");
}

void sameErrorText(Stage& stage, Findings& found) {
    const auto common = stage.as<IOPCCommon>(stage.server());
    const auto locale = common.GetLocaleID();
    found.result("GetLocaleID", locale.result, {S_OK});
    const HResult code{0xC0040004};
    const auto one = common.GetErrorString(code);
    found.result("IOPCCommon::GetErrorString", one.result, {S_OK});
    const auto two = stage.opcServer().GetErrorString(code, locale.out);
    found.expect(one.out == two.out, "IOPCServer has another text");
}

constexpr std::array<Case, 11> cases{{
    {12, Version::Da2, "GetStatus", "S_OK; running; vendor text; start before the present", getStatus},
    {13, Version::Da2, "a new server object: GetStatus", "no last update, no groups", freshStatus},
    {14, Version::Da2, "GetStatus with two groups, with one", "group count 2, 1", countsGroups},
    {15, Version::Da2, "GetStatus after an OnDataChange", "last update is that callback's time", lastUpdateMoves},
    {16, Version::Da3, "GetStatus before and behind two keep-alives", "last update stands", keepAliveIsNoUpdate},
    {17, Version::Da2, "GetStatus of one client when another reads", "its last update stands", lastUpdateIsOwn},
    {18, Version::Da3, "GetStatus, sources there or not", "running, or communication fault with bad items",
     stateWithSources},
    {19, Version::Da2, "GetErrorString of each code of OPC DA", "S_OK and a text", errorTexts},
    {20, Version::Da2, "GetErrorString(RPC server unavailable)", "S_OK and a text", rpcErrorText},
    {21, Version::Da2, "GetErrorString(a code that nobody has)", "E_INVALIDARG, no text", unknownErrorText},
    {22, Version::Da2, "IOPCCommon::GetErrorString", "the text of IOPCServer for that locale", sameErrorText},
}};

}  // namespace
}  // namespace status

std::span<const Case> statusCases() {
    return status::cases;
}

}  // namespace quelm::opcclient::check
