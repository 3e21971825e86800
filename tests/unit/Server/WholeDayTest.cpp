#include <gmock/gmock.h>

#include <algorithm>

#include "Clock Library/Clock.h"
#include "Fakes.h"
#include "Message Loop/VirtualLoop.h"
#include "Window/HeadlessWindow.h"

namespace quelm {
namespace {

using fakes::Host;

class WholeDay : public testing::Test {
 protected:
    // Loop and clock go on together, second by second.
    void run(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            host.time.advanceMilliseconds(1000);
            loop.advance(1000);
        }
    }
    std::ptrdiff_t logged(std::string_view text) const {
        return std::count_if(host.journal.lines.begin(), host.journal.lines.end(),
                             [text](const std::string& line) { return line.find(text) != std::string::npos; });
    }

    VirtualLoop loop;
    Host host;
};

TEST_F(WholeDay, BringsEveryReadEveryPassAndOneMidnight) {
    host.realClock = std::make_shared<Clock>(loop);
    host.sites["A"].intervalTypesByPID[101001234] = "1h";
    host.reader.valuesByPID[101001234] = {Variant(1.0), Variant(std::int32_t{0})};
    host.dbil->setChannels({{7, 1}});
    host.dbil->setDefinitions("A", {fakes::definition("P", "1-010-0-12-34"), fakes::definition("C", "[@7]")});
    host.dbil->setSnapshot({fakes::record("C7", Variant(12.5))});
    ASSERT_EQ(host.form->Form_Load(), StartUp::Running);
    host.journal.take();
    run(24 * 60 * 60);
    EXPECT_EQ(host.dbil->reads, 4320);
    EXPECT_EQ(logged("[OPC-0127] Update tag values"), 4320);
    EXPECT_EQ(logged("[OPC-0135] End of day"), 1);
    EXPECT_EQ(logged("log: open 'C:\\Logs\\OPCServer 2026-11-17 00.00.00.01234_r.log'"), 1);
    // Nobody ever heard of the I/O server: all but the first two ticks warn.
    EXPECT_EQ(logged("[OPC-0184]"), 4320);
    EXPECT_EQ(logged("[OPC-0185]"), 4318);
    EXPECT_EQ(host.slik.tags.Item("P").value, Variant(1.0F));
    EXPECT_EQ(host.slik.tags.Item("C").quality, 0);
    EXPECT_EQ(host.window.list.lines.size(), 501U);
    // The last pass was 8 seconds ago: the day ends at 13 seconds past the minute.
    EXPECT_NEAR((localNow().days - host.slik.tags.Item("C").stamp.days) * 86400, 8, 1);
    EXPECT_TRUE(host.form->Unload());
    host.journal.take();
    run(60);
    EXPECT_TRUE(host.journal.lines.empty());
    EXPECT_EQ(loop.pendingTimers(), 0U);
}

TEST(HeadlessWindow, FiresItsTimerWhileEnabledAndPrintsOnceShown) {
    VirtualLoop loop;
    int closed = 0;
    int fired = 0;
    HeadlessWindow window(loop, [&] { ++closed; });
    window.tmrDisconnect().OnTimer([&] {
        if (++fired == 3) {
            window.tmrDisconnect().SetEnabled(false);
        }
    });
    window.tmrDisconnect().SetEnabled(true);
    loop.advance(10000);
    EXPECT_EQ(fired, 0);
    window.tmrDisconnect().SetInterval(5000);
    loop.advance(4999);
    EXPECT_EQ(fired, 0);
    loop.advance(1);
    EXPECT_EQ(fired, 1);
    loop.advance(60000);
    EXPECT_EQ(fired, 3);
    EXPECT_EQ(loop.pendingTimers(), 0U);

    testing::internal::CaptureStderr();
    window.lvMessages().Add("hidden");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    window.Show();
    window.lvMessages().Add("shown");
    window.Show();
    window.Hide();
    window.lvMessages().Add("hidden again");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "hidden\nshown\n");
    testing::internal::CaptureStdout();
    window.ShowInformationBox("Title", "one\r\ntwo");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Title\n\none\ntwo\n");
    window.Close();
    window.Close();
    EXPECT_EQ(closed, 1);
}

}  // namespace
}  // namespace quelm
