// The object calls of a session with the habits of Windows clients, over real connections.

#include "dcom/ntlm/AccountTable.h"
#include "dcom/rpc/ServerConnection.h"
#include "orpc/OrpcWorld.h"
#include "rpc/RpcClient.h"

namespace quelm::dcom::orpc::test {

using rpc::PduType;
using rpc::test::NtlmLogOn;
using rpc::test::Reply;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned raw = 10;
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

}  // namespace quelm::dcom::orpc::test
