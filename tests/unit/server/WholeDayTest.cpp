#include <gmock/gmock.h>

#include "Clock Library/Clock.h"
#include "loop/VirtualLoop.h"
#include "server/Fakes.h"

namespace quelm {
namespace {

TEST(WholeDay, BringsEveryReadEveryPassAndOneMidnight) {
    fakes::Host host;
    VirtualLoop& loop = host.loop;
    // Loop and clock go on together, second by second.
    const auto run = [&](int seconds) {
        for (int i = 0; i < seconds; ++i) {
            host.time.advanceMilliseconds(1000);
            loop.advance(1000);
        }
    };
    const auto logged = [&](std::string_view text) {
        return std::count_if(host.journal.lines.begin(), host.journal.lines.end(),
                             [text](const std::string& line) { return line.find(text) != std::string::npos; });
    };
    host.realClock = std::make_shared<Clock>(loop);
    host.dbil->setChannels({{7, 1}});
    host.dbil->setDefinitions("A", {fakes::Definition{}});
    host.dbil->setSnapshot({fakes::record("C7", Variant(12.5))});
    ASSERT_EQ(host.form->Form_Load(), StartUp::Running);
    run(24 * 60 * 60);
    EXPECT_EQ(host.dbil->reads, 4320);
    EXPECT_EQ(logged("[OPC-0127] Update tag values"), 4320);
    EXPECT_EQ(logged("[OPC-0135] End of day"), 1);
    EXPECT_EQ(logged("log: open 'C:\\Logs\\OPCServer 2026-11-17 00.00.00.01234_r.log'"), 1);
    // Nobody ever heard of the I/O server: all but the first two ticks warn.
    EXPECT_EQ(logged("[OPC-0184]"), 4320);
    EXPECT_EQ(logged("[OPC-0185]"), 4318);
    // The last pass was 8 seconds ago: the day ends at 13 seconds past the minute.
    EXPECT_EQ(host.slik.SLIKTags().at(0).Quality(), 0);
    EXPECT_NEAR((localNow().days - host.slik.SLIKTags().at(0).Timestamp().days) * 86400, 8, 1);
    EXPECT_TRUE(host.form->Unload());
    host.journal.take();
    run(60);
    EXPECT_TRUE(host.journal.lines.empty());
    EXPECT_EQ(loop.pendingTimers(), 0U);
}

}  // namespace
}  // namespace quelm
