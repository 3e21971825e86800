// Requests cut short, with counts out of all proportion, or for methods that don't exist: each is refused without
// harm, and the next call finds everything as it was.

#include <map>

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

class HostileStub : public OpcWire {
 protected:
    HostileStub() {
        handle_ = addGroup("g");
        handles_ = addItems({"A.Temp", "Name"});
        call(OpcServer::CreateGroupEnumerator, Parameters().u16(6).uuid(iidEnumString));
        others_.push_back(context_.written.back());
        call(*group_, ConnectionPointContainer::FindConnectionPoint, Parameters().uuid(iidOpcDataCallback));
        others_.push_back(context_.written.back());
        others_.push_back(std::make_shared<ServerListObject>(Hold()));
    }

    struct Request : Method {
        Parameters stub;  // of which every byte is needed
    };

    std::vector<Request> requests() const {
        std::vector<Request> requests = ownRequests();
        const std::map<Uuid, Uuid> derived{{iidOpcSyncIo, iidOpcSyncIo2},
                                           {iidOpcAsyncIo2, iidOpcAsyncIo3},
                                           {iidOpcGroupStateMgt, iidOpcGroupStateMgt2}};
        for (std::size_t i = requests.size(); i-- > 0;) {
            if (const auto found = derived.find(requests[i].iid); found != derived.end()) {
                requests.push_back(Request{{found->second, requests[i].opnum}, requests[i].stub});
            }
        }
        return requests;
    }
    // Without those that an interface has from another.
    std::vector<Request> ownRequests() const {
        const auto all = [] { return Parameters(); };
        const std::vector<Uuid> kinds{iidOpcServer};
        const Parameters definitions = OpcWire::definitions({"Flow", "Switch"});
        const std::string number = "03000000 00000000 0300 CCCCCCCCCCCC 03000000 05000000";
        const std::string text =
            "05000000 00000000 0800 CCCCCCCCCCCC 08000000 55736572 01000000 02000000 01000000 4100";
        return {
            {OpcServer::AddGroup,
             all().text("n").u32(1).u32(1).u32(1).u32(1).u32(60).u32(1).f32(1).u32(9).uuid(iidOpcItemMgt)},
            {OpcServer::GetErrorString, all().u32(0).u32(0)},
            {OpcServer::GetGroupByName, all().text("g").uuid(iidOpcItemMgt)},
            {OpcServer::RemoveGroup, all().u32(99).u32(0)},
            {OpcServer::CreateGroupEnumerator, all().u16(1).uuid(iidEnumString)},
            {Browse::ChangeBrowsePosition, all().u16(3).text("")},
            {Browse::BrowseOpcItemIds, all().u16(3).text("").u16(0).u32(0)},
            {Browse::GetItemId, all().text("Flow")},
            {Browse::BrowseAccessPaths, all().text("Flow")},
            {Common::SetLocaleId, all().u32(0x409)},
            {Common::GetErrorString, all().u32(1)},
            {Common::SetClientName, all().text("me")},
            {ItemProperties::QueryAvailableProperties, all().text("Flow")},
            {ItemProperties::GetItemProperties, all().text("Flow").counted(handles_)},
            {ItemProperties::LookupItemIds, all().text("Flow").counted(handles_)},
            {ItemIo::Read, all().u32(1).u32(1).u32(1).text("Flow").u32(1).u32(0)},
            {ItemIo::WriteVqt,
             all().u32(1).u32(1).u32(1).text("Flow").u32(1).u32(1).add(Bytes(24)).align(8).hex(number)},
            {Browse3::GetProperties, all().u32(1).u32(1).u32(1).text("Flow").align(4).u32(1).counted(handles_)},
            {Browse3::Browse,
             all().text("A").u32(1).text("").u32(1).u16(1).text("").text("").u32(1).u32(1).counted(handles_)},
            {ItemMgt::AddItems, definitions},
            {ItemMgt::ValidateItems, Parameters(definitions).u32(0)},
            {ItemMgt::RemoveItems, all().counted(Handles{1, 2})},
            {ItemMgt::SetActiveState, all().counted(handles_).u32(1)},
            {ItemMgt::SetClientHandles, all().counted(handles_).array(handles_)},
            {ItemMgt::SetDatatypes, all().counted(handles_).u32(2).u16(5).u16(8)},
            {ItemMgt::CreateEnumerator, all().uuid(iidEnumOpcItemAttributes)},
            {SyncIo::Read, all().u16(1).counted(handles_)},
            {SyncIo::Write, all().counted(handles_).u32(2).u32(1).u32(2).align(8).hex(number).hex(text)},
            {AsyncIo2::Read, all().counted(handles_).u32(7)},
            {AsyncIo2::Write,
             all().counted(handles_).u32(2).u32(1).u32(2).align(8).hex(number).hex(text).align(4).u32(7)},
            {AsyncIo2::Refresh2, all().u16(1).u32(7)},
            {AsyncIo2::Cancel2, all().u32(1)},
            {AsyncIo2::SetEnable, all().u32(1)},
            {SyncIo2::ReadMaxAge, all().counted(handles_).array(handles_)},
            {SyncIo2::WriteVqt, all().counted(handles_).u32(2).u32(1).add(Bytes(52)).align(8).hex(number)},
            {AsyncIo3::ReadMaxAge, all().counted(handles_).array(handles_).u32(7)},
            {AsyncIo3::WriteVqt, all().counted(handles_).u32(2).u32(1).add(Bytes(52)).align(8).hex(number).u32(7)},
            {AsyncIo3::RefreshMaxAge, all().u32(0).u32(7)},
            {AsyncIo::Read, all().u32(1).u16(1).counted(handles_)},
            {AsyncIo::Write, all().u32(1).counted(handles_).u32(2).u32(1).u32(2).align(8).hex(number).hex(text)},
            {AsyncIo::Refresh, all().u32(1).u16(1)},
            {AsyncIo::Cancel, all().u32(1)},
            {DataObject::DAdvise, all()
                                      .u32(1)
                                      .u32(1)
                                      .hex("01000000 FFFFFFFF 01000000 57647452 01000000")
                                      .text("OPCSTMFORMATDATA")
                                      .align(4)
                                      .hex("02000000 0E000000 0000 0000 0000 0000 0000")
                                      .u32(2)
                                      .u32(1)
                                      .u32(8)
                                      .u32(8)
                                      .hex("4D454F57 01000000")},
            {DataObject::DUnadvise, all().u32(1)},
            {ItemDeadbandMgt::SetItemDeadband, all().counted(handles_).array(handles_)},
            {ItemDeadbandMgt::GetItemDeadband, all().counted(handles_)},
            {ItemDeadbandMgt::ClearItemDeadband, all().counted(handles_)},
            {ItemSamplingMgt::SetItemSamplingRate, all().counted(handles_).array(handles_)},
            {ItemSamplingMgt::GetItemSamplingRate, all().counted(handles_)},
            {ItemSamplingMgt::ClearItemSamplingRate, all().counted(handles_)},
            {ItemSamplingMgt::SetItemBufferEnable, all().counted(handles_).array(handles_)},
            {ItemSamplingMgt::GetItemBufferEnable, all().counted(handles_)},
            {DataObject::QueryGetData,
             all().hex("72657355 00000000 01000000 FFFFFFFF 01000000 57647452 23C10000").text("OPCSTMFORMATDATA")},
            {DataObject::EnumFormatEtc, all().u32(1)},
            {ConnectionPointContainer::FindConnectionPoint, all().uuid(iidOpcDataCallback)},
            {{iidConnectionPoint, ConnectionPoint::Advise}, all().u32(1).u32(8).u32(8).hex("4D454F57 01000000")},
            {{iidConnectionPoint, ConnectionPoint::Unadvise}, all().u32(1)},
            {GroupStateMgt::SetState,
             all().u32(1).u32(1).u32(1).u32(0).u32(1).u32(30).u32(1).f32(2).u32(1).u32(7).u32(1).u32(9)},
            {GroupStateMgt::SetName, all().text("g")},
            {GroupStateMgt::CloneGroup, all().text("copy").uuid(iidOpcSyncIo)},
            {GroupStateMgt2::SetKeepAlive, all().u32(1000)},
            {{iidOpcServerList, 3}, all().u32(1).array(kinds).u32(1).array(kinds)},
            {{iidOpcServerList, 4}, all().uuid(iidOpcServer)},
            {{iidOpcServerList, 5}, all().text("x")},
            {{iidOpcServerList2, 3}, all().u32(1).array(kinds).u32(1).array(kinds)},
            {{iidOpcServerList2, 4}, all().uuid(iidOpcServer)},
            {{iidOpcServerList2, 5}, all().text("x")},
            {{iidEnumString, Enumeration::Next}, all().u32(1)},
            {{iidEnumString, Enumeration::Skip}, all().u32(1)},
        };
    }

    Reply send(const Method& to, std::span<const std::uint8_t> stub) {
        const auto has = [&](const Object& object) { return object->queryInterface(to.iid) != nullptr; };
        const auto other = std::ranges::find_if(others_, has);
        return other != others_.end() ? call(**other, to, stub) : call(to, stub);
    }

    std::uint32_t handle_ = 0;
    std::vector<Object> others_;
    Handles handles_;
};

TEST_F(HostileStub, CutStubsAreRefusedAndWholeOnesAnswered) {
    for (const Request& each : requests()) {
        SCOPED_TRACE(::testing::Message() << each);
        const Bytes& stub = each.stub.bytes();
        for (std::size_t size = 0; size < stub.size(); ++size) {
            // A copy of just that size, so that a sanitizer sees every step beyond it.
            const Bytes cut(stub.begin(), stub.begin() + static_cast<std::ptrdiff_t>(size));
            EXPECT_EQ(send(each, cut).fault, Fault::BadStubData) << size << " bytes";
        }
        const Reply whole = send(each, stub);
        EXPECT_EQ(whole.fault, Fault::None);
        EXPECT_GE(whole.bytes.size(), 4U);
        for (const std::uint16_t opnum : {0, 2, 12, 0xFFFF}) {
            EXPECT_EQ(send({each.iid, opnum}, {}).fault, Fault::OpnumRange);
        }
    }
}

// Whoever adds a method with parameters adds its request here; enumerators of all kinds are one.
TEST_F(HostileStub, EveryMethodThatTakesParametersIsAmongTheCases) {
    const auto cases = requests();
    for (const InterfaceRow& row : interfaceTable) {
        if (row.name.find("Enum") != std::string_view::npos && row.iid != iidEnumString) {
            continue;
        }
        for (std::uint16_t i = 0; i < row.methods.size(); ++i) {
            const auto opnum = static_cast<std::uint16_t>(dcom::orpc::firstOpnum + i);
            const bool isCase = std::any_of(cases.begin(), cases.end(), [&](const Request& each) {
                return each.is({row.iid, opnum});
            });
            const Fault fault = send({row.iid, opnum}, {}).fault;
            EXPECT_EQ(fault, isCase ? Fault::BadStubData : Fault::None) << row.name << ' ' << row.methods[i];
        }
        const auto behind = static_cast<std::uint16_t>(dcom::orpc::firstOpnum + row.methods.size());
        EXPECT_EQ(send({row.iid, behind}, {}).fault, Fault::OpnumRange) << row.name;
    }
}

// Every 32-bit field in turn becomes a huge number: whatever the answer, it comes and stays small.
TEST_F(HostileStub, HugeCountsAllocateNothing) {
    for (const Request& each : requests()) {
        SCOPED_TRACE(::testing::Message() << each);
        for (const std::uint32_t huge : {0xFFFFFFFFU, 0x80000000U, 0x40000001U, 0x00100000U}) {
            for (std::size_t at = 0; at + 4 <= each.stub.bytes().size(); at += 2) {
                Bytes stub = each.stub.bytes();
                std::memcpy(stub.data() + at, &huge, sizeof huge);
                EXPECT_LT(send(each, stub).bytes.capacity(), 10'000U);
            }
        }
    }
}

TEST_F(HostileStub, ARemovedGroupAnswersEverythingWithFailure) {
    const Parameters removal = Parameters().u32(handle_).u32(1);
    EXPECT_HEX(call(OpcServer::RemoveGroup, removal).bytes, "00000000");
    EXPECT_HEX(call(OpcServer::RemoveGroup, removal).bytes, "57000780");
    for (const Request& each : ownRequests()) {
        if (group_->queryInterface(each.iid) != nullptr) {
            SCOPED_TRACE(::testing::Message() << each);
            const bool hasTwo =
                each.is(SyncIo::Read) || each.is(ItemMgt::AddItems) || each.is(ItemMgt::ValidateItems) ||
                each.is(AsyncIo2::Read) || each.is(AsyncIo2::Write) || each.is(AsyncIo3::ReadMaxAge) ||
                each.is(AsyncIo3::WriteVqt) || each.is(ItemDeadbandMgt::GetItemDeadband) ||
                each.is(ItemSamplingMgt::SetItemSamplingRate) || each.is(ItemSamplingMgt::GetItemSamplingRate) ||
                each.is(ItemSamplingMgt::GetItemBufferEnable) || each.is(AsyncIo::Read) || each.is(AsyncIo::Write);
            const bool hasNone = each.is(GroupStateMgt::SetName) || each.is(AsyncIo2::Cancel2) ||
                                 each.is(AsyncIo2::SetEnable) || each.is(AsyncIo::Cancel) ||
                                 each.is(DataObject::DUnadvise) || each.is(DataObject::QueryGetData);
            // Null pointers for what would be given.
            const Bytes nothing(each.is(SyncIo2::ReadMaxAge) ? 16 : hasTwo ? 8 : hasNone ? 0 : 4);
            EXPECT_HEX(send(each, each.stub).bytes, Parameters().add(nothing).hresult(E_FAIL));
        }
    }
    EXPECT_HEX(call(GroupStateMgt::GetState, {}).bytes, Parameters().add(Bytes(32)).hresult(E_FAIL));
    EXPECT_HEX(call(GroupStateMgt2::GetKeepAlive, {}).bytes, "00000000 05400080");
    EXPECT_HEX(call(AsyncIo2::GetEnable, {}).bytes, "00000000 05400080");
    EXPECT_HEX(call(ConnectionPointContainer::EnumConnectionPoints, {}).bytes, "00000000 05400080");
}

// The same long text asked for over and over.
TEST_F(HostileStub, RepliesOutOfAllProportionAreRefused) {
    control_.SLIKTags().Add("Long", 1, std::string(60'000, 'x'), quality::good, localNow());
    const Handles handles(600, addItems({"Long"}).at(0));
    for (const Handles& wanted : {handles, Handles(2'000'000)}) {
        EXPECT_HEX(call(SyncIo::Read, Parameters().u16(1).counted(wanted)).bytes, "00000000 00000000 0E000780");
    }
    Parameters byId;
    byId.counted(Handles(600, 1));
    for (int i = 0; i < 600; ++i) {
        byId.text("Long");
    }
    EXPECT_HEX(call(ItemIo::Read, byId.align(4).array(Handles(600, 0xFFFFFFFF))).bytes,
               "00000000 00000000 00000000 00000000 0E000780");
}

}  // namespace
}  // namespace quelm::opcda::wire::test
