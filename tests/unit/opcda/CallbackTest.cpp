// What clients are told without asking, as whole sequences of lines.

#include "opcda/CallbackFixture.h"

namespace quelm::opcda {
namespace {

const std::string all = "change 0 7: 100=12.5/C0 101=70000/C0 102='Running'/C0";

// As clients of data access 1.0 do it, beside a sink of the usual kind.
TEST_F(CallbackTest, AStreamIsToldOfValuesAndOfItsOwnTransactionsAlone) {
    const std::size_t before = server.budget()->memory.used();
    follow({{"stream v 1", "v " + all},
            {"stream u 1", "80040201"},
            {"stream w 2", ""},
            {"sread v 1 0 x", "1 | v read 1 7: 100=12.5/C0"},
            {"alive 100; wait 500; alive 0", ""},
            {"advise", all},
            {"set 0 13; wait 1000", "v change 0 7: 100=13/C0 | change 0 7: 100=13/C0"},
            {"enable off; set 0 14; wait 1000", "v change 0 7: 100=14/C0"},
            {"enable on", "change 0 7: 100=14/C0"},
            {"read 9 0", "read 9 7: 100=14/C0"},
            {"set 0 15", ""},
            {"srefresh v 1", "v change 3 7: 100=15/C0 101=70000/C0 102='Running'/C0"},
            {"wait 1000", "change 0 7: 100=15/C0"},
            {"srefresh v 2", "v change 4 7: 100=15/C0 101=70000/C0 102='Running'/C0"},
            {"swrite w 0 1", "w written 5 7e: 100!80004005 101!80004005"},
            {"sread w 1 0", "80040200"},
            {"swrite v 0", "80040200"},
            {"srefresh x 1", "80040200"},
            {"sread v 3 0", "80070057"},
            {"sread v 1 0; scancel", ""},
            {"scancel", "80004005"},
            {"sread v 2 0; cancel", "80004005 | v read 7 7: 100=15/C0"},
            {"read 8 0; scancel", "80004005 | read 8 7: 100=15/C0"},
            {"cached 10; unadvise", ""},
            {"sread v 1 0; unstream v", ""},
            {"unstream v", "80040200"},
            {"stream v 0; group off; srefresh v 1", "80004005"},
            {"unstream v; unstream w; group on", ""}});
    EXPECT_EQ(server.budget()->memory.used(), before);
    EXPECT_EQ(sinks.alive, 0U);
    EXPECT_EQ(events.log,
              (Words{"read 1 Plant.Stack1.NOx", "read 3 Plant.Stack1.NOx Plant.Stack1.Count Plant.Stack1.State",
                     "write 2", "read 1 Plant.Stack1.NOx", "read 1 Plant.Stack1.NOx"}));
}

TEST_F(CallbackTest, AfterAllItemsOnlyWhatDiffersIsSent) {
    follow({{"add Plant.Stack1.NOx; advise", all + " 100=12.5/C0"},
            {"set 0 13; wait 999", ""},
            {"wait 1", "change 0 7: 100=13/C0 100=13/C0"},
            {"wait 5000; set 0 13; wait 3000", ""},  // the time stamp alone
            {"set 0 13 40; set 2 Off 40", "change 0 7q: 100=13/40 102='Off'/40 100=13/40"},
            {"set 1 n/a; wait 1; set 1 n/a 40; wait 3000", "change 0 7qe: 101=-/0!80020005"},
            {"set 1 5; set 0 nan; wait 3000", "change 0 7q: 100=nan/0 101=5/C0 100=nan/0"}});
}

TEST_F(CallbackTest, NeverMoreOftenThanTheUpdateRateAndThenTheLatest) {
    run("advise");
    for (int i = 1; i <= 30; ++i) {
        EXPECT_EQ(run(fmt::format("set 0 {}; wait 100; midnight", i)),
                  i % 10 == 0 ? fmt::format("change 0 7: 100={}/C0", i) : "")
            << "the time of day tells nothing";
    }
    follow({{"set 0 0; wait 200", ""},
            {"rate 300; wait 99", ""},
            {"wait 1", "change 0 7: 100=0/C0"},
            {"rate 4294967295; set 0 1; wait 100000", ""}});
}

TEST_F(CallbackTest, WhatIsSetActiveComesAndWhatIsInactiveIsSilent) {
    follow({{"group off; advise; wait 1000", ""},
            {"group on", all},
            {"group on; wait 1000", ""},
            {"group off; set 0 1; wait 1000", ""},
            {"group on; handle 8", "change 0 8: 100=1/C0 101=70000/C0 102='Running'/C0"},
            {"item off 0; set 0 2; wait 1000", ""},
            {"item on 0", "change 0 8: 100=2/C0"},
            {"item on 0; wait 1000", ""},
            {"item off 0; item on 0", "change 0 8: 100=2/C0"},
            {"type 0 8; wait 1000", "change 0 8: 100='2'/C0"},
            {"type 0 8; wait 1000", ""},
            {"client 0 99; wait 1000", ""},
            {"set 0 3", "change 0 8: 99='3'/C0"},
            {"remove 0; set 0 4; wait 1000", ""},
            {"add Plant.Stack1.NOx", "change 0 8: 100=4/C0"},
            {"enable off; set 1 5; set 0 5; wait 1000", ""},
            {"set 0 4; wait 1000; enable on", "change 0 8: 101=5/C0"},
            {"enable off; unadvise; enable on", "80040200"}});
    bool isEnabled = true;
    EXPECT_EQ(group->isEnabled(isEnabled), CONNECT_E_NOCONNECTION);
    EXPECT_FALSE(isEnabled) << "the group's, whoever listens";
    EXPECT_EQ(server.cloneGroup(*group, "", group), S_OK);
    EXPECT_EQ(group->isEnabled(isEnabled), CONNECT_E_NOCONNECTION) << "a clone has no sink";
    EXPECT_TRUE(isEnabled);
}

TEST_F(CallbackTest, ASlowSinkGetsTheNewestValuesAndHoldsUpNoOther) {
    follow({{"slow; advise A", "A " + all},
            {"set 0 1; wait 2000; set 0 2; wait 2000", ""},
            {"advise B", "B change 0 7: 100=2/C0 101=70000/C0 102='Running'/C0"},
            {"wait 2000; answer B; set 0 3", "B change 0 7: 100=3/C0"},
            {"answer A", "A change 0 7: 100=3/C0"},
            // A refresh waits for both, nothing passes it, and it says what there is when it goes out.
            {"cached 55; set 0 4; answer B; wait 2000", ""},
            {"alive 2000; wait 1900", "B change 0 7:"},
            {"alive 0; unadvise B; wait 2000", ""},
            {"answer A", "A change 55 7: 100=4/C0 101=70000/C0 102='Running'/C0"},
            {"wait 2000; answer A; wait 2000", ""},
            // What needs the plant does not wait for the sink.
            {"set 0 5", "A change 0 7: 100=5/C0"},
            {"read 1 1; device 2", "A read 1 7: 101=70000/C0 | A change 2 7: 100=5/C0 101=70000/C0 102='Running'/C0"}});
}

TEST_F(CallbackTest, WhereNothingIsToBeSaidAnEmptyCallbackSaysThatTheServerLives) {
    const std::string empty = "change 0 7:";
    follow({{"alive 99", "4000D"}, {"alive 2000; advise", all}});
    const std::int64_t lastUpdate = server.status().lastUpdateTime;
    follow({{"wait 1899", ""}, {"wait 1", empty}, {"wait 1900", empty}});
    EXPECT_EQ(server.status().lastUpdateTime, lastUpdate);
    follow({// From the last callback of any kind on, and none beside the data.
            {"wait 1000; set 0 1", "change 0 7: 100=1/C0"},
            {"wait 1899; read 5 1", "read 5 7: 101=70000/C0"},
            {"wait 1899; write 6 1", "written 6 7e: 101!80004005"},
            {"wait 1899; device 8", "change 8 7: 100=1/C0 101=70000/C0 102='Running'/C0"},
            {"item off 0 1 2; wait 1899", ""},
            {"wait 1", empty},
            {"rate 2000; item on 1", "change 0 7: 101=70000/C0"},
            {"set 1 2; wait 1999", ""},
            {"wait 1", "change 0 7: 101=2/C0"},
            {"set 1 2; wait 1999", ""},  // where nothing differs after all
            {"wait 1", empty},
            {"enable off; wait 9000; cached 9", "change 9 7: 101=2/C0"},
            {"wait 9000; enable on; wait 1899", ""},
            {"wait 1; group off", empty},
            {"wait 9000; item off 1; group on; remove 0 1 2; wait 1899; handle 8", ""},
            {"slow; wait 1", "change 0 8:"},
            {"wait 9000", ""},
            {"answer", "change 0 8:"},
            {"answer; alive 0; wait 9000", ""},
            {"alive 4294967295; wait 9000", ""}});
    EXPECT_EQ(server.cloneGroup(*group, "", group), S_OK);
    EXPECT_EQ(group->state().keepAlive, 4294967295U);
}

TEST_F(CallbackTest, RefreshesSendAllActiveItemsOnceWithTheirNumber) {
    follow({{"cached 9", "80040200"},
            {"advise", all},
            {"item off 1; enable off; cached 4294967295", "change 4294967295 7: 100=12.5/C0 102='Running'/C0"},
            {"device 0", "change 0 7: 100=12.5/C0 102='Running'/C0"},
            // They don't move the period, and what they sent is sent.
            {"enable on; set 0 1; wait 500", ""},
            {"cached 1", "change 1 7: 100=1/C0 102='Running'/C0"},
            {"set 0 2; wait 500", "change 0 7: 100=2/C0"},
            {"device 2; item off 2", "change 2 7: 100=2/C0"},
            {"item off 0; cached 4", "80004005"},
            {"item on 0 1 2; group off; cached 4; wait 1000", "80004005"}});
    EXPECT_EQ(cancelId, 0U);
    EXPECT_EQ(group->refresh(0, 1, cancelId), E_INVALIDARG);
    EXPECT_EQ(group->refresh(3, 1, cancelId), E_INVALIDARG);
    EXPECT_EQ(events.log.back(), "read 2 Plant.Stack1.NOx Plant.Stack1.State");
    events.readError = asNumber(E_FAIL);
    follow({{"group on; item off 1 2", "change 0 7: 100=2/C0"},
            {"device 3", "change 3 7qe: 100=-/0!80004005"},
            {"wait 1000", "change 0 7: 100=2/C0"}});  // what the cache has
}

TEST_F(CallbackTest, AnItemThatCannotBeReadLeavesTheOthersTheirValues) {
    const std::string withBoth = " 100=-/0!C0040006 100=70000/C0";
    follow({{"add Setpoint; add Plant.Stack1.Count; item off 1; advise",
             "change 0 7qe: 100=12.5/C0 102='Running'/C0" + withBoth},
            {"device 1", "change 1 7qe: 100=12.5/C0 102='Running'/C0" + withBoth},
            {"read 2 3 2", "1 | read 2 7: 102='Running'/C0"}});
}

TEST_F(CallbackTest, MaximumAgesAskThePlantForWhatIsOlderAlone) {
    follow({{"aged 1 0 0; young 1 0", "80040200"},
            {"advise", all},
            {"wait 999; aged 1 1000 0 1 x", "1 | read 1 7: 100=12.5/C0 101=70000/C0"},
            {"young 2 1000", "change 2 7: 100=12.5/C0 101=70000/C0 102='Running'/C0"}});
    EXPECT_THAT(events.log, testing::IsEmpty());
    follow({{"wait 1; set 0 13; wait 1; aged 3 0 1 0", "change 0 7: 100=13/C0 | read 3 7: 101=70000/C0 100=13/C0"},
            {"young 4 1000", "change 4 7: 100=13/C0 101=70000/C0 102='Running'/C0"},
            {"item off 0; aged 7 4294967295 0", "read 7 7q: 100=13/1C"},
            {"group off; young 8 0", "80004005"},
            {"aged 9 4294967294 2", "read 9 7: 102='Running'/C0"}});
    EXPECT_THAT(events.log,
                testing::ElementsAre("read 1 Plant.Stack1.Count", "read 2 Plant.Stack1.Count Plant.Stack1.State",
                                     "read 1 Plant.Stack1.State"));
}

TEST_F(CallbackTest, AsynchronousCallsEndInOneCallback) {
    follow({{"read 1", "80070057"},
            {"read 1 0", "80040200"},
            {"write 1 0", "80040200"},
            {"enable on", "80040200"},
            {"group off; advise; read 0 1 x 0", "1 | read 0 7: 101=70000/C0 100=12.5/C0"}});
    EXPECT_THAT(errors, testing::ElementsAre(S_OK, OPC_E_INVALIDHANDLE, S_OK));
    EXPECT_NE(cancelId, 0U);
    follow({{"write 5 1 x 0; read 5 0", "1 | written 5 7e: 101!80004005 100!80004005 | read 5 7: 100=12.5/C0"},
            {"write 6 x x; wait 100", "1"},
            {"read 6 x x; wait 100", "1"}});
    EXPECT_EQ(errors, std::vector<HResult>(2, OPC_E_INVALIDHANDLE));
    EXPECT_EQ(cancelId, 0U);
    EXPECT_THAT(events.log, testing::ElementsAre("read 2 Plant.Stack1.Count Plant.Stack1.NOx", "write 2",
                                                 "read 1 Plant.Stack1.NOx"));
    events.answered = 1;
    follow({{"read 7 0 1", "read 7 7qe: 100=12.5/C0 101=-/0!80004005"},
            {"read 40 0; cancel", "cancelled 40 7:"},
            {"read 41 0; posts; cancel", "cancelled 41 7:"},  // while the plant is asked
            {"read 42 0; cancel; cancel", "80004005 | cancelled 42 7:"},
            {"write 43 0; wait 1; cancel", "80004005 | written 43 7e: 100!80004005"},
            {"read 44 0", "read 44 7: 100=12.5/C0"}});
    const auto other = makeGroup(server);
    EXPECT_EQ(group->asyncRead(handles, 1, cancelId, errors), S_OK);
    EXPECT_EQ(other->cancel(cancelId), E_FAIL);
}

// Whatever goes while the plant is asked: nothing more is sent.
TEST_F(CallbackTest, NothingGoesToWhoIsGone) {
    auto client = std::make_unique<Server>(application);
    const std::function<void()> endings[] = {
        [&] { EXPECT_EQ(unadvise({""}), S_OK); },
        [&] { EXPECT_EQ(client->removeGroup(group->serverHandle(), false, true), OPC_S_INUSE); },
        [&] { client.reset(); },
    };
    for (const auto& ending : endings) {
        group = makeGroup(*client);
        handles = addItems(*group, {"Plant.Stack1.NOx"});
        EXPECT_EQ(run("advise"), "change 0 7: 100=12.5/C0");
        for (const char* each : {"cached 1", "device 1", "read 2 0", "write 3 0", "posts", "read 4 0", "cancel"}) {
            verbs.at(Words{each}[0].substr(0, std::string_view(each).find(' ')))({each, "1", "0"});
        }
        ending();
        EXPECT_EQ(sinks.alive, 0U);
        EXPECT_EQ(run("wait 2000"), "");
    }
}

// The client's budget leaves room for some items only: the rest follows when they are answered.
TEST_F(CallbackTest, WhatDoesNotFitTheBudgetFollows) {
    const auto budget = application.budgets().of("PLANT\\reader", "192.0.2.7");
    auto client = std::make_unique<Server>(application, budget);
    group = makeGroup(*client);
    handles = addItems(*group, std::vector<std::string_view>(5, "Plant.Stack1.NOx"));
    run("slow; group off; advise");
    budget->memory.limitTo(budget->memory.used() + 2 * CallbackColumns::itemSize);
    follow({{"group on", "change 0 7: 100=12.5/C0 101=12.5/C0"},
            {"set 0 1; wait 5000", ""},
            {"answer", "change 0 7: 102=1/C0 103=1/C0"},  // those that have waited longest
            {"answer", "change 0 7: 104=1/C0 100=1/C0"},
            {"answer", "change 0 7: 101=1/C0"},
            {"answer; cached 1", "8007000E"},
            {"read 1 0", "8007000E"}});
    EXPECT_EQ(cancelId, 0U);
    // No room at all: it is tried again each period.
    budget->memory.limitTo(budget->memory.used());
    EXPECT_EQ(run("set 0 2; wait 5000"), "");
    budget->memory.limitTo(std::size_t{1} << 20U);
    EXPECT_NE(run("wait 1000; answer"), "");

    // Callbacks that nobody answers are bounded; what was held for them is free again.
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(run("read 1 0"), "read 1 7: 100=2/C0");
    }
    follow({{"cached 1", "80040201"}, {"read 1 0", "80040201"}, {"answer; read 1 0", "read 1 7: 100=2/C0"}});
    while (group->advise(std::make_unique<FakeSink>(sinks, ""), cancelId) == S_OK) {
    }
    EXPECT_EQ(sinks.alive, 8U);
    group.reset();
    client.reset();
    EXPECT_EQ(budget->memory.used(), 0U);
}

// As a sink that finds in a call that its client cannot be reached any more.
TEST_F(CallbackTest, ASinkMayGoWithinItsOwnCall) {
    run("advise A; advise B; advise C");
    for (const char* commands : {"set 0 1; wait 1000", "cached 1"}) {
        sinks.during = [this] {
            const auto first = advised.extract(advised.begin()).mapped();
            EXPECT_EQ(group->unadvise(first.second), S_OK);
        };
        const std::size_t alive = sinks.alive;
        const std::string sent = run(commands);
        EXPECT_EQ(std::count(sent.begin(), sent.end(), '|') + 1, static_cast<std::ptrdiff_t>(alive)) << sent;
        EXPECT_EQ(sinks.alive, alive - 1);
    }
}

TEST_F(CallbackTest, ShutdownIsToldToEverySinkOnce) {
    struct Sink final : IShutdownSink {
        explicit Sink(std::vector<std::string>& to) : log(to) {}
        void onShutdownRequest(std::string_view reason) override { log.emplace_back(reason); }
        std::vector<std::string>& log;
    };
    Server other{application};
    std::uint32_t cookie = 0;
    for (Server* const each : {&server, &other, &other}) {
        EXPECT_EQ(each->advise(std::make_unique<Sink>(sinks.log), cookie), S_OK);
    }
    EXPECT_EQ(other.unadvise(cookie), S_OK);
    EXPECT_EQ(other.unadvise(cookie), CONNECT_E_NOCONNECTION);
    application.requestShutdown("ends");
    EXPECT_EQ(sinks.log, std::vector<std::string>(2, "ends"));
}

}  // namespace
}  // namespace quelm::opcda
