// Requests cut short, with counts out of all proportion, or for methods that don't exist: each is refused without
// harm, and the next call finds everything as it was.

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

class HostileStub : public OpcWire {
 protected:
    HostileStub() {
        handle_ = addGroup("g");
        handles_ = addItems({"A.Temp", "Name"});
        call(iidOpcServer, 8, Parameters().u16(6).uuid(iidEnumString));
        names_ = context_.written.back();
    }

    struct Method {
        dcom::Uuid iid;
        std::uint16_t opnum;
        Parameters stub;  // of which every byte is needed
    };

    std::vector<Method> methods() const {
        const auto all = [] { return Parameters(); };
        const Parameters definitions = OpcWire::definitions({"Flow", "Switch"});
        const std::string number = "03000000 00000000 0300 CCCCCCCCCCCC 03000000 05000000";
        const std::string text =
            "05000000 00000000 0800 CCCCCCCCCCCC 08000000 55736572 01000000 02000000 01000000 4100";
        const dcom::Uuid browse = iidOpcBrowseServerAddressSpace;
        return {
            {iidOpcServer, 3,
             all().text("n").u32(1).u32(1).u32(1).u32(1).u32(60).u32(1).f32(1).u32(9).uuid(iidOpcItemMgt)},
            {iidOpcServer, 4, all().u32(0).u32(0)},
            {iidOpcServer, 5, all().text("g").uuid(iidOpcItemMgt)},
            {iidOpcServer, 7, all().u32(99).u32(0)},
            {iidOpcServer, 8, all().u16(1).uuid(iidEnumString)},
            {browse, 4, all().u16(3).text("")},
            {browse, 5, all().u16(3).text("").u16(0).u32(0)},
            {browse, 6, all().text("Flow")},
            {browse, 7, all().text("Flow")},
            {iidOpcCommon, 3, all().u32(0x409)},
            {iidOpcCommon, 6, all().u32(1)},
            {iidOpcCommon, 7, all().text("me")},
            {iidOpcItemProperties, 3, all().text("Flow")},
            {iidOpcItemProperties, 4, all().text("Flow").counted(handles_)},
            {iidOpcItemProperties, 5, all().text("Flow").counted(handles_)},
            {iidOpcItemIo, 3, all().u32(1).u32(1).u32(1).text("Flow").u32(1).u32(0)},
            {iidOpcItemIo, 4,
             all().u32(1).u32(1).u32(1).text("Flow").u32(1).u32(1).add(Bytes(24)).align(8).hex(number)},
            {iidOpcItemMgt, 3, definitions},
            {iidOpcItemMgt, 4, Parameters(definitions).u32(0)},
            {iidOpcItemMgt, 5, all().counted(Handles{1, 2})},
            {iidOpcItemMgt, 6, all().counted(handles_).u32(1)},
            {iidOpcItemMgt, 7, all().counted(handles_).array(handles_)},
            {iidOpcItemMgt, 8, all().counted(handles_).u32(2).u16(5).u16(8)},
            {iidOpcItemMgt, 9, all().uuid(iidEnumOpcItemAttributes)},
            {iidOpcSyncIo, 3, all().u16(1).counted(handles_)},
            {iidOpcSyncIo, 4, all().counted(handles_).u32(2).u32(1).u32(2).align(8).hex(number).hex(text)},
            {iidOpcGroupStateMgt, 4,
             all().u32(1).u32(1).u32(1).u32(0).u32(1).u32(30).u32(1).f32(2).u32(1).u32(7).u32(1).u32(9)},
            {iidOpcGroupStateMgt, 5, all().text("g")},
            {iidOpcGroupStateMgt, 6, all().text("copy").uuid(iidOpcSyncIo)},
            {iidEnumString, 3, all().u32(1)},
            {iidEnumString, 4, all().u32(1)},
        };
    }

    Reply send(const Method& to, std::span<const std::uint8_t> stub) {
        return to.iid == iidEnumString ? call(*names_, to.iid, to.opnum, stub) : call(to.iid, to.opnum, stub);
    }

    std::uint32_t handle_ = 0;
    Object names_;
    Handles handles_;
};

TEST_F(HostileStub, CutStubsAreRefusedAndWholeOnesAnswered) {
    for (const Method& each : methods()) {
        SCOPED_TRACE(each.iid.toText() + " " + std::to_string(each.opnum));
        const Bytes& stub = each.stub.bytes();
        for (std::size_t size = 0; size < stub.size(); ++size) {
            // A copy of just that size, so that a sanitizer sees every step beyond it.
            const Bytes cut(stub.begin(), stub.begin() + static_cast<std::ptrdiff_t>(size));
            EXPECT_EQ(send(each, cut).fault, dcom::faultBadStubData) << size << " bytes";
        }
        const Reply whole = send(each, stub);
        EXPECT_EQ(whole.fault, 0U);
        EXPECT_GE(whole.bytes.size(), 4U);
        for (const std::uint16_t opnum : {0, 2, 10, 0xFFFF}) {
            EXPECT_EQ(send({each.iid, opnum, {}}, {}).fault, dcom::faultOpnumRange);
        }
    }
}

// Whoever adds a method with parameters adds its request here; enumerators of all kinds are one.
TEST_F(HostileStub, EveryMethodThatTakesParametersIsAmongTheCases) {
    const auto cases = methods();
    for (const InterfaceRow& row : interfaceTable) {
        if (row.iid == iidEnumUnknown || row.iid == iidEnumOpcItemAttributes) {
            continue;
        }
        for (std::uint16_t i = 0; i < row.methods.size(); ++i) {
            const auto opnum = static_cast<std::uint16_t>(firstOpnum + i);
            const bool isCase = std::any_of(cases.begin(), cases.end(), [&](const Method& each) {
                return each.iid == row.iid && each.opnum == opnum;
            });
            const std::uint32_t fault = send({row.iid, opnum, {}}, {}).fault;
            EXPECT_EQ(fault, isCase ? dcom::faultBadStubData : 0) << row.name << ' ' << row.methods[i];
        }
        const auto behind = static_cast<std::uint16_t>(firstOpnum + row.methods.size());
        EXPECT_EQ(send({row.iid, behind, {}}, {}).fault, dcom::faultOpnumRange) << row.name;
    }
}

// Every 32-bit field in turn becomes a huge number: whatever the answer, it comes and stays small.
TEST_F(HostileStub, HugeCountsAllocateNothing) {
    for (const Method& each : methods()) {
        SCOPED_TRACE(each.iid.toText() + " " + std::to_string(each.opnum));
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
    EXPECT_HEX(call(iidOpcServer, 7, removal).bytes, "00000000");
    EXPECT_HEX(call(iidOpcServer, 7, removal).bytes, "57000780");
    for (const Method& each : methods()) {
        if (group_->queryInterface(each.iid) != nullptr) {
            SCOPED_TRACE(each.iid.toText() + " " + std::to_string(each.opnum));
            const bool hasTwo = each.opnum == 3 || (each.iid == iidOpcItemMgt && each.opnum == 4);
            const bool hasNone = each.iid == iidOpcGroupStateMgt && each.opnum == 5;
            const Bytes nothing(hasTwo ? 8 : hasNone ? 0 : 4);  // null pointers for what would be given
            EXPECT_HEX(send(each, each.stub).bytes, Parameters().add(nothing).u32(E_FAIL));
        }
    }
    EXPECT_HEX(call(iidOpcGroupStateMgt, 3, {}).bytes, Parameters().add(Bytes(32)).u32(E_FAIL));
    group_->disconnected();
}

// The same long text asked for over and over.
TEST_F(HostileStub, RepliesOutOfAllProportionAreRefused) {
    control_.SLIKTags().Add("Long", 1, std::string(60'000, 'x'), 0xC0, localNow());
    const Handles handles(600, addItems({"Long"}).at(0));
    for (const Handles& wanted : {handles, Handles(2'000'000)}) {
        EXPECT_HEX(call(iidOpcSyncIo, 3, Parameters().u16(1).counted(wanted)).bytes, "00000000 00000000 0E000780");
    }
    Parameters byId;
    byId.counted(Handles(600, 1));
    for (int i = 0; i < 600; ++i) {
        byId.text("Long");
    }
    EXPECT_HEX(call(iidOpcItemIo, 3, byId.align(4).array(Handles(600, 0xFFFFFFFF))).bytes,
               "00000000 00000000 00000000 00000000 0E000780");
}

}  // namespace
}  // namespace quelm::opcda::wire::test
