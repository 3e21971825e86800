#include <gmock/gmock.h>

#include "RpcFixture.h"

namespace quelm::dcom::rpc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---- Binding -------------------------------------------------------------------------------------------------

TEST_F(RpcFixture, BindAnswersEachOfferedContext) {
    const Uuid features = "6CB71C2C-9812-4540-0300-000000000000"_uuid;
    const Uuid ndr64 = "71710533-BEBA-4937-8319-B5DBEF9CCC36"_uuid;
    const Data bind = pdu(
        PduType::Bind, 3, 9,
        bindBody({{0}, {1, interfaceUnknown}, {2, interfaceB, ndr64, 1}, {3, interfaceA, features, 1}, {4, interfaceB}},
                 5840));
    const Reply ack = expectOne(bind, PduType::BindAck);
    EXPECT_EQ(toHex(ack.raw),
              toHex(hex("05000C03 10000000 9C000000 09000000  D016D016 01000100 0400 31333500 0000  05000000"
                        "00000000 045D888AEB1CC9119FE808002B104860 02000000"
                        "02000100 00000000000000000000000000000000 00000000"
                        "02000200 00000000000000000000000000000000 00000000"
                        "03000300 00000000000000000000000000000000 00000000"
                        "00000000 045D888AEB1CC9119FE808002B104860 02000000")));
    EXPECT_FALSE(connection->closing());
}

TEST_F(RpcFixture, BindNegotiatesFragmentsAndKeepsTheGroup) {
    const struct {
        unsigned offered;
        unsigned taken;
    } cases[] = {{4280, 4280}, {5840, 5840}, {65535, 5840}, {0, 1432}};
    for (const auto& entry : cases) {
        const Reply ack = expectOne(pdu(PduType::Bind, 3, 0, bindBody({{0}}, entry.offered, 0x1234)), PduType::BindAck);
        EXPECT_EQ(ack.u16(16), entry.taken);
        EXPECT_EQ(ack.u16(18), entry.taken);
        EXPECT_EQ(ack.u32(20), 0x1234U);
    }
}

// ---- Sessions of the known clients -----------------------------------------------------------------------------

TEST_F(RpcFixture, ConnectLevelClientThatRepeatsAnEmptyLastMessage) {
    settings.logOn.allowNtlmV1Ess = true;
    NtlmLogOn client(Kind::V1, "opc", "secret");
    logOn(client, 2, 5);
    const Reply first = expectOne(request({.opnum = 3, .stub = hex("0102030405")}, 2, 5), PduType::Response);
    EXPECT_EQ(toHex(first.raw), toHex(hex("05000203 10000000 1D000000 00000000 05000000 00000000 0102030405")));

    const Data empty =
        hex("4E544C4D53535000 03000000 0000000000000000 0000000000000000 0000000000000000"
            "0000000000000000 0000000000000000 00000000FFFFFFFF 00000000");
    const Reply altered = expectOne(pdu(PduType::AlterContext, 3, 1, bindBody({{1, interfaceB}}), {2, 5, empty}),
                                    PduType::AlterContextResponse);
    EXPECT_EQ(toHex(altered.raw), toHex(hex("05000F03 10000000 38000000 01000000  B810B810 01000100 0000 0000  01000000"
                                            "00000000 045D888AEB1CC9119FE808002B104860 02000000")));

    const CallParts onObject{.contextId = 1, .opnum = 3, .stub = hex("AA"), .object = interfaceUnknown};
    expectOne(request(onObject, 2, 5), PduType::Response);
    EXPECT_THAT(handler.calls,
                ElementsAre("A 3 connect 'PLANT\\opc' 0102030405", "B 3 connect 'PLANT\\opc' AA 11111111"));
    EXPECT_THAT(refusals, IsEmpty());
}

TEST_F(RpcFixture, ConnectLevelClientWithoutAnyVerifier) {
    NtlmLogOn client(Kind::V2, "opc", "secret");
    logOn(client, 2, 79231);
    expectOne(request({.callId = 3, .opnum = 3, .stub = hex("01")}), PduType::Response);
    EXPECT_THAT(handler.calls, ElementsAre("A 3 connect 'PLANT\\opc' 01"));
}

class ProtectedLevel : public RpcFixture, public testing::WithParamInterface<unsigned> {};

// Logs on anew with each change of interface, and again with a second BIND.
TEST_P(ProtectedLevel, ClientThatLogsOnWithEveryChangeOfInterface) {
    const unsigned level = GetParam();
    const AuthLevel amountsTo = level == 6 ? AuthLevel::Privacy : AuthLevel::Integrity;
    settings.minimumLevel = AuthLevel::Integrity;
    NtlmLogOn first(Kind::V2, "opc", "secret");
    NtlmLogOn second(Kind::V2, "opc", "secret");
    NtlmLogOn third(Kind::V2, "opc", "secret");
    std::vector<std::string> replies;
    const auto call = [&](NtlmLogOn& client, std::uint32_t securityId, std::uint16_t contextId, const char* stub) {
        const CallParts parts{.callId = 4, .contextId = contextId, .opnum = 3, .stub = hex(stub)};
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

TEST_P(EachProtection, CallsArePutTogether) {
    const unsigned level = GetParam();
    NtlmLogOn client(Kind::V2, "opc", "secret");
    logOn(client, level, 1, {{0}}, PduType::Bind, 1432);
    const auto send = [&](std::uint16_t opnum, unsigned flags, const Data& stub) {
        const CallParts parts{.callId = 2, .opnum = opnum, .stub = stub, .flags = flags};
        return level == 2 ? request(parts, 2, 1) : protectedRequest(parts, level, 1, client);
    };
    EXPECT_THAT(exchange(send(3, flagFirst, hex("0102030405060708"))), IsEmpty());
    EXPECT_THAT(exchange(send(3, 0, hex("1112131415161718"))), IsEmpty());
    ASSERT_EQ(exchange(send(3, flagLast, hex("21"))).size(), 1U);
    ASSERT_EQ(handler.calls.size(), 1U);
    EXPECT_THAT(handler.calls[0], testing::EndsWith("0102030405060708111213141516171821"));
}

TEST_P(EachProtection, RepliesAreCutToWhatTheClientTakes) {
    const unsigned level = GetParam();
    const std::size_t piece = level == 2 ? 1408 : 1376;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, piece - 1, piece, piece + 1, 2 * piece,
                                   3 * piece + 5, std::size_t{480'000}}) {
        NtlmLogOn client(Kind::V2, "opc", "secret");
        logOn(client, level, 1, {{0}}, PduType::Bind, 1432);
        const CallParts parts{.opnum = 4, .stub = Builder().u32(static_cast<std::uint32_t>(size)).data()};
        const auto replies = exchange(level == 2 ? request(parts, 2, 1) : protectedRequest(parts, level, 1, client));
        ASSERT_EQ(replies.size(), std::max<std::size_t>(1, (size + piece - 1) / piece));
        Data whole;
        for (std::size_t i = 0; i < replies.size(); ++i) {
            const Reply& reply = replies[i];
            EXPECT_LE(reply.raw.size(), 1432U);
            EXPECT_EQ(reply.header.flags, (i == 0 ? flagFirst : 0) | (i + 1 == replies.size() ? flagLast : 0));
            EXPECT_EQ(reply.u32(16), size - whole.size());
            const auto stub = level == 2 ? std::optional(Data(reply.raw.begin() + 24, reply.raw.end()))
                                         : openReply(reply, level, client);
            ASSERT_TRUE(stub);
            EXPECT_TRUE(stub->size() % 8 == 0 || i + 1 == replies.size());
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

TEST_F(RpcFixture, PipelinedCallsWithTheSameIdAreAnsweredInOrder) {
    settings.minimumLevel = AuthLevel::None;
    exchange(pdu(PduType::Bind, 3, 0, bindBody({{0}})));
    Data stream;
    for (const char* stub : {"01", "02", "03"}) {
        const Data one = request({.opnum = 3, .stub = hex(stub)});
        stream.insert(stream.end(), one.begin(), one.end());
    }
    std::string stubs;
    for (const Reply& reply : exchange(stream)) {
        stubs += toHex(std::span(reply.raw).subspan(callHeaderSize));
    }
    EXPECT_EQ(stubs, "010203");
}

TEST_F(RpcFixture, FaultsLeaveTheConnectionUsable) {
    settings.minimumLevel = AuthLevel::None;
    exchange(pdu(PduType::Bind, 3, 0, bindBody({{0}})));
    EXPECT_EQ(expectOne(request({.opnum = 5, .stub = hex("01")}), PduType::Fault).faultStatus(), faultOpnumRange);
    EXPECT_EQ(expectOne(request({.contextId = 7, .opnum = 3}), PduType::Fault).faultStatus(), faultUnknownInterface);
    EXPECT_THAT(exchange(pdu(PduType::CoCancel, 3, 0, {})), IsEmpty());
    EXPECT_THAT(exchange(pdu(PduType::Shutdown, 3, 0, {})), IsEmpty());
    // A call that its client gives up half-way leaves no trace.
    EXPECT_THAT(exchange(request({.callId = 8, .opnum = 3, .stub = hex("01"), .flags = flagFirst})), IsEmpty());
    EXPECT_THAT(exchange(pdu(PduType::Orphaned, 3, 8, {})), IsEmpty());
    expectOne(request({.opnum = 3, .stub = hex("02")}), PduType::Response);
    EXPECT_FALSE(connection->closing());
}

TEST_F(RpcFixture, NoFurtherCallIsBegunWhileOutputWaits) {
    settings.minimumLevel = AuthLevel::None;
    settings.outputLimit = 1000;
    exchange(pdu(PduType::Bind, 3, 0, bindBody({{0}})));
    Data stream;
    for (int i = 0; i < 3; ++i) {
        const Data one = request({.opnum = 4, .stub = Builder().u32(999).data()});
        stream.insert(stream.end(), one.begin(), one.end());
    }
    connection->feed(stream);
    for (std::size_t calls = 1; calls <= 3; ++calls) {
        EXPECT_EQ(handler.calls.size(), calls);
        EXPECT_EQ(connection->waiting(), calls < 3);
        connection->sent(connection->output().size());
        connection->process();
    }
}

// ---- Refusals --------------------------------------------------------------------------------------------------

struct RefusalCase {
    const char* name;
    AuthLevel minimum;
    NtlmLogOn::Kind kind;
    unsigned level;
    const char* user;
    const char* password;
    const char* line;
};

class Refusals : public RpcFixture, public testing::WithParamInterface<RefusalCase> {};

TEST_P(Refusals, FaultEachCallAndAreSaidOnce) {
    const RefusalCase& param = GetParam();
    settings.minimumLevel = param.minimum;
    NtlmLogOn client(param.kind, param.user, param.password);
    logOn(client, param.level, 1);
    for (int i = 0; i < 2; ++i) {
        const CallParts parts{.callId = 2, .opnum = 3, .stub = hex("01")};
        EXPECT_EQ(expectOne(request(parts, param.level, 1), PduType::Fault).faultStatus(), faultAccessDenied);
    }
    EXPECT_THAT(handler.calls, IsEmpty());
    EXPECT_THAT(refusals, ElementsAre(param.line));
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, Refusals,
    testing::Values(
        RefusalCase{"LowLevel", AuthLevel::Integrity, NtlmLogOn::Kind::V2, 2, "opc", "secret",
                    "Refused OPC client 192.0.2.7:51234: account 'PLANT\\opc', level connect: the level is below "
                    "integrity; remedy: set the client's authentication level to packet integrity or packet privacy, "
                    "or lower the minimum level in the DCOM settings"},
        RefusalCase{"WrongPassword", AuthLevel::Integrity, NtlmLogOn::Kind::V2, 6, "opc", "wrong",
                    "Refused OPC client 192.0.2.7:51234: account 'PLANT\\opc', level privacy: wrong password; remedy: "
                    "give client and DCOM settings the same password"},
        RefusalCase{"UnknownAccount", AuthLevel::Integrity, NtlmLogOn::Kind::V2, 5, "who\nelse", "secret",
                    "Refused OPC client 192.0.2.7:51234: account 'PLANT\\who?else', level integrity: unknown account; "
                    "remedy: add the account to the DCOM settings, or let the client use one that is there"},
        RefusalCase{"OldNtlm", AuthLevel::Connect, NtlmLogOn::Kind::V1, 2, "opc", "secret",
                    "Refused OPC client 192.0.2.7:51234: account 'PLANT\\opc', level connect: NTLMv1 is not allowed; "
                    "remedy: let the client use NTLMv2, or allow NTLMv1 with extended session security in the DCOM "
                    "settings"}),
    [](const auto& entry) { return std::string(entry.param.name); });

TEST_F(RpcFixture, WithoutLogOnOnlyTheAllowedCallsAreMade) {
    exchange(pdu(PduType::Bind, 3, 0, bindBody({{0}})));
    expectOne(request({.opnum = 6, .stub = hex("01")}), PduType::Response);
    EXPECT_EQ(expectOne(request({.opnum = 3}), PduType::Fault).faultStatus(), faultAccessDenied);
    // All fragments of a refused call get one fault between them.
    EXPECT_EQ(exchange(request({.opnum = 3, .flags = flagFirst})).size(), 1U);
    EXPECT_THAT(exchange(request({.opnum = 3, .flags = flagLast})), IsEmpty());
    EXPECT_THAT(handler.calls, ElementsAre("A 6 none '' 01"));
    EXPECT_THAT(refusals, ElementsAre("Refused OPC client 192.0.2.7:51234: no account, level none: the client did not "
                                      "log on; remedy: let the client log on with an account of the DCOM settings"));
    EXPECT_FALSE(connection->closing());
}

TEST_F(RpcFixture, ChangedOrRepeatedMessagesEndTheConnection) {
    for (const unsigned level : {5U, 6U}) {
        const struct {
            const char* name;
            std::size_t flip;  // bit of which byte; 0: none, and the message is sent twice
        } cases[] = {{"opnum", 22}, {"stub", 24}, {"padding length", 30}, {"signature", 40}, {"repeated", 0}};
        for (const auto& entry : cases) {
            reconnect();
            refusals.clear();
            handler.calls.clear();
            NtlmLogOn client(Kind::V2, "opc", "secret");
            logOn(client, level, 1);
            Data call = protectedRequest({.callId = 2, .opnum = 3, .stub = hex("01020304")}, level, 1, client);
            if (entry.flip == 0) {
                expectOne(call, PduType::Response);
                handler.calls.clear();
            } else {
                call[entry.flip] ^= 1;
            }
            EXPECT_EQ(expectOne(call, PduType::Fault).faultStatus(), faultAccessDenied) << entry.name;
            EXPECT_TRUE(connection->closing()) << entry.name;
            EXPECT_THAT(handler.calls, IsEmpty()) << entry.name;
            EXPECT_EQ(refusals.size(), 1U) << entry.name;
        }
    }
}

TEST_F(RpcFixture, CallAtAnotherLevelThanItsLogOnEndsTheConnection) {
    NtlmLogOn client(Kind::V2, "opc", "secret");
    logOn(client, 6, 1);
    expectOne(request({.opnum = 3, .stub = hex("01")}, 2, 1), PduType::Fault);
    EXPECT_TRUE(connection->closing());
    EXPECT_THAT(handler.calls, IsEmpty());
}

// Whoever sits between client and server must not put an end of his own to a protected call.
TEST_F(RpcFixture, ALaterFragmentWithLessProtectionThanTheFirstEndsTheConnection) {
    for (const bool renegotiated : {false, true}) {
        reconnect();
        NtlmLogOn client(Kind::V2, "opc", "secret");
        logOn(client, 6, 0);
        EXPECT_THAT(exchange(protectedRequest({.opnum = 3, .stub = hex("01020304"), .flags = flagFirst}, 6, 0, client)),
                    IsEmpty());
        Data last = request({.opnum = 3, .stub = hex("05"), .flags = flagLast});
        if (renegotiated) {
            exchange(pdu(PduType::AlterContext, 3, 3, bindBody({{0}}), {6, 0, client.negotiate()}));
            last = request({.opnum = 3, .stub = hex("05"), .flags = flagLast}, 6, 0);
        }
        EXPECT_EQ(expectOne(last, PduType::Fault).faultStatus(), faultProtocol);
        EXPECT_TRUE(connection->closing());
        EXPECT_THAT(handler.calls, IsEmpty());
    }
}

// ---- Messages that make no sense -------------------------------------------------------------------------------

struct Nonsense {
    const char* name;
    std::vector<Data> messages;  // the last one is the bad one
    const char* reply;           // type and, of faults, status
    const char* reason;
};

class MalformedMessages : public RpcFixture, public testing::WithParamInterface<Nonsense> {};

TEST_P(MalformedMessages, CostThatConnectionOnly) {
    settings.minimumLevel = AuthLevel::None;
    settings.maxCallSize = 16;
    std::vector<Reply> replies;
    for (const Data& message : GetParam().messages) {
        EXPECT_FALSE(connection->closing());
        replies = exchange(message);
    }
    std::string got;
    for (const Reply& reply : replies) {
        got += fmt::format("{} {:X}", static_cast<int>(reply.type()), reply.faultStatus());
    }
    EXPECT_EQ(got, GetParam().reply);
    EXPECT_TRUE(connection->closing());
    ASSERT_EQ(refusals.size(), 1U);
    EXPECT_THAT(refusals[0], testing::HasSubstr(GetParam().reason));
    // Nothing more is looked at.
    EXPECT_THAT(exchange(pdu(PduType::Bind, 3, 0, bindBody({{0}}))), IsEmpty());
}

Data withByte(Data data, std::size_t at, std::uint8_t value) {
    data[at] = value;
    return data;
}

const Data plainBind = pdu(PduType::Bind, 3, 0, bindBody({{0}}));
const Data begun = request({.callId = 1, .opnum = 3, .stub = hex("01"), .flags = flagFirst});

INSTANTIATE_TEST_SUITE_P(
    Table, MalformedMessages,
    testing::Values(
        Nonsense{"WebBrowser", {hex("474554202F20485454502F312E310D0A0D0A")}, "", "not RPC version 5"},
        Nonsense{"OtherVersion", {withByte(plainBind, 0, 6)}, "13 0", "not RPC version 5"},
        Nonsense{"BigEndian", {withByte(plainBind, 4, 0)}, "13 0", "not little endian"},
        Nonsense{"TooShort", {withByte(plainBind, 8, 15)}, "13 0", "length is out of range"},
        Nonsense{"TooLong", {plainBind, withByte(request({.opnum = 3}), 9, 0x17)}, "", "length is out of range"},
        Nonsense{"BindCutInside", {withByte(pdu(PduType::Bind, 3, 0, Data(12)), 24, 200)}, "13 0", "bind message"},
        Nonsense{"BindTrailerOutside", {withByte(plainBind, 10, 0xFF)}, "13 0", "bind message"},
        Nonsense{"OtherAuthentication",
                 {withByte(pdu(PduType::Bind, 3, 0, bindBody({{0}}), {6, 1, Data(40)}), 72, 16)},
                 "13 0",
                 "authentication service 16 is not supported"},
        Nonsense{"NotNtlm", {pdu(PduType::Bind, 3, 0, bindBody({{0}}), {6, 1, Data(40)})}, "13 0", "not an NTLM"},
        Nonsense{"UnknownLevel",
                 {pdu(PduType::Bind, 3, 0, bindBody({{0}}),
                      {7, 1, NtlmLogOn(NtlmLogOn::Kind::V2, "opc", "secret").negotiate()})},
                 "13 0",
                 "level does not exist"},
        Nonsense{"CallBeforeBind", {request({.opnum = 3})}, "3 1C01000B", "did not bind first"},
        Nonsense{"AlterBeforeBind", {pdu(PduType::AlterContext, 3, 0, bindBody({{0}}))}, "3 1C01000B", "bind first"},
        Nonsense{"Auth3WithoutToken", {plainBind, pdu(PduType::Auth3, 3, 0, Data(4))}, "3 1C01000B", "log-on"},
        Nonsense{"CallWithoutObject", {plainBind, pdu(PduType::Request, 0x83, 0, Data(20))}, "3 1C01000B", "a call is"},
        Nonsense{"CallTooShort", {plainBind, pdu(PduType::Request, 3, 0, Data(4))}, "3 1C01000B", "a call is"},
        Nonsense{"ResponseFromClient", {plainBind, pdu(PduType::Response, 3, 0, Data(8))}, "3 1C01000B", "no client"},
        Nonsense{"UnknownType", {plainBind, pdu(static_cast<PduType>(99), 3, 0, {})}, "3 1C01000B", "no client"},
        Nonsense{"MiddleFirst", {plainBind, request({.opnum = 3, .flags = 0})}, "3 1C01000B", "out of order"},
        Nonsense{"LastFirst", {plainBind, request({.opnum = 3, .flags = flagLast})}, "3 1C01000B", "out of order"},
        Nonsense{"TwoFirsts", {plainBind, begun, begun}, "3 1C01000B", "out of order"},
        Nonsense{"WholeBetween", {plainBind, begun, request({.callId = 1, .opnum = 3})}, "3 1C01000B", "out of order"},
        Nonsense{"OtherCall",
                 {plainBind, begun, request({.callId = 2, .opnum = 3, .flags = flagLast})},
                 "3 1C01000B",
                 "different calls"},
        Nonsense{"OtherOpnum",
                 {plainBind, begun, request({.callId = 1, .opnum = 4, .flags = flagLast})},
                 "3 1C01000B",
                 "different calls"},
        Nonsense{"TooLarge",
                 {plainBind, begun, request({.callId = 1, .opnum = 3, .stub = Data(16), .flags = flagLast})},
                 "3 1C01000B",
                 "larger than this server takes"}),
    [](const auto& entry) { return std::string(entry.param.name); });

// A client may log on as often as it likes; only so many log-ons are kept, the ones in use among them.
TEST_F(RpcFixture, LogOnsWithoutEndKeepTheOneInUse) {
    NtlmLogOn kept(Kind::V2, "opc", "secret");
    logOn(kept, 6, 1000);
    for (std::uint32_t i = 0; i < 200; ++i) {
        NtlmLogOn client(Kind::V2, "opc", "secret");
        logOn(client, 6, i, {{static_cast<std::uint16_t>(i + 1), interfaceB}}, PduType::AlterContext);
        const Reply reply =
            expectOne(protectedRequest({.opnum = 3, .stub = hex("01")}, 6, 1000, kept), PduType::Response);
        ASSERT_EQ(openedHex(reply, 6, kept), "01");
    }
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
