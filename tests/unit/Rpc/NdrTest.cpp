#include <gtest/gtest.h>

#include "DCOM/ndr/Reader.h"
#include "DCOM/ndr/Writer.h"
#include "RpcClient.h"

namespace quelm::dcom::rpc::test {
namespace {

struct WideCase {
    const char* name;
    const char* wire;
    const char* text;
    bool good;
};

class WideString : public testing::TestWithParam<WideCase> {};

TEST_P(WideString, IsRead) {
    const Data wire = hex(GetParam().wire);
    ndr::Reader in(wire);
    EXPECT_EQ(in.wideString(), GetParam().text);
    EXPECT_EQ(in.good(), GetParam().good);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, WideString,
    testing::Values(WideCase{"Plain", "03000000 00000000 03000000 4100 4200 0000", "AB", true},
                    WideCase{"WithoutNul", "02000000 00000000 02000000 4100 4200", "AB", true},
                    WideCase{"Empty", "01000000 00000000 01000000 0000", "", true},
                    WideCase{"NoCharacterAtAll", "00000000 00000000 00000000", "", true},
                    WideCase{"TextBehindNul", "03000000 00000000 03000000 4100 0000 4200", "A", true},
                    WideCase{"Umlaut", "02000000 00000000 02000000 C400 0000", "\xC3\x84", true},
                    WideCase{"Pair", "03000000 00000000 03000000 3DD8 00DE 0000", "\xF0\x9F\x98\x80", true},
                    WideCase{"LoneHigh", "02000000 00000000 02000000 3DD8 4100",
                             "\xEF\xBF\xBD"
                             "A",
                             true},
                    WideCase{"LoneLow", "01000000 00000000 01000000 00DE", "\xEF\xBF\xBD", true},
                    WideCase{"MoreThanThere", "FFFFFFFF 00000000 FFFFFFFF 4100", "", false},
                    WideCase{"MoreThanMaximum", "01000000 00000000 02000000 4100 4200", "", false},
                    WideCase{"WithOffset", "02000000 01000000 01000000 4100", "", false},
                    WideCase{"Cut", "03000000 0000", "", false}),
    [](const auto& entry) { return std::string(entry.param.name); });

TEST(WideStringWriter, WritesCountsUnitsAndNul) {
    const struct {
        const char* text;
        const char* wire;
    } cases[] = {
        {"", "01000000 00000000 01000000 0000"},
        {"AB", "03000000 00000000 03000000 4100 4200 0000"},
        {"\xC3\x84\xE2\x82\xAC", "03000000 00000000 03000000 C400 AC20 0000"},
        {"\xF0\x9F\x98\x80", "03000000 00000000 03000000 3DD8 00DE 0000"},
        {"\xFF"
         "A\xC3",
         "04000000 00000000 04000000 FDFF 4100 FDFF 0000"},
        {"\xED\xA0\x80", "04000000 00000000 04000000 FDFF FDFF FDFF 0000"},
    };
    for (const auto& entry : cases) {
        Data out{0xEE};  // alignment counts from the writer's own start
        ndr::Writer writer(out);
        writer.wideString(entry.text);
        EXPECT_EQ(toHex(std::span(out).subspan(1)), toHex(hex(entry.wire)));
    }
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
