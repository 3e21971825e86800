#pragma once

// A server connection with a handler that writes down what reaches it, and sessions as real clients drive them.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <set>

#include "RpcClient.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/rpc/ServerConnection.h"

namespace quelm::dcom::rpc::test {

// opnum 3 echoes, 4 replies as many bytes as the stub's first number says, 5 faults, 7 is answered by the test later,
// 8 defers without taking a ticket.
class RecordingHandler : public CallHandler {
 public:
    bool supports(const Uuid& interfaceId, std::uint16_t, std::uint16_t) override {
        return interfaceId == interfaceA || interfaceId == interfaceB || interfaceId == interfaceOpen;
    }
    bool isOpenToAll(const Uuid& interfaceId) override { return interfaceId == interfaceOpen; }
    Fault call(const Call& call, ndr::Writer& reply) override {
        calls.push_back(fmt::format("{} {} {} '{}' {}{}",
                                    call.interfaceId == interfaceA   ? "A"
                                    : call.interfaceId == interfaceB ? "B"
                                                                     : "open",
                                    call.opnum, levelName(call.level), call.account,
                                    call.stub.size() > 32 ? "" : toHex(call.stub),
                                    call.hasObject ? " " + call.object.toText().substr(0, 8) : ""));
        if (call.opnum == 4) {
            ndr::Reader in(call.stub);
            const std::uint32_t size = in.u32();
            std::uint8_t* const at = reply.extend(size);
            for (std::uint32_t i = 0; i < size; ++i) {
                at[i] = pattern(i);
            }
            return Fault::None;
        }
        reply.bytes(call.stub);
        if (call.opnum == 7) {
            tickets.push_back(call.defer());
        }
        if (call.opnum == 7 || call.opnum == 8) {
            return Fault::Deferred;
        }
        return call.opnum == 5 ? Fault::OpnumRange : Fault::None;
    }
    bool holdsAnything(const Peer& peer) const override { return holders.contains(peer.id); }
    void connectionClosed(const Peer& peer, bool abrupt) override {
        closed.push_back(fmt::format("{} {}", peer.id, abrupt ? "abrupt" : "orderly"));
    }

    static std::uint8_t pattern(std::size_t i) { return static_cast<std::uint8_t>(i * 7 + (i >> 8)); }

    std::vector<std::string> calls;
    std::vector<std::string> closed;
    std::vector<CallTicket> tickets;
    std::set<std::uint64_t> holders;  // connections whose clients hold something
};

class RpcFixture : public testing::Test {
 protected:
    using Kind = NtlmLogOn::Kind;

    RpcFixture() {
        accounts.add("*", "opc", ntlm::ntHash("secret"));
        settings.logOn.computerName = "SERVER";
        settings.logOn.domainName = "PLANT";
        settings.onRefused = [this](const Refusal& refusal) { refusals.push_back(refusal.line()); };
        settings.challenge = {1, 2, 3, 4, 5, 6, 7, 8};
    }

    static Peer peer() { return {1, "192.0.2.7:51234", "192.0.2.1", 135}; }

    void reconnect() {
        connection.emplace(settings, handler, peer());
        handler.calls.clear();
        refusals.clear();
    }
    // A connection on which calls need no log-on.
    void bindWithoutLogOn() {
        settings.minimumLevel = AuthLevel::None;
        expectOne(pdu(PduType::Bind, 3, 0, bindBody({{0}})), PduType::BindAck);
    }

    // Feeds and gives the replies that came.
    std::vector<Reply> exchange(std::span<const std::uint8_t> data) {
        sent.insert(sent.end(), data.begin(), data.end());
        connection->feed(data);
        auto replies = splitReplies(connection->output());
        connection->sent(connection->output().size());
        return replies;
    }

    // One reply of this type, or a failure and an empty one.
    Reply expectOne(std::span<const std::uint8_t> data, PduType type) {
        auto replies = exchange(data);
        EXPECT_EQ(replies.size(), 1U);
        if (replies.size() != 1 || replies[0].type() != type) {
            ADD_FAILURE() << "got " << (replies.empty() ? "nothing" : toHex(replies[0].raw));
            return {};
        }
        return replies[0];
    }

    // BIND (or ALTER_CONTEXT) with the first message of a log-on, and AUTH3 with the last.
    void logOn(NtlmLogOn& client, unsigned level, std::uint32_t securityId, const std::vector<Offer>& offers = {{0}},
               PduType type = PduType::Bind, unsigned maxFragment = 4280) {
        const PduType answer = type == PduType::Bind ? PduType::BindAck : PduType::AlterContextResponse;
        const Reply ack =
            expectOne(pdu(type, 3, 1, bindBody(offers, maxFragment), {level, securityId, client.negotiate()}), answer);
        ASSERT_GT(ack.header.authLength, 0);
        const Data auth3 = pdu(PduType::Auth3, 3, 1, Data(4), {level, securityId, client.authenticate(ack.token())});
        EXPECT_TRUE(exchange(auth3).empty());
    }

    std::string openedHex(const Reply& reply, unsigned level, NtlmLogOn& client) {
        const auto stub = openReply(reply, level, client);
        return stub ? toHex(*stub) : "wrong signature";
    }

    ntlm::AccountTable accounts;
    ServerSettings settings{.accounts = accounts,
                            .logOn = {},
                            .minimumLevel = AuthLevel::Connect,
                            .maxCallSize = 16U << 20U,
                            .outputLimit = 256U << 10U,
                            .onRefused = {},
                            .budgets = nullptr,
                            .challenge = {}};
    std::vector<std::string> refusals;
    RecordingHandler handler;
    std::optional<ServerConnection> connection{std::in_place, settings, handler, peer()};
    Data sent;  // everything that the client sent, to be sent again with other cuts
};

}  // namespace quelm::dcom::rpc::test
