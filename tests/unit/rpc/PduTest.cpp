#include <gtest/gtest.h>

#include "RpcClient.h"
#include "dcom/rpc/Pdu.h"

namespace quelm::dcom::rpc::test {
namespace {

TEST(PduHeader, TellsWhatIsWrong) {
    using enum RefusalReason;
    const std::pair<const char*, RefusalReason> cases[] = {
        {"05000B03 10000000 10000000 01000000", None},
        {"05010B03 10000000 D0160000 01000000", None},
        {"04000B03 10000000 10000000 01000000", NotRpc},
        {"05000B03 00000000 00480000 00000001", NotLittleEndian},
        {"05000B03 10010000 10000000 01000000", NotLittleEndian},
        {"05000B03 10000000 0F000000 01000000", LengthOutOfRange},
        {"05000003 10000000 D1160000 01000000", LengthOutOfRange},
        {"05000E03 10000000 50D20000 01000000", None},
        {"05001003 10000000 51D20000 01000000", LengthOutOfRange},
    };
    for (const auto& [wire, wrong] : cases) {
        Header header;
        EXPECT_EQ(parseHeader(fromHex(wire), header), wrong) << wire;
    }
}

TEST(PduTrailer, MustFitBehindTheBody) {
    const struct {
        const char* name;
        std::size_t bodyBytes;
        unsigned padLength;
        unsigned authLength;
        bool good;
    } cases[] = {
        {"no body", 0, 0, 16, true},
        {"padding into the header", 12, 13, 16, false},
        {"token longer than the PDU", 12, 0, 40, false},
        {"trailer into the header", 0, 0, 17, false},
    };
    for (const auto& entry : cases) {
        Data raw = pdu(PduType::Auth3, 3, 0, Data(entry.bodyBytes), {5, 7, Data(16)});
        raw[raw.size() - 22] = static_cast<std::uint8_t>(entry.padLength);
        raw[10] = static_cast<std::uint8_t>(entry.authLength);
        Header header;
        ASSERT_EQ(parseHeader(raw, header), RefusalReason::None);
        AuthTrailer trailer;
        EXPECT_EQ(parseTrailer(raw, header, headerSize, trailer), entry.good) << entry.name;
    }
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
