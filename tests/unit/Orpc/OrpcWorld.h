#pragma once

// An exporter with both of its ports, a virtual clock, counted identifiers and a class of test objects;
// and small builders for the requests that clients send.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "DCOM/orpc/ActivationHandler.h"
#include "DCOM/orpc/OrpcHandler.h"

namespace quelm::dcom::orpc::test {

using Bytes = std::vector<std::uint8_t>;

inline constexpr Uuid iidServer = Uuid::parse("39C13A4D-011E-11D0-9675-0020AFD8ADB3");
inline constexpr Uuid iidBrowse = Uuid::parse("39C13A4F-011E-11D0-9675-0020AFD8ADB3");
inline constexpr Uuid iidNobody = Uuid::parse("DEADBEEF-0000-0000-0000-000000000001");
inline constexpr Uuid classTest = Uuid::parse("11111111-2222-3333-4444-555555555555");
inline constexpr Uuid classUnknown = Uuid::parse("99999999-2222-3333-4444-555555555555");

inline Bytes fromHex(std::string_view text) {
    Bytes bytes;
    int high = -1;
    for (const char c : text) {
        const auto digit = std::string_view("0123456789abcdef").find(static_cast<char>(std::tolower(c)));
        if (digit == std::string_view::npos) {
            continue;
        }
        if (high < 0) {
            high = static_cast<int>(digit);
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high * 16 + static_cast<int>(digit)));
            high = -1;
        }
    }
    return bytes;
}

inline std::string toHex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

// Opnum 3 hands out the object's child, opnum 4 throws, opnum 5 runs the script, opnum 6 echoes a number.
class TestObject final : public ComObject, public Interface {
 public:
    TestObject(std::string objectName, std::vector<std::string>& events)
        : name(std::move(objectName)), events_(events) {}

    Interface* queryInterface(const Uuid& iid) override {
        return iid == iidServer || iid == iidBrowse ? this : nullptr;
    }
    void disconnected() override {
        events_.push_back(name);
        if (onDisconnected) {
            onDisconnected();
        }
    }
    std::uint32_t invoke(std::uint16_t opnum, ndr::Reader& in, ndr::Writer& out, CallContext& context) override {
        switch (opnum) {
            case 3:
                out.u32(context.writeInterface(out, child, iidServer));
                return 0;
            case 4:
                throw std::runtime_error("the field bus is on fire");
            case 5:
                script();
                out.u32(S_OK);
                return 0;
            case 6:
                out.u32(in.u32());
                return in.good() ? 0 : faultBadStubData;
            default:
                return faultOpnumRange;
        }
    }

    std::string name;
    std::shared_ptr<ComObject> child;
    std::function<void()> script;
    std::function<void()> onDisconnected;

 private:
    std::vector<std::string>& events_;
};

class TestFactory final : public ClassFactory {
 public:
    explicit TestFactory(std::vector<std::string>& events) : events_(events) {}
    Uuid classId() const override { return classTest; }
    std::shared_ptr<ComObject> create(const rpc::Peer&, const std::string&, HResult& result) override {
        if (refusal != S_OK) {
            result = refusal;
            return nullptr;
        }
        if (breaksDown) {
            throw std::runtime_error("no memory for a server");
        }
        latest = std::make_shared<TestObject>("server" + std::to_string(++made_), events_);
        return latest;
    }

    HResult refusal = S_OK;
    bool breaksDown = false;
    std::shared_ptr<TestObject> latest;

 private:
    std::vector<std::string>& events_;
    int made_ = 0;
};

// The request's parameters behind the header that all object calls have.
class Request {
 public:
    Request() : out(bytes) {
        out.u16(5);
        out.u16(4);
        out.u32(0);
        out.u32(0);
        out.uuid(Uuid::parse("0A0B0C0D-0102-0304-0506-0708090A0B0C"));
        out.u32(0);
    }
    Bytes bytes;
    ndr::Writer out;
};

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

// The string bindings of a DUALSTRINGARRAY, the counts of which must fit.
inline std::vector<std::string> readBindings(ndr::Reader& in) {
    std::vector<std::string> entries;
    const std::uint16_t units = in.u16();
    const std::uint16_t security = in.u16();
    const std::size_t begin = in.position();
    while (in.u16() == 7) {
        std::string text;
        for (std::uint16_t c = in.u16(); c != 0; c = in.u16()) {
            text += static_cast<char>(c);
        }
        entries.push_back(text);
    }
    EXPECT_EQ(in.position(), begin + 2U * security);
    EXPECT_EQ(in.u16(), 10);
    EXPECT_EQ(in.u16(), 0xFFFF);
    EXPECT_EQ(in.u16(), 0);
    EXPECT_EQ(in.u16(), 0);
    EXPECT_EQ(in.position(), begin + 2U * units);
    return entries;
}

// An interface pointer behind its referent; both lengths must be exact.
inline WireReference readObjectPointer(ndr::Reader& in, const Uuid& iid) {
    const std::uint32_t size = in.u32();
    EXPECT_EQ(in.u32(), size);
    const std::size_t begin = in.position();
    EXPECT_EQ(in.u32(), 0x574F454DU);
    EXPECT_EQ(in.u32(), 1U);
    EXPECT_EQ(in.uuid(), iid);
    const WireReference reference = readReference(in);
    EXPECT_EQ(readBindings(in), (std::vector<std::string>{"192.0.2.1", "localhost", "192.0.2.1"}));
    EXPECT_EQ(in.position(), begin + size);
    return reference;
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
    std::uint32_t status = 0;

    static ExporterSettings settingsFor(std::vector<std::string>& log) {
        ExporterSettings settings;
        settings.objectPort = 49200;
        settings.log = [&log](const std::string& line) { log.push_back(line); };
        settings.minimumLevel = rpc::AuthLevel::Connect;
        return settings;
    }

    ObjectExporter exporter{settingsFor(log), [this] { return time; }, [this] { return ++identifiers; }};
    ClassRegistry classes;
    OrpcHandler objects{exporter, [](const Uuid& iid) { return iid == iidServer; }};
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

    // Calls a method of an object; the reader stands behind ORPCTHAT.
    ndr::Reader callObject(const rpc::Peer& from, const Uuid& ipid, std::uint16_t opnum, const Bytes& stub,
                           const Uuid& iid = iidServer) {
        ndr::Reader in = send(objects, from, iid, &ipid, opnum, stub);
        in.u32();
        in.u32();
        return in;
    }

    bool alive(const rpc::Peer& from, const Uuid& ipid) {
        Request request;
        request.out.u32(42);
        callObject(from, ipid, 6, request.bytes);
        return status == 0;
    }

    struct Change {
        Uuid ipid;
        std::uint32_t publicCount = 0;
        std::uint32_t privateCount = 0;
    };

    static Bytes changes(const std::vector<Change>& list) {
        Request request;
        request.out.u16(static_cast<std::uint16_t>(list.size()));
        request.out.u32(static_cast<std::uint32_t>(list.size()));
        for (const Change& change : list) {
            request.out.uuid(change.ipid);
            request.out.u32(change.publicCount);
            request.out.u32(change.privateCount);
        }
        return request.bytes;
    }

    static Bytes query(const Uuid& ipid, std::uint32_t references, const std::vector<Uuid>& iids) {
        Request request;
        request.out.uuid(ipid);
        request.out.u32(references);
        request.out.u16(static_cast<std::uint16_t>(iids.size()));
        request.out.u32(static_cast<std::uint32_t>(iids.size()));
        for (const Uuid& iid : iids) {
            request.out.uuid(iid);
        }
        return request.bytes;
    }

    ndr::Reader remUnknown(const rpc::Peer& from, std::uint16_t opnum, const Bytes& stub) {
        return callObject(from, exporter.remUnknownIpid(), opnum, stub, iidRemUnknown);
    }

    void release(const rpc::Peer& from, const std::vector<Change>& list) {
        ndr::Reader in = remUnknown(from, 5, changes(list));
        EXPECT_EQ(status, 0U);
        EXPECT_EQ(in.u32(), S_OK);
        EXPECT_EQ(in.remaining(), 0U);
    }

    // RemQueryInterface for one interface.
    WireReference queryOne(const rpc::Peer& from, const Uuid& ipid, const Uuid& iid, std::uint32_t references = 5) {
        ndr::Reader in = remUnknown(from, 3, query(ipid, references, {iid}));
        in.u32();
        in.u32();
        EXPECT_EQ(in.u32(), S_OK);
        in.align(8);
        return readReference(in);
    }

    // The request of the older form of activation as it is seen on the wire: the protocol count is written as
    // 32 bits, and ten bytes of no meaning follow the one protocol.
    static Bytes activationRequest(const Uuid& classId, const std::vector<Uuid>& iids, std::uint32_t mode = 0) {
        Request request;
        ndr::Writer& out = request.out;
        out.uuid(classId);
        out.u32(0);
        out.u32(0);
        out.u32(3);
        out.u32(mode);
        out.u32(static_cast<std::uint32_t>(iids.size()));
        out.u32(0x72657355);
        out.u32(static_cast<std::uint32_t>(iids.size()));
        for (const Uuid& iid : iids) {
            out.uuid(iid);
        }
        out.u32(1);
        out.u32(1);
        out.u16(7);
        for (const std::uint16_t junk : {127, 0, 0, 1, 0}) {
            out.u16(junk);
        }
        return request.bytes;
    }

    // Activates a test object over a connection that is closed at once. Gives the IPID.
    Uuid activate(const rpc::Peer& from) {
        ndr::Reader in = send(activation, from, iidActivation, nullptr, 0, activationRequest(classTest, {iidServer}));
        activation.connectionClosed(from, false);
        in.u32();
        in.u32();
        in.u64();
        in.u32();
        in.u32();
        readBindings(in);
        in.uuid();
        in.u32();
        in.u32();
        EXPECT_EQ(in.u32(), S_OK);
        in.u32();
        in.u32();
        const WireReference reference = readObjectPointer(in, iidServer);
        EXPECT_TRUE(in.good());
        lastOid = reference.oid;
        return reference.ipid;
    }

    static Bytes complexPing(std::uint64_t setId, std::uint16_t sequence, const std::vector<std::uint64_t>& add,
                             const std::vector<std::uint64_t>& remove) {
        Bytes bytes;
        ndr::Writer out(bytes);
        out.u64(setId);
        out.u16(sequence);
        out.u16(static_cast<std::uint16_t>(add.size()));
        out.u16(static_cast<std::uint16_t>(remove.size()));
        for (const auto* list : {&add, &remove}) {
            if (list->empty()) {
                out.nullPointer();
                continue;
            }
            out.pointer();
            out.u32(static_cast<std::uint32_t>(list->size()));
            for (const std::uint64_t oid : *list) {
                out.u64(oid);
            }
        }
        return bytes;
    }

    // Gives the set's id.
    std::uint64_t pingComplex(std::uint64_t setId, std::uint16_t sequence, const std::vector<std::uint64_t>& add,
                              const std::vector<std::uint64_t>& remove, std::uint32_t expected = 0) {
        ndr::Reader in =
            send(activation, peer(900), iidObjectExporter, nullptr, 2, complexPing(setId, sequence, add, remove));
        const std::uint64_t result = in.u64();
        EXPECT_EQ(in.u16(), 0);
        EXPECT_EQ(in.u32(), expected);
        EXPECT_EQ(in.remaining(), 0U);
        EXPECT_TRUE(in.good());
        return result;
    }

    std::uint32_t pingSimple(std::uint64_t setId) {
        Bytes bytes;
        ndr::Writer(bytes).u64(setId);
        return send(activation, peer(901), iidObjectExporter, nullptr, 1, bytes).u32();
    }

    std::uint64_t lastOid = 0;
};

}  // namespace quelm::dcom::orpc::test
