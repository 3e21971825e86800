#include <gtest/gtest.h>

#include "DCOM/ntlm/AccountTable.h"
#include "DCOM/ntlm/ServerContext.h"
#include "NtlmClient.h"
#include "Shared Types/TimeSource.h"

namespace quelm::dcom::ntlm {
namespace {

using test::Buffer;
using test::connectFlags;
using test::fromHex;
using test::negotiate;
using test::NtlmClient;
using test::sealingFlags;
using test::toHex;
using test::Type3;

class LogOn : public ::testing::Test {
 protected:
    LogOn() {
        accounts.add("PLANT", "Historian", ntHash("Secret 1"));
        accounts.add("*", "display", ntHash("Secret 2"));
    }

    Buffer challenged(std::uint32_t asked = sealingFlags) {
        type1 = negotiate(asked);
        return server.challenge(type1).value_or(Buffer{});
    }

    // Messages of changing length go both ways, interleaved, as on a busy connection.
    void expectSealedTraffic(NtlmClient& client) {
        for (std::size_t length = 0; length < 200; length += 37) {
            Buffer request(length + 8, static_cast<std::uint8_t>(length));
            const Buffer clear = request;
            ServerContext::Signature signature;
            client.security().seal(request, std::span(request).first(length), signature);
            EXPECT_TRUE(server.unseal(request, std::span(request).first(length), signature)) << length;
            EXPECT_EQ(request, clear);
            server.seal(request, std::span(request).subspan(8), signature);
            EXPECT_TRUE(client.security().unseal(request, std::span(request).subspan(8), signature)) << length;
            EXPECT_EQ(request, clear);
            server.sign(clear, signature);
            EXPECT_TRUE(client.security().verify(clear, signature)) << length;
            client.security().sign(clear, signature);
            EXPECT_TRUE(server.verify(clear, signature)) << length;
        }
    }

    ManualTimeSource time{Date{46348.5}};
    ScopedTimeSource inForce{time};
    AccountTable accounts;
    ServerSettings settings{"ROUTER7", "WORKGROUP", "router7.plant.example", "plant.example", false, false};
    ServerContext server{accounts, settings, Nonce{1, 2, 3, 4, 5, 6, 7, 8}};
    Buffer type1;
};

TEST_F(LogOn, ChallengeNamesTheServerAndTheTime) {
    EXPECT_EQ(toHex(challenged()),
              "4e544c4d53535000"
              "02000000"
              "0e000e0038000000"
              "35828ae0"
              "0102030405060708"
              "0000000000000000"
              "8400840046000000"
              "060100000000000f"
              "52004f0055005400450052003700"
              "02001200"
              "57004f0052004b00470052004f0055005000"
              "01000e00"
              "52004f0055005400450052003700"
              "04001a00"
              "70006c0061006e0074002e006500780061006d0070006c006500"
              "03002a00"
              "72006f00750074006500720037002e0070006c0061006e0074002e006500780061006d0070006c006500"
              "07000800"
              "00a0f6ff787add01"
              "00000000");
}

TEST_F(LogOn, GrantsWhatIsAskedAndAlwaysExtendedSessionSecurity) {
    struct Case {
        std::uint32_t asked;
        const char* granted;  // as they stand in the message
    };
    for (const Case& c :
         {Case{sealingFlags, "35828ae0"}, Case{connectFlags, "05828aa0"}, Case{flags::unicode, "05828a00"},
          Case{flags::unicode | flags::version, "05828a02"}, Case{flags::unicode | 0x40 | 0x80, "05828a00"}}) {
        EXPECT_EQ(toHex(Bytes(challenged(c.asked)).subspan(20, 4)), c.granted);
    }
}

TEST_F(LogOn, EveryLogOnHasAChallengeOfItsOwn) {
    ServerContext first(accounts, settings);
    ServerContext second(accounts, settings);
    EXPECT_NE(*first.challenge(negotiate(sealingFlags)), *second.challenge(negotiate(sealingFlags)));
}

TEST_F(LogOn, RefusesDamagedNegotiateMessages) {
    const Buffer whole = negotiate(sealingFlags);
    for (std::size_t size = 0; size < 16; ++size) {
        EXPECT_FALSE(server.challenge(Bytes(whole).first(size))) << size;
    }
    EXPECT_TRUE(server.challenge(Bytes(whole).first(16)));
    for (const char* bad : {"4e544c4d53535000 03000000 358288e0 0000000000000000 0000000000000000",
                            "4e544c4d53535001 01000000 358288e0 0000000000000000 0000000000000000",
                            "4e544c4d53535000 01000000 068288e0 0000000000000000 0000000000000000",
                            "4e544c4d53535000 01000000 059288e0 0300030021000000 0000000000000000",
                            "4e544c4d53535000 01000000 05a288e0 0000000000000000 01000100ffffffff",
                            "4e544c4d53535000 01000000 05b288e0"}) {
        EXPECT_FALSE(server.challenge(fromHex(bad))) << bad;
        EXPECT_EQ(server.authenticate(fromHex("00")), "message out of turn");
    }
}

TEST_F(LogOn, NtlmV2WithAndWithoutKeyExchangeAndMic) {
    for (const std::uint32_t dropped : {0U, flags::keyExchange, flags::key128, flags::key128 | flags::key56}) {
        for (const bool withMic : {false, true}) {
            NtlmClient client("plant", "HISTORIAN", "Secret 1");
            client.without(dropped);
            const Buffer challenge = challenged();
            const Buffer answer = withMic ? client.answerV2(challenge, type1) : client.answerV2(challenge);
            EXPECT_EQ(server.authenticate(answer), "");
            EXPECT_TRUE(server.authenticated() && server.canSign() && server.canSeal());
            EXPECT_EQ(server.account(), "plant\\HISTORIAN");
            expectSealedTraffic(client);
        }
    }
}

TEST_F(LogOn, NtlmV1WithExtendedSessionSecurityOnlyWhereAllowed) {
    NtlmClient client("ANY", "Display", "Secret 2");
    EXPECT_EQ(server.authenticate(client.answerV1Ess(challenged(connectFlags))), "NTLMv1 is not allowed");
    settings.allowNtlmV1Ess = true;
    EXPECT_EQ(server.authenticate(client.answerV1Ess(challenged(connectFlags))), "");
    EXPECT_TRUE(server.authenticated());
    EXPECT_FALSE(server.canSign() || server.canSeal());
    EXPECT_EQ(server.authenticate(client.answerV1Ess(challenged())), "");
    expectSealedTraffic(client);
}

TEST_F(LogOn, AnonymousOnlyWhereAllowed) {
    for (const std::size_t lmSize : {0U, 1U}) {
        settings.allowAnonymous = false;
        const Buffer answer = encode(Type3{connectFlags, Buffer(lmSize), {}, "", "", {}, false});
        challenged(connectFlags);
        EXPECT_EQ(server.authenticate(answer), "anonymous access is not allowed");
        EXPECT_FALSE(server.authenticated());
        settings.allowAnonymous = true;
        challenged(connectFlags);
        EXPECT_EQ(server.authenticate(answer), "");
        EXPECT_TRUE(server.authenticated());
        EXPECT_EQ(server.account(), "");
    }
}

TEST_F(LogOn, NamesTheReasonOfARefusal) {
    settings.allowNtlmV1Ess = true;
    struct Case {
        const char* domain;
        const char* user;
        const char* password;
        const char* reason;
    };
    for (const Case& c :
         {Case{"PLANT", "Historian", "Secret 2", "wrong password"}, Case{"PLANT", "Historian", "", "wrong password"},
          Case{"", "Historian", "Secret 1", "wrong domain"}, Case{"OFFICE", "historian", "Secret 1", "wrong domain"},
          Case{"PLANT", "Historia", "Secret 1", "unknown account"}, Case{"*", "Historian", "Secret 1", "wrong domain"},
          Case{"OFFICE", "Display", "Secret 1", "wrong password"}, Case{"OFFICE", "Display", "Secret 2", ""},
          Case{"", "Display", "Secret 2", ""}}) {
        NtlmClient client(c.domain, c.user, c.password);
        EXPECT_EQ(server.authenticate(client.answerV2(challenged())), c.reason) << c.domain << c.user;
        EXPECT_EQ(server.authenticated(), *c.reason == '\0');
        EXPECT_EQ(server.authenticate(client.answerV1Ess(challenged())), c.reason) << c.domain << c.user;
    }
}

TEST_F(LogOn, NeverAcceptsWhatIsWeakerThanTheSettingsCanAllow) {
    settings.allowNtlmV1Ess = true;
    const std::uint32_t agreed = 0xE08A8235;
    const Buffer answer24(24, 0x22);
    const Buffer key(16, 0x33);
    Buffer nonce = fromHex("aaaaaaaaaaaaaaaa");
    nonce.resize(24);
    struct Case {
        Type3 message;
        const char* reason;
    };
    for (const Case& c : {
             Case{{agreed, answer24, answer24, "PLANT", "Historian", key}, "plain NTLMv1 is never allowed"},
             Case{{agreed & ~flags::extendedSessionSecurity, nonce, answer24, "PLANT", "Historian", key},
                  "plain NTLMv1 is never allowed"},
             Case{{agreed, {}, answer24, "PLANT", "Historian", key}, "plain NTLMv1 is never allowed"},
             Case{{agreed, answer24, {}, "PLANT", "Historian", key}, "LM and LMv2 are never allowed"},
             Case{{agreed, {}, {}, "PLANT", "Historian", key}, "LM and LMv2 are never allowed"},
             Case{{agreed, answer24, {}, "PLANT", "", key}, "LM and LMv2 are never allowed"},
             Case{{agreed, nonce, answer24, "PLANT", "Historian", key}, "wrong password"},
             Case{{agreed & ~flags::unicode, nonce, answer24, "PLANT", "Historian", key}, "malformed message"},
             Case{{agreed, {}, Buffer(43, 1), "PLANT", "Historian", key}, "malformed message"},
             Case{{agreed, {}, Buffer(44, 1), "PLANT", "Historian", key}, "wrong password"},
             Case{{agreed, {}, Buffer(47, 1), "PLANT", "Historian", key}, "malformed message"},
             Case{{agreed, {}, Buffer(60, 1), "PLANT", "Historian", key}, "malformed message"},
             Case{{agreed, nonce, answer24, "PLANT", std::string(257, 'u'), key}, "malformed message"},
         }) {
        challenged();
        EXPECT_EQ(server.authenticate(encode(c.message)), c.reason);
        EXPECT_FALSE(server.authenticated() || server.canSign() || server.canSeal());
    }
}

TEST_F(LogOn, ACutAnswerNeverLogsOn) {
    NtlmClient client("PLANT", "Historian", "Secret 1");
    const Buffer challenge = challenged();
    const Buffer whole = client.answerV2(challenge, type1);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        challenged();
        // An own allocation of just that size, so that a read beyond its end is noticed.
        const Buffer cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(server.authenticate(cut), "malformed message") << size;
    }
}

TEST_F(LogOn, AnyChangedBitIsNoticed) {
    NtlmClient client("PLANT", "Historian", "Secret 1");
    const Buffer challenge = challenged();
    const Buffer whole = client.answerV2(challenge, type1);
    for (std::size_t at = 0; at < whole.size(); ++at) {
        challenged();
        Buffer altered = whole;
        altered[at] ^= 0x04;
        EXPECT_NE(server.authenticate(altered), "") << at;
        EXPECT_FALSE(server.authenticated());
    }
    challenged();
    Buffer altered = whole;
    altered[micOffset] ^= 1;
    EXPECT_EQ(server.authenticate(altered), "message altered on its way");
    // A client that was talked down to weaker keys on its way out.
    challenged(sealingFlags & ~flags::key128);
    EXPECT_NE(server.authenticate(whole), "");
}

TEST_F(LogOn, PlacesOutsideTheMessageAreMalformed) {
    NtlmClient client("PLANT", "Historian", "Secret 1");
    const Buffer whole = client.answerV2(challenged());
    for (const std::size_t field : {12U, 20U, 28U, 36U, 44U, 52U}) {
        for (const char* offset : {"00000000", "3f000000", "ffffffff", "f0ffffff", "00100000"}) {
            Buffer bad = whole;
            const Buffer bytes = fromHex(offset);
            std::copy(bytes.begin(), bytes.end(), bad.begin() + static_cast<std::ptrdiff_t>(field) + 4);
            challenged();
            EXPECT_EQ(server.authenticate(bad), "malformed message") << field << ' ' << offset;
        }
        Buffer bad = whole;
        bad[field] = bad[field + 1] = 0xff;
        challenged();
        EXPECT_EQ(server.authenticate(bad), "malformed message") << field;
    }
}

TEST_F(LogOn, EachChallengeTakesOneAnswer) {
    NtlmClient good("PLANT", "Historian", "Secret 1");
    NtlmClient wrong("PLANT", "Historian", "guess");
    EXPECT_EQ(server.authenticate(fromHex("4e544c4d53535000 03000000")), "message out of turn");
    const Buffer challenge = challenged();
    EXPECT_EQ(server.authenticate(wrong.answerV2(challenge)), "wrong password");
    EXPECT_EQ(server.authenticate(good.answerV2(challenge)), "message out of turn");
    EXPECT_FALSE(server.authenticated());
    EXPECT_EQ(server.authenticate(good.answerV2(challenged())), "");
    // A stray answer after the log-on changes nothing.
    EXPECT_EQ(server.authenticate(good.answerV2(challenge)), "message out of turn");
    EXPECT_TRUE(server.authenticated());
}

TEST_F(LogOn, AlteredRepeatedOrSwappedMessagesDoNotVerify) {
    const Buffer text = fromHex("0102030405060708");
    for (const int fault : {0, 1, 2, 3, 4}) {
        NtlmClient client("PLANT", "Historian", "Secret 1");
        ASSERT_EQ(server.authenticate(client.answerV2(challenged())), "");
        Buffer message = text;
        ServerContext::Signature signature;
        ServerContext::Signature second;
        client.security().sign(message, signature);
        client.security().sign(message, second);
        if (fault == 0) {
            message[3] ^= 1;
        } else if (fault == 1) {
            signature[5] ^= 1;
        } else if (fault == 2) {
            signature[12] ^= 1;
        } else if (fault == 3) {
            signature = second;
        } else {
            EXPECT_TRUE(server.verify(message, signature));
        }
        EXPECT_FALSE(server.verify(message, signature)) << fault;
        EXPECT_FALSE(server.verify(message, Bytes(signature).first(15)));
    }
}

TEST_F(LogOn, WithoutKeysNothingVerifiesAndNothingLeaves) {
    settings.allowNtlmV1Ess = true;
    NtlmClient client("PLANT", "Historian", "Secret 1");
    ASSERT_EQ(server.authenticate(client.answerV1Ess(challenged(connectFlags))), "");
    Buffer message = fromHex("0102030405060708");
    ServerContext::Signature signature;
    server.sign(message, signature);
    EXPECT_EQ(toHex(signature), "01000000000000000000000000000000");
    EXPECT_FALSE(server.verify(message, signature));
    EXPECT_FALSE(server.unseal(message, message, signature));
    server.seal(message, std::span(message).subspan(4), signature);
    EXPECT_EQ(toHex(message), "0102030400000000");
}

TEST_F(LogOn, ARefusedNameCannotWriteLogLines) {
    NtlmClient client("PLANT\r\n", "a\nlogged on", "x");
    EXPECT_EQ(server.authenticate(client.answerV2(challenged())), "unknown account");
    EXPECT_EQ(server.account(), "PLANT??\\a?logged on");
}

TEST(AccountTable, ExactDomainGoesBeforeAnyDomain) {
    AccountTable accounts;
    accounts.add("*", "Jörg", ntHash("any"));
    accounts.add("Plant", "JÖRG", ntHash("plant"));
    EXPECT_EQ(accounts.find("PLANT", "jörg"), ntHash("plant"));
    EXPECT_EQ(accounts.find("OFFICE", "JÖrg"), ntHash("any"));
    EXPECT_EQ(accounts.find("PLANT", "Jorg"), std::nullopt);
}

}  // namespace
}  // namespace quelm::dcom::ntlm
