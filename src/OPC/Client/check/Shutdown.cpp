// Area 10: the server's good-bye. That it is said can only be seen while somebody stops the server.

#include <array>
#include <chrono>
#include <optional>
#include <thread>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace shutdown {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;
using dcom::client::Trouble;

constexpr auto patience = 5min;        // for somebody to stop the server
constexpr auto longestGoodbye = 60s;   // from then on, whatever clients do
constexpr auto unresponsiveFor = 15s;  // a client that hangs
constexpr const char* mustBeStopped = "somebody must stop the server meanwhile";

void adviseShutdown(Stage& stage, Findings& found) {
    const auto container = stage.as<IConnectionPointContainer>(stage.server());
    const auto reply = container.FindConnectionPoint(ShutdownSink::iid);
    found.result("FindConnectionPoint", reply.result, {S_OK});
    found.need(reply.out.has_value(), "there is no connection point");
    const IConnectionPoint point(*reply.out);
    found.expect(point.GetConnectionInterface().out == ShutdownSink::iid, "it is of another interface");
    ShutdownSink sink;
    const auto advised = point.Advise(stage.session().exportObject(ShutdownSink::iid, sink));
    found.result("Advise", advised.result, {S_OK});
    found.expect(advised.out != 0, "the cookie is 0");
    found.result("Unadvise", point.Unadvise(advised.out), {S_OK});
    found.result("Unadvise again", point.Unadvise(advised.out), {CONNECT_E_NOCONNECTION});
    stage.session().withdraw(sink);
}

// A server object whose good-byes are counted.
struct Listener {
    explicit Listener(Stage& stage, Findings& found) : session(stage.session()), server(stage.newServer(session)) {
        const auto reply = stage.as<IConnectionPointContainer>(server).FindConnectionPoint(ShutdownSink::iid);
        found.need(reply.out.has_value(), "FindConnectionPoint: " + resultName(reply.result));
        sink.onShutdownRequest = [this](const std::string&) {
            ++requests;
            std::this_thread::sleep_for(hangs);
        };
        point.emplace(*reply.out);
        const auto advised = point->Advise(session.exportObject(ShutdownSink::iid, sink));
        found.need(advised.result == S_OK, "Advise: " + resultName(advised.result));
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() { session.withdraw(sink); }

    Session& session;
    Interface server;
    ShutdownSink sink;
    std::optional<IConnectionPoint> point;
    int requests = 0;
    std::chrono::seconds hangs{0};
};

void awaitStop(Stage& stage, Findings& found, const Listener& listener) {
    stage.tell("now stop the server, as its operator would");
    found.need(stage.waitUntil([&listener] { return listener.requests > 0; }, patience),
               "no ShutdownRequest came within five minutes");
}

// The server's end, behind the good-bye: nothing of the object is left.
void awaitEnd(Stage& stage, Findings& found, const Listener& listener) {
    for (auto waited = 0s; waited < longestGoodbye; waited += 1s) {
        try {
            if (failed(stage.as<IOPCServer>(listener.server).GetStatus().result)) {
                return;
            }
        } catch (const Trouble& trouble) {
            if (trouble.kind == Trouble::Kind::Interrupted) {
                throw;
            }
            return;
        }
        stage.wait(1s);
    }
    found.fail("the server still answers a minute later");
}

void saysGoodbye(Stage& stage, Findings& found) {
    const Listener one(stage, found);
    awaitStop(stage, found, one);
    stage.wait(1s);
    found.equal("the number of requests", one.requests, 1);
}

void saysGoodbyeToEach(Stage& stage, Findings& found) {
    const Listener one(stage, found);
    const Listener two(stage, found);
    awaitStop(stage, found, one);
    stage.wait(1s);
    found.equal("the number of requests to the first", one.requests, 1);
    found.equal("the number of requests to the second", two.requests, 1);
}

void endsWhateverClientsDo(Stage& stage, Findings& found) {
    const Interface silent = stage.newServer(stage.session());  // has nothing that could be called
    Listener hanging(stage, found);
    hanging.hangs = unresponsiveFor;
    awaitStop(stage, found, hanging);
    awaitEnd(stage, found, hanging);
}

constexpr std::array<Case, 4> cases{{
    {133, Version::Da2, "IOPCShutdown: FindConnectionPoint, Advise, Unadvise twice",
     "S_OK, a cookie; S_OK; CONNECT_E_NOCONNECTION", adviseShutdown},
    {134, Version::Da2, "the server is stopped", "one ShutdownRequest, before connections end", saysGoodbye, false,
     mustBeStopped},
    {135, Version::Da2, "the server is stopped; two objects have a sink", "one ShutdownRequest each", saysGoodbyeToEach,
     false, mustBeStopped},
    {136, Version::Da2, "the server is stopped; a sink hangs", "the server ends within a minute all the same",
     endsWhateverClientsDo, false, mustBeStopped},
}};

}  // namespace
}  // namespace shutdown

std::span<const Case> shutdownCases() {
    return shutdown::cases;
}

}  // namespace quelm::opcclient::check
