#include "OPC DA/wire/EnumeratorObjects.h"
#include "OPC DA/wire/Iids.h"
#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

enum Opnum : std::uint16_t { Next = 3, Skip = 4, Reset = 5, Clone = 6 };

class EnumeratorWire : public OpcWire {
 protected:
    // The texts that Next gives, and S_OK or S_FALSE, joined: "a,b,|1".
    std::string next(dcom::orpc::ComObject& object, std::uint32_t wanted) {
        const Reply reply = call(object, iidEnumString, Next, Request().u32(wanted));
        dcom::ndr::Reader in = reply.reader();
        EXPECT_EQ(in.u32(), wanted);
        EXPECT_EQ(in.u32(), 0U);
        const std::uint32_t fetched = in.count(4);
        for (std::uint32_t i = 0; i < fetched; ++i) {
            EXPECT_TRUE(in.pointer());
        }
        std::string joined;
        for (std::uint32_t i = 0; i < fetched; ++i) {
            joined += in.wideString() + ",";
        }
        EXPECT_EQ(in.u32(), fetched);
        joined += "|" + std::to_string(in.u32());
        EXPECT_TRUE(in.good());
        EXPECT_EQ(in.remaining(), 0U);
        return joined;
    }

    std::shared_ptr<EnumString<std::string>> texts_ =
        std::make_shared<EnumString<std::string>>(StringEnumerator({"one", "t", "three"}));
};

TEST_F(EnumeratorWire, NextLaysTextsBehindTheirReferents) {
    const Reply reply = call(*texts_, iidEnumString, Next, Request().u32(2));
    EXPECT_HEX(reply.bytes,
               "02000000 00000000 02000000"                      // wanted, offset, fetched
               "04000200 08000200"                               // referents
               "04000000 00000000 04000000 6F00 6E00 6500 0000"  // "one"
               "02000000 00000000 02000000 7400 0000"            // "t"
               "02000000 00000000");                             // fetched, S_OK
}

TEST_F(EnumeratorWire, WalksAsAskedWhateverTheCount) {
    EXPECT_EQ(next(*texts_, 0), "|0");
    EXPECT_EQ(next(*texts_, 2), "one,t,|0");
    EXPECT_EQ(next(*texts_, 0xFFFFFFFF), "three,|1");
    EXPECT_EQ(next(*texts_, 10), "|1");
    EXPECT_HEX(call(*texts_, iidEnumString, Reset, Request()).bytes, "00000000");
    EXPECT_HEX(call(*texts_, iidEnumString, Skip, Request().u32(1)).bytes, "00000000");
    EXPECT_HEX(call(*texts_, iidEnumString, Clone, Request()).bytes, "04000200 04000000 04000000 4D454F57 00000000");
    EXPECT_HEX(call(*texts_, iidEnumString, Skip, Request().u32(0xFFFFFFFF)).bytes, "01000000");
    EXPECT_EQ(next(*texts_, 1), "|1");
    EXPECT_EQ(next(*context_.written.back().object, 1), "t,|0");
    EXPECT_EQ(call(*texts_, iidEnumString, 7, Request()).fault, dcom::faultOpnumRange);
    EXPECT_EQ(call(*texts_, iidEnumString, Next, Request()).fault, dcom::faultBadStubData);
}

TEST_F(EnumeratorWire, GivesGroupsAsObjectsBehindTheirReferents) {
    const auto first = addGroup("first").first;
    const auto second = addGroup("second").first;
    context_.written.clear();
    call(iidOpcServer, 8, Request().u16(4).uuid(iidEnumUnknown));
    const auto enumerator = context_.written.at(0).object;
    const Reply reply = call(*enumerator, iidEnumUnknown, Next, Request().u32(3));
    EXPECT_HEX(reply.bytes,
               "03000000 00000000 02000000 04000200 08000200"
               "04000000 04000000 4D454F57 04000000 04000000 4D454F57"
               "02000000 01000000");
    EXPECT_EQ(context_.written.at(1).object, first);
    EXPECT_EQ(context_.written.at(2).object, second);
}

TEST_F(EnumeratorWire, DescribesTheItemsOfAGroup) {
    const auto group = addGroup("g").first;
    const auto handles = addItems(*group, {"Name", "Flow"});
    EXPECT_HEX(call(*group, iidOpcItemMgt, 9, Request().uuid(iidEnumOpcItemAttributes)).bytes,
               "04000200 04000000 04000000 4D454F57 00000000");
    const auto enumerator = context_.written.back().object;
    const Reply reply = call(*enumerator, iidEnumOpcItemAttributes, Next, Request().u32(1));
    Request expected;
    expected
        .hex(
            "04000200 01000000"                     // one element
            "08000200 0C000200 01000000 64000000")  // path, ID, active, client handle
        .u32(handles.at(0))
        .hex(
            "01000000 00000000 00000000 0000 0800 0000 0000 10000200"            // rights, blob, types, units
            "01000000 00000000 01000000 0000 0000"                               // "" and padding
            "05000000 00000000 05000000 4E00 6100 6D00 6500 0000 0000 00000000"  // "Name" and padding to 8
            "03000000 00000000 0000 000000000000 00000000"
            "01000000 00000000");
    EXPECT_EQ(toHex(reply.bytes), toHex(expected.bytes()));
    EXPECT_EQ(call(*enumerator, iidEnumOpcItemAttributes, Next, Request().u32(5)).result(), S_FALSE);
}

TEST_F(EnumeratorWire, HasAnEnumeratorForAnEmptyGroupToo) {
    const auto group = addGroup("g").first;
    EXPECT_HEX(call(*group, iidOpcItemMgt, 9, Request().uuid(iidEnumOpcItemAttributes)).bytes,
               "04000200 04000000 04000000 4D454F57 01000000");
    EXPECT_HEX(call(*context_.written.back().object, iidEnumOpcItemAttributes, Next, Request().u32(5)).bytes,
               "04000200 00000000 00000000 01000000");
    EXPECT_HEX(call(*group, iidOpcItemMgt, 9, Request().uuid(iidEnumString)).bytes, "00000000 02400080");
}

}  // namespace
}  // namespace quelm::opcda::wire::test
