// A whole session with the habits of Windows clients, over real connections: what they negotiate, log on with, call and
// let go of, and how their machines ping.

#include "dcom/ntlm/AccountTable.h"
#include "dcom/rpc/ServerConnection.h"
#include "dcom/rpc/Spnego.h"
#include "orpc/OrpcWorld.h"
#include "rpc/RpcClient.h"

namespace quelm::dcom::orpc::test {

using quelm::test::toHex;
using rpc::PduType;
using rpc::test::NtlmLogOn;
using rpc::test::Offer;
using rpc::test::Reply;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned raw = 10;
constexpr unsigned negotiated = 9;
constexpr unsigned integrity = 5;
constexpr unsigned privacy = 6;
// Behind a call's parameters, on multiples of four: whose answer this must be. Bit pattern, a bit mask, a binding.
constexpr std::string_view verificationTrailer =
    "8AE3137102F43671 01000400 01000000 02402800 4D9DC1391E01D0119675 0020AFD8ADB3 00000000"
    "045D888AEB1CC9119FE808002B104860 02000000";

class WindowsClient : public World {
 protected:
    WindowsClient() { accounts_.add("*", "reader", ntlm::ntHash("secret")); }

    std::unique_ptr<rpc::ServerConnection> open(rpc::CallHandler& port, std::uint64_t id, const std::string& host) {
        return std::make_unique<rpc::ServerConnection>(wire_, port, peer(id, host));
    }

    // The one answer to a message.
    static Reply ask(rpc::ServerConnection& connection, const Bytes& message) {
        connection.feed(message);
        auto replies = rpc::test::splitReplies(connection.output());
        connection.sent(connection.output().size());
        EXPECT_EQ(replies.size(), 1U);
        return replies.empty() ? Reply{} : replies[0];
    }

    static Bytes bindOrAlter(PduType type, std::uint16_t id, const Uuid& iid, const rpc::test::Security& security) {
        return rpc::test::pdu(type, 7, 1, rpc::test::bindBody({{id, iid}}, 5840), security);
    }

    // The same for a step of a log-on, in which the server agrees to sign headers.
    static Reply askSigned(rpc::ServerConnection& connection, const Bytes& message) {
        Reply answer = ask(connection, message);
        EXPECT_NE(answer.header.flags & rpc::flagHeaderSigning, 0);
        return answer;
    }

    // A bare log-on for an interface.
    static void logOn(rpc::ServerConnection& connection, PduType type, std::uint16_t id, const Uuid& iid,
                      unsigned level, NtlmLogOn& client) {
        const Reply answer = askSigned(connection, bindOrAlter(type, id, iid, {level, id, client.negotiate(), raw}));
        connection.feed(
            rpc::test::pdu(PduType::Auth3, 3, 1, Bytes(4), {level, id, client.authenticate(answer.token()), raw}));
        EXPECT_TRUE(connection.output().empty());
        EXPECT_TRUE(connection.loggedOn());
    }

    // What a protected call gives behind the header of all object calls.
    static Bytes call(rpc::ServerConnection& connection, const rpc::test::CallParts& parts, unsigned level,
                      NtlmLogOn& client, unsigned type = raw) {
        const Reply answer = ask(connection, rpc::test::protectedRequest(parts, level, parts.contextId, client, type));
        EXPECT_EQ(answer.type(), PduType::Response) << answer.faultStatus();
        return rpc::test::openReply(answer, level, client).value_or(Bytes());
    }

    ntlm::AccountTable accounts_;
    std::vector<std::string> refusals_;
    rpc::ServerSettings wire_{
        .accounts = accounts_,
        .logOn = {.computerName = "SERVER", .domainName = "PLANT", .dnsComputerName = {}, .dnsDomainName = {}},
        .minimumLevel = rpc::AuthLevel::Integrity,
        .maxCallSize = 16U << 20U,
        .outputLimit = 256U << 10U,
        .onRefused = [this](const rpc::Refusal& refusal) { refusals_.push_back(refusal.line()); },
        .challenge = {}};
};

// Before any log-on the first BIND of all asks for optional features, in the guise of a transfer syntax.
TEST_F(WindowsClient, AsksForFeaturesAndWhetherTheServerLives) {
    const auto port = open(activation, 1, "192.0.2.7");
    const Uuid features = Uuid::parse("6CB71C2C-9812-4540-0300-000000000000");
    const Reply ack =
        ask(*port,
            rpc::test::pdu(PduType::Bind, 3, 1,
                           rpc::test::bindBody({{0, iidObjectExporter}, {1, iidObjectExporter, features, 1}}, 5840)));
    // The results: NDR is taken, the two features are.
    EXPECT_HEX(Bytes(ack.raw.end() - 48, ack.raw.end()),
               "00000000 045D888AEB1CC9119FE808002B104860 02000000"
               "03000300 00000000000000000000000000000000 00000000");
    const Reply alive = ask(*port, rpc::test::request({.callId = 2, .opnum = 5}));
    EXPECT_EQ(alive.type(), PduType::Response);
    EXPECT_THAT(refusals_, IsEmpty());
}

// Kerberos comes first among four mechanisms, with a ticket; the server turns to NTLM and both sign the list.
TEST_F(WindowsClient, ActivatesByANegotiationWithFourMechanisms) {
    const auto port = open(activation, 1, "192.0.2.7");
    const std::string list =
        "302E 06092A864882F712010202 06092A864886F712010202 060A2B06010401823702021E"
        "060A2B06010401823702020A";
    const Bytes mechanisms = fromHex(list);
    NtlmLogOn client(NtlmLogOn::Kind::V2, "reader");
    const auto step = [&port](PduType type, const Bytes& token) {
        return askSigned(*port, bindOrAlter(type, 0, iidActivation, {privacy, 0, token, negotiated}));
    };
    const auto behind = [](std::string_view tag, const Bytes& content) {
        const std::size_t size = content.size();
        rpc::test::Builder out;
        return out.hex(tag).u8(0x82).u8(size >> 8).u8(size & 0xFF).add(content).data();
    };
    const auto later = [&behind](const Bytes& inner, const Bytes& signature) {
        rpc::test::Builder fields;
        fields.add(behind("A2", behind("04", inner)));
        if (!signature.empty()) {
            fields.add(behind("A3", behind("04", signature)));
        }
        return behind("A1", behind("30", fields.data()));
    };
    const Bytes ticket = behind("6E", Bytes(1700, 0xCC));
    rpc::test::Builder fields;
    fields.hex("A030").hex(list).add(behind("A2", behind("04", ticket)));
    rpc::test::Builder offer;
    offer.hex("06062B0601050502").add(behind("A0", behind("30", fields.data())));
    EXPECT_HEX(step(PduType::Bind, behind("60", offer.data())).token(),
               "A115 3013 A003 0A0103 A10C 060A2B06010401823702020A");

    const Bytes challenge = step(PduType::AlterContext, later(client.negotiate(), {})).token();
    EXPECT_EQ(toHex(challenge).find("060A2B06010401823702020A"), std::string::npos) << "the mechanism is named once";
    const auto inner = rpc::spnego::parse(challenge).value();
    const Bytes last = client.authenticate({inner.inner.begin(), inner.inner.end()});
    ntlm::ServerContext::Signature signature{};
    client.security().signNegotiation(mechanisms, signature);
    const Bytes done = step(PduType::AlterContext, later(last, {signature.begin(), signature.end()})).token();
    EXPECT_HEX(Bytes(done.begin(), done.begin() + 14), "A11B 3019 A003 0A0100 A312 0410 01");
    EXPECT_TRUE(client.security().verifyNegotiation(mechanisms, rpc::spnego::parse(done)->signature));
    reply = call(*port, {.callId = 3, .stub = activationRequest(classTest, {iidServer}).bytes()}, privacy, client,
                 negotiated);
    EXPECT_EQ(references().size(), 1U);
    EXPECT_THAT(refusals_, IsEmpty());
}

// One connection asks for interfaces at integrity and calls at privacy; another one of the same client lets go.
TEST_F(WindowsClient, CallsUnderTwoLogOnsAndReleasesOverAnotherConnection) {
    account = "PLANT\\reader";
    const Uuid server = activate(peer(1));
    const auto first = open(objects, 2, "192.0.2.7");
    NtlmLogOn asking(NtlmLogOn::Kind::V2, "reader");
    NtlmLogOn calling(NtlmLogOn::Kind::V2, "reader");
    logOn(*first, PduType::Bind, 0, iidRemUnknown2, integrity, asking);
    logOn(*first, PduType::AlterContext, 1, iidServer, privacy, calling);

    const Uuid remUnknown = exporter.remUnknownIpid();
    const auto query = [&](const Uuid& iid) {
        return call(*first,
                    {.callId = 2, .opnum = 3, .stub = World::query(server, 5, {iid}).bytes(), .object = remUnknown},
                    integrity, asking);
    };
    const Bytes found = query(iidBrowse);
    ndr::Reader in(std::span<const std::uint8_t>(found).subspan(24));
    const Uuid browse = readReference(in).ipid;
    const Bytes missing = query(iidNobody);  // the reason in its entry and as the call's result
    EXPECT_HEX(Bytes(missing.begin() + 16, missing.begin() + 20), "02400080");
    EXPECT_HEX(Bytes(missing.end() - 4, missing.end()), "02400080");

    for (int i = 0; i < 2; ++i) {  // either log-on counts its own messages
        const Parameters echo = request().u32(42).hex(verificationTrailer);
        EXPECT_HEX(call(*first, {.callId = 3, .contextId = 1, .opnum = 6, .stub = echo.bytes(), .object = browse},
                        privacy, calling),
                   "00000000 00000000 2A000000");
        query(iidServer);
    }
    const auto second = open(objects, 3, "192.0.2.7");
    NtlmLogOn releasing(NtlmLogOn::Kind::V2, "reader");
    logOn(*second, PduType::Bind, 0, iidRemUnknown2, integrity, releasing);
    const Parameters all = changes({{server, 5, 0}, {browse, 5, 0}, {server, 5, 0}, {server, 5, 0}});
    EXPECT_HEX(
        call(*second, {.callId = 2, .opnum = 5, .stub = all.bytes(), .object = remUnknown}, integrity, releasing),
        "00000000 00000000 00000000");
    EXPECT_THAT(events, ElementsAre("server1"));
    EXPECT_THAT(refusals_, IsEmpty());
}

// The machine pings, not the program: with its own account, which nobody knows here, then with none.
TEST_F(WindowsClient, IsKeptAliveByItsMachine) {
    const Uuid server = activate(peer(1));
    const Bytes ping = complexPing(0, 1, {lastOid}, {}).bytes();
    const auto foreign = open(activation, 4, "192.0.2.7");
    NtlmLogOn machine(NtlmLogOn::Kind::V2, "PC1$");
    const Reply challenge =
        ask(*foreign, bindOrAlter(PduType::Bind, 0, iidObjectExporter, {integrity, 0, machine.negotiate(), raw}));
    foreign->feed(
        rpc::test::pdu(PduType::Auth3, 3, 1, Bytes(4), {integrity, 0, machine.authenticate(challenge.token())}));
    const Reply refused =
        ask(*foreign, rpc::test::protectedRequest({.callId = 2, .opnum = 2, .stub = ping}, integrity, 0, machine));
    EXPECT_EQ(refused.faultStatus(), faultAccessDenied);

    const auto bare = open(activation, 5, "192.0.2.7");
    ask(*bare, bindOrAlter(PduType::Bind, 0, iidObjectExporter, {}));
    const Reply made = ask(*bare, rpc::test::request({.callId = 2, .opnum = 2, .stub = ping}));
    ASSERT_EQ(made.type(), PduType::Response);
    const Bytes set(made.raw.begin() + rpc::callHeaderSize, made.raw.begin() + rpc::callHeaderSize + 8);
    for (int i = 0; i < 5; ++i) {
        pass(120);
        const Reply simple = ask(*bare, rpc::test::request({.callId = 3, .opnum = 1, .stub = set}));
        EXPECT_HEX(Bytes(simple.raw.end() - 4, simple.raw.end()), "00000000");
    }
    EXPECT_TRUE(alive(peer(6), server));
    EXPECT_THAT(refusals_, IsEmpty());
}

}  // namespace quelm::dcom::orpc::test
