#include <gtest/gtest.h>

#include <cstring>

#include "NtlmClient.h"
#include "base/TimeSource.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/ntlm/ServerContext.h"

namespace quelm::dcom::ntlm {
namespace {

using namespace test;

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

    std::string_view authenticate(const Buffer& message) { return refusalText(server.authenticate(message)); }

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
    NtlmClient historian{"PLANT", "Historian", "Secret 1"};
};

TEST_F(LogOn, ChallengeNamesTheServerAndTheTimeAndGrantsWhatIsAsked) {
    EXPECT_HEX(challenged(),
               "4E544C4D53535000 02000000 0E000E0038000000 35828AE0 0102030405060708 0000000000000000"
               "8400840046000000 060100000000000F 52004F0055005400450052003700"
               "0200 1200 57004F0052004B00470052004F0055005000"
               "0100 0E00 52004F0055005400450052003700"
               "0400 1A00 70006C0061006E0074002E006500780061006D0070006C006500"
               "0300 2A00 72006F00750074006500720037002E0070006C0061006E0074002E006500780061006D0070006C006500"
               "0700 0800 00A0F6FF787ADD01"
               "0000 0000");
    EXPECT_HEX(Bytes(challenged(connectFlags)).subspan(20, 4), "05828AA0");
    // Extended session security is always on, keys for LM never.
    EXPECT_HEX(Bytes(challenged(flags::unicode | flags::version | 0x40 | 0x80)).subspan(20, 4), "05828A02");
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
        EXPECT_EQ(authenticate(fromHex("00")), "message out of turn");
    }
}

TEST_F(LogOn, NtlmV2WithAndWithoutKeyExchangeAndMic) {
    for (const std::uint32_t dropped : {0U, flags::keyExchange, flags::key128, flags::key128 | flags::key56}) {
        for (const bool withMic : {false, true}) {
            NtlmClient client("plant", "HISTORIAN", "Secret 1");
            client.without(dropped);
            const Buffer challenge = challenged();
            const Buffer answer = withMic ? client.answerV2(challenge, type1) : client.answerV2(challenge);
            EXPECT_EQ(authenticate(answer), "");
            EXPECT_TRUE(server.authenticated() && server.canSign() && server.canSeal());
            EXPECT_EQ(server.account(), "plant\\HISTORIAN");
            expectSealedTraffic(client);
        }
    }
}

TEST_F(LogOn, NtlmV1WithExtendedSessionSecurityOnlyWhereAllowed) {
    NtlmClient client("ANY", "Display", "Secret 2");
    EXPECT_EQ(authenticate(client.answerV1Ess(challenged(connectFlags))), "NTLMv1 is not allowed");
    settings.allowNtlmV1Ess = true;
    EXPECT_EQ(authenticate(client.answerV1Ess(challenged(connectFlags))), "");
    EXPECT_TRUE(server.authenticated());
    EXPECT_FALSE(server.canSign() || server.canSeal());
    EXPECT_EQ(authenticate(client.answerV1Ess(challenged())), "");
    expectSealedTraffic(client);
}

TEST_F(LogOn, AnonymousOnlyWhereAllowed) {
    for (const std::size_t lmSize : {0U, 1U}) {
        const Buffer answer = encode(Type3{connectFlags, Buffer(lmSize), {}, "", "", {}, false});
        for (const bool allowed : {false, true}) {
            settings.allowAnonymous = allowed;
            challenged(connectFlags);
            EXPECT_EQ(authenticate(answer), allowed ? "" : "anonymous access is not allowed");
            EXPECT_EQ(server.authenticated(), allowed);
            EXPECT_EQ(server.account(), "");
        }
    }
}

TEST_F(LogOn, NamesTheReasonOfARefusal) {
    settings.allowNtlmV1Ess = true;
    const struct {
        const char* domain;
        const char* user;
        const char* password;
        const char* reason;
    } cases[] = {
        {"PLANT", "Historian", "Secret 2", "wrong password"}, {"", "Historian", "Secret 1", "wrong domain"},
        {"OFFICE", "historian", "Secret 1", "wrong domain"},  {"*", "Historian", "Secret 1", "wrong domain"},
        {"PLANT", "Historia", "Secret 1", "unknown account"}, {"", "Display", "Secret 2", ""},
    };
    for (const auto& c : cases) {
        NtlmClient client(c.domain, c.user, c.password);
        EXPECT_EQ(authenticate(client.answerV2(challenged())), c.reason) << c.domain << c.user;
        EXPECT_EQ(server.authenticated(), *c.reason == '\0');
        EXPECT_EQ(authenticate(client.answerV1Ess(challenged())), c.reason) << c.domain << c.user;
    }
}

TEST_F(LogOn, NeverAcceptsWhatIsWeakerThanTheSettingsCanAllow) {
    settings.allowNtlmV1Ess = true;
    const std::uint32_t agreed = 0xE08A8235;
    const Buffer answer24(24, 0x22);
    const Buffer key(16, 0x33);
    Buffer nonce = fromHex("aaaaaaaaaaaaaaaa");
    nonce.resize(24);
    const char* never = "plain NTLMv1 is never allowed";
    const char* lmOnly = "LM and LMv2 are never allowed";
    const char* malformed = "malformed message";
    const struct {
        Type3 message;
        const char* reason;
    } cases[] = {
        {{agreed, answer24, answer24, "PLANT", "Historian", key}, never},
        {{agreed & ~flags::extendedSessionSecurity, nonce, answer24, "PLANT", "Historian", key}, never},
        {{agreed, {}, answer24, "PLANT", "Historian", key}, never},
        {{agreed, answer24, {}, "PLANT", "Historian", key}, lmOnly},
        {{agreed, {}, {}, "PLANT", "Historian", key}, lmOnly},
        {{agreed, answer24, {}, "PLANT", "", key}, lmOnly},
        {{agreed, nonce, answer24, "PLANT", "Historian", key}, "wrong password"},
        {{agreed & ~flags::unicode, nonce, answer24, "PLANT", "Historian", key}, malformed},
        {{agreed, {}, Buffer(43, 1), "PLANT", "Historian", key}, malformed},
        {{agreed, {}, Buffer(44, 1), "PLANT", "Historian", key}, "wrong password"},
        {{agreed, {}, Buffer(47, 1), "PLANT", "Historian", key}, malformed},
        {{agreed, {}, Buffer(60, 1), "PLANT", "Historian", key}, malformed},
        {{agreed, nonce, answer24, "PLANT", std::string(257, 'u'), key}, malformed},
    };
    for (const auto& c : cases) {
        challenged();
        EXPECT_EQ(authenticate(encode(c.message)), c.reason);
        EXPECT_FALSE(server.authenticated() || server.canSign() || server.canSeal());
    }
}

TEST_F(LogOn, CutAnswersAndPlacesOutsideThemAreMalformed) {
    const Buffer whole = historian.answerV2(challenged(), type1);
    const auto expectMalformed = [this](const Buffer& bad, std::size_t where) {
        challenged();
        EXPECT_EQ(authenticate(bad), "malformed message") << where;
    };
    for (std::size_t size = 0; size < whole.size(); ++size) {
        // An own allocation of just that size, so that a read beyond its end is noticed.
        expectMalformed(Buffer(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)), size);
    }
    for (const std::size_t field : {12U, 20U, 28U, 36U, 44U, 52U}) {
        for (const std::uint32_t offset : {0U, 0x3FU, 0xFFFFFFFFU, 0xFFFFFFF0U, 0x1000U}) {
            Buffer bad = whole;
            std::memcpy(&bad[field + 4], &offset, sizeof offset);
            expectMalformed(bad, field);
        }
        Buffer bad = whole;
        bad[field] = bad[field + 1] = 0xFF;
        expectMalformed(bad, field);
    }
}

TEST_F(LogOn, AnyChangedBitIsNoticed) {
    const Buffer challenge = challenged();
    const Buffer whole = historian.answerV2(challenge, type1);
    for (std::size_t at = 0; at < whole.size(); ++at) {
        challenged();
        Buffer altered = whole;
        altered[at] ^= 0x04;
        EXPECT_NE(authenticate(altered), "") << at;
        EXPECT_FALSE(server.authenticated());
    }
    challenged();
    Buffer altered = whole;
    altered[micOffset] ^= 1;
    EXPECT_EQ(authenticate(altered), "message altered on its way");
    // A client that was talked down to weaker keys on its way out.
    challenged(sealingFlags & ~flags::key128);
    EXPECT_NE(authenticate(whole), "");
}

TEST_F(LogOn, EachChallengeTakesOneAnswer) {
    NtlmClient wrong("PLANT", "Historian", "guess");
    EXPECT_EQ(authenticate(fromHex("4e544c4d53535000 03000000")), "message out of turn");
    const Buffer challenge = challenged();
    EXPECT_EQ(authenticate(wrong.answerV2(challenge)), "wrong password");
    EXPECT_EQ(authenticate(historian.answerV2(challenge)), "message out of turn");
    EXPECT_FALSE(server.authenticated());
    EXPECT_EQ(authenticate(historian.answerV2(challenged())), "");
    // A stray answer after the log-on changes nothing.
    EXPECT_EQ(authenticate(historian.answerV2(challenge)), "message out of turn");
    EXPECT_TRUE(server.authenticated());
}

TEST_F(LogOn, AlteredRepeatedOrSwappedMessagesDoNotVerify) {
    const auto logOn = [&] { ASSERT_EQ(authenticate(historian.answerV2(challenged())), ""); };
    logOn();
    const Buffer text = fromHex("0102030405060708");
    Buffer altered = text;
    altered[3] ^= 1;
    ServerContext::Signature first;
    ServerContext::Signature second;
    historian.security().sign(text, first);
    historian.security().sign(text, second);
    ServerContext::Signature otherChecksum = first;
    otherChecksum[5] ^= 1;
    ServerContext::Signature otherNumber = first;
    otherNumber[12] ^= 1;
    for (const auto& [message, signature] :
         {std::pair{altered, first}, {text, otherChecksum}, {text, otherNumber}, {text, second}}) {
        logOn();
        EXPECT_FALSE(server.verify(message, signature));
    }
    logOn();
    EXPECT_FALSE(server.verify(text, Bytes(first).first(15)));
    logOn();
    EXPECT_TRUE(server.verify(text, first));
    EXPECT_FALSE(server.verify(text, first));
}

TEST_F(LogOn, WithoutKeysNothingVerifiesAndNothingLeaves) {
    settings.allowNtlmV1Ess = true;
    ASSERT_EQ(authenticate(historian.answerV1Ess(challenged(connectFlags))), "");
    Buffer message = fromHex("0102030405060708");
    ServerContext::Signature signature;
    server.sign(message, signature);
    EXPECT_HEX(signature, "01000000000000000000000000000000");
    EXPECT_FALSE(server.verify(message, signature));
    EXPECT_FALSE(server.unseal(message, message, signature));
    server.seal(message, std::span(message).subspan(4), signature);
    EXPECT_HEX(message, "0102030400000000");
}

TEST_F(LogOn, ARefusedNameCannotWriteLogLines) {
    NtlmClient client("PLANT\r\n", "a\nlogged\u0085\u009b\u2028\u202eon", "x");
    EXPECT_EQ(authenticate(client.answerV2(challenged())), "unknown account");
    EXPECT_EQ(server.account(), "PLANT??\\a?logged????on");
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
