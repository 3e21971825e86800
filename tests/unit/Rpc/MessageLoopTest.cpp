#include <gmock/gmock.h>

#include <csignal>

#include "Message Loop/AsioLoop.h"
#include "Message Loop/VirtualLoop.h"

namespace quelm {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(AsioLoop, RunsPostsTimersAndSignalsInTheirOrder) {
    AsioLoop loop;
    std::vector<std::string> events;
    std::unique_ptr<ITimer> restarted;
    std::unique_ptr<ITimer> stopped;
    std::unique_ptr<ITimer> ownEnd;
    restarted = loop.makeTimer([&] {
        events.emplace_back("restarted");
        std::raise(SIGUSR1);
    });
    stopped = loop.makeTimer([&] { events.emplace_back("stopped"); });
    ownEnd = loop.makeTimer([&] {
        events.emplace_back("own end");
        ownEnd.reset();
        stopped->stop();
        restarted->start(0ms);
    });
    loop.onSignal({SIGUSR1}, [&](int signal) {
        events.push_back(signal == SIGUSR1 ? "signal" : "other");
        loop.stop();
    });
    loop.post([&] {
        events.emplace_back("first");
        loop.post([&] { events.emplace_back("third"); });
    });
    loop.post([&] { events.emplace_back("second"); });
    restarted->start(1h);
    stopped->start(1h);
    ownEnd->start(1ms);
    EXPECT_TRUE(stopped->pending());
    loop.run();
    EXPECT_THAT(events, ElementsAre("first", "second", "third", "own end", "restarted", "signal"));
    EXPECT_FALSE(restarted->pending());
}

TEST(AsioLoop, RunsOnAfterAHandlerThrew) {
    AsioLoop loop;
    loop.post([] { throw std::runtime_error("trouble"); });
    loop.post([&] { loop.stop(); });
    EXPECT_THROW(loop.run(), std::runtime_error);
    loop.run();
}

TEST(VirtualLoop, RunsTimersOnTheirDueTimes) {
    VirtualLoop loop;
    std::vector<std::string> events;
    const auto note = [&](const char* what) { events.push_back(what + std::to_string(loop.now().count())); };
    std::unique_ptr<ITimer> periodic;
    std::unique_ptr<ITimer> other;
    periodic = loop.makeTimer([&] {
        note("tick ");
        periodic->start(15s);
        loop.post([&] { note("posted "); });
    });
    other = loop.makeTimer([&] {
        note("other ");
        other.reset();
    });
    periodic->start(15s);
    other->start(15s);
    other->start(20s);
    EXPECT_EQ(loop.pendingTimers(), 2U);
    loop.advance(14'999);
    EXPECT_THAT(events, testing::IsEmpty());
    loop.advance(15'001);
    EXPECT_THAT(events, ElementsAre("tick 15000", "posted 15000", "other 20000", "tick 30000", "posted 30000"));
    EXPECT_EQ(loop.pendingTimers(), 1U);
    periodic.reset();
    EXPECT_EQ(loop.pendingTimers(), 0U);
}

}  // namespace
}  // namespace quelm
