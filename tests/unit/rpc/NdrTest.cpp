#include <gtest/gtest.h>

#include "RpcClient.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"

namespace quelm::dcom::rpc::test {
namespace {

TEST(WideString, IsReadWhateverItHolds) {
    const struct {
        const char* what;
        const char* wire;
        const char* text;
        bool good;
    } cases[] = {
        {"plain", "03000000 00000000 03000000 4100 4200 0000", "AB", true},
        {"without NUL", "02000000 00000000 02000000 4100 4200", "AB", true},
        {"no character at all", "00000000 00000000 00000000", "", true},
        {"text behind NUL", "03000000 00000000 03000000 4100 0000 4200", "A", true},
        {"pair", "03000000 00000000 03000000 3DD8 00DE 0000", "\U0001F600", true},
        {"lone high", "02000000 00000000 02000000 3DD8 4100", "\uFFFDA", true},
        {"lone low", "01000000 00000000 01000000 00DE", "\uFFFD", true},
        {"more than there", "FFFFFFFF 00000000 FFFFFFFF 4100", "", false},
        {"more than the maximum", "01000000 00000000 02000000 4100 4200", "", false},
        {"with offset", "02000000 01000000 01000000 4100", "", false},
        {"cut", "03000000 0000", "", false},
    };
    for (const auto& entry : cases) {
        const Data wire = fromHex(entry.wire);
        ndr::Reader in(wire);
        EXPECT_EQ(in.wideString(), entry.text) << entry.what;
        EXPECT_EQ(in.good(), entry.good) << entry.what;
    }
}

TEST(WideString, IsWrittenWithCountsUnitsAndNul) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "01000000 00000000 01000000 0000"},
        {"Ä€", "03000000 00000000 03000000 C400 AC20 0000"},
        {"\U0001F600", "03000000 00000000 03000000 3DD8 00DE 0000"},
        {"\xFF\x41\xC3", "04000000 00000000 04000000 FDFF 4100 FDFF 0000"},
        {"\xE0\x81\x81", "04000000 00000000 04000000 FDFF FDFF FDFF 0000"},
        {"\xED\xA0\x80", "04000000 00000000 04000000 FDFF FDFF FDFF 0000"},
    };
    for (const auto& [text, wire] : cases) {
        Data out{0xEE};  // alignment counts from the writer's own start
        ndr::Writer writer(out);
        writer.wideString(text);
        EXPECT_HEX(out, std::string("EE") + wire);
    }
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
