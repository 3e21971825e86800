// Requests cut short, with counts out of all proportion, or for methods that don't exist: each is refused without
// harm, and the next call finds everything as it was.

#include <map>

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

class HostileStub : public OpcWire {
 protected:
    struct Method {
        dcom::orpc::ComObject* object;
        dcom::Uuid iid;
        std::uint16_t opnum;
        Bytes stub;  // of which every byte is needed
    };

    void method(dcom::orpc::ComObject& object, const dcom::Uuid& iid, std::uint16_t opnum, const Request& request) {
        methods_.push_back({&object, iid, opnum, request.bytes()});
    }

    HostileStub() {
        group_ = addGroup("g").first;
        handles_ = addItems(*group_, {"A.Temp", "Name"});
        call(iidOpcServer, 8, Request().u16(6).uuid(iidEnumString));
        names_ = context_.written.back().object;
        const std::string variants =
            "03000000 00000000 0300 CCCCCCCCCCCC 03000000 05000000"
            "05000000 00000000 0800 CCCCCCCCCCCC 08000000 55736572 01000000 02000000 01000000 4100";

        method(*server_, iidOpcServer, 3,
               Request().text("n").u32(1).u32(1).u32(1).u32(1).u32(60).u32(1).f32(1).u32(9).uuid(iidOpcItemMgt));
        method(*server_, iidOpcServer, 4, Request().u32(0).u32(0));
        method(*server_, iidOpcServer, 5, Request().text("g").uuid(iidOpcItemMgt));
        method(*server_, iidOpcServer, 7, Request().u32(99).u32(0));
        method(*server_, iidOpcServer, 8, Request().u16(1).uuid(iidEnumString));
        method(*server_, iidOpcBrowseServerAddressSpace, 4, Request().u16(3).text(""));
        method(*server_, iidOpcBrowseServerAddressSpace, 5, Request().u16(3).text("").u16(0).u32(0));
        method(*server_, iidOpcBrowseServerAddressSpace, 6, Request().text("Flow"));
        method(*server_, iidOpcBrowseServerAddressSpace, 7, Request().text("Flow"));
        method(*server_, iidOpcCommon, 3, Request().u32(0x409));
        method(*server_, iidOpcCommon, 6, Request().u32(1));
        method(*server_, iidOpcCommon, 7, Request().text("me"));
        method(*server_, iidOpcItemProperties, 3, Request().text("Flow"));
        method(*server_, iidOpcItemProperties, 4, Request().text("Flow").counted(handles_));
        method(*server_, iidOpcItemProperties, 5, Request().text("Flow").counted(handles_));
        method(*server_, iidOpcItemIo, 3, Request().u32(1).u32(1).u32(1).text("Flow").u32(1).u32(0));
        method(*server_, iidOpcItemIo, 4,
               Request()
                   .u32(1)
                   .u32(1)
                   .u32(1)
                   .text("Flow")
                   .u32(1)
                   .hex("01000000")
                   .hex(std::string(48, '0'))
                   .align(8)
                   .hex("03000000 00000000 0300 CCCCCCCCCCCC 03000000 05000000"));
        Request definitions;
        writeDefinitions(definitions, {"Flow", "Switch"});
        method(*group_, iidOpcItemMgt, 3, definitions);
        method(*group_, iidOpcItemMgt, 4, definitions.u32(0));
        method(*group_, iidOpcItemMgt, 5, Request().counted(Handles{1, 2}));
        method(*group_, iidOpcItemMgt, 6, Request().counted(handles_).u32(1));
        method(*group_, iidOpcItemMgt, 7, Request().counted(handles_).array(handles_));
        method(*group_, iidOpcItemMgt, 8, Request().counted(handles_).u32(2).u16(5).u16(8));
        method(*group_, iidOpcItemMgt, 9, Request().uuid(iidEnumOpcItemAttributes));
        method(*group_, iidOpcSyncIo, 3, Request().u16(1).counted(handles_));
        method(*group_, iidOpcSyncIo, 4, Request().counted(handles_).u32(2).u32(1).u32(2).align(8).hex(variants));
        method(*group_, iidOpcGroupStateMgt, 4,
               Request().u32(1).u32(1).u32(1).u32(0).u32(1).u32(30).u32(1).f32(2).u32(1).u32(7).u32(1).u32(9));
        method(*group_, iidOpcGroupStateMgt, 5, Request().text("g"));
        method(*group_, iidOpcGroupStateMgt, 6, Request().text("copy").uuid(iidOpcSyncIo));
        method(*names_, iidEnumString, 3, Request().u32(1));
        method(*names_, iidEnumString, 4, Request().u32(1));
    }

    Reply send(const Method& to, std::span<const std::uint8_t> stub) {
        return invoke(*to.object->queryInterface(to.iid), to.opnum, stub, context_);
    }

    using Handles = std::vector<std::uint32_t>;
    std::shared_ptr<dcom::orpc::ComObject> group_;
    std::shared_ptr<dcom::orpc::ComObject> names_;
    Handles handles_;
    std::vector<Method> methods_;
};

TEST_F(HostileStub, CutStubsAreRefusedAndWholeOnesAnswered) {
    for (const Method& each : methods_) {
        SCOPED_TRACE(each.iid.toText() + " " + std::to_string(each.opnum));
        for (std::size_t size = 0; size < each.stub.size(); ++size) {
            // A copy of just that size, so that a sanitizer sees every step beyond it.
            const Bytes cut(each.stub.begin(), each.stub.begin() + static_cast<std::ptrdiff_t>(size));
            EXPECT_EQ(send(each, cut).fault, dcom::faultBadStubData) << size << " bytes";
        }
        const Reply whole = send(each, each.stub);
        EXPECT_EQ(whole.fault, 0U);
        EXPECT_GE(whole.bytes.size(), 4U);
    }
}

// Every 32-bit field in turn becomes a huge number: whatever the answer, it comes and stays small.
TEST_F(HostileStub, HugeCountsAllocateNothing) {
    for (const Method& each : methods_) {
        SCOPED_TRACE(each.iid.toText() + " " + std::to_string(each.opnum));
        for (const std::uint32_t huge : {0xFFFFFFFFU, 0x80000000U, 0x40000001U, 0x00100000U}) {
            for (std::size_t at = 0; at + 4 <= each.stub.size(); at += 2) {
                Bytes stub = each.stub;
                std::memcpy(stub.data() + at, &huge, sizeof huge);
                EXPECT_LT(send(each, stub).bytes.capacity(), 10'000U);
            }
        }
    }
}

// The same long text asked for over and over.
TEST_F(HostileStub, RepliesOutOfAllProportionAreRefused) {
    control_.SLIKTags().Add("Long", 1, std::string(60'000, 'x'), 0xC0, localNow());
    const Handles handles(600, addItems(*group_, {"Long"}).at(0));
    EXPECT_HEX(call(*group_, iidOpcSyncIo, 3, Request().u16(1).counted(handles)).bytes, "00000000 00000000 0E000780");
    EXPECT_HEX(call(*group_, iidOpcSyncIo, 3, Request().u16(1).counted(Handles(2'000'000))).bytes,
               "00000000 00000000 0E000780");
    Request request;
    request.counted(Handles(600, 1));
    for (int i = 0; i < 600; ++i) {
        request.text("Long");
    }
    EXPECT_HEX(call(iidOpcItemIo, 3, request.align(4).array(Handles(600, 0xFFFFFFFF))).bytes,
               "00000000 00000000 00000000 00000000 0E000780");
}

TEST_F(HostileStub, UnknownMethodsAreRefused) {
    const std::map<dcom::Uuid, std::uint16_t> methodCounts{{iidOpcServer, 9},   {iidOpcBrowseServerAddressSpace, 8},
                                                           {iidOpcCommon, 8},   {iidOpcItemProperties, 6},
                                                           {iidOpcItemIo, 5},   {iidOpcItemMgt, 10},
                                                           {iidOpcSyncIo, 5},   {iidOpcGroupStateMgt, 7},
                                                           {iidOpcAsyncIo2, 9}, {iidEnumString, 7}};
    for (const auto& [iid, end] : methodCounts) {
        dcom::orpc::Interface* target = nullptr;
        for (dcom::orpc::ComObject* object :
             std::initializer_list<dcom::orpc::ComObject*>{server_.get(), group_.get(), names_.get()}) {
            target = target != nullptr ? target : object->queryInterface(iid);
        }
        ASSERT_NE(target, nullptr);
        for (const int opnum : {0, 2, int{end}, 0xFFFF}) {
            EXPECT_EQ(invoke(*target, static_cast<std::uint16_t>(opnum), {}, context_).fault, dcom::faultOpnumRange);
        }
    }
}

}  // namespace
}  // namespace quelm::opcda::wire::test
