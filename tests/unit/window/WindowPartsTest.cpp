// The window's timer, the selection in its list, and the loop's watch over the display's connection.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "loop/AsioLoop.h"
#include "loop/VirtualLoop.h"
#include "window/ListSelection.h"
#include "window/WindowTimer.h"

namespace quelm {
namespace {

TEST(WindowTimer, FiresEveryIntervalWhileEnabledAndAboveZero) {
    VirtualLoop loop;
    WindowTimer timer(loop);
    std::vector<long> fired;
    timer.OnTimer([&] { fired.push_back(loop.now().count()); });
    timer.SetInterval(5000);
    EXPECT_EQ(loop.pendingTimers(), 0U);
    timer.SetEnabled(true);
    loop.advance(4000);
    timer.SetEnabled(true);  // is so already: the count goes on
    loop.advance(6000);
    EXPECT_EQ(fired, (std::vector<long>{5000, 10000}));
    loop.advance(3000);
    timer.SetInterval(5000);  // begins anew
    loop.advance(5000);
    EXPECT_EQ(fired.back(), 18000);
    for (const int never : {0, -1}) {
        timer.SetInterval(never);
        EXPECT_EQ(loop.pendingTimers(), 0U);
    }
    timer.SetInterval(10);
    timer.OnTimer([&] { timer.SetEnabled(false); });
    loop.advance(10);
    EXPECT_EQ(loop.pendingTimers(), 0U);
}

TEST(ListSelection, DoesWhatClicksAndKeysDo) {
    const std::vector<std::string> lines{"a", "b", "c", "d"};
    ListSelection selection;
    selection.grow(lines.size());
    const auto after = [&](auto... act) {
        (act(), ...);
        return selection.text(lines);
    };
    EXPECT_EQ(after([] {}), "");
    EXPECT_EQ(after([&] { selection.extendTo(2); }), "c\n") << "nothing to extend from yet";
    EXPECT_EQ(after([&] { selection.extendTo(3); }), "c\nd\n");
    EXPECT_EQ(after([&] { selection.extendTo(1); }), "b\nc\n");
    EXPECT_EQ(after([&] { selection.toggle(0); }, [&] { selection.toggle(2); }), "a\nb\n");
    EXPECT_EQ(after([&] { selection.extendTo(3); }), "c\nd\n") << "from the line that was clicked last";
    EXPECT_EQ(selection.cursor(), 3U);
    EXPECT_EQ(after([&] { selection.only(1); }), "b\n");
    EXPECT_EQ(after([&] { selection.only(4); }, [&] { selection.toggle(4); }), "") << "beyond the list";
    EXPECT_EQ(after([&] { selection.all(); }), "a\nb\nc\nd\n");
    selection.grow(5);
    EXPECT_FALSE(selection.contains(4));
}

TEST(DescriptorWatch, CallsWhileThereIsSomethingToReadAndLeavesTheDescriptorOpen) {
    AsioLoop loop;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::string read;
    std::unique_ptr<IDescriptorWatch> watch = loop.watch(ends[0], [&] {
        char byte = 0;
        ASSERT_EQ(::read(ends[0], &byte, 1), 1);
        read += byte;
        if (byte == '!') {
            throw std::runtime_error("let out");
        }
        if (byte == '.') {
            watch.reset();
            loop.stop();
        }
    });
    ASSERT_EQ(write(ends[1], "a!b.", 4), 4);
    EXPECT_THROW(loop.run(), std::runtime_error);
    loop.run();
    EXPECT_EQ(read, "a!b.");
    EXPECT_EQ(write(ends[1], "c", 1), 1) << "the reading end is still open";
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
}  // namespace quelm
