// What clients ask of the server object: groups, status, texts, browsing, properties, reading by item ID.

#include "OPC DA/wire/OpcClassFactory.h"
#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

// --- IOPCServer ---

TEST_F(OpcWire, AddGroupAnswersHandleRateAndPointer) {
    Request request;
    request.text("Trend").u32(1).u32(500).u32(0xFFFFFFF0).u32(0x72657355).u32(60).u32(0x72657355).f32(1.5F).u32(1033);
    request.uuid(iidOpcGroupStateMgt).hex("00000000 00000000 00000000 00000000");
    const Reply reply = call(iidOpcServer, 3, request);
    EXPECT_HEX(reply.bytes,
               "01000000 F4010000"                    // server handle, revised rate
               "04000200 04000000 04000000 4D454F57"  // the group's interface
               "00000000");
    const Reply state = call(*context_.written.at(0).object, iidOpcGroupStateMgt, 3, Request());
    EXPECT_HEX(state.bytes,
               "F4010000 01000000"                                                  // rate, active
               "04000200 06000000 00000000 06000000 5400 7200 6500 6E00 6400 0000"  // name
               "3C000000 0000C03F 09040000 F0FFFFFF 01000000 00000000");            // bias to server handle
}

TEST_F(OpcWire, AddGroupRefusesWithCompleteParameters) {
    addGroup("taken");
    struct Case {
        const char* name;
        float deadband;
        dcom::Uuid iid;
        const char* reply;
    };
    for (const Case& each : {Case{"taken", 0, iidOpcItemMgt, "00000000 00000000 00000000 0C0004C0"},
                             Case{"new", 101, iidOpcItemMgt, "00000000 00000000 00000000 57000780"},
                             Case{"new", 0, iidOpcServer, "00000000 00000000 00000000 02400080"}}) {
        Request request;
        request.text(each.name).u32(1).u32(500).u32(0).u32(0).u32(1).f32(each.deadband).u32(1033).uuid(each.iid);
        EXPECT_HEX(call(iidOpcServer, 3, request).bytes, each.reply);
    }
    EXPECT_EQ(server_->server()->groupCount(), 1U);
}

// A name as scripted clients send it: without a NUL, so that what follows it stands elsewhere.
TEST_F(OpcWire, TakesNamesWithoutNul) {
    Request request;
    request.bareText("abc").u32(1).u32(1000).u32(0).u32(0).u32(0).u32(1033).uuid(iidOpcItemMgt);
    EXPECT_EQ(call(iidOpcServer, 3, request).result(), S_OK);
    EXPECT_HEX(call(iidOpcServer, 5, Request().bareText("abc").uuid(iidOpcSyncIo)).bytes,
               "04000200 04000000 04000000 4D454F57 00000000");
    EXPECT_EQ(context_.written.at(0).object, context_.written.at(1).object);
    EXPECT_HEX(call(iidOpcServer, 5, Request().text("ABC").uuid(iidOpcSyncIo)).bytes, "00000000 57000780");
}

TEST_F(OpcWire, GetStatusIsOneStructureWithTheVendorBehindIt) {
    addGroup("g");
    EXPECT_HEX(call(iidOpcServer, 6, Request()).bytes,
               "04000200" STAMP STAMP
               "00000000 00000000"             // start, now, no data sent yet
               "0100 0000 01000000 FFFFFFFF"   // running, one group, bandwidth unknown
               "0500 0000 0100 0000 08000200"  // version, vendor
               "07000000 00000000 07000000 4F00 6D00 6200 7200 6500 6C00 0000 0000 00000000");
}

TEST_F(OpcWire, GivesTextsForResultCodes) {
    const Reply reply = call(iidOpcServer, 4, Request().u32(OPC_E_UNKNOWNITEMID).u32(0x409));
    dcom::ndr::Reader in = reply.reader();
    EXPECT_TRUE(in.pointer());
    EXPECT_EQ(in.wideString(), errorText(OPC_E_UNKNOWNITEMID));
    EXPECT_EQ(in.u32(), S_OK);
    EXPECT_EQ(toHex(call(iidOpcCommon, 6, Request().u32(OPC_E_UNKNOWNITEMID)).bytes), toHex(reply.bytes));
    EXPECT_HEX(call(iidOpcServer, 4, Request().u32(0x12345678).u32(0)).bytes, "00000000 57000780");
    EXPECT_HEX(call(iidOpcCommon, 6, Request().u32(0x12345678)).bytes, "00000000 57000780");
}

TEST_F(OpcWire, EnumeratesGroupNamesEvenWhenThereAreNone) {
    const char* pointer = "04000200 04000000 04000000 4D454F57 ";
    EXPECT_HEX(call(iidOpcServer, 8, Request().u16(6).uuid(iidEnumString)).bytes, std::string(pointer) + "01000000");
    addGroup("g");
    EXPECT_HEX(call(iidOpcServer, 8, Request().u16(6).uuid(iidEnumString)).bytes, std::string(pointer) + "00000000");
    EXPECT_HEX(call(iidOpcServer, 8, Request().u16(9).uuid(iidEnumString)).bytes, "00000000 57000780");
    EXPECT_HEX(call(iidOpcServer, 8, Request().u16(6).uuid(iidOpcServer)).bytes, "00000000 02400080");
}

// --- lifetime ---

TEST_F(OpcWire, ARemovedGroupAnswersEverythingWithFailure) {
    const auto [group, handle] = addGroup("g");
    const auto items = addItems(*group, {"Flow"});
    EXPECT_HEX(call(iidOpcServer, 7, Request().u32(handle).u32(1)).bytes, "00000000");
    EXPECT_HEX(call(iidOpcServer, 7, Request().u32(handle).u32(1)).bytes, "57000780");

    Request definitions;
    writeDefinitions(definitions, {"Flow"});
    const char* arrays2 = "00000000 00000000 05400080";
    const char* array = "00000000 05400080";
    EXPECT_HEX(call(*group, iidOpcItemMgt, 3, definitions).bytes, arrays2);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 4, definitions.u32(0)).bytes, arrays2);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 5, Request().counted(items)).bytes, array);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 9, Request().uuid(iidEnumOpcItemAttributes)).bytes, array);
    EXPECT_HEX(call(*group, iidOpcSyncIo, 3, Request().u16(1).counted(items)).bytes, arrays2);
    EXPECT_HEX(call(*group, iidOpcSyncIo, 4, Request().counted(items).u32(1).u32(0)).bytes, array);
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 3, Request()).bytes,
               "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 05400080");
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 4, Request().u32(0).u32(0).u32(0).u32(0).u32(0).u32(0)).bytes, array);
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 5, Request().text("x")).bytes, "05400080");
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 6, Request().text("x").uuid(iidOpcItemMgt)).bytes, array);
    group->disconnected();
}

// Not forced while the client still holds it: it goes on answering, but is no longer the server's.
TEST_F(OpcWire, AGroupInUseLeavesWithItsLastInterface) {
    const auto [group, handle] = addGroup("g");
    const auto items = addItems(*group, {"A.Count"});
    EXPECT_HEX(call(iidOpcServer, 7, Request().u32(handle).u32(0)).bytes, "0F000400");
    EXPECT_EQ(server_->server()->groupCount(), 0U);
    EXPECT_EQ(call(*group, iidOpcSyncIo, 3, Request().u16(1).counted(items)).result(), S_OK);
    group->disconnected();
    EXPECT_EQ(call(iidOpcServer, 7, Request().u32(handle).u32(0)).result(), E_INVALIDARG);
}

TEST_F(OpcWire, AGroupGoesWithItsLastInterfaceAndMayBeRemovedAfterwards) {
    auto [group, handle] = addGroup("g");
    context_.written.clear();
    group->disconnected();
    group.reset();
    EXPECT_EQ(server_->server()->groupCount(), 0U);
    EXPECT_EQ(call(iidOpcServer, 5, Request().text("g").uuid(iidOpcItemMgt)).result(), E_INVALIDARG);
    EXPECT_EQ(call(iidOpcServer, 7, Request().u32(handle).u32(0)).result(), S_OK);
    EXPECT_EQ(call(iidOpcServer, 7, Request().u32(handle).u32(0)).result(), E_INVALIDARG);
}

TEST_F(OpcWire, TheClientCountsUntilItLetsGoOfTheServer) {
    OpcClassFactory factory(application_);
    EXPECT_EQ(factory.classId().toText(), "43fb6634-cc72-4ee9-a292-bedf9ff018bd");
    HResult result = E_FAIL;
    auto other = factory.create(context_.peer(), context_.account(), result);
    EXPECT_EQ(result, S_OK);
    EXPECT_EQ(control_.clientCount(), 2);

    const auto group = addGroup("g").first;
    server_->disconnected();
    EXPECT_EQ(events_.disconnects, std::vector<std::int32_t>{1});
    EXPECT_EQ(call(iidOpcServer, 6, Request()).fault, dcom::faultDisconnected);
    EXPECT_EQ(call(*group, iidOpcSyncIo, 3, Request().u16(1).counted(std::vector<std::uint32_t>{1})).result(), E_FAIL);
    server_.reset();
    EXPECT_EQ(call(*group, iidOpcGroupStateMgt, 6, Request().text("x").uuid(iidOpcItemMgt)).result(), E_FAIL);
    group->disconnected();

    other->disconnected();
    EXPECT_EQ(events_.disconnects, (std::vector<std::int32_t>{1, 0}));
    EXPECT_FALSE(control_.InUse());
}

// --- IOPCBrowseServerAddressSpace ---

TEST_F(OpcWire, BrowsesLevelByLevel) {
    const dcom::Uuid& iid = iidOpcBrowseServerAddressSpace;
    EXPECT_HEX(call(iid, 3, Request()).bytes, "0100 0000 00000000");
    EXPECT_EQ(call(iid, 4, Request().u16(2).text("A").hex("0000 0000")).result(), S_OK);
    EXPECT_EQ(call(iid, 5, Request().u16(2).text("").u16(0).u32(0)).result(), S_OK);
    const auto leaves = context_.written.back().object;
    EXPECT_HEX(call(*leaves, iidEnumString, 3, Request().u32(1)).bytes,
               "01000000 00000000 01000000 04000200 06000000 00000000 06000000 4300 6F00 7500 6E00 7400 0000"
               "01000000 00000000");
    EXPECT_HEX(call(iid, 6, Request().text("Temp")).bytes,
               "04000200 07000000 00000000 07000000 4100 2E00 5400 6500 6D00 7000 0000 0000 00000000");
    EXPECT_HEX(call(iid, 6, Request().text("none")).bytes, "00000000 57000780");
    EXPECT_HEX(call(iid, 4, Request().u16(3).bareText("")).bytes, "00000000");
    EXPECT_HEX(call(iid, 4, Request().u16(1).text("")).bytes, "05400080");
}

TEST_F(OpcWire, BrowsingNothingGivesAnEmptyEnumerator) {
    const dcom::Uuid& iid = iidOpcBrowseServerAddressSpace;
    const char* empty = "04000200 04000000 04000000 4D454F57 01000000";
    EXPECT_HEX(call(iid, 5, Request().u16(3).text("none*").u16(0).u32(0)).bytes, empty);
    EXPECT_HEX(call(iid, 5, Request().u16(3).text("*").u16(VT_CY).u32(0)).bytes, empty);
    EXPECT_HEX(call(iid, 7, Request().text("Flow")).bytes, empty);
    EXPECT_HEX(call(iid, 5, Request().u16(4).text("").u16(0).u32(0)).bytes, "00000000 57000780");
    EXPECT_HEX(call(iid, 5, Request().u16(3).text("[a").u16(0).u32(0)).bytes, "00000000 090004C0");
    EXPECT_HEX(call(iid, 7, Request().text("none")).bytes, "00000000 070004C0");
}

// --- IOPCCommon ---

TEST_F(OpcWire, KeepsTheClientsLocaleAndName) {
    EXPECT_HEX(call(iidOpcCommon, 3, Request().u32(0x409)).bytes, "00000000");
    EXPECT_HEX(call(iidOpcCommon, 3, Request().u32(0x407)).bytes, "57000780");
    EXPECT_HEX(call(iidOpcCommon, 4, Request()).bytes, "09040000 00000000");
    EXPECT_HEX(call(iidOpcCommon, 5, Request()).bytes,
               "03000000 04000200 03000000 09040000 00080000 00040000 00000000");
    EXPECT_HEX(call(iidOpcCommon, 7, Request().text("Historian")).bytes, "00000000");
    EXPECT_EQ(server_->server()->clientName(), "Historian");
}

// --- IOPCItemProperties ---

TEST_F(OpcWire, ListsTheSixPropertiesOfAnItem) {
    const Reply reply = call(iidOpcItemProperties, 3, Request().text("Flow"));
    dcom::ndr::Reader in = reply.reader();
    EXPECT_EQ(in.u32(), 6U);
    EXPECT_TRUE(in.pointer());
    ASSERT_EQ(in.u32(), 6U);
    for (std::uint32_t id = 1; id <= 6; ++id) {
        EXPECT_EQ(in.u32(), id);
    }
    EXPECT_TRUE(in.pointer());
    ASSERT_EQ(in.u32(), 6U);
    for (int i = 0; i < 6; ++i) {
        EXPECT_TRUE(in.pointer());
    }
    for (int i = 0; i < 6; ++i) {
        EXPECT_FALSE(in.wideString().empty());
    }
    EXPECT_TRUE(in.pointer());
    ASSERT_EQ(in.u32(), 6U);
    for (const VarType type : {VT_I2, VT_R8, VT_I2, VT_DATE, VT_I4, VT_R4}) {
        EXPECT_EQ(in.u16(), type);
    }
    EXPECT_EQ(in.u32(), S_OK);
    EXPECT_TRUE(in.good());
    EXPECT_EQ(in.remaining(), 0U);
    EXPECT_HEX(call(iidOpcItemProperties, 3, Request().text("x")).bytes,
               "00000000 00000000 00000000 00000000 070004C0");
}

TEST_F(OpcWire, GivesPropertiesAsVariants) {
    const std::vector<std::uint32_t> ids{1, 99, 2};
    EXPECT_HEX(call(iidOpcItemProperties, 4, Request().text("A.Temp").counted(ids)).bytes,
               "04000200 03000000 08000200 0C000200 10000200 00000000"
               "03000000 00000000 0200 000000000000 02000000 04000000"
               "03000000 00000000 0000 000000000000 00000000 00000000"
               "03000000 00000000 0400 000000000000 04000000 00004841"
               "14000200 03000000 00000000 030204C0 00000000 01000000");
    EXPECT_HEX(call(iidOpcItemProperties, 4, Request().text("x").counted(ids)).bytes, "00000000 00000000 070004C0");
    EXPECT_HEX(call(iidOpcItemProperties, 4, Request().text("Flow").u32(0).u32(0)).bytes, "00000000 00000000 57000780");
    EXPECT_HEX(call(iidOpcItemProperties, 5, Request().text("Flow").counted(ids)).bytes,
               "04000200 03000000 00000000 00000000 00000000"
               "08000200 03000000 05400080 030204C0 05400080 01000000");
    EXPECT_HEX(call(iidOpcItemProperties, 5, Request().text("Flow").u32(0).u32(0)).bytes, "00000000 00000000 57000780");
}

// --- IOPCItemIO ---

TEST_F(OpcWire, ReadsItemsByTheirIds) {
    Request request;
    request.u32(2).u32(2).u32(1).u32(2).text("A.Temp").text("none").align(4).array(std::vector<std::uint32_t>{0, 0});
    EXPECT_HEX(call(iidOpcItemIo, 3, request).bytes,
               "04000200 02000000 08000200 0C000200"
               "03000000 00000000 0400 000000000000 04000000 00004841"
               "03000000 00000000 0000 000000000000 00000000"
               "10000200 02000000 C080 0000"
               "14000200 02000000" STAMP
               "00000000 00000000"
               "18000200 02000000 00000000 070004C0 01000000");
    EXPECT_EQ(events_.reads, std::vector<std::int32_t>{1});
    EXPECT_HEX(call(iidOpcItemIo, 3, Request().u32(0).u32(0).u32(0)).bytes,
               "00000000 00000000 00000000 00000000 57000780");
}

TEST_F(OpcWire, RefusesWritesByItemIds) {
    Request request;
    request.u32(1).u32(1).u32(1).text("Flow").align(4).u32(1);
    request.hex("55736572 01000000 C000 0000 01000000 00000000" STAMP).align(8);
    request.hex("04000000 00000000 0500 CCCCCCCCCCCC 05000000 00000000 000000000000D03F");
    EXPECT_HEX(call(iidOpcItemIo, 4, request).bytes, "04000200 01000000 05400080 01000000");
    EXPECT_EQ(events_.writes, std::vector<std::int32_t>{1});
    EXPECT_HEX(call(iidOpcItemIo, 4, Request().u32(0).u32(0).u32(0)).bytes, "00000000 57000780");
}

}  // namespace
}  // namespace quelm::opcda::wire::test
