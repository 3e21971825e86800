#include "dcom/rpc/CallTicket.h"

#include <gmock/gmock.h>

#include "RpcFixture.h"

namespace quelm::dcom::rpc::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

class LateAnswer : public RpcFixture, public testing::WithParamInterface<unsigned> {
 protected:
    std::vector<Reply> replies() {
        auto result = splitReplies(connection->output());
        connection->sent(connection->output().size());
        return result;
    }
    // Answers the oldest call that waits.
    std::vector<Reply> answer(Fault fault, const Data& stub) {
        CallTicket ticket = std::move(handler.tickets.front());
        handler.tickets.erase(handler.tickets.begin());
        ticket.complete(fault, stub);
        ticket.complete(Fault::None, fromHex("EE"));  // goes nowhere
        return replies();
    }
};

TEST_P(LateAnswer, IsProtectedAndCutUpLikeAnyOther) {
    const unsigned level = GetParam();
    NtlmLogOn client;
    logOn(client, level, 1, {{0}}, PduType::Bind, 1437);
    int woken = 0;
    connection->onAnswered([&] { ++woken; });
    const auto send = [&](std::uint32_t callId, std::uint16_t opnum, const char* stub) {
        return exchange(protectedRequest({.callId = callId, .opnum = opnum, .stub = fromHex(stub)}, level, 1, client));
    };
    EXPECT_THAT(send(5, 7, "01"), IsEmpty());
    EXPECT_TRUE(connection->deferred());
    EXPECT_THAT(send(6, 3, "02"), IsEmpty());
    EXPECT_THAT(handler.calls, SizeIs(1)) << "no further call is begun";

    Data stub(3000);
    for (std::size_t i = 0; i < stub.size(); ++i) {
        stub[i] = RecordingHandler::pattern(i);
    }
    Data opened;
    for (const Reply& reply : answer(Fault::None, stub)) {
        EXPECT_EQ(reply.header.callId, 5U);
        const auto part = openReply(reply, level, client);
        ASSERT_TRUE(part);
        opened.insert(opened.end(), part->begin(), part->end());
    }
    EXPECT_EQ(opened, stub);
    EXPECT_EQ(woken, 1);
    EXPECT_TRUE(connection->waiting());
    connection->process();
    const auto next = replies();
    ASSERT_THAT(next, SizeIs(1));
    EXPECT_EQ(openedHex(next[0], level, client), "02");
    EXPECT_FALSE(connection->waiting() || connection->deferred());
}

INSTANTIATE_TEST_SUITE_P(Levels, LateAnswer, testing::Values(2U, 5U, 6U));

using TicketTest = LateAnswer;

TEST_F(TicketTest, ThrownAwayFaultsTheCall) {
    bindWithoutLogOn();
    exchange(request({.callId = 9, .opnum = 7}));
    handler.tickets.clear();
    const auto thrownAway = replies();
    ASSERT_THAT(thrownAway, SizeIs(1));
    EXPECT_HEX(thrownAway[0].raw, "05000303 10000000 20000000 09000000 08000000 00000000 BE060000 00000000");

    exchange(request({.opnum = 7}));
    EXPECT_EQ(answer(Fault::OpnumRange, fromHex("01"))[0].faultStatus(), Fault::OpnumRange);
    EXPECT_EQ(expectOne(request({.opnum = 8}), PduType::Fault).faultStatus(), Fault::CallFailed);
    expectOne(request({.opnum = 3}), PduType::Response);
}

TEST_F(TicketTest, OutlivesItsConnectionHarmlessly) {
    bindWithoutLogOn();
    exchange(request({.opnum = 7}));
    exchange(request({.opnum = 7}));  // waits
    ASSERT_THAT(handler.tickets, SizeIs(1));
    EXPECT_TRUE(handler.tickets[0].wanted());
    connection.reset();
    EXPECT_FALSE(handler.tickets[0].wanted());
    handler.tickets[0].complete(Fault::None, fromHex("01"));
}

// However much the client sends on, no more of it is held than the input buffer takes, and nothing gets lost.
TEST_F(TicketTest, WhatWaitsBehindItIsBounded) {
    bindWithoutLogOn();
    exchange(request({.opnum = 7}));
    Builder stream;
    for (unsigned i = 0; i < 100; ++i) {
        stream.add(request({.callId = i, .opnum = 3, .stub = Data(1000)}));
    }
    const std::size_t held = connection->bytesHeld();
    const Data all = stream.data();
    std::size_t taken = connection->feed(all);
    EXPECT_LT(taken, all.size() / 2);
    EXPECT_EQ(connection->bytesHeld(), held);
    EXPECT_EQ(connection->feed(std::span(all).subspan(taken)), 0U);
    answer(Fault::None, {});
    connection->process();
    while (taken < all.size()) {
        const std::size_t more = connection->feed(std::span(all).subspan(taken));
        ASSERT_GT(more, 0U);
        taken += more;
    }
    EXPECT_THAT(replies(), SizeIs(100));
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
