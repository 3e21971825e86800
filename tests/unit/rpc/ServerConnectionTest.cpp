#include <gmock/gmock.h>

#include "RpcFixture.h"

namespace quelm::dcom::rpc::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// ---- Binding -------------------------------------------------------------------------------------------------

TEST_F(RpcFixture, BindAnswersEachOfferedContext) {
    const Uuid features = "6CB71C2C-9812-4540-0700-000000000000"_uuid;  // one too many
    const Uuid ndr64 = "71710533-BEBA-4937-8319-B5DBEF9CCC36"_uuid;
    const Data bind = pdu(
        PduType::Bind, 3, 9,
        bindBody({{0}, {1, interfaceUnknown}, {2, interfaceB, ndr64, 1}, {3, interfaceA, features, 1}, {4, interfaceB}},
                 5840));
    const Reply ack = expectOne(bind, PduType::BindAck);
    EXPECT_HEX(ack.raw,
               "05000C03 10000000 9C000000 09000000  D016D016 01000100 0400 31333500 0000  05000000"
               "00000000 045D888AEB1CC9119FE808002B104860 02000000"
               "02000100 00000000000000000000000000000000 00000000"
               "02000200 00000000000000000000000000000000 00000000"
               "03000300 00000000000000000000000000000000 00000000"
               "00000000 045D888AEB1CC9119FE808002B104860 02000000");
    EXPECT_FALSE(connection->closing());
}

TEST_F(RpcFixture, BindNegotiatesFragmentsAndKeepsTheGroup) {
    for (const auto& [offered, taken] : {std::pair{4280, 4280}, {5840, 5840}, {65535, 5840}, {0, 1432}}) {
        const Reply ack = expectOne(pdu(PduType::Bind, 3, 0, bindBody({{0}}, offered, 0x1234)), PduType::BindAck);
        EXPECT_EQ(ack.u16(16), taken);
        EXPECT_EQ(ack.u16(18), taken);
        EXPECT_EQ(ack.u32(20), 0x1234U);
    }
}

// ---- Sessions of the known clients -----------------------------------------------------------------------------

TEST_F(RpcFixture, ConnectLevelClientThatRepeatsAnEmptyLastMessage) {
    settings.logOn.allowNtlmV1Ess = true;
    NtlmLogOn client(Kind::V1);
    logOn(client, 2, 5);
    const Reply first = expectOne(request({.opnum = 3, .stub = fromHex("0102030405")}, 2, 5), PduType::Response);
    EXPECT_HEX(first.raw, "05000203 10000000 1D000000 00000000 05000000 00000000 0102030405");

    const Data empty = Builder().hex("4E544C4D53535000 03000000").add(Data(44)).hex("FFFFFFFF 00000000").data();
    expectOne(pdu(PduType::AlterContext, 3, 1, bindBody({{1, interfaceB}}), {2, 5, empty}),
              PduType::AlterContextResponse);
    const CallParts onObject{.contextId = 1, .opnum = 3, .stub = fromHex("AA"), .object = interfaceUnknown};
    expectOne(request(onObject, 2, 5), PduType::Response);
    EXPECT_THAT(handler.calls,
                ElementsAre("A 3 connect 'PLANT\\opc' 0102030405", "B 3 connect 'PLANT\\opc' AA 11111111"));
    EXPECT_THAT(refusals, IsEmpty());
}

TEST_F(RpcFixture, ConnectLevelClientWithoutAnyVerifier) {
    NtlmLogOn client;
    logOn(client, 2, 79231);
    expectOne(request({.callId = 3, .opnum = 3, .stub = fromHex("01")}), PduType::Response);
    EXPECT_THAT(handler.calls, ElementsAre("A 3 connect 'PLANT\\opc' 01"));
}

class ProtectedLevel : public RpcFixture, public testing::WithParamInterface<unsigned> {};

// Logs on anew with each change of interface, and again with a second BIND.
TEST_P(ProtectedLevel, ClientThatLogsOnWithEveryChangeOfInterface) {
    const unsigned level = GetParam();
    const AuthLevel amountsTo = level == 6 ? AuthLevel::Privacy : AuthLevel::Integrity;
    settings.minimumLevel = AuthLevel::Integrity;
    NtlmLogOn first;
    NtlmLogOn second;
    NtlmLogOn third;
    std::vector<std::string> replies;
    const auto call = [&](NtlmLogOn& client, std::uint32_t securityId, std::uint16_t contextId, const char* stub) {
        const CallParts parts{.callId = 4, .contextId = contextId, .opnum = 3, .stub = fromHex(stub)};
        const Reply reply = expectOne(protectedRequest(parts, level, securityId, client), PduType::Response);
        EXPECT_EQ(reply.header.callId, 4U);
        EXPECT_EQ(reply.u16(20), contextId);
        replies.push_back(openedHex(reply, level, client));
    };
    logOn(first, level, 79231);
    call(first, 79231, 0, "01");
    call(first, 79231, 0, "0102030405060708");
    logOn(second, level, 79232, {{1, interfaceB}}, PduType::AlterContext);
    call(second, 79232, 1, "0203");
    call(first, 79231, 0, "");
    logOn(third, level, 79231, {{0, interfaceB}});
    call(third, 79231, 0, "03");

    EXPECT_THAT(replies, ElementsAre("01", "0102030405060708", "0203", "", "03"));
    const std::string who = fmt::format(" 3 {} 'PLANT\\opc' ", levelName(amountsTo));
    EXPECT_THAT(handler.calls, ElementsAre("A" + who + "01", "A" + who + "0102030405060708", "B" + who + "0203",
                                           "A" + who, "B" + who + "03"));
    EXPECT_THAT(refusals, IsEmpty());

    // The very same bytes with any other cuts give the very same calls.
    const auto calls = std::exchange(handler.calls, {});
    for (std::size_t cut = 1; cut < sent.size(); ++cut) {
        ServerConnection other(settings, handler, peer());
        other.feed(std::span(sent).first(cut));
        other.feed(std::span(sent).subspan(cut));
        EXPECT_EQ(std::exchange(handler.calls, {}), calls) << "cut at " << cut;
    }
    ServerConnection byBytes(settings, handler, peer());
    for (const std::uint8_t& byte : sent) {
        byBytes.feed({&byte, 1});
    }
    EXPECT_EQ(handler.calls, calls);
}

INSTANTIATE_TEST_SUITE_P(Levels, ProtectedLevel, testing::Values(3U, 4U, 5U, 6U));

class EachProtection : public ProtectedLevel {};

// They count among the messages of their log-on, so that the next call's signature is right only if theirs were looked
// at; a damaged one ends the connection.
TEST_P(EachProtection, CancelsAndOrphansMayBeSigned) {
    const unsigned level = GetParam();
    NtlmLogOn client;
    logOn(client, level, 1);
    const auto call = [&](unsigned flags, const char* stub) {
        return protectedRequest({.callId = 2, .opnum = 3, .stub = fromHex(stub), .flags = flags}, level, 1, client);
    };
    EXPECT_THAT(exchange(call(flagFirst, "0102030405060708")), IsEmpty());
    EXPECT_THAT(exchange(protectedCancel(PduType::CoCancel, 2, level, 1, client)), IsEmpty());
    EXPECT_THAT(exchange(protectedCancel(PduType::Orphaned, 2, level, 1, client)), IsEmpty());
    EXPECT_EQ(openedHex(expectOne(call(flagFirst | flagLast, "03"), PduType::Response), level, client), "03");
    Data damaged = protectedCancel(PduType::CoCancel, 2, level, 1, client);
    damaged[12] ^= 1;
    EXPECT_EQ(exchange(damaged).size(), level == 2 ? 0U : 1U);
    EXPECT_EQ(connection->closing(), level != 2);
}

TEST_P(EachProtection, RepliesAreCutToWhatTheClientTakes) {
    const unsigned level = GetParam();
    const std::size_t piece = level == 2 ? 1408 : 1376;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, piece - 1, piece, piece + 1, 2 * piece,
                                   3 * piece + 5, std::size_t{480'000}}) {
        NtlmLogOn client;
        logOn(client, level, 1, {{0}}, PduType::Bind, 1437);
        const CallParts parts{.opnum = 4, .stub = Builder().u32(size).data()};
        const auto replies = exchange(protectedRequest(parts, level, 1, client));
        ASSERT_EQ(replies.size(), std::max<std::size_t>(1, (size + piece - 1) / piece));
        Data whole;
        for (const Reply& reply : replies) {
            const bool isLast = &reply == &replies.back();
            EXPECT_LE(reply.raw.size(), 1437U);
            EXPECT_EQ(reply.header.flags, (whole.empty() ? flagFirst : 0) | (isLast ? flagLast : 0));
            EXPECT_EQ(reply.u32(16), size - whole.size());
            const auto stub = openReply(reply, level, client);
            ASSERT_TRUE(stub);
            EXPECT_TRUE(stub->size() % 8 == 0 || isLast);
            whole.insert(whole.end(), stub->begin(), stub->end());
        }
        ASSERT_EQ(whole.size(), size);
        for (std::size_t i = 0; i < size; ++i) {
            ASSERT_EQ(whole[i], RecordingHandler::pattern(i)) << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Levels, EachProtection, testing::Values(2U, 5U, 6U));

// ---- Calls -----------------------------------------------------------------------------------------------------

TEST_F(RpcFixture, FaultsLeaveTheConnectionUsable) {
    bindWithoutLogOn();
    EXPECT_EQ(expectOne(request({.opnum = 5, .stub = fromHex("01")}), PduType::Fault).faultStatus(), Fault::OpnumRange);
    EXPECT_EQ(expectOne(request({.contextId = 7, .opnum = 3}), PduType::Fault).faultStatus(), Fault::UnknownInterface);
    EXPECT_THAT(exchange(pdu(PduType::CoCancel, 3, 0, {})), IsEmpty());
    EXPECT_THAT(exchange(pdu(PduType::Shutdown, 3, 0, {})), IsEmpty());
    // A call that its client gives up half-way leaves no trace.
    EXPECT_THAT(exchange(request({.callId = 8, .opnum = 3, .stub = fromHex("01"), .flags = flagFirst})), IsEmpty());
    EXPECT_THAT(exchange(pdu(PduType::Orphaned, 3, 8, {})), IsEmpty());
    expectOne(request({.opnum = 3, .stub = fromHex("02")}), PduType::Response);
    EXPECT_FALSE(connection->closing());
}

// Calls sent one behind the other, all under the same number.
TEST_F(RpcFixture, NoFurtherCallIsBegunWhileOutputWaits) {
    bindWithoutLogOn();
    settings.outputLimit = 1000;
    Builder stream;
    for (const unsigned size : {1001U, 1002U, 1003U}) {
        stream.add(request({.opnum = 4, .stub = Builder().u32(size).data()}));
    }
    connection->feed(stream.data());
    for (std::size_t calls = 1; calls <= 3; ++calls) {
        EXPECT_EQ(handler.calls.size(), calls);
        EXPECT_EQ(connection->waiting(), calls < 3);
        EXPECT_EQ(connection->output().size(), callHeaderSize + 1000 + calls);
        connection->sent(connection->output().size());
        connection->process();
    }
}

TEST_F(RpcFixture, WhatAConnectionHoldsCountsForTheClientBehindIt) {
    ClientBudgets budgets([] { return std::size_t{0}; });
    settings.budgets = &budgets;
    reconnect();
    NtlmLogOn client;
    logOn(client, 2, 1);
    const auto send = [&](const CallParts& parts) { connection->feed(protectedRequest(parts, 2, 1, client)); };
    const auto budget = budgets.of("PLANT\\opc", "192.0.2.7");
    send({.opnum = 4, .stub = Builder().u32(4'000'000).data()});
    EXPECT_GE(budget->memory.used(), 4'000'000U);
    connection->sent(connection->output().size());
    EXPECT_LT(budget->memory.used(), 4'000'000U);

    Hold rest = memoryOf(budget);
    rest.set(budget->memory.room());
    send({.callId = 2, .opnum = 3, .stub = fromHex("0102030405060708"), .flags = flagFirst});
    send({.callId = 2, .opnum = 3, .stub = fromHex("11"), .flags = flagLast});
    send({.callId = 3, .opnum = 3, .stub = fromHex("21")});
    const auto replies = splitReplies(connection->output());
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0].faultStatus(), Fault::OutOfMemory);
    EXPECT_EQ(replies[1].type(), PduType::Response);
    rest = {};
    connection.reset();
    EXPECT_EQ(budget->memory.used(), 0U);
}

// ---- Refusals --------------------------------------------------------------------------------------------------

TEST_F(RpcFixture, RefusedLogOnsFaultEachCallAndAreSaidOnce) {
    struct {
        AuthLevel minimum;
        NtlmLogOn client;
        unsigned level;
        const char* line;
    } cases[] = {
        {AuthLevel::Integrity, NtlmLogOn(), 2,
         "account 'PLANT\\opc', level connect: the level is below integrity; remedy"},
        {AuthLevel::Integrity, NtlmLogOn(Kind::V2, "opc", "wrong"), 6,
         "account 'PLANT\\opc', level privacy: wrong password"},
        {AuthLevel::Integrity, NtlmLogOn(Kind::V2, "who\nelse"), 5,
         "account 'PLANT\\who?else', level integrity: unknown account"},
        {AuthLevel::Connect, NtlmLogOn(Kind::V1), 2,
         "account 'PLANT\\opc', level connect: NTLMv1 is not allowed; remedy"},
    };
    for (auto& entry : cases) {
        reconnect();
        settings.minimumLevel = entry.minimum;
        logOn(entry.client, entry.level, 1);
        for (int i = 0; i < 2; ++i) {
            const Data call = request({.callId = 2, .opnum = 3, .stub = fromHex("01")}, entry.level, 1);
            EXPECT_EQ(expectOne(call, PduType::Fault).faultStatus(), Fault::AccessDenied);
        }
        EXPECT_THAT(handler.calls, IsEmpty());
        EXPECT_THAT(refusals, ElementsAre(HasSubstr(entry.line)));
    }
}

TEST_F(RpcFixture, WithoutLogOnOnlyTheAllowedCallsAreMade) {
    exchange(pdu(PduType::Bind, 3, 0, bindBody({{0}, {1, interfaceOpen}})));
    expectOne(request({.contextId = 1, .opnum = 6, .stub = fromHex("01")}), PduType::Response);
    EXPECT_EQ(expectOne(request({.opnum = 3}), PduType::Fault).faultStatus(), Fault::AccessDenied);
    // All fragments of a refused call get one fault between them, and nothing of it is kept, however large it is.
    const std::size_t held = connection->bytesHeld();
    EXPECT_EQ(exchange(request({.opnum = 3, .flags = flagFirst})).size(), 1U);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_THAT(exchange(request({.opnum = 3, .stub = Data(5000), .flags = 0})), IsEmpty());
    }
    EXPECT_THAT(exchange(request({.opnum = 3, .flags = flagLast})), IsEmpty());
    EXPECT_LE(connection->bytesHeld(), held);
    EXPECT_THAT(handler.calls, ElementsAre("open 6 none '' 01"));
    EXPECT_THAT(refusals, ElementsAre("Refused OPC client 192.0.2.7:51234: no account, level none: the client did not "
                                      "log on; remedy: let the client log on with an account of the DCOM settings"));
    EXPECT_FALSE(connection->closing());
}

// A machine's own account is unknown here; the machine then asks again without any. Whoever tries another account is
// told of in the log, whatever it is that is asked.
TEST_F(RpcFixture, AMachineThatAsksWithItsOwnAccountIsNoRefusedClient) {
    settings.minimumLevel = AuthLevel::Integrity;
    const std::tuple<const char*, Uuid, std::size_t> cases[] = {
        {"PC1$", interfaceOpen, 0}, {"PC1$", interfaceA, 1}, {"operator", interfaceOpen, 1}};
    for (const auto& [user, interfaceId, lines] : cases) {
        reconnect();
        NtlmLogOn client(Kind::V2, user);
        logOn(client, 5, 1, {{0, interfaceId}});
        const Data call = request({.callId = 2, .opnum = 3, .stub = fromHex("01")}, 5, 1);
        EXPECT_EQ(expectOne(call, PduType::Fault).faultStatus(), Fault::AccessDenied);
        EXPECT_EQ(refusals.size(), lines) << user;
    }
    reconnect();
    NtlmLogOn known;
    logOn(known, 2, 1, {{0, interfaceOpen}});  // below the minimum
    expectOne(request({.callId = 2, .opnum = 3, .stub = fromHex("01")}, 2, 1), PduType::Response);
    EXPECT_THAT(refusals, IsEmpty());
}

TEST_F(RpcFixture, ChangedOrRepeatedMessagesEndTheConnection) {
    for (const unsigned level : {5U, 6U}) {
        const struct {
            const char* name;
            std::size_t flip;  // bit of which byte; 0: none, and the message is sent twice
        } cases[] = {{"opnum", 22}, {"object", 27}, {"stub", 40}, {"padding", 46}, {"signature", 56}, {"repeated", 0}};
        for (const auto& entry : cases) {
            reconnect();
            NtlmLogOn client;
            logOn(client, level, 1);
            const CallParts parts{.callId = 2, .opnum = 3, .stub = fromHex("01020304"), .object = interfaceB};
            Data call = protectedRequest(parts, level, 1, client);
            if (entry.flip == 0) {
                expectOne(call, PduType::Response);
                handler.calls.clear();
            } else {
                call[entry.flip] ^= 1;
            }
            EXPECT_EQ(expectOne(call, PduType::Fault).faultStatus(), Fault::AccessDenied) << entry.name;
            EXPECT_TRUE(connection->closing()) << entry.name;
            EXPECT_THAT(handler.calls, IsEmpty()) << entry.name;
            EXPECT_EQ(refusals.size(), 1U) << entry.name;
        }
    }
}

TEST_F(RpcFixture, CallAtAnotherLevelThanItsLogOnEndsTheConnection) {
    NtlmLogOn client;
    logOn(client, 6, 1);
    expectOne(request({.opnum = 3, .stub = fromHex("01")}, 2, 1), PduType::Fault);
    EXPECT_TRUE(connection->closing());
    EXPECT_THAT(handler.calls, IsEmpty());
}

// Whoever sits between client and server must not put an end of his own to a protected call.
TEST_F(RpcFixture, ALaterFragmentWithLessProtectionThanTheFirstEndsTheConnection) {
    for (const bool renegotiated : {false, true}) {
        reconnect();
        NtlmLogOn client;
        logOn(client, 6, 0);
        EXPECT_THAT(
            exchange(protectedRequest({.opnum = 3, .stub = fromHex("01020304"), .flags = flagFirst}, 6, 0, client)),
            IsEmpty());
        Data last = request({.opnum = 3, .stub = fromHex("05"), .flags = flagLast});
        if (renegotiated) {
            exchange(pdu(PduType::AlterContext, 3, 3, bindBody({{0}}), {6, 0, client.negotiate()}));
            last = request({.opnum = 3, .stub = fromHex("05"), .flags = flagLast}, 6, 0);
        }
        EXPECT_EQ(expectOne(last, PduType::Fault).faultStatus(), Fault::Protocol);
        EXPECT_TRUE(connection->closing());
        EXPECT_THAT(handler.calls, IsEmpty());
    }
}

// ---- Messages that make no sense -------------------------------------------------------------------------------

Data withByte(Data data, std::size_t at, std::uint8_t value) {
    data[at] = value;
    return data;
}

TEST_F(RpcFixture, MessagesThatMakeNoSenseCostThatConnectionOnly) {
    settings.minimumLevel = AuthLevel::None;
    settings.maxCallSize = 16;
    const Data bind = pdu(PduType::Bind, 3, 0, bindBody({{0}}));
    const Data begun = request({.callId = 1, .opnum = 3, .stub = fromHex("01"), .flags = flagFirst});
    const auto negotiation = [](unsigned level, const Data& token, unsigned type = 10) {
        return pdu(PduType::Bind, 3, 0, bindBody({{0}}), {level, 1, token, type});
    };
    const auto last = [](std::uint32_t callId, std::uint16_t opnum, std::size_t size = 0) {
        return request({.callId = callId, .opnum = opnum, .stub = Data(size), .flags = flagLast});
    };
    const char* nothing = "";
    const char* nak = "13 0";
    const char* fault = "3 1C01000B";
    const struct {
        std::vector<Data> messages;  // the last one is the bad one
        const char* reply;           // type and, of faults, status
        const char* reason;
    } cases[] = {
        {{fromHex("474554202F20485454502F312E310D0A0D0A")}, nothing, "not RPC version 5"},
        {{withByte(bind, 0, 6)}, nak, "not RPC version 5"},
        {{withByte(bind, 4, 0)}, nak, "not little endian"},
        {{bind, withByte(request({.opnum = 3}), 9, 0x17)}, nothing, "length is out of range"},
        {{bind, withByte(request({.opnum = 3}), 8, 15)}, nothing, "length is out of range"},
        // A trailer that begins in the header: by its padding, by its token.
        {{bind, withByte(request({.opnum = 3}, 2, 1), 26, 1)}, fault, "a call is"},
        {{bind, withByte(request({.opnum = 3}, 2, 1), 10, 17)}, fault, "a call is"},
        {{withByte(pdu(PduType::Bind, 3, 0, Data(12)), 24, 200)}, nak, "bind message"},
        {{withByte(bind, 10, 0xFF)}, nak, "bind message"},
        {{negotiation(6, Data(40), 16)}, nak, "authentication service 16 is not supported"},
        {{negotiation(6, Data(40))}, nak, "not an NTLM"},
        {{negotiation(7, NtlmLogOn().negotiate())}, nak, "level does not exist"},
        {{request({.opnum = 3})}, fault, "did not bind first"},
        {{pdu(PduType::AlterContext, 3, 0, bindBody({{0}}))}, fault, "bind first"},
        {{bind, pdu(PduType::Auth3, 3, 0, Data(4))}, fault, "log-on"},
        {{bind, pdu(PduType::Request, 0x83, 0, Data(20))}, fault, "a call is"},
        {{bind, pdu(PduType::Request, 3, 0, Data(4))}, fault, "a call is"},
        {{bind, pdu(PduType::Response, 3, 0, Data(8))}, fault, "no client"},
        {{bind, pdu(static_cast<PduType>(99), 3, 0, {})}, fault, "no client"},
        {{bind, request({.opnum = 3, .flags = 0})}, fault, "out of order"},
        {{bind, last(1, 3)}, fault, "out of order"},
        {{bind, begun, begun}, fault, "out of order"},
        {{bind, begun, request({.callId = 1, .opnum = 3})}, fault, "out of order"},
        {{bind, begun, last(2, 3)}, fault, "different calls"},
        {{bind, begun, last(1, 4)}, fault, "different calls"},
        {{bind, begun, last(1, 3, 16)}, fault, "larger than this server takes"},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.reason);
        reconnect();
        std::vector<Reply> replies;
        for (const Data& message : entry.messages) {
            EXPECT_FALSE(connection->closing());
            replies = exchange(message);
        }
        std::string got;
        for (const Reply& reply : replies) {
            got += fmt::format("{} {:X}", static_cast<int>(reply.type()), fmt::underlying(reply.faultStatus()));
        }
        EXPECT_EQ(got, entry.reply);
        EXPECT_TRUE(connection->closing());
        EXPECT_THAT(refusals, ElementsAre(HasSubstr(entry.reason)));
        EXPECT_THAT(exchange(bind), IsEmpty()) << "nothing more is looked at";
    }
}

// Or it would wait for the answer to its own number for ever.
TEST_F(RpcFixture, ABigEndianClientIsToldThatItIsRefused) {
    const Reply nak = expectOne(fromHex("05000B03 00000000 00480000 00000001"), PduType::BindNak);
    EXPECT_HEX(nak.raw, "05000D03 10000000 18000000 01000000 0400 01 0500 000000");
}

// A client may log on as often as it likes; only so many log-ons are kept, the ones in use among them.
TEST_F(RpcFixture, LogOnsWithoutEndKeepTheOneInUse) {
    NtlmLogOn kept;
    logOn(kept, 6, 1000);
    for (std::uint32_t i = 0; i < 200; ++i) {
        NtlmLogOn client;
        logOn(client, 6, i, {{static_cast<std::uint16_t>(i + 1), interfaceB}}, PduType::AlterContext);
        const Reply reply =
            expectOne(protectedRequest({.opnum = 3, .stub = fromHex("01")}, 6, 1000, kept), PduType::Response);
        ASSERT_EQ(openedHex(reply, 6, kept), "01");
    }
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
