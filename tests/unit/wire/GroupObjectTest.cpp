// What clients ask of a group: its items, reading and refused writing, its state.

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

// --- IOPCItemMgt ---

// Access path null or without NUL, item IDs null, without NUL, blobs present.
TEST_F(OpcWire, AddItemsTakesEveryFormOfADefinition) {
    addGroup("g");
    Parameters request;
    request.u32(4).u32(4);
    request.u32(0).u32(1).u32(1).u32(1).u32(0).u32(0).u16(0).u16(0);
    request.u32(2).u32(3).u32(1).u32(1).u32(3).u32(4).u16(VT_BSTR).u16(0);
    request.u32(2).u32(0).u32(1).u32(1).u32(0).u32(0).u16(0).u16(0);
    request.u32(0).u32(5).u32(1).u32(1).u32(0).u32(0).u16(0x1234).u16(0);
    request.text("Flow", false).text("x", false).text("Switch", false).u32(3).hex("AABBCC");
    request.text("path").text("Flow", false);
    const Reply reply = call(ItemMgt::AddItems, request);
    EXPECT_HEX(std::span(reply.bytes).subspan(8 + 4 * 20),
               "08000200 04000000 00000000 00000000 080004C0 040004C0 01000000");
}

TEST_F(OpcWire, ValidateItemsAddsNone) {
    addGroup("g");
    EXPECT_HEX(call(ItemMgt::ValidateItems, definitions({"Flow"}).u32(0)).bytes,
               "04000200 01000000 00000000 0500 0000 01000000 00000000 00000000 08000200 01000000 00000000 00000000");
    EXPECT_EQ(call(ItemMgt::CreateEnumerator, Parameters().uuid(iidEnumOpcItemAttributes)).result(), S_FALSE);
}

TEST_F(OpcWire, ChangesAndRemovesItemsOneByOne) {
    addGroup("g");
    const std::uint32_t handle = addItems({"A.Count"}).at(0);
    const Handles handles{handle, 0xBAD};
    const char* errors = "04000200 02000000 00000000 010004C0 01000000";
    EXPECT_HEX(call(ItemMgt::SetActiveState, Parameters().counted(handles).u32(0)).bytes, errors);
    EXPECT_HEX(call(ItemMgt::SetClientHandles, Parameters().counted(handles).array(Handles{77, 78})).bytes, errors);
    EXPECT_HEX(call(ItemMgt::SetDatatypes, Parameters().counted(handles).u32(2).u16(VT_R8).u16(VT_R8)).bytes, errors);
    // The new client handle, out of service, 7 as a double.
    EXPECT_HEX(call(SyncIo::Read, Parameters().u16(1).counted(Handles{handle})).bytes,
               "04000200 01000000 4D000000" STAMP
               "1C00 0000 04000040 00000000"
               "04000000 00000000 0500 000000000000 05000000 00000000 0000000000001C40"
               "08000200 01000000 00000000 00000000");
    EXPECT_HEX(call(ItemMgt::RemoveItems, Parameters().counted(handles)).bytes, errors);
    EXPECT_HEX(call(ItemMgt::RemoveItems, Parameters().counted(Handles{handle})).bytes,
               "04000200 01000000 010004C0 01000000");
}

// --- IOPCSyncIO ---

TEST_F(OpcWire, ReadsTheCacheInOneReplyAndTheDeviceByAskingTheHostOnce) {
    addGroup("g");
    auto handles = addItems({"A.Temp", "Name", "Flow"});
    handles.insert(handles.begin() + 2, 0xBAD);
    EXPECT_HEX(call(SyncIo::Read, Parameters().u16(1).counted(handles)).bytes,
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
    EXPECT_EQ(call(SyncIo::Read, Parameters().u16(2).counted(handles)).result(), S_FALSE);
    EXPECT_EQ(events_.reads, std::vector<std::int32_t>{3});
}

// Once from the cache alone, once with the device: the same reply, for a text comes as new as the number before it.
TEST_F(OpcWire, ReadsByMaximumAgeInColumns) {
    addGroup("g");
    auto handles = addItems({"A.Temp", "Name", "Flow"});
    handles.insert(handles.begin() + 2, 0xBAD);
    for (const std::uint32_t age : {0xFFFFFFFFU, 0U}) {
        const Parameters request = Parameters().counted(handles).array(Handles{age, 1000, 0, 1000});
        EXPECT_HEX(call(SyncIo2::ReadMaxAge, request).bytes,
                   "04000200 04000000 04000040 08000040 0C000040 10000040"
                   "03000000 00000000 0400 000000000000 04000000 00004841"
                   "05000000 00000000 0800 000000000000 08000000 08000200 02000000 04000000 02000000 4100 6200"
                   "03000000 00000000 0000 000000000000 00000000 00000000"
                   "04000000 00000000 0500 000000000000 05000000 00000000 000000000000D03F"
                   "0C000200 04000000 C080 4000 0000 1800"
                   "10000200 04000000" STAMP STAMP "00000000 00000000" STAMP
                   "14000200 04000000 00000000 00000000 010004C0 00000000 01000000");
        EXPECT_EQ(events_.reads, std::vector<std::int32_t>(age == 0 ? 1 : 0, 1));
    }
    EXPECT_HEX(call(SyncIo2::ReadMaxAge, Bytes(12)).bytes, "00000000 00000000 00000000 00000000 57000780");
}

TEST_F(OpcWire, SupportsNoDeadbandOfAnItem) {
    addGroup("g");
    const Handles handles{addItems({"Flow"}).at(0), 0xBAD};
    const std::string errors = "02000000 010404C0 010004C0 01000000";
    EXPECT_HEX(call(ItemDeadbandMgt::SetItemDeadband, Parameters().counted(handles).u32(2).f32(10).f32(200)).bytes,
               "04000200" + errors);
    EXPECT_HEX(call(ItemDeadbandMgt::GetItemDeadband, Parameters().counted(handles)).bytes,
               "04000200 02000000 00000000 00000000 08000200" + errors);
    EXPECT_HEX(call(ItemDeadbandMgt::ClearItemDeadband, Parameters().counted(handles)).bytes, "04000200" + errors);
}

// Whatever is asked for, items are sampled by the passes.
TEST_F(OpcWire, RevisesSamplingRatesToThatOfThePasses) {
    addGroup("g");
    const Handles handles{addItems({"Flow"}).at(0), 0xBAD};
    const std::string none = "04000200 02000000 00000000 00000000 08000200 02000000 050404C0 010004C0 01000000";
    const std::string revised = "04000200 02000000 204E0000 00000000 08000200 02000000 ";
    const auto asked = [&](std::uint32_t rate) { return Parameters().counted(handles).u32(2).u32(rate).u32(rate); };
    EXPECT_HEX(call(ItemSamplingMgt::GetItemSamplingRate, Parameters().counted(handles)).bytes, none);
    EXPECT_HEX(call(ItemSamplingMgt::SetItemSamplingRate, asked(0)).bytes, revised + "0D000400 010004C0 01000000");
    EXPECT_HEX(call(ItemSamplingMgt::SetItemSamplingRate, asked(20000)).bytes, revised + "00000000 010004C0 01000000");
    EXPECT_HEX(call(ItemSamplingMgt::GetItemSamplingRate, Parameters().counted(handles)).bytes,
               revised + "00000000 010004C0 01000000");
    for (const char* error : {"00000000", "050404C0"}) {
        EXPECT_HEX(call(ItemSamplingMgt::ClearItemSamplingRate, Parameters().counted(handles)).bytes,
                   "04000200 02000000 " + std::string(error) + "010004C0 01000000");
    }
    EXPECT_HEX(call(ItemSamplingMgt::GetItemSamplingRate, Parameters().counted(handles)).bytes, none);
    EXPECT_HEX(call(ItemSamplingMgt::SetItemBufferEnable, asked(1)).bytes, "00000000 020404C0");
    EXPECT_HEX(call(ItemSamplingMgt::GetItemBufferEnable, Parameters().counted(handles)).bytes,
               "00000000 00000000 020404C0");
}

TEST_F(OpcWire, RefusesWritesItemByItem) {
    addGroup("g");
    auto handles = addItems({"A.Count", "Name"});
    handles.push_back(0xBAD);
    Parameters request;
    request.counted(handles).u32(3).u32(0x72657355).u32(0x72657355).u32(0).align(8);
    request.hex("03000000 00000000 0300 CCCCCCCCCCCC 03000000 05000000");
    request.hex("05000000 00000000 0800 CCCCCCCCCCCC 08000000 55736572 01000000 02000000 01000000 4100");
    EXPECT_HEX(call(SyncIo::Write, request).bytes, "04000200 03000000 05400080 05400080 010004C0 01000000");
    Parameters qualitiesAlone;
    qualitiesAlone.counted(handles).u32(3).add(Bytes(3 * 28));
    EXPECT_HEX(call(SyncIo2::WriteVqt, qualitiesAlone).bytes, "04000200 03000000 05400080 05400080 010004C0 01000000");
    EXPECT_EQ(events_.writes, std::vector<std::int32_t>(2, 2));
}

TEST_F(OpcWire, CallsWithoutItemsAreInvalid) {
    addGroup("g");
    for (const ItemMgt method : {ItemMgt::AddItems, ItemMgt::ValidateItems}) {
        EXPECT_HEX(call(method, Bytes(12)).bytes, "00000000 00000000 57000780") << Method(method);
    }
    for (const ItemMgt method :
         {ItemMgt::RemoveItems, ItemMgt::SetActiveState, ItemMgt::SetClientHandles, ItemMgt::SetDatatypes}) {
        EXPECT_HEX(call(method, Bytes(12)).bytes, "00000000 57000780") << Method(method);
    }
    EXPECT_HEX(call(SyncIo::Read, Parameters().u16(1).u32(0).u32(0)).bytes, "00000000 00000000 57000780");
    EXPECT_HEX(call(SyncIo::Read, Parameters().u16(3).counted(Handles{1})).bytes, "00000000 00000000 57000780");
    EXPECT_HEX(call(SyncIo::Write, Parameters().u32(0).u32(0).u32(0)).bytes, "00000000 57000780");
}

// --- IOPCGroupStateMgt ---

TEST_F(OpcWire, SetsOnlyWhatIsGiven) {
    addGroup("g");
    const auto unchanged = [] { return Parameters().u32(0).u32(0).u32(0); };
    EXPECT_HEX(call(GroupStateMgt::SetState, unchanged().add(unchanged())).bytes, "E8030000 00000000");
    Parameters all;
    all.u32(1).u32(1).u32(1).u32(0).u32(1).u32(30).u32(1).f32(2.5F).u32(1).u32(7).u32(1).u32(9);
    EXPECT_HEX(call(GroupStateMgt::SetState, all).bytes, "64000000 0D000400");
    EXPECT_HEX(call(GroupStateMgt::SetName, Parameters().text("h")).bytes, "00000000");
    EXPECT_HEX(call(GroupStateMgt::GetState, {}).bytes,
               "64000000 00000000 04000200 02000000 00000000 02000000 6800 0000"
               "1E000000 00002040 07000000 09000000 01000000 00000000");
    EXPECT_HEX(call(GroupStateMgt::SetState, unchanged().u32(1).f32(-1).u32(0).u32(0)).bytes, "64000000 57000780");
}

TEST_F(OpcWire, ClonesAGroupIntoOneOfItsOwn) {
    addGroup("g");
    addItems({"Flow"});
    const Parameters copy = Parameters().text("copy").uuid(iidOpcSyncIo);
    EXPECT_HEX(call(GroupStateMgt2::GetKeepAlive, {}).bytes, "00000000 00000000");
    EXPECT_HEX(call(GroupStateMgt2::SetKeepAlive, Parameters().u32(99)).bytes, "64000000 0D000400");
    EXPECT_HEX(call(GroupStateMgt::CloneGroup, copy).bytes, interfacePointer + "00000000");
    const Object clone = context_.written.back();
    EXPECT_HEX(call(*clone, GroupStateMgt2::GetKeepAlive, {}).bytes, "64000000 00000000");
    EXPECT_HEX(call(*clone, GroupStateMgt2::SetKeepAlive, Parameters().u32(0)).bytes, "00000000 00000000");
    EXPECT_NE(clone, group_);
    EXPECT_EQ(call(*clone, ItemMgt::CreateEnumerator, Parameters().uuid(iidEnumOpcItemAttributes)).result(), S_OK);
    EXPECT_HEX(call(GroupStateMgt::CloneGroup, copy).bytes, "00000000 0C0004C0");
    EXPECT_HEX(call(GroupStateMgt::CloneGroup, Parameters().text("third").uuid(iidEnumString)).bytes,
               "00000000 02400080");
    EXPECT_EQ(server_->server().groupCount(), 2U);
}

}  // namespace
}  // namespace quelm::opcda::wire::test
