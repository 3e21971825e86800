#include <gmock/gmock.h>

#include "RpcFixture.h"
#include "base/TimeSource.h"
#include "dcom/Printable.h"
#include "dcom/net/RepeatFilter.h"
#include "dcom/rpc/GuessGuard.h"
#include "loop/VirtualLoop.h"

namespace quelm::dcom::rpc::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Guessing : public RpcFixture {
 protected:
    ManualTimeSource time{Date{46348.5}};
    ScopedTimeSource inForce{time};

    void guess(const char* user = "opc") {
        NtlmLogOn client(Kind::V2, user, "guess");
        logOn(client, 6, 1);
    }
};

TEST_F(Guessing, WaitsLongerWithEachFailureAndIsForgotten) {
    GuessGuard guard;
    std::vector<std::int64_t> delays;
    for (int i = 0; i < 8; ++i) {
        guard.failed("192.0.2.7", i % 2 == 0 ? "PLANT\\opc" : "other\\OPC");
        delays.push_back(guard.delay("192.0.2.7", "opc").count());
    }
    EXPECT_THAT(delays, ElementsAre(0, 0, 1000, 2000, 4000, 8000, 16'000, 16'000));
    time.advanceMilliseconds(15'000);
    EXPECT_EQ(guard.delay("192.0.2.7", "opc").count(), 1000);
    EXPECT_EQ(guard.delay("192.0.2.8", "opc").count(), 0);
    EXPECT_EQ(guard.delay("192.0.2.7", "display").count(), 0);
    guard.succeeded("192.0.2.7", "opc");
    EXPECT_EQ(guard.delay("192.0.2.7", "opc").count(), 0);
    for (std::size_t i = 0; i < GuessGuard::most + 100; ++i) {
        time.advanceMilliseconds(1);
        guard.failed("192.0.2.9", std::to_string(i));
        guard.failed("192.0.2.9", "opc");  // however many others are tried
    }
    EXPECT_EQ(guard.delay("192.0.2.9", "opc"), GuessGuard::longestDelay);
    time.advanceMilliseconds(GuessGuard::memory.count());
    guard.failed("192.0.2.9", "opc");
    EXPECT_EQ(guard.delay("192.0.2.9", "opc").count(), 0);
}

TEST_F(Guessing, ClosesTheConnectionAndHoldsUpTheNextLogOnOfThatAccountOnly) {
    guess();
    guess();
    EXPECT_FALSE(connection->closing());
    guess();
    EXPECT_TRUE(connection->closing());
    EXPECT_THAT(refusals, SizeIs(3));
    EXPECT_THAT(refusals, testing::Each(HasSubstr("'PLANT\\opc', level privacy: wrong password")));

    reconnect();
    NtlmLogOn client;
    logOn(client, 6, 1);
    EXPECT_EQ(connection->pause().count(), 1000);
    const Data call = protectedRequest({.opnum = 3, .stub = fromHex("01")}, 6, 1, client);
    EXPECT_THAT(exchange(call), IsEmpty());
    time.advanceMilliseconds(999);
    connection->process();
    EXPECT_THAT(handler.calls, IsEmpty());
    time.advanceMilliseconds(1);
    connection->process();
    EXPECT_THAT(handler.calls, ElementsAre("A 3 privacy 'PLANT\\opc' 01"));
    EXPECT_EQ(settings.guesses->delay("192.0.2.7", "opc").count(), 0) << "the right password makes up for it";
}

// Before a log-on has succeeded little is kept of what a client sends.
TEST_F(Guessing, HalfLogOnsAreFewAndSmall) {
    NtlmLogOn first;
    const auto begin = [&](std::uint32_t id, Data token) {
        return exchange(pdu(PduType::Bind, 3, 1, bindBody({{0}}), {6, id, std::move(token)}));
    };
    const auto ack = begin(1, first.negotiate());
    for (std::uint32_t id = 2; id < 6; ++id) {
        begin(id, NtlmLogOn().negotiate());
    }
    exchange(pdu(PduType::Auth3, 3, 1, Data(4), {6, 1, first.authenticate(ack[0].token())}));
    EXPECT_FALSE(connection->loggedOn());

    Data large = first.negotiate();
    large.resize(1025);
    EXPECT_EQ(begin(7, large)[0].type(), PduType::BindNak);
    EXPECT_THAT(refusals.back(), HasSubstr("malformed message"));
}

TEST_F(Guessing, ACallThatIsTooLargeIsToldWithItsAccount) {
    settings.maxCallSize = 16;
    NtlmLogOn client;
    logOn(client, 5, 1);
    exchange(protectedRequest({.opnum = 3, .stub = Data(24), .flags = flagFirst}, 5, 1, client));
    EXPECT_THAT(refusals, ElementsAre(HasSubstr("'PLANT\\opc', level integrity: a call is larger than this server")));
}

TEST(RepeatFilter, WritesTheFirstAndSumsUpTheRest) {
    VirtualLoop timers;
    std::vector<std::string> lines;
    net::RepeatFilter filter(timers, [&](std::string_view line) { lines.emplace_back(line); });
    for (int i = 0; i < 20'000; ++i) {
        filter.say("host", "password", fmt::format("wrong password {}", i));
    }
    filter.say("other", "password", "wrong password of another");
    EXPECT_THAT(std::exchange(lines, {}),
                ElementsAre("wrong password 0", "wrong password 1", "wrong password 2", "wrong password 3",
                            "wrong password 4", "wrong password of another"));
    timers.advance(60'000);
    EXPECT_THAT(std::exchange(lines, {}), ElementsAre("wrong password 19999 (19995 times more within a minute)"));
    timers.advance(60'000);
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_EQ(timers.pendingTimers(), 0U);

    for (int i = 0; i < 5000; ++i) {
        filter.say("host" + std::to_string(i % 100), std::to_string(i), "unknown account");
    }
    EXPECT_THAT(lines, SizeIs(net::RepeatFilter::most));
    timers.advance(60'000);
    EXPECT_LE(lines.size(), 2 * net::RepeatFilter::most + 1);
}

TEST(Printable, ShowsNothingThatSteersATerminalOrALog) {
    EXPECT_EQ(printable("Jörg\u20ac"), "Jörg\u20ac");
    EXPECT_EQ(printable("a\n\x1b[b\x7f\u0085\u009b\u00ad\u200b\u2028\u202e\u2066\ufeff\U000e0041c\xff"),
              "a??[b??????????c?");
    EXPECT_EQ(printable("äöü", 2), "äö");
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
