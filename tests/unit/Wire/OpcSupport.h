#pragma once

// A control with a handful of items and one client's server object, as the interfaces' tests need them.
// The time stands still at 2026-01-02 03:04:05 UTC, which is 80 00 40 74 94 7B DC 01 on the wire.

#include <utility>
#include <vector>

#include "OPC DA/wire/Iids.h"
#include "OPC DA/wire/OpcServerObject.h"
#include "SLIK-DA/SLIKServer.h"
#include "Shared Types/TimeSource.h"
#include "WireSupport.h"

namespace quelm::opcda::wire::test {

#define STAMP "80 00 40 74 94 7B DC 01"

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
            const SLIKTag& tag = control_.SLIKTags().Item(item->Name());
            item->SetVQT(tag.Value(), tag.Quality(), tag.Timestamp());
        }
        lngError = 0;
    }
    void SLIKServer1_OnWrite(std::int32_t lngCount, std::int32_t& lngError) override {
        writes.push_back(lngCount);
        lngError = SLIKServer::failed;
    }

 private:
    SLIKServer& control_;
};

class OpcWire : public ::testing::Test {
 protected:
    OpcWire() {
        control_.SetEvents(&events_);
        const Date now = localNow();
        ItemStore& items = control_.SLIKTags();
        items.Add("A.Temp", 1, 12.5F, static_cast<std::int16_t>(0x80C0U), now);
        items.Add("A.Count", 1, std::int32_t{7}, 0xC0, now);
        items.Add("Name", 1, "Ab", 0x40, now);
        items.Add("Flow", 1, 0.25, 0x18, now);
        items.Add("Switch", 1, true, 0xC0, now);
        server_ = std::make_shared<OpcServerObject>(application_);
    }

    Reply call(dcom::orpc::ComObject& object, const dcom::Uuid& iid, std::uint16_t opnum, const Request& request) {
        return invoke(object, iid, opnum, request, context_);
    }
    Reply call(const dcom::Uuid& iid, std::uint16_t opnum, const Request& request) {
        return call(*server_, iid, opnum, request);
    }

    // A group as a client gets it, and its server handle.
    std::pair<std::shared_ptr<dcom::orpc::ComObject>, std::uint32_t> addGroup(std::string_view name,
                                                                              bool active = true) {
        Request request;
        request.text(name).u32(active ? 1 : 0).u32(1000).u32(5).u32(0).u32(0).u32(0x409).uuid(iidOpcItemMgt);
        const Reply reply = call(iidOpcServer, 3, request);
        EXPECT_EQ(reply.result(), S_OK);
        return {context_.written.back().object, reply.reader().u32()};
    }

    // Adds items with client handles 100, 101, ... and gives their server handles (0: refused).
    std::vector<std::uint32_t> addItems(dcom::orpc::ComObject& group, const std::vector<std::string>& ids,
                                        VarType type = VT_EMPTY) {
        Request request;
        writeDefinitions(request, ids, type);
        const Reply reply = call(group, iidOpcItemMgt, 3, request);
        dcom::ndr::Reader in = reply.reader();
        in.u32();
        std::vector<std::uint32_t> handles(in.count(20));
        for (std::uint32_t& handle : handles) {
            handle = in.u32();
            in.bytes(16);
        }
        EXPECT_TRUE(in.good());
        return handles;
    }

    // OPCITEMDEFs as a library that always sends an (empty) access path writes them.
    static void writeDefinitions(Request& request, const std::vector<std::string>& ids, VarType type = VT_EMPTY) {
        const auto count = static_cast<std::uint32_t>(ids.size());
        request.u32(count).u32(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            request.u32(0x72657355).u32(0x72657355).u32(1).u32(100 + i).u32(0).u32(0).u16(type).u16(0);
        }
        for (const std::string& id : ids) {
            request.text("").text(id);
        }
    }

    ManualTimeSource time_{makeDate(2026, 1, 2, 3, 4, 5)};
    ScopedTimeSource scope_{time_};
    SLIKServer control_;
    HostEvents events_{control_};
    Application application_{control_};
    FakeContext context_;
    std::shared_ptr<OpcServerObject> server_;
};

}  // namespace quelm::opcda::wire::test
