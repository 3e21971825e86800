// The calling end against our own server's end, and against everything that a hostile other end may answer.

#include <gtest/gtest.h>

#include "RpcFixture.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/rpc/ClientConnection.h"

namespace quelm::dcom::rpc::test {
namespace {

class Calling : public RpcFixture {
 protected:
    LogOnSettings logOnAt(AuthLevel level, bool negotiates) {
        settings.minimumLevel = level;
        return {level == AuthLevel::None ? nullptr : &account, level, negotiates};
    }

    // Carries bytes both ways, in pieces of this size, until neither end has more to say.
    void talk(ClientConnection& client, std::size_t piece = 1 << 20) {
        while (!client.output().empty() || !connection->output().empty()) {
            const Data there(client.output().begin(), client.output().end());
            client.sent(there.size());
            connection->feed(there);
            const Data back(connection->output().begin(), connection->output().end());
            connection->sent(back.size());
            for (std::size_t at = 0; at < back.size(); at += piece) {
                client.received(std::span(back).subspan(at, std::min(piece, back.size() - at)));
            }
        }
    }

    std::string callHex(ClientConnection& client, const CallTarget& target, const Data& stub, std::size_t piece) {
        std::string result = "no answer";
        client.call(
            target, [&stub](ndr::Writer& out) { out.bytes(stub); },
            [&result](const CallResult& answer) {
                result =
                    answer.fault != Fault::None ? "fault " + testing::PrintToString(answer.fault) : toHex(answer.stub);
            });
        talk(client, piece);
        return result;
    }

    // What the server's end answers to the beginning of a connection, up to and including this call's reply.
    Data recorded(ClientConnection& client) {
        Data all;
        for (int round = 0; round < 4; ++round) {
            connection->feed(Data(client.output().begin(), client.output().end()));
            client.sent(client.output().size());
            const Data back(connection->output().begin(), connection->output().end());
            connection->sent(back.size());
            all.insert(all.end(), back.begin(), back.end());
            client.received(back);
            if (client.idle() && back.size() > 0) {
                client.call(
                    {interfaceA, 3, {}}, [](ndr::Writer& out) { out.u32(7); }, [](const CallResult&) {});
            }
        }
        return all;
    }

    ntlm::ClientAccount account{"PLANT", "opc", ntlm::ntHash("secret"), "QUELM1"};
};

struct Way {
    AuthLevel level;
    bool negotiates;
    std::string account;
};

TEST_F(Calling, BindsLogsOnAndCallsAtEveryLevelHoweverTheAnswersAreCut) {
    for (const auto& [level, negotiates, name] :
         {Way{AuthLevel::None, false, ""}, Way{AuthLevel::Connect, false, "PLANT\\opc"},
          Way{AuthLevel::Integrity, false, "PLANT\\opc"}, Way{AuthLevel::Privacy, false, "PLANT\\opc"},
          Way{AuthLevel::Integrity, true, "PLANT\\opc"}, Way{AuthLevel::Privacy, true, "PLANT\\opc"}}) {
        for (const std::size_t piece : {std::size_t{1}, std::size_t{1000}, std::size_t{1} << 20}) {
            SCOPED_TRACE(fmt::format("{} {} {}", levelName(level), negotiates, piece));
            const LogOnSettings logOn = logOnAt(level, negotiates);
            reconnect();
            ClientConnection client(logOn, interfaceA, 1 << 20);
            talk(client, piece);
            ASSERT_TRUE(client.idle()) << clientFailureText(client.failure());
            const Uuid object = Uuid::parse("11223344-0000-0000-0000-000000000001");
            EXPECT_EQ(callHex(client, {interfaceA, 3, object}, fromHex("0102030405"), piece), "0102030405");
            // Another interface, which is bound to on the way; then requests and replies of many fragments.
            EXPECT_EQ(callHex(client, {interfaceB, 3, {}}, fromHex("0607"), piece), "0607");
            const Data large(20'000, 0x5A);
            EXPECT_EQ(callHex(client, {interfaceB, 3, object}, large, piece), toHex(large));
            EXPECT_EQ(callHex(client, {interfaceB, 5, {}}, {}, piece), "fault 1C010002");
            EXPECT_EQ(callHex(client, {Uuid{}, 3, {}}, {}, piece), "fault 1C010003");
            EXPECT_EQ(callHex(client, {interfaceA, 3, {}}, fromHex("08"), piece), "08");
            ASSERT_EQ(handler.calls.size(), 5U);
            EXPECT_EQ(handler.calls[0], fmt::format("A 3 {} '{}' 0102030405 11223344", levelName(level), name));
            EXPECT_EQ(refusals, std::vector<std::string>{});
        }
    }
}

TEST_F(Calling, SaysWhyAConnectionIsOfNoUse) {
    struct Case {
        std::string what;
        Data answer;
        ClientFailure failure;
    };
    for (const auto& [what, answer, failure] :
         {Case{"garbage", fromHex("48545450 2F312E31 20343030 20426164"), ClientFailure::NotRpc},
          Case{"no binding", pdu(PduType::BindNak, 3, 1, fromHex("0000 01 05 00 00 00 00")),
               ClientFailure::BindRefused},
          Case{"fault", pdu(PduType::Fault, 3, 1, fromHex("20000000 0000 0000 05000000 00000000")),
               ClientFailure::LogOnRefused},
          Case{"ack without a token",
               pdu(PduType::BindAck, 3, 1,
                   fromHex("D016D016 01000000 0000 0000 01000000"
                           "0000 0000 045D888AEB1CC9119FE808002B104860"
                           "02000000")),
               ClientFailure::LogOnTooWeak},
          Case{"a reply to nothing", pdu(PduType::Response, 3, 1, fromHex("00000000 0000 0000")),
               ClientFailure::OutOfOrder},
          Case{"cut ack", pdu(PduType::BindAck, 3, 1, fromHex("D016")), ClientFailure::NotRpc}}) {
        ClientConnection client({&account, AuthLevel::Integrity, false}, interfaceA);
        client.received(answer);
        EXPECT_EQ(client.failure(), failure) << what << ": " << clientFailureText(client.failure());
        EXPECT_TRUE(client.output().empty()) << what;
        client.received(answer);  // nothing is taken any more
    }
    // A reply larger than asked for, and one without its signature.
    const LogOnSettings logOn = logOnAt(AuthLevel::Integrity, false);
    reconnect();
    ClientConnection client(logOn, interfaceA, 1000);
    talk(client);
    EXPECT_EQ(callHex(client, {interfaceA, 4, {}}, fromHex("E9030000"), 1 << 20), "no answer");
    EXPECT_EQ(client.failure(), ClientFailure::AnswerTooLarge);
}

TEST_F(Calling, NoChangedByteOfAnAnswerDoesHarm) {
    for (const bool negotiates : {false, true}) {
        const LogOnSettings logOn = logOnAt(AuthLevel::Privacy, negotiates);
        reconnect();
        ClientConnection first(logOn, interfaceA);
        const Data good = recorded(first);
        for (std::size_t i = 0; i < good.size(); ++i) {
            Data bad = good;
            bad[i] ^= 0xFF;
            ClientConnection client(logOn, interfaceA);
            bool answered = false;
            client.received(bad);
            if (client.idle()) {
                client.call(
                    {interfaceA, 3, {}}, [](ndr::Writer& out) { out.u32(7); },
                    [&answered](const CallResult& result) { answered = result.fault == Fault::None; });
                client.received(std::span(bad).last(bad.size() / 4));
            }
            // Another session's bytes, changed or not, are never an answer.
            ASSERT_FALSE(answered) << i;
        }
    }
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
