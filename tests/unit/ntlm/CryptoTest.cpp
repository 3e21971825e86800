#include "dcom/ntlm/Crypto.h"

#include <gtest/gtest.h>

#include "NtlmClient.h"

namespace quelm::dcom::ntlm {
namespace {

using test::Buffer;
using test::fromHex;

Key keyOf(std::string_view hex) {
    Key key;
    const Buffer bytes = fromHex(hex);
    std::copy(bytes.begin(), bytes.end(), key.begin());
    return key;
}

TEST(Crypto, HashesPasswords) {
    EXPECT_EQ(ntHash("Müller\U0001F600"), md4(fromHex("4D00FC006C006C00650072003DD800DE")));
    EXPECT_EQ(ntHashText("Password"), "a4f49c406510bdcab6824ee7c30fd852");
    for (const auto* user : {u"User", u"user"}) {
        EXPECT_HEX(responseKeyV2(ntHash("Password"), user, u"Domain"), "0C868A403BFD7A93A3001EF22EF02E3F");
    }
}

TEST(Crypto, PublishedSealedMessages) {
    const struct {
        const char* exported;
        std::uint32_t flags;
        const char* sealed;
        const char* signature;
    } cases[] = {
        {"EB93429A8BD952F8B89C55B87F475EDC", 0x82080233, "A02372F6530273F3AA1EB90190CE5200C99D",
         "01000000FF2AEB52F681793A00000000"},
        {"55555555555555555555555555555555", 0xE28A8233, "54E50165BF1936DC996020C1811B0F06FB5F",
         "010000007FB38EC5C55D497600000000"},
    };
    for (const auto& c : cases) {
        MessageSecurity client(keyOf(c.exported), c.flags, Side::client);
        Buffer message = test::utf16("Plaintext");
        MessageSecurity::Signature signature;
        client.seal(message, message, signature);
        EXPECT_HEX(message, c.sealed);
        EXPECT_HEX(signature, c.signature);
    }
}

// With neither the 128-bit nor the 56-bit flag only the first five bytes count.
TEST(Crypto, WeakerKeysAreShorter) {
    const Key full = keyOf("0102030405060708090A0B0C0D0E0F10");
    const std::pair<std::uint32_t, const char*> cases[] = {{0, "0102030405FFFFFFFFFFFFFFFFFFFFFF"},
                                                           {flags::key56, "01020304050607FFFFFFFFFFFFFFFFFF"}};
    for (const auto& [flags, alike] : cases) {
        EXPECT_EQ(sealKey(full, flags, Side::client), sealKey(keyOf(alike), flags, Side::client));
    }
    EXPECT_NE(sealKey(full, 0, Side::client), sealKey(full, flags::key56, Side::client));
}

}  // namespace
}  // namespace quelm::dcom::ntlm
