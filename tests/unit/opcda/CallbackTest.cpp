// What clients are told without asking, as whole sequences of lines: who (with several sinks), what, transaction,
// group, "q" or "e" where the master quality or error is not S_OK, and each item as client handle=value/quality or
// !error.

#include <memory>

#include "opcda/Fixture.h"

namespace quelm::opcda {
namespace {

struct Sinks {
    std::vector<std::string> log;
    const WrittenValues* values = nullptr;
    bool answerAtOnce = true;
    std::size_t alive = 0;
};

class FakeSink final : public IDataSink {
 public:
    FakeSink(Sinks& sinks, std::string name) : sinks_(sinks), name_(std::move(name)) { ++sinks_.alive; }
    FakeSink(const FakeSink&) = delete;
    FakeSink& operator=(const FakeSink&) = delete;
    ~FakeSink() override { --sinks_.alive; }

    std::size_t unanswered() const override { return unanswered_; }
    void onDataChange(const CallbackItems& items) override { add("change", items); }
    void onReadComplete(const CallbackItems& items) override { add("read", items); }
    void onWriteComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                         std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) override {
        std::string line = head("written", transaction, clientGroup, S_OK, masterError);
        for (std::size_t i = 0; i < clientHandles.size(); ++i) {
            line += fmt::format(" {}!{:X}", clientHandles[i], static_cast<std::uint32_t>(errors[i]));
        }
        add(line);
    }
    void onCancelComplete(std::uint32_t transaction, std::uint32_t clientGroup) override {
        add(head("cancelled", transaction, clientGroup, S_OK, S_OK));
    }
    void answer() { unanswered_ = 0; }

 private:
    std::string head(std::string_view what, std::uint32_t transaction, std::uint32_t clientGroup, HResult quality,
                     HResult error) const {
        return fmt::format("{}{} {} {}{}{}:", name_, what, transaction, clientGroup, quality == S_OK ? "" : "q",
                           error == S_OK ? "" : "e");
    }
    void add(std::string_view what, const CallbackItems& items) {
        std::string line = head(what, items.transaction, items.clientGroup, items.masterQuality, items.masterError);
        for (std::size_t i = 0; i < items.clientHandles.size(); ++i) {
            const auto error = static_cast<std::uint32_t>(items.errors[i]);
            line += fmt::format(" {}={}/{:X}{}", items.clientHandles[i], sinks_.values->texts[i], items.qualities[i],
                                error == 0 ? "" : fmt::format("!{:X}", error));
        }
        add(line);
    }
    void add(const std::string& line) {
        sinks_.log.push_back(line);
        unanswered_ += sinks_.answerAtOnce ? 0 : 1;
    }

    Sinks& sinks_;
    std::string name_;
    std::size_t unanswered_ = 0;
};

class CallbackTest : public OpcDaTest {
 protected:
    CallbackTest() {
        sinks.values = &callbackValues;
        control.setHooks({[] {}, {}, {}, {}, {}});
        control.StartServer();
    }

    std::uint32_t advise(const std::string& name = "") {
        auto made = std::make_unique<FakeSink>(sinks, name);
        sink = made.get();
        std::uint32_t cookie = 0;
        EXPECT_EQ(group->advise(std::move(made), cookie), S_OK);
        EXPECT_NE(cookie, 0U);
        return cookie;
    }
    // In one pass of the plant.
    void set(const std::vector<std::pair<const char*, Variant>>& values, std::uint16_t quality = quality::good) {
        for (const auto& [name, value] : values) {
            control.SLIKTags().Item(name).SetVQT(value, static_cast<std::int16_t>(quality), localNow());
        }
        plant.drain();
    }
    void setNox(float value) { set({{"Plant.Stack1.NOx", Variant(value)}}); }
    // What is sent within so many milliseconds, one behind the other.
    std::string sent(int milliseconds = 0) {
        settle();
        for (int i = 0; i < milliseconds; ++i) {
            clock.advanceMilliseconds(1);
            loop.advance(1);
            settle();
        }
        const std::string lines = fmt::format("{}", fmt::join(std::exchange(sinks.log, {}), " | "));
        return lines;
    }
    void settle() {
        do {
            loop.advance(0);
            plant.drain();
        } while (loop.pendingPosts() > 0);
    }
    void change(const std::function<void(GroupChange&)>& how) {
        GroupChange wanted;
        how(wanted);
        group->setState(wanted);
    }
    void answer() {
        sink->answer();
        group->sinkAnswered();
    }

    Sinks sinks;
    Server server{application};
    std::shared_ptr<Group> group = makeGroup(server);
    std::vector<std::uint32_t> handles =
        addItems(*group, {"Plant.Stack1.NOx", "Plant.Stack1.Count", "Plant.Stack1.State"});
    FakeSink* sink = nullptr;
    std::vector<HResult> errors;
    std::uint32_t cancelId = 0;
};

const char* const all = "change 0 7: 100=12.5/C0 101=70000/C0 102='Running'/C0";

TEST_F(CallbackTest, AfterAllItemsOnlyWhatDiffers) {
    addItems(*group, {"Plant.Stack1.NOx"});
    advise();
    EXPECT_TRUE(sinks.log.empty()) << "never from within Advise";
    EXPECT_EQ(sent(), std::string(all) + " 100=12.5/C0");
    setNox(13);
    EXPECT_EQ(sent(999), "");
    EXPECT_EQ(sent(1), "change 0 7: 100=13/C0 100=13/C0") << "each of its entries";
    clock.advanceMilliseconds(5000);
    setNox(13);
    EXPECT_EQ(sent(3000), "") << "a time stamp alone";
    set({{"Plant.Stack1.NOx", Variant(13.0F)}, {"Plant.Stack1.State", Variant("Off")}}, 0x40);
    EXPECT_EQ(sent(), "change 0 7q: 100=13/40 102='Off'/40 100=13/40") << "at once where the rate allows it";
    // A failure is sent when it begins and when it ends.
    set({{"Plant.Stack1.Count", Variant("n/a")}});
    set({{"Plant.Stack1.Count", Variant("none")}});
    EXPECT_EQ(sent(3000), "change 0 7qe: 101=-/0!80020005");
    set({{"Plant.Stack1.Count", Variant(std::int32_t{1})}, {"Plant.Stack1.NOx", Variant(std::nanf(""))}});
    EXPECT_EQ(sent(3000), "change 0 7q: 100=nan/0 101=1/C0 100=nan/0");
}

TEST_F(CallbackTest, NeverMoreOftenThanTheUpdateRateAndThenTheLatest) {
    advise();
    sent();
    std::string lines;
    for (int i = 0; i < 30; ++i) {
        setNox(static_cast<float>(i));
        lines += sent(100) + ".";
        clock.setLocal(noon);  // the time of day tells nothing about a period
    }
    EXPECT_EQ(lines, ".........change 0 7: 100=9/C0..........change 0 7: 100=19/C0..........change 0 7: 100=29/C0.");
    setNox(0);
    EXPECT_EQ(sent(200), "");
    change([](GroupChange& to) { to.updateRate = 300; });
    EXPECT_EQ(sent(99), "");
    EXPECT_EQ(sent(1), "change 0 7: 100=0/C0") << "a new rate counts at once";
    change([](GroupChange& to) { to.updateRate = 0xFFFFFFFF; });
    setNox(1);
    EXPECT_EQ(sent(100'000), "");
}

TEST_F(CallbackTest, WhatIsSetActiveComesAndWhatIsInactiveIsSilent) {
    const std::vector<std::uint32_t> nox{handles[0]};
    struct Case {
        const char* what;
        std::function<void()> action;
        std::string expected;
    };
    const Case cases[] = {
        {"advised to an inactive group", [&] { advise(); }, ""},
        {"group set active", [&] { change([](auto& to) { to.active = true; }); }, all},
        {"set active once more", [&] { change([](auto& to) { to.active = true; }); }, ""},
        {"set inactive",
         [&] {
             change([](auto& to) { to.active = false; });
             setNox(1);
         },
         ""},
        {"with another handle",
         [&] {
             change([](auto& to) {
                 to.active = true;
                 to.clientHandle = 8;
             });
         },
         "change 0 8: 100=1/C0 101=70000/C0 102='Running'/C0"},
        {"item set inactive",
         [&] {
             group->setActiveState(nox, false, errors);
             setNox(2);
         },
         ""},
        {"item set active", [&] { group->setActiveState(nox, true, errors); }, "change 0 8: 100=2/C0"},
        {"and once more", [&] { group->setActiveState(nox, true, errors); }, ""},
        {"inactive and active",
         [&] {
             for (bool to : {false, true})
                 group->setActiveState(nox, to, errors);
         },
         "change 0 8: 100=2/C0"},
        {"another type", [&] { group->setDatatypes(nox, std::vector<VarType>{VT_BSTR}, errors); },
         "change 0 8: 100='2'/C0"},
        {"the same type", [&] { group->setDatatypes(nox, std::vector<VarType>{VT_BSTR}, errors); }, ""},
        {"another client handle", [&] { group->setClientHandles(nox, std::vector<std::uint32_t>{99}, errors); }, ""},
        {"its value", [&] { setNox(3); }, "change 0 8: 99='3'/C0"},
        {"an item removed",
         [&] {
             group->removeItems(nox, errors);
             setNox(4);
         },
         ""},
        {"items added",
         [&] {
             addItems(*group, {"Status", "Plant.Stack1.NOx"});
         },
         "change 0 8: 100=-1/C0 101=4/C0"},
        {"disabled",
         [&] {
             group->setEnabled(false);
             setNox(5);
             set({{"Status", Variant(false)}});
             setNox(4);
         },
         ""},
        {"enabled", [&] { group->setEnabled(true); }, "change 0 8: 100=0/C0"},
    };
    change([](GroupChange& to) { to.active = false; });
    for (const Case& each : cases) {
        each.action();
        EXPECT_TRUE(sinks.log.empty()) << "from within the call: " << each.what;
        EXPECT_EQ(sent(1000), each.expected) << each.what;
    }
    bool isEnabled = false;
    group->setEnabled(false);
    EXPECT_EQ(group->isEnabled(isEnabled), S_OK);
    EXPECT_FALSE(isEnabled);
    change([](GroupChange& to) { to.active = false; });
    std::shared_ptr<Group> clone;
    EXPECT_EQ(server.cloneGroup(*group, "", clone), S_OK);
    EXPECT_EQ(clone->isEnabled(isEnabled), CONNECT_E_NOCONNECTION) << "a clone has no sink";
    EXPECT_TRUE(isEnabled);
}

TEST_F(CallbackTest, ASlowSinkGetsTheNewestValuesAndHoldsUpNoOther) {
    sinks.answerAtOnce = false;
    advise("A ");
    EXPECT_EQ(sent(), "A " + std::string(all));
    FakeSink* const slow = sink;
    for (const float value : {1.0F, 2.0F}) {
        setNox(value);
        EXPECT_EQ(sent(2000), "");
    }
    const std::uint32_t second = advise("B ");
    EXPECT_EQ(sent(2000), "B change 0 7: 100=2/C0 101=70000/C0 102='Running'/C0");
    answer();
    setNox(3);
    EXPECT_EQ(sent(), "B change 0 7: 100=3/C0");
    slow->answer();
    group->sinkAnswered();
    EXPECT_TRUE(sinks.log.empty()) << "not from within the answer";
    EXPECT_EQ(sent(), "A change 0 7: 100=3/C0");

    // A refresh waits for both, and nothing passes it. It says what there is when it goes out.
    EXPECT_EQ(group->refresh(1, 55, cancelId), S_OK);
    setNox(4);
    answer();
    EXPECT_EQ(sent(2000), "");
    EXPECT_EQ(group->unadvise(second), S_OK);
    EXPECT_EQ(sent(2000), "");
    slow->answer();
    group->sinkAnswered();
    EXPECT_EQ(sent(2000), "A change 55 7: 100=4/C0 101=70000/C0 102='Running'/C0");
    slow->answer();
    group->sinkAnswered();
    EXPECT_EQ(sent(2000), "") << "they have been sent";
}

TEST_F(CallbackTest, RefreshesSendAllActiveItemsOnceWithTheirNumber) {
    EXPECT_EQ(group->refresh(1, 9, cancelId), CONNECT_E_NOCONNECTION);
    advise();
    sent();
    for (const std::uint16_t wrong : {0, 3}) {
        EXPECT_EQ(group->refresh(wrong, 9, cancelId), E_INVALIDARG);
    }
    EXPECT_EQ(group->setActiveState(std::vector<std::uint32_t>{handles[1]}, false, errors), S_OK);
    group->setEnabled(false);
    EXPECT_EQ(group->refresh(1, 0xFFFFFFFF, cancelId), S_OK);
    EXPECT_NE(cancelId, 0U);
    EXPECT_TRUE(sinks.log.empty());
    EXPECT_EQ(sent(), "change 4294967295 7: 100=12.5/C0 102='Running'/C0");
    EXPECT_EQ(group->refresh(2, 0, cancelId), S_OK);
    EXPECT_TRUE(sinks.log.empty());
    EXPECT_EQ(sent(), "change 0 7: 100=12.5/C0 102='Running'/C0");
    EXPECT_EQ(events.log.back(), "read 2 Plant.Stack1.NOx Plant.Stack1.State");

    // Neither moves the period, and what it sent is sent.
    group->setEnabled(true);
    setNox(1);
    EXPECT_EQ(sent(500), "");
    group->refresh(1, 1, cancelId);
    EXPECT_EQ(sent(100), "change 1 7: 100=1/C0 102='Running'/C0");
    setNox(2);
    EXPECT_EQ(sent(400), "change 0 7: 100=2/C0");

    // Inactive ones meanwhile, a failing host.
    group->refresh(2, 2, cancelId);
    group->setActiveState(std::vector<std::uint32_t>{handles[2]}, false, errors);
    EXPECT_EQ(sent(), "change 2 7: 100=2/C0");
    events.readError = asNumber(E_FAIL);
    group->refresh(2, 3, cancelId);
    EXPECT_EQ(sent(), "change 3 7qe: 100=-/0!80004005");
    EXPECT_EQ(sent(1000), "change 0 7: 100=2/C0") << "what the cache has";
    group->setActiveState(handles, false, errors);
    EXPECT_EQ(group->refresh(1, 4, cancelId), E_FAIL) << "no active item";
    group->setActiveState(handles, true, errors);
    change([](GroupChange& to) { to.active = false; });
    EXPECT_EQ(group->refresh(1, 4, cancelId), E_FAIL) << "inactive group";
    EXPECT_EQ(cancelId, 0U);
    EXPECT_EQ(sent(1000), "");
}

TEST_F(CallbackTest, AsynchronousCallsEndInOneCallback) {
    using Handles = std::vector<std::uint32_t>;
    EXPECT_EQ(group->asyncRead({}, 1, cancelId, errors), E_INVALIDARG);
    EXPECT_EQ(group->asyncRead(handles, 1, cancelId, errors), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(group->asyncWrite(handles, 1, cancelId, errors), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(group->setEnabled(true), CONNECT_E_NOCONNECTION);
    EXPECT_TRUE(errors.empty());
    change([](GroupChange& to) { to.active = false; });
    advise();
    const Handles some{handles[1], 99, handles[0]};
    EXPECT_EQ(group->asyncRead(some, 0, cancelId, errors), S_FALSE);
    EXPECT_THAT(errors, testing::ElementsAre(S_OK, OPC_E_INVALIDHANDLE, S_OK));
    const std::uint32_t first = cancelId;
    EXPECT_EQ(group->asyncWrite(some, 5, cancelId, errors), S_FALSE);
    EXPECT_NE(cancelId, first);
    EXPECT_THAT(errors, testing::ElementsAre(S_OK, OPC_E_INVALIDHANDLE, S_OK));
    EXPECT_TRUE(sinks.log.empty() && events.log.empty()) << "from within the call";
    EXPECT_EQ(sent(), "read 0 7: 101=70000/C0 100=12.5/C0 | written 5 7e: 101!80004005 100!80004005");
    EXPECT_THAT(events.log, testing::ElementsAre("read 2 Plant.Stack1.Count Plant.Stack1.NOx", "write 2"));
    for (auto call : {&Group::asyncRead, &Group::asyncWrite}) {
        EXPECT_EQ(((*group).*call)(Handles{1, 2}, 6, cancelId, errors), S_FALSE);
        EXPECT_EQ(errors, std::vector<HResult>(2, OPC_E_INVALIDHANDLE));
        EXPECT_EQ(cancelId, 0U);
    }
    EXPECT_EQ(sent(100), "");
    events.answered = 1;
    group->asyncRead(handles, 7, cancelId, errors);
    EXPECT_EQ(sent(), "read 7 7qe: 100=12.5/C0 101=-/0!80004005 102=-/0!80004005");
}

TEST_F(CallbackTest, TransactionsAreCancelledUntilTheyAreOver) {
    const auto other = makeGroup(server);
    change([](GroupChange& to) { to.active = false; });
    advise();
    EXPECT_EQ(group->asyncRead(handles, 40, cancelId, errors), S_OK);
    EXPECT_EQ(other->cancel(cancelId), E_FAIL);
    EXPECT_EQ(group->cancel(cancelId + 1), E_FAIL);
    EXPECT_EQ(group->cancel(cancelId), S_OK);
    EXPECT_EQ(group->cancel(cancelId), E_FAIL);
    EXPECT_TRUE(sinks.log.empty());
    EXPECT_EQ(sent(), "cancelled 40 7:");
    EXPECT_EQ(group->asyncRead(handles, 41, cancelId, errors), S_OK);
    loop.drain();
    EXPECT_EQ(group->cancel(cancelId), S_OK) << "while the plant is asked";
    EXPECT_EQ(sent(), "cancelled 41 7:");
    EXPECT_EQ(group->asyncWrite(handles, 42, cancelId, errors), S_OK);
    EXPECT_NE(sent(), "");
    EXPECT_EQ(group->cancel(cancelId), E_FAIL);
    EXPECT_EQ(sent(), "");
}

// Whatever goes while the plant is asked: nothing more is sent.
TEST_F(CallbackTest, NothingGoesToWhoIsGone) {
    auto client = std::make_unique<Server>(application);
    std::uint32_t cookie = 0;
    const std::function<void()> endings[] = {
        [&] { EXPECT_EQ(group->unadvise(cookie), S_OK); },
        [&] { EXPECT_EQ(client->removeGroup(group->serverHandle(), false, true), OPC_S_INUSE); },
        [&] { client.reset(); },
    };
    for (const auto& ending : endings) {
        group = makeGroup(*client);
        handles = addItems(*group, {"Plant.Stack1.NOx"});
        cookie = advise();
        EXPECT_NE(sent(), "");
        for (const std::uint16_t source : {1, 2}) {
            EXPECT_EQ(group->refresh(source, 1, cancelId), S_OK);
        }
        EXPECT_EQ(group->asyncRead(handles, 2, cancelId, errors), S_OK);
        EXPECT_EQ(group->asyncWrite(handles, 3, cancelId, errors), S_OK);
        loop.drain();
        EXPECT_EQ(group->asyncRead(handles, 4, cancelId, errors), S_OK);
        EXPECT_EQ(group->cancel(cancelId), S_OK);
        ending();
        EXPECT_EQ(sinks.alive, 0U);
        EXPECT_EQ(sent(2000), "");
    }
}

// The client's budget leaves room for some items only: the rest follows when they are answered.
TEST_F(CallbackTest, WhatDoesNotFitTheBudgetFollows) {
    const auto budget = application.budgets().of("PLANT\\reader", "192.0.2.7");
    auto client = std::make_unique<Server>(application, budget);
    group = makeGroup(*client);
    handles = addItems(*group, std::vector<std::string_view>(10, "Plant.Stack1.NOx"));
    sinks.answerAtOnce = false;
    advise();
    budget->memory.limitTo(budget->memory.used() + 4 * CallbackColumns::itemSize);
    EXPECT_EQ(sent(), "change 0 7: 100=12.5/C0 101=12.5/C0 102=12.5/C0 103=12.5/C0");
    setNox(1);
    EXPECT_EQ(sent(5000), "");
    answer();
    EXPECT_EQ(sent(), "change 0 7: 104=1/C0 105=1/C0 106=1/C0 107=1/C0") << "those that have waited longest";
    answer();
    EXPECT_EQ(sent(), "change 0 7: 108=1/C0 109=1/C0 100=1/C0 101=1/C0");
    answer();
    EXPECT_EQ(sent(), "change 0 7: 102=1/C0 103=1/C0");
    answer();
    EXPECT_EQ(group->refresh(1, 1, cancelId), E_OUTOFMEMORY);
    EXPECT_EQ(group->asyncRead(handles, 1, cancelId, errors), E_OUTOFMEMORY);
    EXPECT_EQ(cancelId, 0U);

    // No room at all: it is tried again each period.
    const std::size_t limit = budget->memory.used();
    budget->memory.limitTo(limit);
    setNox(2);
    EXPECT_EQ(sent(5000), "");
    budget->memory.limitTo(std::size_t{1} << 20U);
    EXPECT_NE(sent(1000), "");
    answer();

    // Callbacks that nobody answers are bounded; what was held for them is free again.
    std::size_t begun = 0;
    while (group->asyncRead(handles, 1, cancelId, errors) == S_OK) {
        ++begun;
        sent();
    }
    EXPECT_EQ(begun, 64U);
    EXPECT_EQ(group->refresh(1, 1, cancelId), CONNECT_E_ADVISELIMIT);
    answer();
    EXPECT_EQ(group->refresh(1, 1, cancelId), S_OK);
    group.reset();
    client.reset();
    EXPECT_EQ(budget->memory.used(), 0U);
}

TEST_F(CallbackTest, ShutdownIsToldToEverySinkOnce) {
    struct Sink final : IShutdownSink {
        explicit Sink(std::vector<std::string>& to) : log(to) {}
        void onShutdownRequest(std::string_view reason) override { log.emplace_back(reason); }
        std::vector<std::string>& log;
    };
    Server other{application};
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    EXPECT_EQ(server.advise(std::make_unique<Sink>(sinks.log), first), S_OK);
    EXPECT_EQ(server.advise(std::make_unique<Sink>(sinks.log), second), S_OK);
    EXPECT_EQ(other.advise(std::make_unique<Sink>(sinks.log), first), S_OK);
    EXPECT_EQ(server.unadvise(second), S_OK);
    EXPECT_EQ(server.unadvise(second), CONNECT_E_NOCONNECTION);
    application.requestShutdown("ends");
    EXPECT_EQ(sinks.log, std::vector<std::string>(2, "ends"));
    std::size_t more = 0;
    while (server.advise(std::make_unique<Sink>(sinks.log), first) == S_OK) {
        ++more;
    }
    EXPECT_EQ(more, 7U);
    EXPECT_EQ(server.advise(std::make_unique<Sink>(sinks.log), first), CONNECT_E_ADVISELIMIT);
}

// However many there are, one turn takes so many only; the others follow, and none is passed over when some go.
TEST_F(CallbackTest, ManyAreServedInSlices) {
    struct Member final : Publisher::Member {
        using Publisher::Member::Member;
        std::optional<std::uint64_t> due() const override {
            return seen == publisher().block() ? std::nullopt : std::optional<std::uint64_t>(at);
        }
        std::size_t deliver(std::uint64_t now) override {
            EXPECT_GE(now, at);
            seen = publisher().block();
            ++delivered;
            return 1000;
        }
        std::uint64_t at = 0;
        std::uint64_t seen = 0;
        std::size_t delivered = 0;
    };
    Publisher publisher(loop);
    std::vector<std::unique_ptr<Member>> members;
    for (int i = 0; i < 1000; ++i) {
        members.push_back(std::make_unique<Member>(publisher));
        members.back()->at = i % 2 == 0 ? 0 : 5;
    }
    const auto deliveredIn = [&](int milliseconds) {
        sent(milliseconds);
        std::size_t count = 0;
        for (const auto& each : members) {
            count += each->delivered;
        }
        return count;
    };
    publisher.valuesShown();
    EXPECT_LT(members[900]->delivered, 1U);
    members.erase(members.begin() + 100, members.begin() + 200);
    EXPECT_EQ(deliveredIn(4), 450U);
    publisher.valuesShown();
    EXPECT_EQ(deliveredIn(1), 1350U);
    for (const auto& each : members) {
        publisher.wake(*each);
    }
    EXPECT_EQ(deliveredIn(1), 1350U) << "nothing is new";
}

}  // namespace
}  // namespace quelm::opcda
