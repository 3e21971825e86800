// Clients that go away without letting go of what they hold.

#include "Orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

using Rundown = World;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t timeout = 360;

TEST_F(Rundown, AClientThatNeverCameBackIsGivenThreePingPeriods) {
    activate();
    pass(timeout - 1);
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(exporter.clientCount(), 1U);
    pass(1);
    EXPECT_THAT(events, ElementsAre("server1"));
    EXPECT_EQ(exporter.clientCount(), 0U);
    EXPECT_THAT(log, ElementsAre("DCOM client 192.0.2.7 (PLANT\\reader) is gone without releasing 1 object(s); "
                                 "they are released now"));
}

TEST_F(Rundown, CallsAreSignsOfLifeForAllThatTheClientHolds) {
    const Uuid ipid = activate();
    const Uuid other = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    EXPECT_TRUE(alive(peer(2), other));
    for (int i = 0; i < 5; ++i) {
        pass(300);
        EXPECT_TRUE(alive(peer(2), ipid));
    }
    EXPECT_TRUE(alive(peer(2), other));
    pass(timeout);
    EXPECT_FALSE(alive(peer(2), ipid));
    EXPECT_THAT(events, ElementsAre("server2", "server1"));
}

TEST_F(Rundown, PingsKeepASilentClientForAsLongAsTheyCome) {
    const Uuid ipid = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    pass(120);
    const std::uint64_t set = pingComplex(0, 0, {lastOid}, {});
    EXPECT_NE(set, 0U);
    for (int i = 0; i < 10; ++i) {
        pass(120);
        EXPECT_EQ(pingSimple(set), 0U);
    }
    pass(timeout - 1);
    EXPECT_THAT(events, IsEmpty());
    pass(1);
    EXPECT_THAT(events, ElementsAre("server1"));
    EXPECT_EQ(pingSimple(set), 1912U);  // the set went with its last ping
}

// How the connections of a client end decides at once, after a short grace, or not at all.
TEST_F(Rundown, TheEndOfTheLastConnection) {
    enum class End { Orderly, Abrupt };
    const struct {
        const char* what;
        bool pinged;
        std::vector<End> ends;       // of the client's connections, one after the other
        std::uint64_t secondsAlive;  // the objects outlive the last connection by that
    } cases[] = {
        {"reset", false, {End::Abrupt}, 0},
        {"reset, pinging", true, {End::Abrupt}, 0},
        {"both reset", true, {End::Abrupt, End::Abrupt}, 0},
        {"a process dies: one reset, then the other closed by the system", true, {End::Abrupt, End::Orderly}, 0},
        {"one closed, the last one reset", true, {End::Orderly, End::Abrupt}, 0},
        {"closed, never pinged", false, {End::Orderly, End::Orderly}, 10},
        {"closed, pinging", true, {End::Orderly, End::Orderly}, timeout},
    };
    std::uint64_t connection = 100;
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.what);
        events.clear();
        const Uuid ipid = activate();
        std::vector<rpc::Peer> connections;
        for (std::size_t i = 0; i < entry.ends.size(); ++i) {
            connections.push_back(peer(++connection));
            EXPECT_TRUE(alive(connections.back(), ipid));
        }
        if (entry.pinged) {
            pingComplex(0, 0, {lastOid}, {});
        }
        for (std::size_t i = 0; i < entry.ends.size(); ++i) {
            EXPECT_THAT(events, IsEmpty());
            objects.connectionClosed(connections[i], entry.ends[i] == End::Abrupt);
        }
        if (entry.secondsAlive > 0) {
            pass(entry.secondsAlive - 1);
            EXPECT_THAT(events, IsEmpty());
            pass(1);
        }
        EXPECT_EQ(events.size(), 1U);
        EXPECT_EQ(exporter.objectCount(), 0U);
    }
}

TEST_F(Rundown, AResetConnectionIsForgottenOnceTheClientCallsOverAnother) {
    const Uuid ipid = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    EXPECT_TRUE(alive(peer(3), ipid));
    objects.connectionClosed(peer(2), true);
    EXPECT_TRUE(alive(peer(3), ipid));
    objects.connectionClosed(peer(3), false);
    pass(9);
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(Rundown, AClientThatComesBackWithinTheGraceKeepsItsObjects) {
    const Uuid ipid = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    objects.connectionClosed(peer(2), false);
    pass(9);
    EXPECT_TRUE(alive(peer(3), ipid));
    pass(60);
    EXPECT_TRUE(alive(peer(3), ipid));
}

TEST_F(Rundown, ClientsOfOneHostAreKeptApart) {
    const Uuid first = activate();
    const Uuid second = activate();
    EXPECT_TRUE(alive(peer(2), first));
    EXPECT_TRUE(alive(peer(3), second));
    objects.connectionClosed(peer(2), true);
    EXPECT_THAT(events, ElementsAre("server1"));
    EXPECT_TRUE(alive(peer(3), second));
    objects.connectionClosed(peer(4), true);  // a connection that never called anything
    EXPECT_TRUE(alive(peer(3), second));
}

TEST_F(Rundown, OneConnectionThatUsesTwoActivationsIsOneClient) {
    const Uuid first = activate();
    const Uuid second = activate();
    EXPECT_TRUE(alive(peer(2), first));
    EXPECT_TRUE(alive(peer(3), second));
    EXPECT_TRUE(alive(peer(2), second));
    EXPECT_EQ(exporter.clientCount(), 1U);
    objects.connectionClosed(peer(2), true);
    EXPECT_THAT(events, IsEmpty());
    EXPECT_TRUE(alive(peer(3), first));
    objects.connectionClosed(peer(3), true);
    EXPECT_THAT(events, ElementsAre("server2", "server1"));
}

TEST_F(Rundown, AnObjectHandedToAnotherProcessOutlivesTheFirst) {
    const Uuid ipid = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    EXPECT_TRUE(alive(peer(3, "192.0.2.99"), ipid));
    objects.connectionClosed(peer(2), true);
    EXPECT_TRUE(alive(peer(3, "192.0.2.99"), ipid));
    release(peer(3, "192.0.2.99"), {{ipid, 5}});
    EXPECT_THAT(events, ElementsAre("server1"));
}

TEST_F(Rundown, OneObjectHeldByTwoClientsLivesAsLongAsEither) {
    const auto shared = std::make_shared<TestObject>("shared", events);
    Uuid ipid;
    for (const std::uint64_t id : {2, 3}) {
        const rpc::Peer client = peer(id, "192.0.2." + std::to_string(id));
        const Uuid server = activate(peer(1, "192.0.2." + std::to_string(id)));
        factory->latest->child = shared;
        callObject(client, server, 3, request());
        ipid = references().at(0).ipid;
    }
    release(peer(2, "192.0.2.2"), {{ipid, 99}});  // takes only its own
    EXPECT_TRUE(alive(peer(3, "192.0.2.3"), ipid));
    EXPECT_EQ(exporter.clientCount(), 2U);
    objects.connectionClosed(peer(3, "192.0.2.3"), true);
    EXPECT_THAT(events, ElementsAre("server2", "shared"));
}

TEST_F(Rundown, AnObjectTakenOutOfItsPingSetGoesAlone) {
    const Uuid first = activate();
    const std::uint64_t firstOid = lastOid;
    const Uuid second = activate();
    EXPECT_TRUE(alive(peer(2), first));
    EXPECT_TRUE(alive(peer(2), second));
    const std::uint64_t set = pingComplex(0, 0, {firstOid, lastOid}, {});
    pingComplex(set, 1, {}, {firstOid, 0xDEAD});
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(events, IsEmpty());
        pass(120);
        EXPECT_EQ(pingSimple(set), 0U);
    }
    EXPECT_THAT(events, ElementsAre("server1"));
    EXPECT_TRUE(alive(peer(2), second));
}

TEST_F(Rundown, AStandstillOfTheServerIsNotHeldAgainstTheClients) {
    activate();
    const std::uint64_t set = pingComplex(0, 0, {lastOid}, {});
    time += 3'600'000;
    exporter.tick();
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(pingSimple(set), 0U);
}

TEST_F(Rundown, RevokingAllTellsEveryObjectOnceAndTheServerGoesOn) {
    const Uuid ipid = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    activate();
    exporter.revokeAll();
    EXPECT_THAT(events, ElementsAre("server2", "server1"));
    exporter.revokeAll();
    pass(timeout);
    objects.connectionClosed(peer(2), true);
    EXPECT_EQ(events.size(), 2U);
    EXPECT_TRUE(alive(peer(2), activate()));
}

TEST_F(Rundown, AnObjectThatFailsToTakeItsLeaveDoesNotStopTheOthers) {
    const Uuid ipid = activate();
    factory->latest->onDisconnected = [] { throw std::runtime_error("still busy"); };
    const Uuid second = activate();
    release(peer(2), {{ipid, 5}, {second, 5}});
    EXPECT_THAT(events, ElementsAre("server1", "server2"));
    EXPECT_THAT(log, ElementsAre("An object failed while its last client let go of it: still busy"));
}

}  // namespace quelm::dcom::orpc::test
