// Asking for interfaces, taking references and giving them back.

#include "Orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

using RemUnknownCalls = World;

TEST_F(RemUnknownCalls, QueryInterfaceAsTheWireHasIt) {
    const Uuid ipid = activate(peer(1));
    Bytes request = query(ipid, 5, {iidBrowse});
    request.resize(request.size() + 4);  // clients leave zeros behind their parameters
    remUnknown(peer(2), 3, request);
    EXPECT_EQ(status, 0U);
    EXPECT_EQ(toHex(reply),
              "0000000000000000"                  // ORPCTHAT
              "0400020001000000"                  // pointer, one result
              "0000000000000000"                  // S_OK, gap
              "0000000005000000"                  // flags, references
              "a100000000000000a400000000000000"  // OXID, OID
              "a700000000000000a800000000000000"  // IPID
              "00000000");                        // S_OK
}

TEST_F(RemUnknownCalls, QueryInterfaceGivesOneResultForEachInterface) {
    const Uuid ipid = activate(peer(1));
    const struct {
        std::vector<Uuid> iids;
        std::vector<HResult> results;
        HResult overall;
    } cases[] = {
        {{}, {}, S_OK},
        {{iidNobody}, {E_NOINTERFACE}, E_NOINTERFACE},
        {{iidUnknown}, {S_OK}, S_OK},
        {{iidBrowse, iidNobody, iidUnknown}, {S_OK, E_NOINTERFACE, S_OK}, S_FALSE},
    };
    for (const auto& entry : cases) {
        ndr::Reader in = remUnknown(peer(2), 3, query(ipid, 1, entry.iids));
        EXPECT_EQ(status, 0U);
        EXPECT_NE(in.u32(), 0U);
        ASSERT_EQ(in.u32(), entry.results.size());
        for (const HResult result : entry.results) {
            in.align(8);
            EXPECT_EQ(in.u32(), result);
            in.align(8);
            const WireReference reference = readReference(in);
            EXPECT_EQ(reference.oid, result == S_OK ? lastOid : 0U);
            EXPECT_EQ(reference.count, result == S_OK ? 1U : 0U);
            EXPECT_EQ(reference.ipid.isNull(), result != S_OK);
        }
        EXPECT_EQ(in.u32(), entry.overall);
        EXPECT_EQ(in.remaining(), 0U);
    }
}

TEST_F(RemUnknownCalls, QueryInterfaceOfADeadObjectAnswersInFull) {
    ndr::Reader in = remUnknown(peer(2), 3, query(iidNobody, 5, {iidServer}));
    EXPECT_EQ(status, 0U);
    in.u32();
    EXPECT_EQ(in.u32(), 1U);
    EXPECT_EQ(in.u32(), 0x80010108U);
    in.align(8);
    EXPECT_TRUE(readReference(in).ipid.isNull());
    EXPECT_EQ(in.u32(), E_NOINTERFACE);
}

TEST_F(RemUnknownCalls, TheYoungerQueryAnswersWithInterfacePointers) {
    const Uuid ipid = activate(peer(1));
    Request request;
    request.out.uuid(ipid);
    request.out.u16(2);
    request.out.u32(2);
    request.out.uuid(iidNobody);
    request.out.uuid(iidServer);
    ndr::Reader in = remUnknown(peer(2), 6, request.bytes);
    EXPECT_EQ(in.u32(), 2U);
    EXPECT_EQ(in.u32(), E_NOINTERFACE);
    EXPECT_EQ(in.u32(), S_OK);
    EXPECT_EQ(in.u32(), 2U);
    EXPECT_EQ(in.u32(), 0U);
    EXPECT_NE(in.u32(), 0U);
    EXPECT_EQ(readObjectPointer(in, iidServer).ipid, ipid);
    EXPECT_EQ(in.u32(), S_FALSE);
    EXPECT_EQ(in.remaining(), 0U);
}

TEST_F(RemUnknownCalls, AddRefAnswersForEachReference) {
    const Uuid ipid = activate(peer(1));
    remUnknown(peer(2), 4, changes({{ipid, 5}}));
    EXPECT_EQ(toHex(reply),
              "0000000000000000"
              "01000000"
              "00000000"
              "00000000");
    remUnknown(peer(2), 4, changes({{iidNobody, 5}, {ipid, 0}}));
    EXPECT_EQ(toHex(reply),
              "0000000000000000"
              "02000000"
              "57000780"
              "00000000"
              "57000780");
    remUnknown(peer(2), 4, changes({}));
    EXPECT_EQ(toHex(reply),
              "0000000000000000"
              "00000000"
              "00000000");
}

// The references of a client after activation (5) and one RemAddRef(5) each row begins with.
TEST_F(RemUnknownCalls, ReferencesAreCountedPerObject) {
    const auto none = std::vector<Change>{};
    struct Row {
        const char* what;
        std::vector<std::vector<Change>> releases;  // {0}: the server interface, {1}: the browse interface
        bool alive;
    };
    const Uuid server = iidServer;
    const Uuid browse = iidBrowse;
    const Row rows[] = {
        {"one short", {{{server, 9}, {browse, 5}}}, true},
        {"all but the other interface", {{{server, 10}}}, true},
        {"exactly", {{{server, 10}, {browse, 5}}}, false},
        {"in pieces", {{{server, 5}}, {{browse, 5}}, {{server, 5}}}, false},
        {"too many of one do not take from the other", {{{server, 4000000000U}}}, true},
        {"too many of both", {{{server, 0xFFFFFFFFU, 0xFFFFFFFFU}, {browse, 0xFFFFFFFFU}}}, false},
        {"twice in one call", {{{server, 10}, {server, 0}, {browse, 5}, {browse, 5}}}, false},
        {"none", {{{server, 0}, {browse, 0}}, none}, true},
        {"with strangers", {{{iidNobody, 5}, {server, 10}, {iidNobody, 0}, {browse, 5}}}, false},
        {"private ones count alike", {{{server, 6, 4}, {browse, 0, 5}}}, false},
    };
    std::uint64_t connection = 10;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        events.clear();
        const rpc::Peer client = peer(++connection);
        const Uuid ipid = activate(peer(1));
        remUnknown(client, 4, changes({{ipid, 5}}));
        const Uuid browseIpid = queryOne(client, ipid, iidBrowse).ipid;
        for (auto list : row.releases) {
            for (Change& change : list) {
                change.ipid = change.ipid == server ? ipid : change.ipid == browse ? browseIpid : change.ipid;
            }
            release(client, list);
        }
        EXPECT_EQ(alive(client, browseIpid), row.alive);
        EXPECT_EQ(events.size(), row.alive ? 0U : 1U);
        release(client, {{ipid, 99}, {browseIpid, 99}});  // a dead object is released once more without harm
        EXPECT_EQ(events.size(), 1U);
        EXPECT_EQ(exporter.objectCount(), 0U);
    }
    EXPECT_EQ(exporter.clientCount(), 0U);
}

TEST_F(RemUnknownCalls, CountsThatDoNotFitTheParametersAreRefused) {
    const Uuid ipid = activate(peer(1));
    const struct {
        std::uint16_t opnum;
        std::uint16_t stated;
        std::uint32_t conformance;
    } cases[] = {
        {3, 0xFFFF, 0xFFFF}, {3, 1, 0xFFFFFFFF}, {3, 0, 1},          {3, 2, 1},
        {4, 0xFFFF, 0xFFFF}, {5, 1, 0xFFFFFFFF}, {5, 1, 0x0AAAAAAB}, {6, 0xFFFF, 0xFFFF},
    };
    for (const auto& entry : cases) {
        Request request;
        if (entry.opnum == 3 || entry.opnum == 6) {
            request.out.uuid(ipid);
        }
        if (entry.opnum == 3) {
            request.out.u32(5);
        }
        request.out.u16(entry.stated);
        request.out.u32(entry.conformance);
        request.out.uuid(ipid);
        request.out.u64(5);
        remUnknown(peer(2), entry.opnum, request.bytes);
        EXPECT_EQ(status, faultBadStubData) << entry.opnum << ' ' << entry.stated << ' ' << entry.conformance;
    }
    EXPECT_TRUE(alive(peer(2), ipid));
}

TEST_F(RemUnknownCalls, AnObjectThatDiesTakesOthersAlong) {
    const Uuid ipid = activate(peer(1));
    const auto server = factory->latest;
    server->child = std::make_shared<TestObject>("group", events);
    ndr::Reader in = callObject(peer(2), ipid, 3, Request().bytes);
    in.u32();
    const Uuid group = readObjectPointer(in, iidServer).ipid;
    server->onDisconnected = [this] { exporter.revokeAll(); };
    release(peer(2), {{ipid, 5}});
    EXPECT_THAT(events, testing::ElementsAre("server1", "group"));
    EXPECT_FALSE(alive(peer(2), group));
}

}  // namespace quelm::dcom::orpc::test
