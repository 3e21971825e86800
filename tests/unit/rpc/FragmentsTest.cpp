#include "dcom/rpc/Fragments.h"

#include <gtest/gtest.h>

#include "RpcClient.h"
#include "dcom/rpc/CallAssembly.h"

namespace quelm::dcom::rpc::test {
namespace {

// What one end cuts up the other end puts together, with and without an object, at every size around a fragment's.
TEST(Fragments, OfARequestGiveTheCallAgain) {
    for (const std::optional<Uuid>& object : {std::optional<Uuid>(), std::optional<Uuid>(interfaceB)}) {
        for (std::size_t size = 0; size < 3 * leastMaxFragment; size += 100) {
            const CallHeader header{PduType::Request, 7, 3, 4, object};
            Data stub(size);
            for (std::size_t i = 0; i < size; ++i) {
                stub[i] = static_cast<std::uint8_t>(i * 7);
            }
            Data out = Builder().u32(0xAAAAAAAA).add(Data(header.size())).add(stub).data();
            cutIntoFragments(out, 4, header, leastMaxFragment, nullptr);
            CallAssembly assembly;
            for (const Reply& fragment : splitReplies(std::span(out).subspan(4))) {
                Request request;
                ASSERT_TRUE(parseRequest(fragment.raw, fragment.header, request));
                ASSERT_LE(fragment.raw.size(), leastMaxFragment);
                ASSERT_LE(assembly.take(fragment.header.flags, {fragment.header.callId, request.contextId,
                                                                request.opnum, object, std::nullopt}),
                          CallAssembly::Step::Continued);
                EXPECT_EQ(fragment.u32(16), size - assembly.stub().size());
                EXPECT_EQ(request.hasObject ? std::optional(request.object) : std::nullopt, object);
                EXPECT_EQ(request.opnum, 4);
                ASSERT_TRUE(assembly.add(std::span(fragment.raw).subspan(request.stubOffset), size));
            }
            EXPECT_EQ(toHex(assembly.stub()), toHex(stub));
        }
    }
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
