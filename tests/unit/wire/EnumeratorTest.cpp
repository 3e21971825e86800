#include "opcda/wire/EnumeratorObjects.h"

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

using enum Enumeration;

TEST_F(OpcWire, TextsAreWalkedAsAskedWhateverTheCount) {
    EnumString<std::string> texts(StringEnumerator({"one", "t", "three"}));
    const auto expect = [this](dcom::orpc::ComObject& object, Enumeration opnum, std::uint32_t count,
                               const std::string& reply) {
        EXPECT_HEX(call(object, {iidEnumString, opnum}, Parameters().u32(count)).bytes, reply)
            << Method(iidEnumString, opnum) << ": " << count;
    };
    const char* three = "00000000 01000000 04000200 06000000 00000000 06000000 7400 6800 7200 6500 6500 0000 01000000";
    expect(texts, Next, 0, "00000000 00000000 00000000 00000000 00000000");
    expect(texts, Next, 2,
           "02000000 00000000 02000000"                      // wanted, offset, fetched
           "04000200 08000200"                               // referents
           "04000000 00000000 04000000 6F00 6E00 6500 0000"  // "one"
           "02000000 00000000 02000000 7400 0000"            // "t"
           "02000000 00000000");                             // fetched, S_OK
    expect(texts, Next, 0xFFFFFFFF, std::string("FFFFFFFF") + three + "01000000");
    expect(texts, Next, 10, "0A000000 00000000 00000000 00000000 01000000");
    expect(texts, Reset, 0, "00000000");
    expect(texts, Skip, 2, "00000000");
    expect(texts, Clone, 0, interfacePointer + "00000000");
    expect(texts, Skip, 0xFFFFFFFF, "01000000");
    expect(texts, Next, 1, "01000000 00000000 00000000 00000000 01000000");
    expect(*context_.written.back(), Next, 1, std::string("01000000") + three + "00000000");
    EXPECT_EQ(call(texts, {iidEnumString, 7}, {}).fault, Fault::OpnumRange);
    EXPECT_EQ(call(texts, {iidEnumString, Next}, {}).fault, Fault::BadStubData);
}

TEST_F(OpcWire, GroupsAreGivenAsObjectsBehindTheirReferents) {
    addGroup("first");
    const Object first = group_;
    addGroup("second");
    call(OpcServer::CreateGroupEnumerator, Parameters().u16(4).uuid(iidEnumUnknown));
    EXPECT_HEX(call(*context_.written.back(), {iidEnumUnknown, Next}, Parameters().u32(3)).bytes,
               "03000000 00000000 02000000 04000200 08000200"
               "04000000 04000000 4D454F57 04000000 04000000 4D454F57"
               "02000000 01000000");
    EXPECT_EQ(context_.written.at(3), first);
    EXPECT_EQ(context_.written.at(4), group_);
}

TEST_F(OpcWire, TheItemsOfAGroupAreDescribedEvenIfThereAreNone) {
    const Parameters byAttributes = Parameters().uuid(iidEnumOpcItemAttributes);
    addGroup("g");
    EXPECT_HEX(call(ItemMgt::CreateEnumerator, byAttributes).bytes, interfacePointer + "01000000");
    EXPECT_HEX(call(*context_.written.back(), {iidEnumOpcItemAttributes, Next}, Parameters().u32(5)).bytes,
               "04000200 00000000 00000000 01000000");
    EXPECT_HEX(call(ItemMgt::CreateEnumerator, Parameters().uuid(iidEnumString)).bytes, "00000000 57000780");

    const auto handles = addItems({"Name", "Flow"});
    EXPECT_HEX(call(ItemMgt::CreateEnumerator, byAttributes).bytes, interfacePointer + "00000000");
    const Object enumerator = context_.written.back();
    Parameters expected;
    expected.hex("04000200 01000000 08000200 0C000200 01000000 64000000");  // one: path, ID, active, client handle
    expected.u32(handles.at(0))
        .hex(
            "01000000 00000000 00000000 0000 0800 0000 0000 10000200"            // rights, blob, types, units
            "01000000 00000000 01000000 0000 0000"                               // "" and padding
            "05000000 00000000 05000000 4E00 6100 6D00 6500 0000 0000 00000000"  // "Name" and padding to 8
            "03000000 00000000 0000 000000000000 00000000"
            "01000000 00000000");
    EXPECT_HEX(call(*enumerator, {iidEnumOpcItemAttributes, Next}, Parameters().u32(1)).bytes, expected);
    EXPECT_EQ(call(*enumerator, {iidEnumOpcItemAttributes, Next}, Parameters().u32(5)).result(), S_FALSE);
}

}  // namespace
}  // namespace quelm::opcda::wire::test
