#include <gmock/gmock.h>

#include <csignal>

#include "loop/AsioLoop.h"

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

}  // namespace
}  // namespace quelm
