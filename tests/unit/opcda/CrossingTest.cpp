// The control between two loops, both driven from here: what each side sees of the other, and when.

#include <fmt/format.h>

#include <thread>

#include "base/Quality.h"
#include "base/Raised.h"
#include "loop/AsioLoop.h"
#include "loop/LineCrossing.h"
#include "opcda/Fixture.h"

namespace quelm::opcda {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CrossingTest : public testing::Test {
 protected:
    CrossingTest() {
        control.SetEvents(&events);
        control.setHooks({[] {}, {}, {}, {}, {}});
        for (const char* name : {"A", "B", "C"}) {
            control.SLIKTags().Add(name, 1, Variant("made"), 0x18, noon);
        }
        control.StartServer();
    }
    void set(const char* name, const char* value) {
        control.SLIKTags().Item(name).SetVQT(Variant(value), quality::good, localNow());
    }
    // One handler of the plant.
    void onPlant(std::function<void()> handler) {
        plantLoop.post(std::move(handler));
        plantLoop.drain();
    }
    // "A B C" as clients see them, each with the seconds since noon.
    std::string seen() {
        std::string text;
        for (std::size_t i = 0; i < 3; ++i) {
            const SLIKTag& tag = network.items().at(i);
            text +=
                fmt::format("{}{}@{}", i == 0 ? "" : " ", tag.Value().text(), (tag.fileTime() - start) / 10'000'000);
        }
        return text;
    }
    void settle() {
        while (plantLoop.pendingPosts() + networkLoop.pendingPosts() > 0) {
            networkLoop.drain();
            plantLoop.drain();
        }
    }

    const Date noon = makeDate(2026, 3, 5, 12);
    ManualTimeSource clock{noon};
    ScopedTimeSource inForce{clock};
    const std::int64_t start = clock.fileTimeNow();
    VirtualLoop plantLoop;
    VirtualLoop networkLoop;
    SLIKServer control{plantLoop, networkLoop};
    RecordingEvents events{control};
    SLIKNetwork& network = control.network();
};

TEST_F(CrossingTest, WhatOneHandlerSetsIsSeenTogether) {
    clock.advanceMilliseconds(1000);
    onPlant([&] {
        set("A", "1");
        networkLoop.drain();
        EXPECT_EQ(seen(), "made@0 made@0 made@0");
        EXPECT_EQ(control.SLIKTags().Item("A").Value().text(), "1") << "the plant sees what it has set";
        set("B", "1");
    });
    EXPECT_EQ(seen(), "made@0 made@0 made@0") << "the network has its own pace";
    networkLoop.drain();
    EXPECT_EQ(seen(), "1@1 1@1 made@0");

    // Further handlers while the batch before is still under way.
    clock.advanceMilliseconds(1000);
    onPlant([&] { set("A", "2"); });
    networkLoop.drain();
    for (const char* value : {"3", "4"}) {
        clock.advanceMilliseconds(1000);
        onPlant([&] { set("C", value); });
        EXPECT_EQ(control.SLIKTags().Item("C").Value().text(), value);
    }
    EXPECT_EQ(control.SLIKTags().Item("A").Value().text(), "2");
    settle();
    EXPECT_EQ(seen(), "2@2 1@1 4@4");
    EXPECT_EQ(test::raisedBy([&] { control.SLIKTags().Add("D", 1, Variant(), 0, noon); }), 5);
}

TEST_F(CrossingTest, LostSourcesAreSeenWithTheValuesOfTheirPass) {
    onPlant([&] {
        control.SetSourcesLost(true);
        set("A", "1");
    });
    EXPECT_FALSE(network.items().areSourcesLost());
    settle();
    EXPECT_EQ(seen(), "1@0 made@0 made@0");
    EXPECT_TRUE(network.items().areSourcesLost());
    onPlant([&] { set("A", "2"); });
    settle();
    EXPECT_TRUE(network.items().areSourcesLost()) << "until it is said otherwise";
    onPlant([&] { control.SetSourcesLost(false); });
    settle();
    EXPECT_FALSE(network.items().areSourcesLost());
}

// Many passes that set some items only, with stamps of their own.
TEST_F(CrossingTest, ItemsKeepTheirValuesAndStampsFromBatchToBatch) {
    for (int i = 0; i < 5000; ++i) {
        clock.advanceMilliseconds(1000);
        onPlant([&] {
            set("B", "old");
            clock.advanceMilliseconds(1000);
            set("B", "new");
            if (i % 1000 == 0) {
                set("C", "rare");
            }
        });
        if (i % 7 == 0) {
            settle();
        }
    }
    settle();
    EXPECT_EQ(seen(), "made@0 new@10000 rare@8002");
}

TEST_F(CrossingTest, QuestionsWaitForThePlantAndNobodyWaitsForThem) {
    std::vector<std::string> answers;
    const SLIKTag* asked[] = {&network.items().at(2), &network.items().at(0)};
    const auto ask = [&] {
        network.deviceRead(asked, [&](HResult error, std::span<const RequestedItem> readings) {
            answers.push_back(fmt::format("{:x}", static_cast<std::uint32_t>(error)));
            for (const RequestedItem& reading : readings) {
                answers.push_back(reading.isFilled() ? reading.value().text() : "-");
            }
        });
    };
    ask();
    network.write(3, [&](HResult error) { answers.push_back(fmt::format("write {}", error == E_FAIL)); });
    networkLoop.drain();
    EXPECT_THAT(answers, IsEmpty());
    onPlant([&] { set("A", "set"); });
    EXPECT_THAT(events.log, ElementsAre("read 2 C A", "write 3"));
    settle();
    EXPECT_THAT(answers, ElementsAre("0", "made", "made", "write true"));

    answers.clear();
    control.SetEvents(nullptr);
    ask();
    settle();
    EXPECT_THAT(answers, ElementsAre("80004005", "-", "-"));

    // The plant does not come to answer: what waits for it is bounded.
    answers.clear();
    for (int i = 0; i < 3000; ++i) {
        ask();
    }
    EXPECT_EQ(answers.size(), 940U);
    EXPECT_EQ(answers.front(), "8007000e");
    settle();
    answers.clear();
    ask();
    settle();
    EXPECT_EQ(answers.size(), 3U) << "everything was answered and forgotten";
}

TEST_F(CrossingTest, AnUnloadAndAComingClientNeverMiss) {
    // Gone is an event; in use is known at once.
    EXPECT_TRUE(network.clientCreated());
    EXPECT_TRUE(control.InUse());
    network.clientGone();
    EXPECT_TRUE(network.clientCreated());
    plantLoop.drain();
    EXPECT_THAT(events.log, ElementsAre("disconnect 0 in use"));

    // It goes between the notice and the question: the handler stays at its word, and the going is an event.
    onPlant([&] {
        control.RequestDisconnect("Unloading Server");
        network.clientGone();
        EXPECT_TRUE(control.InUse());
    });
    EXPECT_FALSE(control.InUse());
    EXPECT_THAT(events.log, ElementsAre("disconnect 0 in use", "disconnect 0"));

    // Nobody was there: nobody comes any more.
    WrittenValues values;
    Application application{network, networkLoop, values};
    onPlant([&] {
        control.RequestDisconnect("Unloading Server");
        Server late{application};
        EXPECT_FALSE(late.isAdmitted());
        EXPECT_FALSE(control.InUse());
    });
    plantLoop.drain();
    EXPECT_EQ(events.log.size(), 2U) << "it never was a client";
}

TEST_F(CrossingTest, AResidentHolderCountsAsAClientUntilItLetsGo) {
    control.holdAsResident();
    control.holdAsResident();
    EXPECT_TRUE(network.clientCreated());
    network.clientGone();
    plantLoop.drain();
    onPlant([&] {
        control.RequestDisconnect("Unloading Server");
        EXPECT_TRUE(control.InUse());
    });
    EXPECT_TRUE(control.InUse());
    control.releaseResident();
    control.releaseResident();
    EXPECT_FALSE(control.InUse());
    EXPECT_THAT(events.log, ElementsAre("disconnect 1 in use", "disconnect 0"));
}

// Both sides on threads of their own, as fast as they can: for the thread sanitizer above all.
class Threads : public ISLIKServerEvents {
 public:
    Threads() {
        for (int i = 0; i < 50; ++i) {
            control.SLIKTags().Add(fmt::format("Item{}", i), 1, Variant("0"), quality::good, localNow());
        }
        control.SetEvents(this);
        control.setHooks({[this] { thread = std::thread([this] { network.run(); }); }, {}, {}, {}, {}});
        control.StartServer();
        network.post([this] { useAsClient(); });
        plant.post([this] { pass(); });
        plant.run();
        thread.join();
    }

    void SLIKServer1_OnClientDisconnect(std::int32_t) override { ++goings; }
    void SLIKServer1_OnRead(std::int32_t, const std::vector<ISLIKRequestedItem*>& items, std::int32_t&) override {
        for (ISLIKRequestedItem* item : items) {
            const ISLIKTag& tag = control.SLIKTags().Item(item->Name());
            item->SetVQT(tag.Value(), tag.Quality(), tag.Timestamp());
        }
    }
    void SLIKServer1_OnWrite(std::int32_t, std::int32_t& error) override { error = asNumber(E_FAIL); }

    int goings = 0;  // seen by the plant
    int comings = 0;
    int mixed = 0;  // reads that saw two passes at once
    std::string last;

 private:
    void pass() {
        const Variant value(std::to_string(++passes));
        for (std::size_t i = 0; i < control.SLIKTags().Count(); ++i) {
            control.SLIKTags().Item(fmt::format("item{}", i)).SetVQT(value, quality::good, localNow());
        }
        if (passes < 500) {
            plant.post([this] { pass(); });
        } else {
            plant.post([this] { network.post([this] { isOver = true; }); });
        }
    }

    void useAsClient() {
        SLIKNetwork& side = control.network();
        const std::string first = side.items().at(0).Value().text();
        std::vector<const SLIKTag*> all;
        for (std::size_t i = 0; i < side.items().Count(); ++i) {
            all.push_back(&side.items().at(i));
            mixed += all.back()->Value().text() == first && all.back()->fileTime() != 0 ? 0 : 1;
        }
        last = first;
        comings += side.clientCreated() ? 1 : 0;
        side.deviceRead(all, [this](HResult error, std::span<const RequestedItem> readings) {
            for (const RequestedItem& reading : readings) {
                mixed += error == S_OK && reading.value().text() == readings[0].value().text() ? 0 : 1;
            }
            control.network().write(1, [this](HResult failed) {
                mixed += failed == E_FAIL ? 0 : 1;
                control.network().clientGone();
                network.post([this] { next(); });
            });
        });
    }

    void next() {
        if (!isOver || last != "500") {
            return useAsClient();
        }
        plant.post([this] { plant.stop(); });
        network.stop();
    }

    AsioLoop plant;
    AsioLoop network;
    SLIKServer control{plant, network};
    std::thread thread;
    int passes = 0;
    bool isOver = false;
};

TEST(Crossing, HoldsBetweenTwoThreads) {
    const Threads run;
    EXPECT_EQ(run.mixed, 0);
    EXPECT_EQ(run.last, "500");
    EXPECT_EQ(run.goings, run.comings);
}

TEST(LineCrossing, CountsWhatNobodyTakes) {
    VirtualLoop from;
    VirtualLoop to;
    std::vector<std::string> printed;
    LineCrossing lines(from, to, [&](std::string_view line) { printed.emplace_back(line); });
    for (std::size_t i = 0; i < LineCrossing::most + 7; ++i) {
        lines.send("line");
    }
    for (int i = 0; i < 2; ++i) {
        to.drain();
        from.drain();
    }
    EXPECT_EQ(printed.size(), LineCrossing::most + 1);
    EXPECT_EQ(printed.back(), "7 further lines were left out: they came too fast");
}

}  // namespace
}  // namespace quelm::opcda
