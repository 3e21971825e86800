// What clients ask of a group: its items, reading and refused writing, its state.

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

using Handles = std::vector<std::uint32_t>;

// --- IOPCItemMgt ---

TEST_F(OpcWire, AddItemsAnswersResultsAndErrors) {
    const auto group = addGroup("g").first;
    Request request;
    writeDefinitions(request, {"A.Temp", "none"});
    const Reply reply = call(*group, iidOpcItemMgt, 3, request.hex("00000000 00000000 00000000 00000000"));
    dcom::ndr::Reader in = reply.reader();
    in.bytes(8);
    Request expected;
    expected.hex("04000200 02000000")
        .u32(in.u32())  // the server's handle is its own business
        .hex(
            "0400 0000 01000000 00000000 00000000"
            "00000000 0000 0000 00000000 00000000 00000000"
            "08000200 02000000 00000000 070004C0 01000000");
    EXPECT_EQ(toHex(reply.bytes), toHex(expected.bytes()));
}

// Access path null or without NUL, item IDs null, without NUL, blobs present.
TEST_F(OpcWire, AddItemsTakesEveryFormOfADefinition) {
    const auto group = addGroup("g").first;
    Request request;
    request.u32(4).u32(4);
    request.u32(0).u32(1).u32(1).u32(1).u32(0).u32(0).u16(0).u16(0);
    request.u32(2).u32(3).u32(1).u32(1).u32(3).u32(4).u16(VT_BSTR).u16(0);
    request.u32(2).u32(0).u32(1).u32(1).u32(0).u32(0).u16(0).u16(0);
    request.u32(0).u32(5).u32(1).u32(1).u32(0).u32(0).u16(0x1234).u16(0);
    request.bareText("Flow");
    request.bareText("x").bareText("Switch").u32(3).hex("AABBCC");
    request.text("path");
    request.bareText("Flow");
    const Reply reply = call(*group, iidOpcItemMgt, 3, request);
    dcom::ndr::Reader in = reply.reader();
    in.bytes(8 + 4 * 20);
    EXPECT_TRUE(in.pointer());
    EXPECT_EQ(in.u32(), 4U);
    for (const HResult expected : {S_OK, S_OK, OPC_E_INVALIDITEMID, OPC_E_BADTYPE}) {
        EXPECT_EQ(in.u32(), expected);
    }
    EXPECT_EQ(in.u32(), S_FALSE);
    EXPECT_TRUE(in.good());
}

TEST_F(OpcWire, ValidateItemsAddsNone) {
    const auto group = addGroup("g").first;
    Request request;
    writeDefinitions(request, {"Flow"});
    EXPECT_HEX(call(*group, iidOpcItemMgt, 4, request.align(4).u32(0)).bytes,
               "04000200 01000000 00000000 0500 0000 01000000 00000000 00000000 08000200 01000000 00000000 00000000");
    EXPECT_EQ(call(*group, iidOpcItemMgt, 9, Request().uuid(iidEnumOpcItemAttributes)).result(), S_FALSE);
}

TEST_F(OpcWire, ChangesAndRemovesItemsOneByOne) {
    const auto group = addGroup("g").first;
    const std::uint32_t handle = addItems(*group, {"A.Count"}).at(0);
    const Handles handles{handle, 0xBAD};
    const char* errors = "04000200 02000000 00000000 010004C0 01000000";
    EXPECT_HEX(call(*group, iidOpcItemMgt, 6, Request().counted(handles).u32(0)).bytes, errors);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 7, Request().counted(handles).array(Handles{77, 78})).bytes, errors);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 8, Request().counted(handles).u32(2).u16(VT_R8).u16(VT_R8)).bytes, errors);
    // The new client handle, out of service, 7 as a double.
    EXPECT_HEX(call(*group, iidOpcSyncIo, 3, Request().u16(1).counted(Handles{handle})).bytes,
               "04000200 01000000 4D000000" STAMP
               "1C00 0000 04000040 00000000"
               "04000000 00000000 0500 000000000000 05000000 00000000 0000000000001C40"
               "08000200 01000000 00000000 00000000");
    EXPECT_HEX(call(*group, iidOpcItemMgt, 5, Request().counted(handles)).bytes, errors);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 5, Request().counted(Handles{handle})).bytes,
               "04000200 01000000 010004C0 01000000");
}

// --- IOPCSyncIO ---

TEST_F(OpcWire, ReadsTheCacheInOneReply) {
    const auto group = addGroup("g").first;
    auto handles = addItems(*group, {"A.Temp", "Name", "Flow"});
    handles.insert(handles.begin() + 2, 0xBAD);
    EXPECT_HEX(call(*group, iidOpcSyncIo, 3, Request().u16(1).counted(handles)).bytes,
               "04000200 04000000"
               "64000000" STAMP
               "C080 0000 04000040"  // a quality with the marker bit stays as it is
               "65000000" STAMP
               "4000 0000 08000040"
               "00000000 00000000 00000000 0000 0000 0C000040"  // no such handle
               "66000000" STAMP
               "1800 0000 10000040"
               "03000000 00000000 0400 000000000000 04000000 00004841"
               "05000000 00000000 0800 000000000000 08000000 08000200 02000000 04000000 02000000 4100 6200"
               "03000000 00000000 0000 000000000000 00000000 00000000"
               "04000000 00000000 0500 000000000000 05000000 00000000 000000000000D03F"
               "0C000200 04000000 00000000 00000000 010004C0 00000000 01000000");
    EXPECT_TRUE(events_.reads.empty());
}

TEST_F(OpcWire, ReadsTheDeviceByAskingTheHostOnce) {
    const auto group = addGroup("g", false).first;
    const auto handles = addItems(*group, {"A.Count", "Switch"});
    const Reply reply = call(*group, iidOpcSyncIo, 3, Request().u16(2).counted(handles));
    EXPECT_HEX(reply.bytes,
               "04000200 02000000"
               "64000000" STAMP
               "C000 0000 04000040"
               "65000000" STAMP
               "C000 0000 08000040"
               "03000000 00000000 0300 000000000000 03000000 07000000"
               "03000000 00000000 0B00 000000000000 0B000000 FFFF0000"
               "08000200 02000000 00000000 00000000 00000000");
    EXPECT_EQ(events_.reads, std::vector<std::int32_t>{2});
}

TEST_F(OpcWire, RefusesWritesItemByItem) {
    const auto group = addGroup("g").first;
    auto handles = addItems(*group, {"A.Count", "Name"});
    handles.push_back(0xBAD);
    Request request;
    request.counted(handles).u32(3).u32(0x72657355).u32(0x72657355).u32(0).align(8);
    request.hex("03000000 00000000 0300 CCCCCCCCCCCC 03000000 05000000");
    request.hex("05000000 00000000 0800 CCCCCCCCCCCC 08000000 55736572 01000000 02000000 01000000 4100");
    EXPECT_HEX(call(*group, iidOpcSyncIo, 4, request).bytes, "04000200 03000000 05400080 05400080 010004C0 01000000");
    EXPECT_EQ(events_.writes, std::vector<std::int32_t>{2});
}

TEST_F(OpcWire, CallsWithoutItemsAreInvalid) {
    const auto group = addGroup("g").first;
    const char* one = "00000000 57000780";
    const char* two = "00000000 00000000 57000780";
    const auto none = [] { return Handles(); };
    EXPECT_HEX(call(*group, iidOpcSyncIo, 3, Request().u16(1).counted(none())).bytes, two);
    EXPECT_HEX(call(*group, iidOpcSyncIo, 3, Request().u16(3).counted(Handles{1})).bytes, two);
    EXPECT_HEX(call(*group, iidOpcSyncIo, 4, Request().counted(none()).u32(0)).bytes, one);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 3, Request().counted(none())).bytes, two);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 4, Request().counted(none()).u32(0)).bytes, two);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 5, Request().counted(none())).bytes, one);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 6, Request().counted(none()).u32(1)).bytes, one);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 7, Request().counted(none()).u32(0)).bytes, one);
    EXPECT_HEX(call(*group, iidOpcItemMgt, 8, Request().counted(none()).u32(0)).bytes, one);
}

// --- IOPCGroupStateMgt and IOPCAsyncIO2 ---

TEST_F(OpcWire, SetsOnlyWhatIsGiven) {
    const auto group = addGroup("g").first;
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 4, Request().u32(0).u32(0).u32(0).u32(0).u32(0).u32(0)).bytes,
               "E8030000 00000000");
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 4,
                    Request().u32(1).u32(1).u32(1).u32(0).u32(1).u32(30).u32(1).f32(2.5F).u32(1).u32(7).u32(1).u32(9))
                   .bytes,
               "64000000 0D000400");
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 5, Request().text("h")).bytes, "00000000");
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 3, Request()).bytes,
               "64000000 00000000 04000200 02000000 00000000 02000000 6800 0000"
               "1E000000 00002040 07000000 09000000 01000000 00000000");
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 4, Request().u32(0).u32(0).u32(0).u32(1).f32(-1).u32(0).u32(0)).bytes,
               "64000000 57000780");
}

TEST_F(OpcWire, ClonesAGroupIntoOneOfItsOwn) {
    const auto group = addGroup("g").first;
    addItems(*group, {"Flow"});
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 6, Request().text("copy").uuid(iidOpcSyncIo)).bytes,
               "04000200 04000000 04000000 4D454F57 00000000");
    const auto clone = context_.written.back().object;
    EXPECT_NE(clone, group);
    EXPECT_EQ(call(*clone, iidOpcItemMgt, 9, Request().uuid(iidEnumOpcItemAttributes)).result(), S_OK);
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 6, Request().text("copy").uuid(iidOpcSyncIo)).bytes,
               "00000000 0C0004C0");
    EXPECT_HEX(call(*group, iidOpcGroupStateMgt, 6, Request().text("third").uuid(iidEnumString)).bytes,
               "00000000 02400080");
    EXPECT_EQ(server_->server()->groupCount(), 2U);
}

TEST_F(OpcWire, SaysThatCallbacksAreNotImplemented) {
    const auto group = addGroup("g").first;
    for (const auto& [opnum, reply] : {std::pair{3, "00000000 00000000 01400080"},
                                       {4, "00000000 00000000 01400080"},
                                       {5, "00000000 01400080"},
                                       {6, "01400080"},
                                       {7, "01400080"},
                                       {8, "00000000 01400080"}}) {
        EXPECT_HEX(call(*group, iidOpcAsyncIo2, static_cast<std::uint16_t>(opnum), Request()).bytes, reply) << opnum;
    }
}

}  // namespace
}  // namespace quelm::opcda::wire::test
