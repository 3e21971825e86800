// Calls back into clients' processes, as whole conversations with their machines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <list>

#include "FakeNetwork.h"
#include "dcom/outgoing/Channel.h"
#include "dcom/outgoing/RemoteProcesses.h"

namespace quelm::dcom::outgoing::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class CallingBack : public testing::Test {
 protected:
    CallingBack() { beginAnew(); }

    void beginAnew() {
        processes.reset();
        settings = {};
        settings.account = {"PLANT", "server", ntlm::ntHash("secret"), "QUELM1"};
        settings.settingsPath = "dcom.conf";
        network.ends.clear();
        serveAt({"10.0.0.5:135", "10.0.0.5:5001"});
        network.machine.answers = {};
        network.settings.minimumLevel = rpc::AuthLevel::None;
        events.clear();
        lines.clear();
        processes.emplace(Surroundings{
            network, loop, settings,
            [this](const std::string&, const std::string&, const std::string& line) { lines.push_back(line); }});
    }

    void serveAt(const std::vector<std::string>& addresses, End end = End::Serves) {
        for (const std::string& address : addresses) {
            network.ends[address] = end;
        }
    }

    orpc::RemoteObjectRequest request(unsigned number, std::uint64_t oxid = 0xA) {
        orpc::RemoteObjectRequest result;
        result.reference.object = {5, oxid, 0x100 + number, {}};
        result.reference.object.ipid.bytes[3] = static_cast<std::uint8_t>(number);
        result.reference.resolver = {{"10.0.0.5", 0}};
        result.iid = iidCallback;
        result.client = "OPC client 10.0.0.5:50001";
        result.account = "PLANT\\opc";
        result.host = "10.0.0.5";
        result.givenUp = [this, number] { events.push_back(fmt::format("given up {}", number)); };
        return result;
    }
    std::unique_ptr<orpc::IRemoteObject> connect(unsigned number, std::uint64_t oxid = 0xA) {
        return processes->connect(request(number, oxid));
    }
    void call(orpc::IRemoteObject& object, std::uint8_t value) {
        object.call(3, std::make_shared<Bytes>(Bytes{value}),
                    [this, value] { events.push_back(fmt::format("answered {}", value)); });
    }

    void pass(std::int64_t milliseconds) {
        loop.advance(0);
        for (std::int64_t step = 0; milliseconds > 0; milliseconds -= step) {
            step = std::min<std::int64_t>(milliseconds, 500);
            time.advanceMilliseconds(step);
            loop.advance(step);
        }
    }
    Events happened() { return std::exchange(events, {}); }
    // The one object is connected and nothing waits.
    std::unique_ptr<orpc::IRemoteObject> ready() {
        auto object = connect(1);
        pass(0);
        EXPECT_THAT(happened(), SizeIs(4));
        return object;
    }

    ManualTimeSource time{Date{46348.5}};
    ScopedTimeSource inForce{time};
    VirtualLoop loop;
    Events events;
    std::vector<std::string> lines;
    Network network{loop, events};
    CallSettings settings;
    std::optional<RemoteProcesses> processes;
};

TEST_F(CallingBack, FindsTheProcessCallsPingsAndLetsGo) {
    auto first = connect(1);
    auto second = connect(2);
    call(*first, 1);
    call(*second, 2);
    call(*first, 3);
    EXPECT_THAT(events, IsEmpty()) << "nothing goes out before the client's own call is answered";
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "resolve a @integrity", "dial 10.0.0.5:5001",
                                        "query 01000000 39c13a70 @integrity", "query 02000000 39c13a70 @integrity",
                                        "call 01000080 3 01 @integrity", "answered 1", "call 02000080 3 02 @integrity",
                                        "answered 2", "call 01000080 3 03 @integrity", "answered 3"));
    EXPECT_EQ(network.open(), 1U);
    call(*second, 4);
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("call 02000080 3 04 @integrity", "answered 4"));

    pass(120'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "ping 0 #1 +101 +102 @integrity"));
    pass(120'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "ping 77 @integrity"));
    first.reset();
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("release 01000000*5 01000080*5 @integrity"));
    pass(120'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "ping 77 #2 -101 @integrity"));
    second.reset();
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("release 02000000*5 02000080*5 @integrity"));
    EXPECT_EQ(processes->processCount(), 0U);
    EXPECT_EQ(network.open(), 0U);
    EXPECT_EQ(loop.pendingTimers(), 0U);
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(CallingBack, GivesBackWhatWasRefusedBeforeItWasReached) {
    connect(1).reset();
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "resolve a @integrity", "dial 10.0.0.5:5001",
                                        "release 01000000*5 @integrity"));
    EXPECT_EQ(processes->processCount(), 0U);
    EXPECT_EQ(network.open(), 0U);
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(CallingBack, TriesEachAddressWithAndWithoutALogOn) {
    struct Case {
        std::vector<orpc::StringBinding> resolver;
        std::vector<std::string> bindings;
        std::uint32_t hint;
        const char* account;  // none: not set
        bool allowNoLogOn;
        Events expected;
    };
    const std::string resolve = "dial 10.0.0.5:135, resolve a @integrity, ";
    for (const auto& [resolver, bindings, hint, account, allowNoLogOn, expected] :
         {// Names are not looked up, another machine's loopback address is not this one, and nobody answers
          // at 10.9.9.9.
          Case{{{"pc7", 0}, {"127.0.0.1", 0}, {"224.0.0.1", 0}, {"10.9.9.9", 0}},
               {"pc7[5001]"},
               2,
               "server",
               false,
               {"dial 10.9.9.9:135", "dial 10.0.0.5:135", "resolve a @integrity", "dial 10.0.0.5:5001",
                "query 01000000 39c13a70 @integrity"}},
          Case{{{"10.0.0.5", 44717}},
               {"10.0.0.6[5001]", "10.0.0.5[5001]"},
               6,
               "server",
               true,
               {"dial 10.0.0.5:44717", "resolve a @integrity", "dial 10.0.0.6:5001", "dial 10.0.0.5:5001",
                "query 01000000 39c13a70 @privacy"}},
          // The account is not known there, and may be left out.
          Case{{{"10.0.0.5", 0}},
               {"10.0.0.5[5001]"},
               1,
               "stranger",
               true,
               {"dial 10.0.0.5:135", "dial 10.0.0.5:135", "resolve a @none", "dial 10.0.0.5:5001", "dial 10.0.0.5:5001",
                "query 01000000 39c13a70 @none"}},
          Case{{{"10.0.0.5", 0}},
               {"10.0.0.5[5001]"},
               6,
               nullptr,
               true,
               {"dial 10.0.0.5:135", "resolve a @none", "dial 10.0.0.5:5001", "query 01000000 39c13a70 @none"}}}) {
        beginAnew();
        serveAt({"10.0.0.5:44717"});
        serveAt({"10.9.9.9:135"}, End::BlackHole);
        settings.account.reset();
        if (account != nullptr) {
            settings.account = {"PLANT", account, ntlm::ntHash("secret"), "QUELM1"};
        }
        settings.allowNoLogOn = allowNoLogOn;
        network.machine.answers.bindings = bindings;
        network.machine.answers.levelHint = hint;
        auto wanted = request(1);
        wanted.reference.resolver = resolver;
        const auto object = processes->connect(std::move(wanted));
        pass(5'000);
        EXPECT_EQ(happened(), expected);
        EXPECT_THAT(lines, IsEmpty());
    }
}

// Each other end that is of no use costs one line at first and one at the end, and nothing is left of it.
TEST_F(CallingBack, SaysOnceWhatIsWrongAndGivesUpAfterThreePings) {
    struct Case {
        const char* what;
        std::function<void()> begin;
        const char* line;
    };
    const auto object = [this](End end) { return [this, end] { network.ends["10.0.0.5:5001"] = end; }; };
    for (const auto& [what, begin, line] :
         {Case{"resolver", [this] { network.ends.clear(); },
               "sink at 10.0.0.5:135, connecting: no connection (Connection refused); remedy: let the firewalls"},
          Case{"hole", object(End::BlackHole), "sink at 10.0.0.5:5001, connecting: no answer for 5 s; remedy: let the"},
          Case{"mute", object(End::Mute), "sink at 10.0.0.5:5001, log-on: no answer for 10 s; remedy: check whether"},
          Case{"closed", object(End::Closes), "sink at 10.0.0.5:5001, log-on: the other end closed the connection;"},
          Case{"babble", object(End::Babbles),
               "sink at 10.0.0.5:5001, log-on: what answers there does not speak RPC; remedy: check which program"},
          Case{"status", [this] { network.machine.answers.resolveStatus = 5; },
               "sink at 10.0.0.5:135, asking where its program is called: the other end answered with status 5"},
          Case{
              "hang", [this] { network.machine.answers.faults["query"] = Fault::Deferred; },
              "sink at 10.0.0.5:5001, asking for the callback interface: no answer for 30 s; remedy: check whether"}}) {
        SCOPED_TRACE(what);
        begin();
        auto first = connect(1);
        auto second = connect(2);
        pass(300'000);
        EXPECT_THAT(lines, ElementsAre(AllOf(StartsWith("Cannot call back OPC client 10.0.0.5:50001: sink"),
                                             HasSubstr(line), testing::EndsWith("; trying again"))));
        pass(200'000);
        ASSERT_THAT(lines, SizeIs(2));
        EXPECT_THAT(lines[1], AllOf(StartsWith("Gave up calling back OPC client 10.0.0.5:50001: sink"), HasSubstr(line),
                                    testing::EndsWith("; so with all 2 sinks of this program")));
        const Events all = happened();
        EXPECT_THAT(Events(all.end() - 2, all.end()), testing::UnorderedElementsAre("given up 1", "given up 2"));
        EXPECT_LT(all.size(), 100U) << "the pauses grow";
        call(*first, 1);  // comes to nothing
        first.reset();
        second.reset();
        EXPECT_EQ(processes->processCount() + network.open() + loop.pendingTimers(), 0U);
        beginAnew();
    }
}

// A domain may lock an account that is refused too often, for all other clients' machines too.
TEST_F(CallingBack, TriesAnAccountThatIsRefusedThreeTimesOnly) {
    const std::string resolver = "dial 10.0.0.5:135";
    const std::string program = "dial 10.0.0.5:5001";
    const std::string resolved = "resolve a @none";
    settings.account->hash = {};
    network.settings.minimumLevel = rpc::AuthLevel::Connect;
    const auto first = connect(1);
    pass(60'000);
    EXPECT_THAT(happened(),
                ElementsAre(resolver, resolver, resolved, program, resolver, resolved, program, "given up 1"));
    const std::string refused =
        "sink at 10.0.0.5:5001, log-on: the other end refused the log-on; remedy: set an account "
        "in [Callbacks] of dcom.conf";
    EXPECT_THAT(lines, ElementsAre(AllOf(StartsWith("Cannot call back"), HasSubstr(refused)),
                                   AllOf(StartsWith("Gave up calling back"), HasSubstr(refused))));
    EXPECT_EQ(processes->processCount(), 0U);
}

TEST_F(CallingBack, CallsWithoutTheAccountThatIsRefusedWhereThatIsAllowed) {
    const std::string resolver = "dial 10.0.0.5:135";
    const std::string program = "dial 10.0.0.5:5001";
    const std::string resolved = "resolve a @none";
    settings.account->hash = {};
    settings.allowNoLogOn = true;
    const auto object = connect(1);
    for (const Events& expected :
         {Events{resolver, resolver, resolved, program, program, "query 01000000 39c13a70 @none"},
          Events{resolver, resolved, program, program, "query 01000000 39c13a70 @none"},
          Events{resolver, resolved, program, "query 01000000 39c13a70 @none"}}) {
        pass(1'000);
        Events all = happened();
        std::erase_if(all, [](const std::string& each) { return each.starts_with("release"); });
        EXPECT_EQ(all, expected);
        network.cut({});
    }
    pass(120'000);
    EXPECT_THAT(happened(), testing::Contains(StartsWith("ping ")));
    EXPECT_THAT(lines, IsEmpty());
}

// Where trying again changes nothing, nobody waits for it.
TEST_F(CallingBack, GivesUpAtOnceWhatCannotChange) {
    struct Case {
        std::function<void()> begin;
        const char* line;
    };
    for (const auto& [begin, line] :
         {Case{[this] { settings.account.reset(); }, "there is no account to log on with; remedy: set an account in"},
          Case{[this] { network.machine.answers.resolveStatus = 1910; }, "the client's program is not known there"},
          Case{[this] { network.machine.answers.queryResult = E_NOINTERFACE; },
               "the client's object does not have the interface"},
          Case{[this] { network.machine.answers.queryResult = RPC_E_DISCONNECTED; }, "no longer has this sink"},
          Case{[this] { network.machine.answers.queryResult = E_FAIL; }, "the other end answered with 0x80004005"},
          Case{[this] { network.machine.answers.faults["query"] = Fault::BadStubData; }, "answered with 0x000006f7"},
          Case{[this] { network.machine.answers.faults["call"] = Fault::Disconnected; }, "no longer has this sink"}}) {
        begin();
        auto object = connect(1);
        call(*object, 1);
        pass(0);
        EXPECT_THAT(lines, ElementsAre(AllOf(StartsWith("Gave up calling back"), HasSubstr(line))));
        EXPECT_EQ(std::count(events.begin(), events.end(), "given up 1"), 1) << line;
        object.reset();
        pass(0);
        EXPECT_EQ(processes->processCount() + network.open(), 0U);
        beginAnew();
    }
    // One sink of a process is refused, another one lives on; a call that breaks down inside is no reason to end.
    auto good = ready();
    network.machine.answers.queryResult = E_NOINTERFACE;
    const auto bad = connect(2);
    pass(0);
    network.machine.answers.faults["call"] = Fault::Server;
    call(*good, 1);
    call(*good, 2);
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("query 02000000 39c13a70 @integrity", "given up 2",
                                        "release 02000000*5 @integrity", "call 01000080 3 01 @integrity", "answered 1",
                                        "call 01000080 3 02 @integrity", "answered 2"));
    EXPECT_THAT(lines, ElementsAre(StartsWith("Gave up calling back"),
                                   AllOf(StartsWith("Trouble with calling back"), HasSubstr("0x80010105"))));
}

TEST_F(CallingBack, GoesOnWhereAConnectionBroke) {
    auto object = ready();
    network.cut({});  // idle, as a firewall does: nothing is lost and nothing is said
    pass(1'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "resolve a @integrity", "dial 10.0.0.5:5001",
                                        "query 01000000 39c13a70 @integrity", "release 01000080*5 @integrity"));
    network.machine.answers.faults["call 01000080 3 01"] = Fault::Deferred;
    call(*object, 1);
    call(*object, 2);
    pass(1'000);
    EXPECT_THAT(happened(), ElementsAre("call 01000080 3 01 @integrity"));
    network.cut("Connection reset by peer");
    call(*object, 3);
    pass(1'000);
    EXPECT_THAT(happened(), ElementsAre("answered 1", "dial 10.0.0.5:135", "resolve a @integrity", "dial 10.0.0.5:5001",
                                        "query 01000000 39c13a70 @integrity", "release 01000080*5 @integrity",
                                        "call 01000080 3 02 @integrity", "answered 2", "call 01000080 3 03 @integrity",
                                        "answered 3"));
    EXPECT_THAT(lines, ElementsAre(HasSubstr("call: the connection broke (Connection reset by peer)")));
    // One that is let go of while its call is under way is never told of it.
    call(*object, 1);
    pass(0);
    object.reset();
    pass(40'000);
    EXPECT_THAT(happened(), ElementsAre("call 01000080 3 01 @integrity"));
    EXPECT_EQ(processes->processCount() + network.open(), 0U);
}

// What answers for the program is well, but the program is not: each call counts as answered when its time is up.
TEST_F(CallingBack, GivesAProgramUpThatHangs) {
    auto object = ready();
    network.machine.answers.faults["call"] = Fault::Deferred;
    std::size_t calls = 0;
    std::function<void()> next = [&] {
        ++calls;
        object->call(3, std::make_shared<Bytes>(), next);
    };
    next();
    pass(600'000);
    EXPECT_EQ(calls, 13U);
    EXPECT_THAT(lines, ElementsAre(AllOf(StartsWith("Cannot call back"), HasSubstr("call: no answer for 30 s")),
                                   StartsWith("Gave up calling back")));
    EXPECT_EQ(events.back(), "given up 1");
}

TEST_F(CallingBack, PingsAnewWhereTheSetIsForgotten) {
    auto object = ready();
    pass(120'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "ping 0 #1 +101 @integrity"));
    network.machine.answers.pingSet = 0;
    pass(120'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "ping 77 @integrity", "ping 0 #1 +101 @integrity"));
    network.ends["10.0.0.5:135"] = End::Mute;
    pass(240'000);
    EXPECT_THAT(lines, ElementsAre(AllOf(StartsWith("Cannot ping for"), HasSubstr("10.0.0.5:135, log-on: no answer"))));
    EXPECT_THAT(happened(), SizeIs(6)) << "sooner than in a whole period";
    call(*object, 1);
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("call 01000080 3 01 @integrity", "answered 1"));
}

TEST_F(CallingBack, BoundsWhatOneClientTakes) {
    std::vector<std::unique_ptr<orpc::IRemoteObject>> objects;
    for (std::uint64_t oxid = 1; oxid <= RemoteProcesses::mostOfClient; ++oxid) {
        objects.push_back(connect(1, oxid));
    }
    EXPECT_EQ(connect(1, 99), nullptr);
    EXPECT_THAT(lines, ElementsAre(HasSubstr("8 programs of this client are called back already")));
    EXPECT_NE(connect(2, 1), nullptr) << "another sink of one of them";
    auto other = request(1, 99);
    other.host = "10.0.0.7";
    EXPECT_NE(processes->connect(std::move(other)), nullptr);
    objects.clear();

    // Addresses where nobody answers leave room for others.
    std::size_t dials = 0;
    Turns turns;
    std::list<Turns::Turn> held;
    for (std::size_t i = 0; i < Turns::most + 10; ++i) {
        held.emplace_back(turns, i < 20 ? "greedy" : fmt::format("{}", i), [&dials] { ++dials; });
    }
    EXPECT_EQ(dials, Turns::mostOfClient + Turns::most + 10 - 20);
    held.pop_front();
    EXPECT_EQ(dials, Turns::mostOfClient + Turns::most + 10 - 20 + 1);
    held.clear();
}

TEST_F(CallingBack, GivesUpWhatHasFailedForLongestToMakeRoom) {
    network.machine.answers.faults = {{"resolve 3", Fault::Server}, {"resolve 5", Fault::Server}};
    std::vector<std::unique_ptr<orpc::IRemoteObject>> objects;
    for (const unsigned oxid : {5U, 1U, 2U, 3U, 4U, 6U, 7U, 8U}) {
        objects.push_back(connect(oxid, oxid));
        pass(100);
    }
    lines.clear();
    happened();
    for (const unsigned oxid : {9U, 10U, 11U}) {
        objects.push_back(connect(oxid, oxid));
    }
    EXPECT_THAT(happened(), ElementsAre("given up 5", "given up 3"));
    const auto gaveUp = AllOf(StartsWith("Gave up calling back"), HasSubstr("asking where its program is called"),
                              testing::EndsWith("; another program needs the place"));
    EXPECT_THAT(lines, ElementsAre(gaveUp, gaveUp, StartsWith("Refused to call back")));
    EXPECT_EQ(processes->processCount(), RemoteProcesses::mostOfClient);
}

// A machine that has another address now says so with its next sink.
TEST_F(CallingBack, TriesWhereALaterSinkSaysThatItsProcessIs) {
    network.ends.erase("10.0.0.5:135");
    const auto first = connect(1);
    pass(0);
    serveAt({"10.0.0.6:135"});
    auto moved = request(2);
    moved.reference.resolver = {{"10.0.0.6", 0}};
    const auto second = processes->connect(std::move(moved));
    pass(1'000);
    network.cut({});
    pass(1'000);
    const Events found{"dial 10.0.0.6:135", "resolve a @integrity", "dial 10.0.0.5:5001"};
    Events all = happened();
    EXPECT_THAT(Events(all.begin(), all.begin() + 2), ElementsAre("dial 10.0.0.5:135", "dial 10.0.0.5:135"));
    EXPECT_EQ(Events(all.begin() + 2, all.begin() + 5), found);
    EXPECT_EQ(Events(all.begin() + 7, all.begin() + 10), found) << "at once from then on";
}

TEST_F(CallingBack, CutsALargeCallAsItIsTaken) {
    settings.minimumLevel = rpc::AuthLevel::Privacy;
    network.window = 20'000;
    const auto object = connect(1);
    pass(0);
    happened();
    const auto large = std::make_shared<Bytes>(6'000'000);
    object->call(3, large, [this] { events.emplace_back("answered"); });
    EXPECT_EQ(large.use_count(), 2) << "not copied";
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("call 01000080 3 6000000 bytes @privacy", "answered"));
    EXPECT_LT(network.largestSend, 72'000U);
    EXPECT_EQ(large.use_count(), 1);
}

// Whoever has a call while the handful of this turn is gone waits for the next one, in the order in which they came.
TEST_F(CallingBack, LetsCallsOutAHandfulATurn) {
    Pace pace(loop);
    std::list<Pace::Caller> callers;
    Events turns{""};
    const auto caller = [&](char name) {
        auto& its = callers.emplace_back(pace, [&, name] { turns.back() += name; });
        return its.mayCall(100);
    };
    const std::string names = "abcdefghijklmnopqrstuvwxyz";
    std::string atOnce;
    std::copy_if(names.begin(), names.end(), std::back_inserter(atOnce), caller);
    EXPECT_EQ(atOnce, "abcdefghijklmnop");
    EXPECT_FALSE(callers.back().mayCall(1)) << "it waits already";
    callers.erase(std::next(callers.begin(), 17));  // r
    callers.erase(callers.begin());
    pass(0);
    EXPECT_THAT(turns, ElementsAre("qstuvwxyz"));
    EXPECT_TRUE(callers.front().mayCall(10 * Pace::handful)) << "a large one goes alone";
    EXPECT_FALSE(callers.back().mayCall(1));
}

}  // namespace
}  // namespace quelm::dcom::outgoing::test
