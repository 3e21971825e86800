// What clients ask of the server object: groups, status, texts, browsing, properties, reading by item ID.

#include "OpcSupport.h"
#include "opcda/wire/OpcClassFactory.h"
#include "slikda/Identity.h"

namespace quelm::opcda::wire::test {
namespace {

// --- IOPCServer ---

TEST_F(OpcWire, AddGroupAnswersHandleRateAndPointer) {
    Parameters request;
    request.text("Trend").u32(1).u32(500).u32(0xFFFFFFF0).u32(0x72657355).u32(60).u32(0x72657355).f32(1.5F).u32(1033);
    EXPECT_HEX(call(OpcServer::AddGroup, request.uuid(iidOpcGroupStateMgt).hex("00000000 00000000")).bytes,
               "01000000 F4010000" + interfacePointer + "00000000");  // server handle, revised rate
    group_ = context_.written.at(0);
    EXPECT_HEX(call(GroupStateMgt::GetState, {}).bytes,
               "F4010000 01000000"                                                  // rate, active
               "04000200 06000000 00000000 06000000 5400 7200 6500 6E00 6400 0000"  // name
               "3C000000 0000C03F 09040000 F0FFFFFF 01000000 00000000");            // bias to server handle
}

TEST_F(OpcWire, AddGroupRefusesWithCompleteParameters) {
    addGroup("taken");
    const struct {
        const char* name;
        float deadband;
        Uuid iid;
        const char* reply;
    } cases[] = {
        {"taken", 0, iidOpcItemMgt, "00000000 00000000 00000000 0C0004C0"},
        {"new", 101, iidOpcItemMgt, "00000000 00000000 00000000 57000780"},
        {"new", 0, iidOpcServer, "00000000 00000000 00000000 02400080"},
    };
    for (const auto& each : cases) {
        Parameters request;
        request.text(each.name).u32(1).u32(500).u32(0).u32(0).u32(1).f32(each.deadband).u32(1033).uuid(each.iid);
        EXPECT_HEX(call(OpcServer::AddGroup, request).bytes, each.reply);
    }
    EXPECT_EQ(server_->server().groupCount(), 1U);
}

TEST_F(OpcWire, GivesStatusAndTextsForResultCodes) {
    addGroup("g");
    Parameters status;
    status
        .hex("04000200" STAMP STAMP
             "00000000 00000000"             // start, now, no data sent yet
             "0100 0000 01000000 FFFFFFFF")  // running, one group, bandwidth unknown
        .u16(identity::majorVersion)
        .u16(identity::minorVersion)
        .u16(identity::buildNumber)
        .hex(
            "0000 08000200"
            "07000000 00000000 07000000 4F00 6D00 6200 7200 6500 6C00 0000 0000 00000000");
    EXPECT_HEX(call(OpcServer::GetStatus, {}).bytes, status);
    const Reply reply = call(OpcServer::GetErrorString, Parameters().hresult(OPC_E_UNKNOWNITEMID).u32(0x409));
    EXPECT_HEX(reply.bytes, Parameters().u32(0x20004).text(errorText(OPC_E_UNKNOWNITEMID)).hresult(S_OK));
    EXPECT_HEX(call(Common::GetErrorString, Parameters().hresult(OPC_E_UNKNOWNITEMID)).bytes, reply.bytes);
    EXPECT_HEX(call(OpcServer::GetErrorString, Parameters().u32(0x12345678).u32(0)).bytes, "00000000 57000780");
    EXPECT_HEX(call(Common::GetErrorString, Parameters().u32(0x12345678)).bytes, "00000000 57000780");
}

TEST_F(OpcWire, EnumeratesGroupNamesEvenWhenThereAreNone) {
    const auto enumerate = [this](std::uint16_t scope, const Uuid& iid) {
        return call(OpcServer::CreateGroupEnumerator, Parameters().u16(scope).uuid(iid)).bytes;
    };
    EXPECT_HEX(enumerate(6, iidEnumString), interfacePointer + "01000000");
    addGroup("g");
    EXPECT_HEX(enumerate(6, iidEnumString), interfacePointer + "00000000");
    EXPECT_HEX(enumerate(9, iidEnumString), "00000000 57000780");
    EXPECT_HEX(enumerate(6, iidOpcServer), "00000000 02400080");
}

// --- lifetime ---

// Held by the client or not, it is gone at once and answers whoever still has it with failures.
TEST_F(OpcWire, ARemovedGroupIsNobodysAnyMore) {
    for (const auto& [held, force, result] : {std::tuple{true, 0U, OPC_S_INUSE}, {true, 1U, S_OK}, {false, 0U, S_OK}}) {
        const Parameters removal = Parameters().u32(addGroup("g")).u32(force);
        const Handles items = addItems({"A.Count"});
        context_.written.clear();
        if (!held) {
            group_.reset();
        }
        EXPECT_EQ(call(OpcServer::RemoveGroup, removal).result(), result);
        EXPECT_EQ(server_->server().groupCount(), 0U);
        if (held) {
            EXPECT_EQ(call(SyncIo::Read, Parameters().u16(1).counted(items)).result(), E_FAIL);
        }
        EXPECT_EQ(call(OpcServer::RemoveGroup, removal).result(), E_INVALIDARG);
    }
}

// A client may let go of all interfaces of a group and ask for them again by its name.
TEST_F(OpcWire, AGroupOutlivesItsInterfaces) {
    const auto budget = server_->server().budget();
    addGroup("g");
    const Handles items = addItems({"A.Count"});
    context_.written.clear();
    EXPECT_EQ(call(OpcServer::GetGroupByName, Parameters().text("g").uuid(iidOpcSyncIo)).result(), S_OK);
    EXPECT_EQ(context_.written.back(), group_) << "one object as long as it is held";
    context_.written.clear();
    group_.reset();
    EXPECT_EQ(server_->server().groupCount(), 1U);
    EXPECT_EQ(call(OpcServer::GetGroupByName, Parameters().text("g").uuid(iidOpcSyncIo)).result(), S_OK);
    group_ = context_.written.back();
    EXPECT_EQ(call(SyncIo::Read, Parameters().u16(1).counted(items)).result(), S_OK);
    context_.written.clear();
    group_.reset();
    while (call(OpcServer::AddGroup,
                Parameters().text("").u32(1).u32(1000).u32(5).u32(0).u32(0).u32(0x409).uuid(iidOpcItemMgt))
               .result() == S_OK) {
        context_.written.clear();
    }
    EXPECT_EQ(budget->groups.room(), 0U) << "who never removes a group is bounded all the same";
}

TEST_F(OpcWire, TheClientCountsUntilItLetsGoOfTheServer) {
    OpcClassFactory factory(application_, outgoing_);
    HResult result = E_FAIL;
    auto other = factory.create(context_.peer(), context_.account(), result);
    EXPECT_EQ(result, S_OK);
    EXPECT_EQ(control_.network().clientCount(), 2);

    addGroup("g");
    call(*server_, ConnectionPointContainer::FindConnectionPoint, Parameters().uuid(iidOpcShutdown));
    Object point = context_.written.back();
    context_.written.clear();
    server_.reset();
    EXPECT_TRUE(events_.disconnects.empty()) << "its connection point keeps it";
    point.reset();
    EXPECT_EQ(events_.disconnects, std::vector<std::int32_t>{1});
    EXPECT_EQ(call(*group_, SyncIo::Read, Parameters().u16(1).counted(Handles{1})).result(), E_FAIL);
    EXPECT_EQ(call(*group_, GroupStateMgt::CloneGroup, Parameters().text("x").uuid(iidOpcItemMgt)).result(), E_FAIL);

    other.reset();
    EXPECT_EQ(events_.disconnects, (std::vector<std::int32_t>{1, 0}));
    EXPECT_FALSE(control_.InUse());
}

// --- IOPCBrowseServerAddressSpace ---

TEST_F(OpcWire, BrowsingNothingGivesAnEmptyEnumerator) {
    EXPECT_HEX(call(Browse::QueryOrganization, {}).bytes, "0100 0000 00000000");  // a tree
    const std::string empty = interfacePointer + "01000000";
    EXPECT_HEX(call(Browse::BrowseOpcItemIds, Parameters().u16(3).text("none*").u16(0).u32(0)).bytes, empty);
    EXPECT_HEX(call(Browse::BrowseOpcItemIds, Parameters().u16(3).text("*").u16(VT_BSTR_ARRAY).u32(0)).bytes, empty);
    EXPECT_HEX(call(Browse::BrowseAccessPaths, Parameters().text("Flow")).bytes, empty);
    EXPECT_HEX(call(Browse::BrowseOpcItemIds, Parameters().u16(4).text("").u16(0).u32(0)).bytes, "00000000 57000780");
    EXPECT_HEX(call(Browse::BrowseOpcItemIds, Parameters().u16(3).text("[a").u16(0).u32(0)).bytes, "00000000 090004C0");
    EXPECT_HEX(call(Browse::BrowseAccessPaths, Parameters().text("none")).bytes, "00000000 57000780");
}

// --- IOPCCommon ---

TEST_F(OpcWire, KeepsTheClientsLocaleAndName) {
    EXPECT_HEX(call(Common::SetLocaleId, Parameters().u32(0x409)).bytes, "00000000");
    EXPECT_HEX(call(Common::SetLocaleId, Parameters().u32(0x407)).bytes, "57000780");
    EXPECT_HEX(call(Common::GetLocaleId, {}).bytes, "09040000 00000000");
    EXPECT_HEX(call(Common::QueryAvailableLocaleIds, {}).bytes,
               "03000000 04000200 03000000 09040000 00080000 00040000 00000000");
    EXPECT_HEX(call(Common::SetClientName, Parameters().text("Historian")).bytes, "00000000");
    EXPECT_EQ(server_->server().clientName(), "Historian");
}

// --- IOPCItemProperties ---

TEST_F(OpcWire, ListsThePropertiesOfAnItem) {
    const Reply reply = call(ItemProperties::QueryAvailableProperties, Parameters().text("Flow"));
    dcom::ndr::Reader in = reply.reader();
    EXPECT_HEX(in.bytes(44),
               "07000000 04000200 07000000 01000000 02000000 03000000 04000000 05000000 06000000 07000000 08000200");
    in.bytes(4 + 7 * 4);
    for (int i = 0; i < 7; ++i) {
        EXPECT_FALSE(in.wideString().empty());
    }
    in.align(4);
    EXPECT_HEX(in.bytes(in.remaining()), "28000200 07000000 0200 0500 0200 0700 0300 0400 0300 0000 00000000");
    EXPECT_HEX(call(ItemProperties::QueryAvailableProperties, Parameters().text("x")).bytes,
               "00000000 00000000 00000000 00000000 070004C0");
}

TEST_F(OpcWire, GivesPropertiesAsVariants) {
    const Handles ids{1, 99, 2};
    EXPECT_HEX(call(ItemProperties::GetItemProperties, Parameters().text("A.Temp").counted(ids)).bytes,
               "04000200 03000000 08000200 0C000200 10000200 00000000"
               "03000000 00000000 0200 000000000000 02000000 04000000"
               "03000000 00000000 0000 000000000000 00000000 00000000"
               "03000000 00000000 0400 000000000000 04000000 00004841"
               "14000200 03000000 00000000 030204C0 00000000 01000000");
    EXPECT_HEX(call(ItemProperties::GetItemProperties, Parameters().text("x").counted(ids)).bytes,
               "00000000 00000000 070004C0");
    EXPECT_HEX(call(ItemProperties::LookupItemIds, Parameters().text("Flow").counted(ids)).bytes,
               "04000200 03000000 00000000 00000000 00000000"
               "08000200 03000000 030204C0 030204C0 030204C0 01000000");
    for (const ItemProperties method : {ItemProperties::GetItemProperties, ItemProperties::LookupItemIds}) {
        EXPECT_HEX(call(method, Parameters().text("Flow").u32(0).u32(0)).bytes, "00000000 00000000 57000780");
    }
}

// --- IOPCItemIO ---

TEST_F(OpcWire, ReadsItemsByTheirIds) {
    Parameters request;
    request.u32(2).u32(2).u32(1).u32(2).text("A.Temp").text("none").align(4).array(Handles{0, 0});
    EXPECT_HEX(call(ItemIo::Read, request).bytes,
               "04000200 02000000 04000040 08000040"
               "03000000 00000000 0400 000000000000 04000000 00004841"
               "03000000 00000000 0000 000000000000 00000000"
               "08000200 02000000 C080 0000"
               "0C000200 02000000" STAMP
               "00000000 00000000"
               "10000200 02000000 00000000 070004C0 01000000");
    EXPECT_EQ(events_.reads, std::vector<std::int32_t>{1});
    EXPECT_HEX(call(ItemIo::Read, Bytes(12)).bytes, "00000000 00000000 00000000 00000000 57000780");
}

TEST_F(OpcWire, RefusesWritesByItemIds) {
    Parameters request;
    request.u32(1).u32(1).u32(1).text("Flow").align(4).u32(1);
    request.hex("55736572 01000000 C000 0000 01000000 00000000" STAMP).align(8);
    request.hex("04000000 00000000 0500 CCCCCCCCCCCC 05000000 00000000 000000000000D03F");
    EXPECT_HEX(call(ItemIo::WriteVqt, request).bytes, "04000200 01000000 05400080 01000000");
    EXPECT_EQ(events_.writes, std::vector<std::int32_t>{1});
    EXPECT_HEX(call(ItemIo::WriteVqt, Bytes(12)).bytes, "00000000 57000780");
}

}  // namespace
}  // namespace quelm::opcda::wire::test
