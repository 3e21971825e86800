#pragma once

// An exporter with both of its ports, a virtual clock, counted identifiers and a class of test objects;
// and small builders for the requests that clients send.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "Parameters.h"
#include "dcom/orpc/ActivationHandler.h"
#include "dcom/orpc/OrpcHandler.h"

namespace quelm::dcom::orpc::test {

using quelm::test::Bytes;
using quelm::test::fromHex;
using quelm::test::Parameters;

inline constexpr Uuid iidServer = Uuid::parse("39C13A4D-011E-11D0-9675-0020AFD8ADB3");
inline constexpr Uuid iidBrowse = Uuid::parse("39C13A4F-011E-11D0-9675-0020AFD8ADB3");
inline constexpr Uuid iidNobody = Uuid::parse("DEADBEEF-0000-0000-0000-000000000001");
inline constexpr Uuid classTest = Uuid::parse("11111111-2222-3333-4444-555555555555");
inline constexpr Uuid classUnknown = Uuid::parse("99999999-2222-3333-4444-555555555555");

// Opnum 3 hands out the object's child, opnum 4 throws, opnum 5 runs the script, opnum 6 echoes a number.
class TestObject final : public ComObject, public Interface {
 public:
    TestObject(std::string objectName, std::vector<std::string>& events)
        : name(std::move(objectName)), events_(events) {}

    Interface* queryInterface(const Uuid& iid) override {
        return iid == iidServer || iid == iidBrowse ? this : nullptr;
    }
    bool isOpenToAll() const override { return isOpen; }
    void disconnected() override {
        events_.push_back(name);
        if (onDisconnected) {
            onDisconnected();
        }
    }
    Fault invoke(std::uint16_t opnum, ndr::Reader& in, ndr::Writer& out, CallContext& context) override {
        switch (opnum) {
            case 3:
                out.hresult(context.writeInterface(out, child, iidServer));
                return Fault::None;
            case 4:
                throw std::runtime_error("the field bus is on fire");
            case 5:
                script();
                out.hresult(S_OK);
                return Fault::None;
            case 6:
                out.u32(in.u32());
                return in.good() ? Fault::None : Fault::BadStubData;
            default:
                return Fault::OpnumRange;
        }
    }

    std::string name;
    std::shared_ptr<ComObject> child;
    bool isOpen = false;
    std::function<void()> script;
    std::function<void()> onDisconnected;

 private:
    std::vector<std::string>& events_;
};

class TestFactory final : public ClassFactory {
 public:
    explicit TestFactory(std::vector<std::string>& events) : events_(events) {}
    Uuid classId() const override { return classTest; }
    bool isOpenToAll() const override { return isOpen; }
    std::shared_ptr<ComObject> create(const rpc::Peer&, const std::string&, HResult& result) override {
        if (refusal != S_OK) {
            result = refusal;
            return nullptr;
        }
        if (breaksDown) {
            throw std::runtime_error("no memory for a server");
        }
        latest = std::make_shared<TestObject>("server" + std::to_string(++made_), events_);
        latest->isOpen = isOpen;
        return latest;
    }

    std::shared_ptr<void> holdServer() override {
        events_.push_back("locked");
        return {this, [this](void*) { events_.push_back("unlocked"); }};
    }

    HResult refusal = S_OK;
    bool breaksDown = false;
    bool isOpen = false;
    std::shared_ptr<TestObject> latest;

 private:
    std::vector<std::string>& events_;
    int made_ = 0;
};

// Parameters behind the header that all object calls have.
inline Parameters request() {
    return Parameters().hex("05000400 00000000 00000000 0D0C0B0A020104030506070809 0A0B0C 00000000");
}

struct WireReference {
    std::uint32_t flags = 0;
    std::uint32_t count = 0;
    std::uint64_t oxid = 0;
    std::uint64_t oid = 0;
    Uuid ipid;
};

inline std::uint64_t unaligned64(ndr::Reader& in) {
    const std::uint64_t low = in.u32();
    return low | static_cast<std::uint64_t>(in.u32()) << 32;
}

inline WireReference readReference(ndr::Reader& in) {
    WireReference reference;
    reference.flags = in.u32();
    reference.count = in.u32();
    reference.oxid = unaligned64(in);
    reference.oid = unaligned64(in);
    reference.ipid = in.uuid();
    return reference;
}

// Where a port is found, and the one log-on service, NTLM: size, place of the services, addresses. port: "[49200]".
inline Parameters bindings(const std::string& port = "") {
    Parameters units;
    for (const char* host : {"192.0.2.1", "quelm-srv", "192.0.2.1"}) {
        units.u16(7);
        for (const char c : host + port) {
            units.u16(static_cast<std::uint8_t>(c));
        }
        units.u16(0);
    }
    const auto services = static_cast<std::uint16_t>(units.u16(0).bytes().size() / 2);
    return Parameters().u16(services + 4).u16(services).add(units).hex("0A00 FFFF 0000 0000");
}

// The same behind its conformance.
inline Parameters conformantBindings(const std::string& port) {
    const Parameters all = bindings(port);
    return Parameters().u32((all.bytes().size() - 4) / 2).add(all);
}

class World : public testing::Test {
 public:
    std::uint64_t time = 5'000'000;
    std::uint64_t identifiers = 0xA0;
    std::vector<std::string> events;  // names of the objects that were told disconnected()
    std::vector<std::string> log;
    std::string account = "PLANT\\reader";
    rpc::AuthLevel level = rpc::AuthLevel::Connect;
    Bytes reply;
    Fault status = Fault::None;

    explicit World(std::size_t objectsPerUser = 16'384, bool opensToAll = false)
        : exporter(
              settingsFor(log, objectsPerUser, opensToAll), [this] { return time; }, [this] { return ++identifiers; }) {
    }

    static ExporterSettings settingsFor(std::vector<std::string>& log, std::size_t objectsPerUser, bool opensToAll) {
        ExporterSettings settings;
        settings.objectPort = 49200;
        settings.hostNames = {"quelm-srv"};
        settings.log = [&log](const std::string& line) { log.push_back(line); };
        settings.minimumLevel = rpc::AuthLevel::Connect;
        settings.objectsPerUser = objectsPerUser;
        settings.opensToAll = opensToAll;
        return settings;
    }

    ObjectExporter exporter;
    ClassRegistry classes;
    OrpcHandler objects{exporter, [](const Uuid& iid) { return iid == iidServer; },
                        [](const Uuid& iid) { return iid == iidServer; }};
    ActivationHandler activation{exporter, classes};
    std::shared_ptr<TestFactory> factory = std::make_shared<TestFactory>(events);

    void SetUp() override { classes.add(factory); }

    static rpc::Peer peer(std::uint64_t id, const std::string& host = "192.0.2.7") {
        return {id, host + ':' + std::to_string(50000 + id), "192.0.2.1", 49200};
    }

    // Lets time pass second by second, as the owner's timer does.
    void pass(std::uint64_t seconds) {
        for (std::uint64_t i = 0; i < seconds; ++i) {
            time += 1000;
            exporter.tick();
        }
    }

    ndr::Reader send(rpc::CallHandler& port, const rpc::Peer& from, const Uuid& iid, const Uuid* ipid,
                     std::uint16_t opnum, std::span<const std::uint8_t> stub) {
        reply.clear();
        ndr::Writer out(reply);
        const rpc::Call call{from, iid, opnum, ipid != nullptr, ipid != nullptr ? *ipid : Uuid{}, stub, level, account};
        status = port.call(call, out);
        return ndr::Reader(reply);
    }

    // The marshalled references in the latest reply.
    std::vector<WireReference> references() const {
        std::vector<WireReference> found;
        const Bytes standard = fromHex("4D454F57 01000000");
        auto at = std::search(reply.begin(), reply.end(), standard.begin(), standard.end());
        while (at != reply.end()) {
            ndr::Reader in(std::span(at + 24, reply.end()));
            found.push_back(readReference(in));
            at = std::search(at + 1, reply.end(), standard.begin(), standard.end());
        }
        return found;
    }

    // Calls a method of an object; the reader stands behind ORPCTHAT.
    ndr::Reader callObject(const rpc::Peer& from, const Uuid& ipid, std::uint16_t opnum,
                           std::span<const std::uint8_t> stub, const Uuid& iid = iidServer) {
        ndr::Reader in = send(objects, from, iid, &ipid, opnum, stub);
        in.u32();
        in.u32();
        return in;
    }

    bool alive(const rpc::Peer& from, const Uuid& ipid) {
        callObject(from, ipid, 6, request().u32(42));
        return status == Fault::None;
    }

    struct Change {
        Uuid ipid;
        std::uint32_t publicCount = 0;
        std::uint32_t privateCount = 0;
    };

    static Parameters changes(const std::vector<Change>& list) {
        Parameters all = request().u16(static_cast<std::uint16_t>(list.size())).u32(list.size());
        for (const Change& change : list) {
            all.uuid(change.ipid).u32(change.publicCount).u32(change.privateCount);
        }
        return all;
    }

    static Parameters query(const Uuid& ipid, std::uint32_t references, const std::vector<Uuid>& iids) {
        return request().uuid(ipid).u32(references).u16(static_cast<std::uint16_t>(iids.size())).array(iids);
    }

    ndr::Reader remUnknown(const rpc::Peer& from, std::uint16_t opnum, std::span<const std::uint8_t> stub) {
        return callObject(from, exporter.remUnknownIpid(), opnum, stub, iidRemUnknown);
    }

    void release(const rpc::Peer& from, const std::vector<Change>& list) {
        ndr::Reader in = remUnknown(from, 5, changes(list));
        EXPECT_EQ(status, Fault::None);
        EXPECT_EQ(in.hresult(), S_OK);
        EXPECT_EQ(in.remaining(), 0U);
    }

    // RemQueryInterface for one interface.
    WireReference queryOne(const rpc::Peer& from, const Uuid& ipid, const Uuid& iid, std::uint32_t references = 5) {
        ndr::Reader in = remUnknown(from, 3, query(ipid, references, {iid}));
        in.u32();
        in.u32();
        EXPECT_EQ(in.hresult(), S_OK);
        in.align(8);
        return readReference(in);
    }

    // The request of the older form of activation as it is seen on the wire: the protocol count is written as
    // 32 bits, and ten bytes of no meaning follow the one protocol.
    static Parameters activationRequest(const Uuid& classId, const std::vector<Uuid>& iids, std::uint32_t mode = 0) {
        Parameters all = request().uuid(classId).u32(0).u32(0).u32(3).u32(mode).u32(iids.size()).u32(0x72657355);
        return all.array(iids).u32(1).u32(1).hex("0700 7F00 0000 0000 0100 0000");
    }

    void activateOlderForm(const Uuid& classId, const std::vector<Uuid>& iids, std::uint32_t mode = 0,
                           const rpc::Peer& from = peer(1)) {
        send(activation, from, iidActivation, nullptr, 0, activationRequest(classId, iids, mode));
        activation.connectionClosed(from, false);
        EXPECT_EQ(status, Fault::None);
    }

    // Activates a test object over a connection that is closed at once. Gives the IPID.
    Uuid activate(const rpc::Peer& from = peer(1)) {
        activateOlderForm(classTest, {iidServer}, 0, from);
        const WireReference reference = references().at(0);
        lastOid = reference.oid;
        return reference.ipid;
    }

    static Parameters complexPing(std::uint64_t setId, std::uint16_t sequence, const std::vector<std::uint64_t>& add,
                                  const std::vector<std::uint64_t>& remove) {
        Parameters all;
        all.u64(setId).u16(sequence).u16(static_cast<std::uint16_t>(add.size()));
        all.u16(static_cast<std::uint16_t>(remove.size()));
        for (const auto* list : {&add, &remove}) {
            all.u32(list->empty() ? 0 : 0x72657355);
            if (!list->empty()) {
                all.u32(list->size());
            }
            for (const std::uint64_t oid : *list) {
                all.u64(oid);
            }
        }
        return all;
    }

    // Gives the set's id.
    std::uint64_t pingComplex(std::uint64_t setId, std::uint16_t sequence, const std::vector<std::uint64_t>& add,
                              const std::vector<std::uint64_t>& remove, std::uint32_t expected = 0,
                              const std::string& host = "192.0.2.7") {
        const Parameters ping = complexPing(setId, sequence, add, remove);
        ndr::Reader in = send(activation, peer(900, host), iidObjectExporter, nullptr, 2, ping);
        const std::uint64_t result = in.u64();
        EXPECT_EQ(in.u16(), 0);
        EXPECT_EQ(in.u32(), expected);
        EXPECT_EQ(in.remaining(), 0U);
        return result;
    }

    std::uint32_t pingSimple(std::uint64_t setId) {
        return send(activation, peer(901), iidObjectExporter, nullptr, 1, Parameters().u64(setId)).u32();
    }

    std::uint64_t lastOid = 0;
};

}  // namespace quelm::dcom::orpc::test
