#pragma once

// A control with a handful of items and one client's server object, as the interfaces' tests need them.
// The time stands still at 2026-01-02 03:04:05 UTC, which is 80 00 40 74 94 7B DC 01 on the wire.

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <type_traits>

#include "FakeContext.h"
#include "FakeRemoteObjects.h"
#include "Parameters.h"
#include "base/Quality.h"
#include "base/TimeSource.h"
#include "loop/VirtualLoop.h"
#include "opcda/wire/InterfaceTable.h"
#include "opcda/wire/OpcServerObject.h"
#include "slikda/SLIKServer.h"

namespace quelm::opcda::wire::test {

using quelm::test::Bytes;
using quelm::test::fromHex;
using quelm::test::Parameters;
using Object = std::shared_ptr<dcom::orpc::ComObject>;
using Handles = std::vector<std::uint32_t>;

#define STAMP "80 00 40 74 94 7B DC 01"
inline const std::string interfacePointer = "04000200 04000000 04000000 4D454F57";

class HostEvents final : public ISLIKServerEvents {
 public:
    explicit HostEvents(SLIKServer& control) : control_(control) {}
    std::vector<std::int32_t> disconnects;
    std::vector<std::int32_t> reads;
    std::vector<std::int32_t> writes;

    void SLIKServer1_OnClientDisconnect(std::int32_t lngRemainingClients) override {
        disconnects.push_back(lngRemainingClients);
    }
    void SLIKServer1_OnRead(std::int32_t lngCount, const std::vector<ISLIKRequestedItem*>& objItems,
                            std::int32_t& lngError) override {
        reads.push_back(lngCount);
        for (ISLIKRequestedItem* item : objItems) {
            const ISLIKTag& tag = control_.SLIKTags().Item(item->Name());
            item->SetVQT(tag.Value(), tag.Quality(), tag.Timestamp());
        }
        lngError = 0;
    }
    void SLIKServer1_OnWrite(std::int32_t lngCount, std::int32_t& lngError) override {
        writes.push_back(lngCount);
        lngError = asNumber(E_FAIL);
    }

 private:
    SLIKServer& control_;
};

// One method of one interface: by its name, or by a number that needn't be anything's.
struct Method {
    template <class Opnum>
    requires std::is_enum_v<Opnum> Method(
        Opnum named)  // NOLINT(google-explicit-constructor): a method's name is the method
        : iid(iidOf<Opnum>(std::type_identity<OpcServerObject::Interfaces>(),
                           std::type_identity<OpcGroupObject::Interfaces>())),
          opnum(static_cast<std::uint16_t>(named)) {}
    Method(const Uuid& itsIid, std::uint16_t number) : iid(itsIid), opnum(number) {}
    // Of an object that is none of these; enumerators of all kinds have the same methods.
    Method(const Uuid& itsIid, Enumeration named) : Method(itsIid, static_cast<std::uint16_t>(named)) {}
    Method(const Uuid& itsIid, ConnectionPoint named) : Method(itsIid, static_cast<std::uint16_t>(named)) {}

    bool is(const Method& other) const { return iid == other.iid && opnum == other.opnum; }

    Uuid iid;
    std::uint16_t opnum;

 private:
    template <class Opnum, class... Servers, class... Groups>
    static constexpr Uuid iidOf(std::type_identity<OfferedInterfaces<Servers...>> /*server*/,
                                std::type_identity<OfferedInterfaces<Groups...>> /*group*/) {
        Uuid iid;
        static_assert((std::is_same_v<typename Servers::Opnum, Opnum> || ...) ||
                      (std::is_same_v<typename Groups::Opnum, Opnum> || ...));
        const auto take = [&iid](bool isIts, const Uuid& its) { iid = isIts ? its : iid; };
        (take(std::is_same_v<typename Servers::Opnum, Opnum>, Servers::interfaceId), ...);
        (take(std::is_same_v<typename Groups::Opnum, Opnum>, Groups::interfaceId), ...);
        return iid;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Method& method) {
    return out << method.iid.toText() << ' ' << method.opnum;
}

// The reply to one call: the fault status, the bytes, and a reader over them.
struct Reply {
    Fault fault = Fault::None;
    Bytes bytes;
    dcom::ndr::Reader reader() const { return dcom::ndr::Reader(bytes); }
    // The last four bytes.
    HResult result() const {
        HResult value{0xDEADBEEF};
        if (bytes.size() >= 4) {
            std::memcpy(&value, bytes.data() + bytes.size() - 4, 4);
        }
        return value;
    }
};

class OpcWire : public ::testing::Test {
 protected:
    OpcWire() {
        control_.SetEvents(&events_);
        const Date now = localNow();
        PlantItems& items = control_.SLIKTags();
        items.Add("A.Temp", 1, 12.5F, static_cast<std::int16_t>(0x80C0U), now);
        items.Add("A.Count", 1, std::int32_t{7}, quality::good, now);
        items.Add("Name", 1, "Ab", 0x40, now);
        items.Add("Flow", 1, 0.25, 0x18, now);
        items.Add("Switch", 1, true, quality::good, now);
        server_ = std::make_shared<OpcServerObject>(application_, outgoing_);
    }

    Reply call(dcom::orpc::ComObject& object, const Method& method, std::span<const std::uint8_t> stub) {
        Reply reply;
        dcom::ndr::Reader in(stub);
        // ORPCTHAT is 8 bytes long, so that alignment from here is alignment in the whole reply.
        dcom::ndr::Writer out(reply.bytes);
        dcom::orpc::Interface* const target = object.queryInterface(method.iid);
        if (target == nullptr) {
            ADD_FAILURE() << "no interface for " << method;
            return reply;
        }
        reply.fault = context_.statusOf(target->invoke(method.opnum, in, out, context_), reply.bytes);
        return reply;
    }
    // To the server's object, or to the latest group.
    Reply call(const Method& method, std::span<const std::uint8_t> stub) {
        const bool isGroups = group_ && group_->queryInterface(method.iid) != nullptr;
        return call(isGroups ? *group_ : *server_, method, stub);
    }

    // Adds a group as a client does, and gives its server handle.
    std::uint32_t addGroup(std::string_view name) {
        Parameters request;
        request.text(name).u32(1).u32(1000).u32(5).u32(0).u32(0).u32(0x409).uuid(iidOpcItemMgt);
        const Reply reply = call(OpcServer::AddGroup, request);
        EXPECT_EQ(reply.result(), S_OK);
        group_ = context_.written.back();
        return reply.reader().u32();
    }

    // Adds items with client handles 100, 101, ... and gives their server handles (0: refused).
    Handles addItems(const std::vector<std::string>& ids) {
        const Reply reply = call(ItemMgt::AddItems, definitions(ids));
        dcom::ndr::Reader in = reply.reader();
        in.u32();
        Handles handles(in.count(20));
        for (std::uint32_t& handle : handles) {
            handle = in.u32();
            in.bytes(16);
        }
        EXPECT_TRUE(in.good());
        return handles;
    }

    // A client's object as the client hands it over, or, with no references, as it is handed on.
    static Bytes reference(char references) {
        return fromHex(std::string("4D454F57 01000000 00000000 0000 0000 C000 000000000046 00000000 0") + references +
                       "000000 0102030405060708 1112131415161718 21222324252627282922B2C2D2E2F303"
                       "0F00 0B00 0700 3100 3000 2E00 3000 2E00 3000 2E00 3200 0000 0000 0A00 FFFF 0000 0000");
    }
    static Parameters pointer(std::span<const std::uint8_t> object) {
        return Parameters().u32(1).u32(object.size()).u32(object.size()).add(object);
    }

    // OPCITEMDEFs as a library that always sends an (empty) access path writes them.
    static Parameters definitions(const std::vector<std::string>& ids) {
        Parameters all;
        all.u32(ids.size()).u32(ids.size());
        for (std::uint32_t i = 0; i < ids.size(); ++i) {
            all.u32(0x72657355).u32(0x72657355).u32(1).u32(100 + i).u32(0).u32(0).u16(0).u16(0);
        }
        for (const std::string& id : ids) {
            all.text("").text(id);
        }
        return all;
    }

    ManualTimeSource time_{makeDate(2026, 1, 2, 3, 4, 5)};
    ScopedTimeSource scope_{time_};
    VirtualLoop loop_;
    SLIKServer control_{loop_, loop_};
    HostEvents events_{control_};
    CallbackMessages messages_;
    FakeRemoteObjects remotes_;
    OutgoingCalls outgoing_{remotes_, messages_};
    Application application_{control_.network(), loop_, messages_};
    FakeContext context_;
    std::shared_ptr<OpcServerObject> server_;
    Object group_;
};

}  // namespace quelm::opcda::wire::test
