#include "DCOM/ntlm/Crypto.h"

#include <gtest/gtest.h>

#include "NtlmClient.h"

namespace quelm::dcom::ntlm {
namespace {

using test::Buffer;
using test::fromHex;
using test::toHex;

// The protocol's published example: User, Domain, Password.
const Nonce serverChallenge = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
const Buffer clientNonce(8, 0xaa);

Key keyOf(std::string_view hex) {
    Key key;
    const Buffer bytes = fromHex(hex);
    std::copy(bytes.begin(), bytes.end(), key.begin());
    return key;
}

TEST(Crypto, PublishedValuesOfNtlmV1WithExtendedSessionSecurity) {
    const NtHash hash = ntHash("Password");
    EXPECT_EQ(toHex(hash), "a4f49c406510bdcab6824ee7c30fd852");
    EXPECT_EQ(ntHashText("Password"), toHex(hash));
    EXPECT_EQ(toHex(responseV1Ess(hash, serverChallenge, clientNonce)),
              "7537f803ae367128ca458204bde7caf81e97ed2683267232");
    EXPECT_EQ(toHex(keyExchangeKeyV1Ess(hash, serverChallenge, clientNonce)), "eb93429a8bd952f8b89c55b87f475edc");
}

TEST(Crypto, PublishedValuesOfNtlmV2) {
    const Buffer data = fromHex(
        "0101000000000000 0000000000000000 aaaaaaaaaaaaaaaa 00000000 02000c00 44006f006d00610069006e00"
        "01000c00 530065007200760065007200 00000000 00000000");
    for (const auto* user : {u"User", u"user", u"USER"}) {
        const Key responseKey = responseKeyV2(ntHash("Password"), user, u"Domain");
        EXPECT_EQ(toHex(responseKey), "0c868a403bfd7a93a3001ef22ef02e3f");
        const Key proof = proofV2(responseKey, serverChallenge, data);
        EXPECT_EQ(toHex(proof), "68cd0ab851e51c96aabc927bebef6a1c");
        const Key baseKey = sessionBaseKeyV2(responseKey, proof);
        EXPECT_EQ(toHex(baseKey), "8de40ccadbc14a82f15cb0ad0de95ca3");
        Key exported;
        exported.fill(0x55);
        EXPECT_EQ(toHex(rc4(baseKey, exported)), "c5dad2544fc9799094ce1ce90bc9d03e");
    }
    EXPECT_NE(responseKeyV2(ntHash("Password"), u"User", u"DOMAIN"),
              responseKeyV2(ntHash("Password"), u"User", u"Domain"));
}

TEST(Crypto, PublishedSignAndSealKeys) {
    struct Case {
        const char* exported;
        std::uint32_t flags;
        const char* sealKey;
        const char* signKey;
    };
    for (const Case& c : {
             Case{"eb93429a8bd952f8b89c55b87f475edc", 0x82080233, "04dd7f014d8504d265a25cc86a3a7c06",
                  "60e799be5c72fc92922ae8ebe961fb8d"},
             Case{"55555555555555555555555555555555", 0xe28a8233, "59f600973cc4960a25480a7c196e4c58",
                  "4788dc861b4782f35d43fd98fe1a2d39"},
         }) {
        EXPECT_EQ(toHex(sealKey(keyOf(c.exported), c.flags, Side::client)), c.sealKey);
        EXPECT_EQ(toHex(signKey(keyOf(c.exported), Side::client)), c.signKey);
        EXPECT_NE(toHex(sealKey(keyOf(c.exported), c.flags, Side::server)), c.sealKey);
    }
    // With neither the 128-bit nor the 56-bit flag only the first five bytes count.
    const Key full = keyOf("0102030405060708090a0b0c0d0e0f10");
    EXPECT_EQ(sealKey(full, 0, Side::client), sealKey(keyOf("0102030405ffffffffffffffffffffff"), 0, Side::client));
    EXPECT_NE(sealKey(full, 0, Side::client), sealKey(full, flags::key56, Side::client));
}

TEST(Crypto, PublishedSealedMessages) {
    struct Case {
        const char* exported;
        std::uint32_t flags;
        const char* sealed;
        const char* signature;
    };
    for (const Case& c : {
             Case{"eb93429a8bd952f8b89c55b87f475edc", 0x82080233, "a02372f6530273f3aa1eb90190ce5200c99d",
                  "01000000ff2aeb52f681793a00000000"},
             Case{"55555555555555555555555555555555", 0xe28a8233, "54e50165bf1936dc996020c1811b0f06fb5f",
                  "010000007fb38ec5c55d497600000000"},
         }) {
        MessageSecurity client(keyOf(c.exported), c.flags, Side::client);
        MessageSecurity server(keyOf(c.exported), c.flags, Side::server);
        Buffer message = test::utf16("Plaintext");
        MessageSecurity::Signature signature;
        client.seal(message, message, signature);
        EXPECT_EQ(toHex(message), c.sealed);
        EXPECT_EQ(toHex(signature), c.signature);
        EXPECT_TRUE(server.unseal(message, message, signature));
        EXPECT_EQ(message, test::utf16("Plaintext"));
    }
}

TEST(Crypto, HashesPasswordsBeyondAscii) {
    EXPECT_EQ(ntHashText(""), "31d6cfe0d16ae931b73c59d7e0c089c0");
    EXPECT_EQ(ntHash("Müller\U0001F600"), md4(fromHex("4d00fc006c006c00650072003dd800de")));
}

}  // namespace
}  // namespace quelm::dcom::ntlm
