// IOPCBrowse byte for byte: elements and properties as structures, and behind them what they point to.

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

// At the top, with these properties and their values; another number of properties than ids: all.
Parameters browsing(std::string_view point, std::uint32_t most, const Handles& ids, bool all = false) {
    Parameters request;
    request.text("").u32(0x72657355).text(point).u32(most).u16(1).text("").text("");
    return request.u32(all ? 1 : 0).u32(1).counted(ids);
}

std::string pointIn(const Reply& reply) {
    dcom::ndr::Reader in = reply.reader();
    in.u32();
    return in.wideString();
}

// A property that is no item, with its text, and a value.
void addProperty(Parameters& expected, std::string_view text, std::string_view value) {
    expected.text("").text(text).align(8).hex(value);
}

const std::string_view nothing = "03000000 00000000 0000 000000000000 00000000";

TEST_F(OpcWire, BrowsesElementsInPortionsWithTheirProperties) {
    const Reply first = call(Browse3::Browse, browsing("", 2, {2, 99}));
    Parameters expected;
    expected.u32(0x20004).text(pointIn(first)).align(4);
    expected.hex("00000000 02000000 08000200 02000000");                                      // two, and no others
    expected.hex("04000040 08000040 01000000 00000000 00000000 00000000 00000000 00000000");  // a branch
    expected.hex("0C000040 10000040 02000000 00000000 01000000 02000000 2C000040 00000000");  // an item
    expected.text("A").text("A").text("Flow").text("Flow").align(4);
    expected.hex("02000000 0500 0000 02000000 14000040 18000040 1C000040 00000000 00000000");
    expected.hex("0000 0000 63000000 20000040 24000040 28000040 030204C0 00000000");
    addProperty(expected, "Item Value", "04000000 00000000 0500 000000000000 05000000 00000000 000000000000D03F");
    addProperty(expected, "", nothing);
    EXPECT_HEX(first.bytes, expected.hex("01000000"));

    const Reply rest = call(Browse3::Browse, browsing(pointIn(first), 2, {1}));
    expected = Parameters();
    expected.hex("04000200 01000000 00000000 01000000 0000 0000 00000000 02000000 08000200 02000000");
    expected.hex("04000040 08000040 02000000 00000000 00000000 01000000 18000040 00000000");
    expected.hex("1C000040 20000040 02000000 00000000 00000000 01000000 30000040 00000000");
    const std::string_view type = "Item Canonical DataType";
    expected.text("Name").text("Name").align(4);
    expected.hex("01000000 0200 0000 01000000 0C000040 10000040 14000040 00000000 00000000");
    addProperty(expected, type, "03000000 00000000 0200 000000000000 02000000 0800");
    expected.align(4).text("Switch").text("Switch");
    expected.align(4).hex("01000000 0200 0000 01000000 24000040 28000040 2C000040 00000000 00000000");
    addProperty(expected, type, "03000000 00000000 0200 000000000000 02000000 0B00 0000 00000000");
    EXPECT_HEX(rest.bytes, expected);

    const std::string empty = "04000200 01000000 00000000 01000000 0000 0000";
    EXPECT_HEX(
        call(Browse3::Browse, Parameters().text("Flow").u32(0).u32(0).u16(1).text("").text("").align(4).add(Bytes(16)))
            .bytes,
        empty + "00000000 00000000 00000000 00000000");
    EXPECT_HEX(call(Browse3::Browse, browsing("nonsense", 0, {})).bytes,
               "00000000 00000000 00000000 00000000 030404C0");
}

// Without a limit of the client's there is still that of its budget: the rest comes by the continuation point.
TEST_F(OpcWire, APortionIsBoundedByWhatTheClientHasLeft) {
    const auto budget = application_.budgets().of("PLANT\\reader", "192.0.2.7");
    server_ = std::make_shared<OpcServerObject>(application_, outgoing_, budget);
    const Variant text(std::string(20'000, 'x'));
    control_.SLIKTags().Item("Name").SetVQT(text, quality::good, localNow());
    control_.SLIKTags().Add("Text", 1, text, quality::good, localNow());
    Hold rest = memoryOf(budget);
    rest.set(budget->memory.room());
    const std::string pointOfName = pointIn(call(Browse3::Browse, browsing("", 2, {})));
    Reply reply = call(Browse3::Browse, browsing("", 0, {2}));
    EXPECT_EQ(reply.result(), S_OK);
    reply = call(Browse3::Browse, browsing(pointIn(reply), 0, {2}));
    EXPECT_EQ(reply.result(), S_OK);
    EXPECT_EQ(pointIn(reply), "");
    EXPECT_HEX(call(Browse3::Browse, browsing(pointOfName, 0, {2, 2})).bytes,
               "00000000 00000000 00000000 00000000 0E000780");
    EXPECT_HEX(
        call(Browse3::GetProperties, Parameters().u32(1).u32(1).u32(1).text("Name").u32(1).counted(Handles{2, 2}))
            .bytes,
        "00000000 0E000780");
}

TEST_F(OpcWire, GivesThePropertiesOfSeveralItems) {
    const auto request = [](std::uint32_t withValues, const Handles& ids) {
        Parameters parameters;
        parameters.u32(2).u32(2).u32(1).u32(2).text("no").text("A.Temp").align(4);
        return parameters.u32(withValues).counted(ids);
    };
    Parameters expected;
    expected.hex("04000200 02000000 070004C0 00000000 00000000 00000000 00000000 01000000 10000040 00000000");
    expected.hex("01000000 0400 0000 02000000 04000040 08000040 0C000040 00000000 00000000");
    addProperty(expected, "Item Value", nothing);
    EXPECT_HEX(call(Browse3::GetProperties, request(0, {2})).bytes, expected.hex("01000000"));
    const Reply all = call(Browse3::GetProperties, request(1, {}));
    EXPECT_EQ(all.result(), S_FALSE);
    EXPECT_EQ(all.bytes.at(28), 7) << "all that there are";
    EXPECT_HEX(call(Browse3::GetProperties, Bytes(20)).bytes, "00000000 57000780");
}

}  // namespace
}  // namespace quelm::opcda::wire::test
