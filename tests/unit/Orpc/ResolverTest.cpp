// What client machines ask about the exporter as a whole.

#include "Orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

using ResolverCalls = World;

Bytes resolveRequest(std::uint64_t oxid) {
    Bytes bytes;
    ndr::Writer out(bytes);
    out.u64(oxid);
    out.u16(1);
    out.u32(1);
    out.u16(7);
    return bytes;
}

TEST_F(ResolverCalls, AnOxidLeadsToTheObjectPort) {
    for (const std::uint16_t opnum : {0, 4}) {
        ndr::Reader in = send(activation, peer(1), iidObjectExporter, nullptr, opnum, resolveRequest(exporter.oxid()));
        EXPECT_NE(in.u32(), 0U);
        in.u32();
        EXPECT_EQ(readBindings(in),
                  (std::vector<std::string>{"192.0.2.1[49200]", "localhost[49200]", "192.0.2.1[49200]"}));
        EXPECT_EQ(in.uuid(), exporter.remUnknownIpid());
        EXPECT_EQ(in.u32(), 2U);
        if (opnum == 4) {
            EXPECT_EQ(in.u16(), 5);
            EXPECT_EQ(in.u16(), 7);
        }
        EXPECT_EQ(in.u32(), 0U);
        EXPECT_EQ(in.remaining(), 0U);
    }
}

TEST_F(ResolverCalls, AnUnknownOxidIsToldByStatus) {
    send(activation, peer(1), iidObjectExporter, nullptr, 4, resolveRequest(12345));
    EXPECT_EQ(status, 0U);
    EXPECT_EQ(toHex(reply),
              "00000000"
              "00000000000000000000000000000000"
              "00000000"
              "05000700"
              "76070000");
}

TEST_F(ResolverCalls, ServerAlive) {
    send(activation, peer(1), iidObjectExporter, nullptr, 3, {});
    EXPECT_EQ(toHex(reply), "00000000");
    ndr::Reader in = send(activation, peer(1), iidObjectExporter, nullptr, 5, {});
    EXPECT_EQ(in.u16(), 5);
    EXPECT_EQ(in.u16(), 7);
    EXPECT_NE(in.u32(), 0U);
    EXPECT_EQ(in.u32(), (reply.size() - 24) / 2);
    EXPECT_EQ(readBindings(in), (std::vector<std::string>{"192.0.2.1", "localhost", "192.0.2.1"}));
    EXPECT_EQ(in.u32(), 0U);
    EXPECT_EQ(in.u32(), 0U);
    EXPECT_EQ(in.remaining(), 0U);
    send(activation, peer(1), iidObjectExporter, nullptr, 6, {});
    EXPECT_EQ(status, faultOpnumRange);
}

TEST_F(ResolverCalls, OnlyAskingWhetherTheMachineIsAliveNeedsNoLogOn) {
    for (const Uuid& interfaceId : {iidObjectExporter, iidActivation, iidRemoteScmActivator}) {
        for (std::uint16_t opnum = 0; opnum < 8; ++opnum) {
            const bool alive = interfaceId == iidObjectExporter && (opnum == 3 || opnum == 5);
            EXPECT_EQ(activation.allowsUnauthenticated(interfaceId, opnum), alive) << opnum;
        }
    }
}

TEST_F(ResolverCalls, TheFirstPingAsTheWireHasIt) {
    activate(peer(1));
    const Bytes request = fromHex(
        "0000000000000000 0000 0100 0000 0000"  // no set yet, sequence, one to add, none to take out, gap
        "55736572 01000000"                     // pointer, one
        "a400000000000000 00000000"             // OID, null pointer
        "00000000000000000000000000000000");    // what the client leaves behind its parameters
    send(activation, peer(1), iidObjectExporter, nullptr, 2, request);
    EXPECT_EQ(toHex(reply),
              "0100000000000000"
              "0000"
              "0000"
              "00000000");
    EXPECT_EQ(pingSimple(1), 0U);
}

TEST_F(ResolverCalls, UnknownSetsAndForeignSetsAreToldByStatus) {
    activate(peer(1));
    const std::uint64_t set = pingComplex(0, 0, {lastOid}, {});
    EXPECT_EQ(pingSimple(0), 1912U);
    EXPECT_EQ(pingSimple(set + 1), 1912U);
    EXPECT_EQ(pingComplex(set + 1, 1, {lastOid}, {}, 1912), set + 1);
    account = "PLANT\\other";
    EXPECT_EQ(pingSimple(set), 1912U);
}

TEST_F(ResolverCalls, AChangeThatArrivesLateOnlyPings) {
    activate(peer(1));
    const std::uint64_t set = pingComplex(0, 7, {lastOid}, {});
    pingComplex(set, 6, {}, {lastOid});
    pass(359);
    EXPECT_EQ(pingSimple(set), 0U);
    pass(1);
    EXPECT_EQ(exporter.objectCount(), 1U);
    pingComplex(set, 8, {}, {lastOid});
    pass(360);
    EXPECT_EQ(exporter.objectCount(), 0U);
}

TEST_F(ResolverCalls, SetsWithoutEndAreRefused) {
    for (int i = 0; i < 4096; ++i) {
        pingComplex(0, 0, {}, {});
    }
    pingComplex(0, 0, {}, {}, 14);
    pass(360);
    pingComplex(0, 0, {}, {});
}

}  // namespace quelm::dcom::orpc::test
