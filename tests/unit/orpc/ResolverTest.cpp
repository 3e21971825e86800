// What client machines ask about the exporter as a whole.

#include "orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

using ResolverCalls = World;

Parameters resolveRequest(std::uint64_t oxid) {
    return Parameters().u64(oxid).u16(1).u32(1).u16(7);
}

TEST_F(ResolverCalls, AnOxidLeadsToTheObjectPort) {
    for (const std::uint16_t opnum : {0, 4}) {
        send(activation, peer(1), iidObjectExporter, nullptr, opnum, resolveRequest(exporter.oxid()));
        Parameters expected;
        expected.hex("04000200").add(conformantBindings("[49200]")).uuid(exporter.remUnknownIpid());
        EXPECT_HEX(reply, expected.hex(opnum == 4 ? "02000000 05000700 00000000" : "02000000 00000000"));
    }
    send(activation, peer(1), iidObjectExporter, nullptr, 4, resolveRequest(12345));
    EXPECT_HEX(reply, "00000000 00000000000000000000000000000000 00000000 05000700 76070000");
}

// Any other client would look for "localhost" on its own machine.
TEST_F(ResolverCalls, LocalhostIsNamedOnlyToWhoDialledALoopbackAddress) {
    for (const char* address : {"127.0.0.1", "192.0.2.1"}) {
        const rpc::Peer from{1, "127.0.0.1:50001", address, 135};
        send(activation, from, iidObjectExporter, nullptr, 5, {});
        const Bytes name = fromHex("6C006F00630061006C0068006F0073007400");
        const bool named = std::search(reply.begin(), reply.end(), name.begin(), name.end()) != reply.end();
        EXPECT_EQ(named, address == std::string("127.0.0.1"));
    }
}

TEST_F(ResolverCalls, ServerAlive) {
    send(activation, peer(1), iidObjectExporter, nullptr, 3, {});
    EXPECT_HEX(reply, "00000000");
    send(activation, peer(1), iidObjectExporter, nullptr, 5, {});
    EXPECT_HEX(reply, Parameters().hex("05000700 04000200").add(conformantBindings("")).u32(0).u32(0));
    send(activation, peer(1), iidObjectExporter, nullptr, 6, {});
    EXPECT_EQ(status, Fault::OpnumRange);
}

TEST_F(ResolverCalls, UnknownSetsAndForeignSetsAreToldByStatus) {
    activate();
    const std::uint64_t set = pingComplex(0, 0, {lastOid}, {});
    EXPECT_EQ(pingSimple(0), 1912U);
    EXPECT_EQ(pingSimple(set + 1), 1912U);
    EXPECT_EQ(pingComplex(set + 1, 1, {lastOid}, {}, 1912), set + 1);
    EXPECT_EQ(send(activation, peer(902, "192.0.2.8"), iidObjectExporter, nullptr, 1, Parameters().u64(set)).u32(),
              1912U);
    account = "";  // without a log-on, as client machines come
    level = rpc::AuthLevel::None;
    EXPECT_EQ(pingSimple(set), 0U);
}

TEST_F(ResolverCalls, AChangeThatArrivesLateOnlyPings) {
    activate();
    const std::uint64_t set = pingComplex(0, 0xFFFF, {lastOid}, {});
    pingComplex(set, 0xFFFE, {}, {lastOid});
    pass(359);
    EXPECT_EQ(pingSimple(set), 0U);
    pass(1);
    EXPECT_EQ(exporter.objectCount(), 1U);
    pingComplex(set, 0, {}, {lastOid});
    for (int i = 0; i < 3; ++i) {
        pass(120);
        EXPECT_EQ(pingSimple(set), 0U);
    }
    EXPECT_EQ(exporter.objectCount(), 0U);
}

}  // namespace quelm::dcom::orpc::test
