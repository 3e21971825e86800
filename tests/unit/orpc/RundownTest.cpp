// Clients that go away without letting go of what they hold.

#include "orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

using Rundown = World;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t timeout = 360;
constexpr std::uint64_t firstPing = 150;

TEST_F(Rundown, AClientThatNeverCameBackIsGivenTheTimeToPing) {
    activate();
    activate();  // by the same program, for all that can be told
    pass(firstPing - 1);
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(exporter.clientCount(), 2U);
    pass(1);
    EXPECT_EQ(events.size(), 2U);
    EXPECT_EQ(exporter.clientCount(), 0U);
    EXPECT_THAT(log, ElementsAre("DCOM client 192.0.2.7 (PLANT\\reader) is gone without releasing 2 object(s); "
                                 "they are released now"));
}

TEST_F(Rundown, CallsAreSignsOfLifeForAllThatTheClientHolds) {
    const Uuid ipid = activate();
    const Uuid other = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    EXPECT_TRUE(exporter.isHolding(peer(2)));
    EXPECT_FALSE(exporter.isHolding(peer(1)));
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

// A client that pings is judged by its pings. Of any other the end of its last connection decides: a reset at once, an
// orderly end when it could have pinged.
TEST_F(Rundown, TheEndOfTheLastConnection) {
    enum class End { Orderly, Abrupt };
    const struct {
        const char* what;
        bool pinged;
        std::vector<End> ends;       // of the client's connections, one after the other
        std::uint64_t age;           // of the client at that time, in seconds
        std::uint64_t secondsAlive;  // the objects outlive the last connection by that
    } cases[] = {
        {"reset", false, {End::Abrupt}, 0, 0},
        {"reset, old", false, {End::Abrupt}, 300, 0},
        {"reset, pinging", true, {End::Abrupt}, 0, timeout},
        {"both reset", true, {End::Abrupt, End::Abrupt}, 0, timeout},
        {"a process dies: one reset, then the other closed by the system", false, {End::Abrupt, End::Orderly}, 0, 0},
        {"one closed, the last one reset", false, {End::Orderly, End::Abrupt}, 0, 0},
        {"closed, young", false, {End::Orderly, End::Orderly}, 20, firstPing - 20},
        {"closed, just before it could have pinged", false, {End::Orderly}, firstPing - 1, 10},
        {"closed, of a kind that does not ping", false, {End::Orderly}, 300, 10},
        {"closed, pinging", true, {End::Orderly, End::Orderly}, 0, timeout},
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
        pass(entry.age);
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

// A firewall resets the connection of a Windows client, which pings on and makes another.
TEST_F(Rundown, APingingClientGoesOnOverAnotherConnectionHoweverLateItComes) {
    const Uuid ipid = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    pass(120);
    const std::uint64_t set = pingComplex(0, 0, {lastOid}, {});
    objects.connectionClosed(peer(2), true);
    for (int i = 0; i < 30; ++i) {
        pass(120);
        EXPECT_EQ(pingSimple(set), 0U);
    }
    EXPECT_TRUE(alive(peer(3), ipid));
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
    pass(200);
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

// Another machine that knows the object's number neither takes it from its client nor away from its pings.
TEST_F(Rundown, AnotherMachineCannotTakeAnObjectOutOfPingSets) {
    const Uuid ipid = activate();
    EXPECT_TRUE(alive(peer(2), ipid));
    const std::uint64_t stranger = pingComplex(0, 0, {lastOid}, {}, 0, "192.0.2.66");
    pingComplex(stranger, 1, {}, {lastOid}, 0, "192.0.2.66");
    const Uuid other = activate();
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(alive(peer(2), other));
        pass(120);
    }
    EXPECT_TRUE(alive(peer(2), ipid));
}

// Each program of the machine may have its own set, and one that takes them all takes none from other machines. What a
// refused ping names lives on.
TEST_F(Rundown, ARefusedPingIsASignOfLife) {
    const Uuid ipid = activate();
    for (std::size_t i = 0; i < PingSets::setsPerHost; ++i) {
        pingComplex(0, 0, {}, {});
    }
    pingComplex(0, 0, {}, {}, 0, "192.0.2.8");
    pass(140);
    pingComplex(0, 0, {lastOid}, {}, 14);
    for (int i = 0; i < 5; ++i) {
        pass(120);
        EXPECT_EQ(pingSimple(0), 1912U);
    }
    EXPECT_TRUE(alive(peer(2), ipid));
    pingComplex(0, 0, {lastOid}, {});  // those of before were not pinged any more
}

struct RundownOfMany : World {
    static constexpr std::size_t count = 20'000;
    RundownOfMany() : World(count + 1) {}
};

TEST_F(RundownOfMany, VeryManyObjectsGoInPortions) {
    const Uuid ipid = activate();
    const auto server = factory->latest;
    std::vector<std::uint64_t> oids;
    for (std::size_t i = 0; i < count; ++i) {
        server->child = std::make_shared<TestObject>("group", events);
        callObject(peer(2), ipid, 3, request());
        oids.push_back(references().at(0).oid);
    }
    // The same effort to put into a ping set and to take out of it.
    const std::uint64_t set = pingComplex(0, 0, oids, {});
    pingComplex(set, 1, {}, oids);
    pass(timeout);
    std::size_t steps = 1;
    while (exporter.tick()) {
        ++steps;
        EXPECT_LE(events.size(), steps * 3000);
    }
    EXPECT_GE(steps, 7U);
    EXPECT_EQ(events.size(), count + 1);
    EXPECT_EQ(log.size(), 1U);
}

struct RundownOfFew : World {
    RundownOfFew() : World(2) {}
};

TEST_F(RundownOfFew, AUserHoldsSoManyObjectsAndNoMore) {
    const Uuid ipid = activate();
    activate();
    const auto server = factory->latest;
    for (int i = 0; i < 2; ++i) {
        activateOlderForm(classTest, {iidServer});
        EXPECT_THAT(references(), IsEmpty());
    }
    server->child = std::make_shared<TestObject>("group", events);
    account = "plant2\\READER";  // the same user, by another domain's name
    activateOlderForm(classTest, {iidServer});
    EXPECT_THAT(references(), IsEmpty());
    account = "PLANT\\reader";
    callObject(peer(2), ipid, 3, request());
    EXPECT_EQ(exporter.objectCount(), 2U);
    EXPECT_THAT(log, ElementsAre("DCOM client 192.0.2.7 (PLANT\\reader) holds 2 objects and gets no more; look for a "
                                 "program there that does not release what it asks for"));
    account = "PLANT\\display";
    activate();
    account = "PLANT\\reader";
    release(peer(2), {{ipid, 5}});
    EXPECT_TRUE(alive(peer(2), activate()));
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
