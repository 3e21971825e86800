// Area 16, second part: what a client that dies leaves behind, and what others notice of it.

#include <array>

#include "OPC/Client/check/Sent.h"
#include "base/TimeSource.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace deaths {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;
using Kind = Called::Kind;

// Three pings that do not come, two minutes apart, and some more.
constexpr auto longestLife = 10min;
constexpr auto silence = 10s;  // for a group that says each second that it lives

void expectData(Stage& stage, Findings& found, const Group& group, const Sink& sink, std::uint32_t transaction) {
    found.result("Refresh2 of the other group",
                 stage.as<IOPCAsyncIO2>(group.state).Refresh2(Source::Cache, transaction).result, {S_OK});
    awaited(stage, found, sink, Kind::DataChange, transaction);
}

// The group of one client calls the sink of another, whose end shows what becomes of it.
void sinkDies(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1, subscribing(true));
    const Group other = stage.groupOf(1, subscribing(true));
    const auto otherSink = advised(stage, found, other);
    stage.newServer(stage.otherSession());  // where callbacks come to is known only then
    Sink dying(stage.otherSession(), group.state);
    found.need(dying.advised() == S_OK, "Advise: " + resultName(dying.advised()));
    found.need(stage.waitUntil([&dying] { return !dying.calls().empty(); }, 10s), "no callback came before");
    stage.killOther();
    const auto io = stage.as<IOPCAsyncIO2>(group.state);
    for (const std::uint32_t transaction : {70U, 71U}) {
        io.Refresh2(Source::Cache, transaction);  // leads to the sink that is gone
        expectData(stage, found, other, *otherSink, transaction);
        stage.wait(1s);
    }
    found.result("GetStatus", stage.opcServer().GetStatus().result, {S_OK});
    // One connection is all that some servers have; others have noticed the end and taken theirs back.
    found.result("Unadvise", dying.unadvise(), {S_OK, CONNECT_E_NOCONNECTION});
    const Sink again(stage.session(), group.state);
    found.result("a new Advise", again.advised(), {S_OK});
    awaited(stage, found, again, Kind::DataChange, 0);
}

// A sink of a client that lives shows how long the dead one's group does.
void clientDies(Stage& stage, Findings& found) {
    const Group own = stage.groupOf(1, subscribing(true));
    const auto ownSink = advised(stage, found, own);
    const Interface server = stage.newServer(stage.otherSession());
    const Group group = stage.groupOn(server, {});
    const auto set = stage.asOffered<IOPCGroupStateMgt2>(group.state).SetKeepAlive(1000);
    found.need(!failed(set.result), "SetKeepAlive: " + resultName(set.result));
    const auto sink = advised(stage, found, group);
    found.need(stage.waitUntil([&sink] { return sink->calls().size() > 1; }, 10s), "no sign of life came before");
    stage.killOther();
    const std::uint64_t died = timeSource().monotonicMilliseconds();
    const auto isSilent = [&sink] {
        const std::uint64_t quiet = timeSource().monotonicMilliseconds() - sink->calls().back().at;
        return std::chrono::milliseconds(quiet) >= silence;
    };
    while (!isSilent()) {
        const std::uint64_t lived = sink->calls().back().at - died;
        found.need(sink->calls().back().at < died || std::chrono::milliseconds(lived) < longestLife,
                   "the group still calls after ten minutes");
        stage.wait(1s);
    }
    expectData(stage, found, own, *ownSink, 72);
    found.result("GetStatus", stage.opcServer().GetStatus().result, {S_OK});
}

constexpr std::array<Case, 2> cases{{
    {132, Version::Da2, "a sink's program dies", "server and others go on; a new Advise works", sinkDies},
    {200, Version::Da3, "a client dies", "its groups end in ten minutes; others' data goes on", clientDies, false,
     "takes more than six minutes with most servers"},
}};

}  // namespace
}  // namespace deaths

std::span<const Case> deathCases() {
    return deaths::cases;
}

}  // namespace quelm::opcclient::check
