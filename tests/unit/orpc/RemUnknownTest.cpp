// Asking for interfaces, taking references and giving them back.

#include "orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

using RemUnknownCalls = World;

TEST_F(RemUnknownCalls, QueryInterfaceGivesOneResultForEachInterface) {
    const Uuid ipid = activate();
    const struct {
        Uuid object;
        std::vector<Uuid> iids;
        std::vector<HResult> results;
        HResult overall;
    } cases[] = {
        {ipid, {}, {}, S_OK},
        {ipid, {iidNobody}, {E_NOINTERFACE}, E_NOINTERFACE},
        {ipid, {iidUnknown}, {S_OK}, S_OK},
        {ipid, {iidBrowse, iidNobody, iidUnknown}, {S_OK, E_NOINTERFACE, S_OK}, S_FALSE},
        {iidNobody, {iidServer}, {RPC_E_DISCONNECTED}, E_NOINTERFACE},  // an object that is gone
    };
    for (const auto& entry : cases) {
        ndr::Reader in = remUnknown(peer(2), 3, query(entry.object, 1, entry.iids));
        EXPECT_EQ(status, Fault::None);
        EXPECT_NE(in.u32(), 0U);
        ASSERT_EQ(in.u32(), entry.results.size());
        for (const HResult result : entry.results) {
            in.align(8);
            EXPECT_EQ(in.hresult(), result);
            in.align(8);
            const WireReference reference = readReference(in);
            EXPECT_EQ(reference.oid, result == S_OK ? lastOid : 0U);
            EXPECT_EQ(reference.count, result == S_OK ? 1U : 0U);
            EXPECT_EQ(reference.ipid.isNull(), result != S_OK);
        }
        EXPECT_EQ(in.hresult(), entry.overall);
        EXPECT_EQ(in.remaining(), 0U);
    }
}

TEST_F(RemUnknownCalls, TheYoungerQueryAnswersWithInterfacePointers) {
    const Uuid ipid = activate();
    remUnknown(peer(2), 6, request().uuid(ipid).u16(2).array(std::vector{iidNobody, iidServer}));
    Parameters expected;
    expected.hex("0000000000000000 02000000 02400080 00000000 02000000 00000000 04000200 90000000 90000000");
    expected.hex("4D454F57 01000000").uuid(iidServer).hex("00000000 05000000 A100000000000000 A400000000000000");
    EXPECT_HEX(reply, expected.uuid(ipid).add(bindings()).align(4).hresult(S_FALSE));
}

TEST_F(RemUnknownCalls, AddRefAnswersForEachReference) {
    const Uuid ipid = activate();
    const std::pair<std::vector<Change>, const char*> cases[] = {
        {{{ipid, 5}}, "01000000 00000000 00000000"},
        {{{iidNobody, 5}, {ipid, 0}}, "02000000 57000780 00000000 57000780"},
        {{}, "00000000 00000000"},
    };
    for (const auto& [list, results] : cases) {
        remUnknown(peer(2), 4, changes(list));
        EXPECT_HEX(reply, std::string("0000000000000000") + results);
    }
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
        const Uuid ipid = activate();
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

// Who knows an identifier has not been given the object.
TEST_F(RemUnknownCalls, AnotherAccountIsRefusedWhateverItAsksOfAnObject) {
    const Uuid ipid = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    for (const std::uint64_t connection : {2, 3}) {  // the holder's own connection, and one of another machine
        const rpc::Peer from = peer(connection, "192.0.2." + std::to_string(connection));
        account = "PLANT\\display";
        EXPECT_FALSE(alive(from, ipid));
        EXPECT_EQ(status, faultOf(E_ACCESSDENIED));
        remUnknown(from, 3, query(ipid, 5, {iidBrowse}));
        EXPECT_HEX(reply, Parameters()
                              .hex("0000000000000000 04000200 01000000 05000780 00000000")
                              .add(Bytes(40))
                              .hresult(E_ACCESSDENIED));
        remUnknown(from, 4, changes({{ipid, 1}}));
        EXPECT_HEX(reply, "0000000000000000 01000000 05000780 05000780");
        remUnknown(from, 5, changes({{iidNobody, 5}, {ipid, 99}}));
        EXPECT_HEX(reply, "0000000000000000 05000780");
        account = "plant\\READER";  // the holder, as typed elsewhere
        EXPECT_TRUE(alive(from, ipid));
    }
    EXPECT_THAT(log, testing::ElementsAre(testing::HasSubstr("192.0.2.2:50002 (PLANT\\display) was refused an object"),
                                          testing::HasSubstr("192.0.2.3:50003 (PLANT\\display) was refused")));
    // An account that the server gives the object to is a holder like the first.
    const auto shared = factory->latest;
    account = "PLANT\\display";
    const Uuid own = activate(peer(4));
    factory->latest->child = shared;
    callObject(peer(4), own, 3, request());
    EXPECT_TRUE(alive(peer(4), ipid));
}

TEST_F(RemUnknownCalls, CountsThatDoNotFitTheParametersAreRefused) {
    const Uuid ipid = activate();
    const Parameters query = request().uuid(ipid).u32(5);
    const std::tuple<std::uint16_t, Parameters, std::uint16_t, std::uint32_t> cases[] = {
        {3, query, 0xFFFF, 0xFFFF},
        {3, query, 1, 0xFFFFFFFF},
        {3, query, 0, 1},
        {3, query, 2, 1},
        {4, request(), 0xFFFF, 0xFFFF},
        {5, request(), 1, 0xFFFFFFFF},
        {5, request(), 1, 0x0AAAAAAB},
        {6, request().uuid(ipid), 0xFFFF, 0xFFFF},
    };
    for (const auto& [opnum, begin, stated, conformance] : cases) {
        remUnknown(peer(2), opnum, Parameters(begin).u16(stated).u32(conformance).uuid(ipid).u64(5));
        EXPECT_EQ(status, Fault::BadStubData) << opnum << ' ' << stated << ' ' << conformance;
    }
    EXPECT_TRUE(alive(peer(2), ipid));
}

TEST_F(RemUnknownCalls, AnObjectThatDiesTakesOthersAlong) {
    const Uuid ipid = activate();
    const auto server = factory->latest;
    server->child = std::make_shared<TestObject>("group", events);
    callObject(peer(2), ipid, 3, request());
    const Uuid group = references().at(0).ipid;
    server->onDisconnected = [this] { exporter.revokeAll(); };
    release(peer(2), {{ipid, 5}});
    EXPECT_THAT(events, testing::ElementsAre("server1", "group"));
    EXPECT_FALSE(alive(peer(2), group));
}

}  // namespace quelm::dcom::orpc::test
