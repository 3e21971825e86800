// Calls on the object port: which object and method they reach, and what stops them.

#include <cstdlib>
#include <new>

#include "orpc/OrpcWorld.h"

namespace {
std::size_t allocations = 0;
}

// Counts every allocation of the test program. Not inlined: the compiler would take the pair for a mismatched one.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace quelm::dcom::orpc::test {

using Routing = World;

TEST_F(Routing, AMethodIsCalledByIpidWhateverInterfaceTheBindingNames) {
    const Uuid ipid = activate();
    for (const Uuid& iid : {iidServer, iidBrowse}) {
        // Some clients leave a verification trailer behind the parameters: whose answer this must be.
        callObject(peer(2), ipid, 6, request().u32(77).hex("8AE3137102F43671 01400400 01000000"), iid);
        EXPECT_EQ(status, Fault::None);
        EXPECT_HEX(reply, "0000000000000000 4D000000");
    }
}

TEST_F(Routing, WhatCannotBeCalledGivesAFaultOfItsKind) {
    const Uuid ipid = activate();
    const Uuid unknownIpid = queryOne(peer(2), ipid, iidUnknown).ipid;
    const struct {
        Uuid ipid;
        Uuid iid;
        std::uint16_t opnum;
        Fault fault;
    } cases[] = {
        {ipid, iidServer, 0, Fault::OpnumRange},
        {ipid, iidServer, 2, Fault::OpnumRange},
        {ipid, iidServer, 99, Fault::OpnumRange},
        {ipid, iidRemUnknown, 5, Fault::UnknownInterface},
        {unknownIpid, iidUnknown, 3, Fault::OpnumRange},
        {iidNobody, iidServer, 6, Fault::Disconnected},
        {exporter.remUnknownIpid(), iidRemUnknown, 2, Fault::OpnumRange},
        {exporter.remUnknownIpid(), iidRemUnknown2, 7, Fault::OpnumRange},
    };
    for (const auto& entry : cases) {
        callObject(peer(2), entry.ipid, entry.opnum, request(), entry.iid);
        EXPECT_EQ(status, entry.fault) << entry.ipid.toText() << ' ' << entry.opnum;
    }
    send(objects, peer(2), iidRemUnknown, nullptr, 3, request());
    EXPECT_EQ(status, Fault::Disconnected);
}

TEST_F(Routing, AnExceptionBecomesAFaultWithALineAndTheNextCallWorks) {
    const Uuid ipid = activate();
    callObject(peer(2), ipid, 4, request());
    EXPECT_EQ(status, Fault::Server);
    EXPECT_THAT(log, testing::ElementsAre("Method 4 of interface 39c13a4d-011e-11d0-9675-0020afd8adb3 failed, called "
                                          "by 192.0.2.7:50002 (PLANT\\reader): the field bus is on fire"));
    EXPECT_TRUE(alive(peer(2), ipid));
}

TEST_F(Routing, VersionsAndExtensionsOfTheCallHeader) {
    const Uuid ipid = activate();
    const std::string rest = "00000000 00000000 0D0C0B0A020104030506 0708090A0B0C";
    const std::string none = rest + "00000000";
    const std::string one = rest + "00000200 01000000 00000000 04000200";  // extension, reserved, pointer to the slots
    const std::string head = "08000200 08000000 000102030405060708090A0B0C0D0E0F ";
    const std::pair<std::string, Fault> cases[] = {
        {"0500 0100" + none, Fault::None},
        {"0500 0700" + none, Fault::None},
        {"0500 0700" + one +
             "02000000 08000200 00000000 08000000 000102030405060708090A0B0C0D0E0F 05000000 6162636465000000",
         Fault::None},
        {"0500 0700" + rest + "00000200 00000000 00000000 00000000", Fault::None},
        {"0500 0000" + none, Fault::VersionMismatch},
        {"0500 0800" + none, Fault::VersionMismatch},
        {"0600 0100" + none, Fault::VersionMismatch},
        // More slots than there are bytes, and an extension longer than its own array.
        {"0500 0700" + one + "FFFFFFFF", Fault::BadStubData},
        {"0500 0700" + one + "01000000" + head + "09000000 6162636465000000", Fault::BadStubData},
    };
    for (const auto& [header, fault] : cases) {
        ndr::Reader in = callObject(peer(2), ipid, 6, Parameters().hex(header).u32(42));
        EXPECT_EQ(status, fault) << header;
        EXPECT_EQ(in.u32(), fault == Fault::None ? 42U : 0U) << header;
    }
}

// The flag that some clients set in every call comes back, any other does not.
TEST_F(Routing, FlagsOfTheCallHeader) {
    const Uuid ipid = activate();
    for (const std::uint8_t flags : {0, 1, 2, 3, 16}) {
        Bytes stub = request().u32(42).bytes();
        stub[4] = flags;
        send(objects, peer(2), iidServer, &ipid, 6, stub);
        EXPECT_HEX(reply, Parameters().u32(flags == 1 ? 1 : 0).hex("00000000 2A000000"));
    }
}

TEST_F(Routing, ACallAllocatesNothingOnItsWayToTheObject) {
    const Uuid ipid = activate();
    const rpc::Peer client = peer(2);
    const Bytes stub = request().u32(77).bytes();
    callObject(client, ipid, 6, stub);
    const std::size_t before = allocations;
    for (int i = 0; i < 10; ++i) {
        callObject(client, ipid, 6, stub);
    }
    EXPECT_EQ(allocations, before);
}

TEST_F(Routing, AMethodHandsOutAnObjectAsAnInterfacePointer) {
    const Uuid ipid = activate();
    factory->latest->child = std::make_shared<TestObject>("group", events);
    callObject(peer(2), ipid, 3, request());
    const WireReference group = references().at(0);
    EXPECT_EQ(group.count, 5U);
    EXPECT_EQ(group.oxid, exporter.oxid());
    EXPECT_TRUE(alive(peer(2), group.ipid));
    EXPECT_EQ(exporter.objectCount(), 2U);

    // Handed out again it is the same object and the same interface, with five references more.
    callObject(peer(2), ipid, 3, request());
    const WireReference again = references().at(0);
    EXPECT_EQ(again.ipid, group.ipid);
    EXPECT_EQ(again.oid, group.oid);
    release(peer(2), {{group.ipid, 9}});
    EXPECT_TRUE(alive(peer(2), group.ipid));
    release(peer(2), {{group.ipid, 1}});
    EXPECT_FALSE(alive(peer(2), group.ipid));
    EXPECT_THAT(events, testing::ElementsAre("group"));

    factory->latest->child = nullptr;
    callObject(peer(2), ipid, 3, request());
    EXPECT_HEX(reply, "0000000000000000 00000000 02400080");
}

TEST_F(Routing, AnObjectMayLoseItsLastClientWhileItRuns) {
    const Uuid ipid = activate();
    std::weak_ptr<TestObject> object = factory->latest;
    factory->latest->script = [this] { exporter.revokeAll(); };
    factory->latest = nullptr;
    callObject(peer(2), ipid, 5, request());
    EXPECT_EQ(status, Fault::None);
    EXPECT_TRUE(object.expired());
    EXPECT_THAT(events, testing::ElementsAre("server1"));
    EXPECT_EQ(exporter.objectCount(), 0U);
    EXPECT_FALSE(alive(peer(2), ipid));
}

class OpenWorld : public World {
 protected:
    OpenWorld() : World(16'384, true) {}

    // As the connection tells it of each of its calls.
    void comeAs(rpc::Peer& peer, rpc::AuthLevel its, const char* name) {
        level = peer.level = its;
        account = name;
    }
};

// A way in without a log-on leads to nothing but what is open to all, whatever else its user may know.
TEST_F(OpenWorld, WithoutALogOnOnlyWhatIsOpenToAllIsReached) {
    EXPECT_TRUE(activation.isOpenToAll(iidActivation));
    EXPECT_TRUE(objects.isOpenToAll(iidRemUnknown));
    EXPECT_FALSE(objects.isOpenToAll(iidBrowse));
    rpc::Peer reader = peer(1);
    comeAs(reader, rpc::AuthLevel::Connect, "PLANT\\reader");
    const Uuid closed = activate(reader);
    EXPECT_TRUE(alive(reader, closed));

    rpc::Peer nobody = peer(2);
    for (const char* name : {"", "PLANT\\reader"}) {
        comeAs(nobody, rpc::AuthLevel::None, name);
        for (const Uuid& classId : {classTest, classUnknown}) {
            send(activation, nobody, iidActivation, nullptr, 0, activationRequest(classId, {iidServer}));
            EXPECT_EQ(status, Fault::AccessDenied);
        }
        EXPECT_FALSE(alive(nobody, closed));
        EXPECT_EQ(remUnknown(nobody, 5, changes({{closed, 5}})).hresult(), E_ACCESSDENIED);
    }
    comeAs(reader, rpc::AuthLevel::Connect, "PLANT\\reader");
    EXPECT_TRUE(alive(reader, closed));

    factory->isOpen = true;
    comeAs(nobody, rpc::AuthLevel::None, "");
    ndr::Reader in = send(activation, nobody, iidActivation, nullptr, 0, activationRequest(classTest, {iidServer}));
    in.bytes(8 + 8 + 4);
    in.bytes(in.u32() * 2 + 4);
    in.uuid();
    EXPECT_EQ(in.u32(), 1U) << "nor will the object ask for a log-on";
    const Uuid open = references().at(0).ipid;
    EXPECT_TRUE(alive(nobody, open));
    EXPECT_NE(queryOne(nobody, open, iidBrowse).count, 0U);
}

}  // namespace quelm::dcom::orpc::test
