// Area 10: the server's good-bye. That it is said can only be seen by whoever stops the server.

#include <array>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace {

using namespace opcda::client;

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

constexpr std::array<Case, 1> cases{{
    {133, Version::Da2, "IOPCShutdown: FindConnectionPoint, Advise, Unadvise twice",
     "S_OK, a cookie; S_OK; CONNECT_E_NOCONNECTION", adviseShutdown},
}};

}  // namespace

std::span<const Case> shutdownCases() {
    return cases;
}

}  // namespace quelm::opcclient::check
