// Calls on the object port: which object and method they reach, and what stops them.

#include <cstdlib>
#include <new>

#include "Orpc/OrpcWorld.h"

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
    const Uuid ipid = activate(peer(1));
    Request request;
    request.out.u32(77);
    for (const Uuid& iid : {iidServer, iidBrowse}) {
        callObject(peer(2), ipid, 6, request.bytes, iid);
        EXPECT_EQ(status, 0U);
        EXPECT_EQ(toHex(reply), "00000000000000004d000000");
    }
}

TEST_F(Routing, WhatCannotBeCalledGivesAFaultOfItsKind) {
    const Uuid ipid = activate(peer(1));
    const Uuid unknownIpid = queryOne(peer(2), ipid, iidUnknown).ipid;
    const struct {
        Uuid ipid;
        Uuid iid;
        std::uint16_t opnum;
        std::uint32_t fault;
    } cases[] = {
        {ipid, iidServer, 0, faultOpnumRange},
        {ipid, iidServer, 2, faultOpnumRange},
        {ipid, iidServer, 99, faultOpnumRange},
        {ipid, iidRemUnknown, 5, faultUnknownInterface},
        {unknownIpid, iidUnknown, 3, faultOpnumRange},
        {iidNobody, iidServer, 6, faultDisconnected},
        {exporter.remUnknownIpid(), iidRemUnknown, 2, faultOpnumRange},
        {exporter.remUnknownIpid(), iidRemUnknown2, 7, faultOpnumRange},
    };
    for (const auto& entry : cases) {
        callObject(peer(2), entry.ipid, entry.opnum, Request().bytes, entry.iid);
        EXPECT_EQ(status, entry.fault) << entry.ipid.toText() << ' ' << entry.opnum;
    }
    send(objects, peer(2), iidRemUnknown, nullptr, 3, Request().bytes);
    EXPECT_EQ(status, faultDisconnected);
}

TEST_F(Routing, AnExceptionBecomesAFaultWithALineAndTheNextCallWorks) {
    const Uuid ipid = activate(peer(1));
    callObject(peer(2), ipid, 4, Request().bytes);
    EXPECT_EQ(status, faultServer);
    EXPECT_THAT(log, testing::ElementsAre("Method 4 of interface 39c13a4d-011e-11d0-9675-0020afd8adb3 failed, called "
                                          "by 192.0.2.7:50002 (PLANT\\reader): the field bus is on fire"));
    EXPECT_TRUE(alive(peer(2), ipid));
}

TEST_F(Routing, VersionsAndExtensionsOfTheCallHeader) {
    const Uuid ipid = activate(peer(1));
    const std::string rest = "00000000 00000000 0d0c0b0a020104030506 0708090a0b0c";
    const std::string extensions =
        "00000200 01000000 00000000 04000200"  // pointer; one extension, reserved, pointer to the slots
        "02000000 08000200 00000000"           // two slots, the second one empty
        "08000000 000102030405060708090a0b0c0d0e0f 05000000 6162636465000000";
    const struct {
        std::string header;
        std::uint32_t fault;
    } cases[] = {
        {"0500 0100" + rest + "00000000", 0},
        {"0500 0700" + rest + "00000000", 0},
        {"0500 0700" + rest + extensions, 0},
        {"0500 0700" + rest + "00000200 00000000 00000000 00000000", 0},
        {"0500 0000" + rest + "00000000", faultVersionMismatch},
        {"0500 0800" + rest + "00000000", faultVersionMismatch},
        {"0600 0100" + rest + "00000000", faultVersionMismatch},
        // More slots than there are bytes, and an extension longer than its own array.
        {"0500 0700" + rest + "00000200 01000000 00000000 04000200 ffffffff", faultBadStubData},
        {"0500 0700" + rest +
             "00000200 01000000 00000000 04000200 01000000 08000200 08000000 000102030405060708090a0b0c0d0e0f "
             "09000000 6162636465000000",
         faultBadStubData},
    };
    for (const auto& entry : cases) {
        Bytes stub = fromHex(entry.header);
        const Bytes parameter = fromHex("2a000000");
        stub.insert(stub.end(), parameter.begin(), parameter.end());
        ndr::Reader in = callObject(peer(2), ipid, 6, stub);
        EXPECT_EQ(status, entry.fault) << entry.header;
        if (entry.fault == 0) {
            EXPECT_EQ(in.u32(), 42U) << entry.header;
        }
    }
}

TEST_F(Routing, BindingIsPossibleToWhatAClassKnowsAndToComItself) {
    const struct {
        Uuid iid;
        std::uint16_t major;
        bool onObjects;
        bool onActivation;
    } cases[] = {
        {iidServer, 0, true, false},         {iidServer, 1, false, false},
        {iidNobody, 0, false, false},        {iidUnknown, 0, true, false},
        {iidRemUnknown, 0, true, false},     {iidRemUnknown2, 0, true, false},
        {iidActivation, 0, false, true},     {iidRemoteScmActivator, 0, false, true},
        {iidObjectExporter, 0, false, true}, {iidObjectExporter, 1, false, false},
    };
    for (const auto& entry : cases) {
        EXPECT_EQ(objects.supports(entry.iid, entry.major, 0), entry.onObjects) << entry.iid.toText();
        EXPECT_EQ(activation.supports(entry.iid, entry.major, 0), entry.onActivation) << entry.iid.toText();
    }
}

TEST_F(Routing, ACallAllocatesNothingOnItsWayToTheObject) {
    const Uuid ipid = activate(peer(1));
    const rpc::Peer client = peer(2);
    Request request;
    request.out.u32(77);
    callObject(client, ipid, 6, request.bytes);
    const std::size_t before = allocations;
    for (int i = 0; i < 10; ++i) {
        callObject(client, ipid, 6, request.bytes);
    }
    EXPECT_EQ(allocations, before);
}

TEST_F(Routing, AMethodHandsOutAnObjectAsAnInterfacePointer) {
    const Uuid ipid = activate(peer(1));
    factory->latest->child = std::make_shared<TestObject>("group", events);
    ndr::Reader in = callObject(peer(2), ipid, 3, Request().bytes);
    EXPECT_NE(in.u32(), 0U);
    const WireReference group = readObjectPointer(in, iidServer);
    EXPECT_EQ(in.u32(), S_OK);
    EXPECT_EQ(in.remaining(), 0U);
    EXPECT_EQ(group.flags, 0U);
    EXPECT_EQ(group.count, 5U);
    EXPECT_EQ(group.oxid, exporter.oxid());
    EXPECT_NE(group.ipid, ipid);
    EXPECT_TRUE(alive(peer(2), group.ipid));
    EXPECT_EQ(exporter.objectCount(), 2U);

    // Handed out again it is the same object and the same interface, with five references more.
    in = callObject(peer(2), ipid, 3, Request().bytes);
    in.u32();
    const WireReference again = readObjectPointer(in, iidServer);
    EXPECT_EQ(again.ipid, group.ipid);
    EXPECT_EQ(again.oid, group.oid);
    release(peer(2), {{group.ipid, 9}});
    EXPECT_TRUE(alive(peer(2), group.ipid));
    release(peer(2), {{group.ipid, 1}});
    EXPECT_FALSE(alive(peer(2), group.ipid));
    EXPECT_THAT(events, testing::ElementsAre("group"));

    factory->latest->child = nullptr;
    callObject(peer(2), ipid, 3, Request().bytes);
    EXPECT_EQ(toHex(reply), "00000000000000000000000002400080");
}

TEST_F(Routing, AnObjectMayLoseItsLastClientWhileItRuns) {
    const Uuid ipid = activate(peer(1));
    std::weak_ptr<TestObject> object = factory->latest;
    factory->latest->script = [this] { exporter.revokeAll(); };
    factory->latest = nullptr;
    callObject(peer(2), ipid, 5, Request().bytes);
    EXPECT_EQ(status, 0U);
    EXPECT_TRUE(object.expired());
    EXPECT_THAT(events, testing::ElementsAre("server1"));
    EXPECT_EQ(exporter.objectCount(), 0U);
    EXPECT_FALSE(alive(peer(2), ipid));
}

}  // namespace quelm::dcom::orpc::test
