#include "Clock Library/Clock.h"

#include <gmock/gmock.h>

#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/TimeSource.h"
#include "loop/VirtualLoop.h"

namespace quelm {
namespace {

using testing::ElementsAre;

// The wall clock of a plant computer: runs with the loop, but can be set, and changes its offset to UTC when told.
class LoopTime final : public TimeSource {
 public:
    LoopTime(const VirtualLoop& loop, Date local, int offsetMinutes) : loop_(loop), offset_(offsetMinutes) {
        setLocal(local);
    }
    void setLocal(Date local) {
        atStart_ =
            (linearMilliseconds(local) + 109'205LL * 86'400'000) * 10'000 - (elapsed() + offset_ * 60'000LL) * 10'000;
    }
    // From that much elapsed time on, local time has another offset.
    void changeOffset(std::int64_t afterMilliseconds, int minutes) {
        changeAt_ = fileTimeNow() + afterMilliseconds * 10'000;
        laterOffset_ = minutes;
    }
    std::int64_t fileTimeNow() const override { return atStart_ + elapsed() * 10'000; }
    std::uint64_t monotonicMilliseconds() const override { return static_cast<std::uint64_t>(elapsed()) + 12'345; }
    int utcOffsetMinutes(std::int64_t fileTime) const override {
        return fileTime >= changeAt_ ? laterOffset_ : offset_;
    }

 private:
    std::int64_t elapsed() const { return loop_.now().count(); }

    const VirtualLoop& loop_;
    std::int64_t atStart_ = 0;
    std::int64_t changeAt_ = INT64_MAX;
    int offset_;
    int laterOffset_ = 0;
};

std::string timeText(Date date) {
    const std::string text = dateText(date);
    return text.size() > 11 ? text.substr(11) : "00:00:00";
}

class ClockTest : public testing::Test {
 protected:
    std::shared_ptr<IInterval> make(std::int32_t period, std::int32_t offset, const char* name,
                                    Clock* clock = nullptr) {
        auto interval = (clock == nullptr ? clock_ : *clock)
                            .CreateInterval(period, offset, Variant(name), name, true, false, true, 1000, 0);
        interval->OnIntervalExpired([this](std::int32_t, const Variant& name_, Date scheduled, bool timeChanged) {
            fired_.push_back(name_.text() + " " + timeText(scheduled) + (timeChanged ? " set" : ""));
            late_ = std::max(late_, linearMilliseconds(localNow()) - linearMilliseconds(scheduled));
        });
        return interval;
    }
    std::vector<std::string> takeFired() { return std::exchange(fired_, {}); }
    void setClock(int hour, int minute, int second) { time_.setLocal(makeDate(2026, 11, 22, hour, minute, second)); }

    VirtualLoop loop_;
    LoopTime time_{loop_, makeDate(2026, 11, 22, 10, 0, 1), 60};
    ScopedTimeSource inForce_{time_};
    Clock clock_{loop_};
    std::vector<std::string> fired_;
    std::int64_t late_ = 0;
};

TEST_F(ClockTest, ExpiresAtItsTimesOfDayToTheMillisecond) {
    const auto update = make(20, 5, "update");
    const auto read = make(20, 0, "read");
    const auto second = make(20, 0, "second");
    EXPECT_EQ(update->Period(), 20);
    loop_.advance(44'000);
    EXPECT_THAT(takeFired(), ElementsAre("update 10:00:05", "read 10:00:20", "second 10:00:20", "update 10:00:25",
                                         "read 10:00:40", "second 10:00:40", "update 10:00:45"));
    EXPECT_EQ(late_, 0);
}

TEST_F(ClockTest, RefusesPeriodsBeyondADay) {
    for (const std::int32_t period : {0, -1, 86'401}) {
        EXPECT_THROW(make(period, 0, "x"), RuntimeError) << period;
    }
}

TEST_F(ClockTest, ASetClockNeitherBurstsNorPauses) {
    const auto update = make(20, 5, "update");
    const auto read = make(20, 0, "read");
    setClock(12, 30, 3);
    loop_.advance(3'000);
    EXPECT_THAT(takeFired(), ElementsAre("update 12:29:45 set", "read 12:30:00 set", "update 12:30:05"));
    loop_.advance(15'000);
    EXPECT_THAT(takeFired(), ElementsAre("read 12:30:20"));

    setClock(9, 0, 0);
    loop_.advance(21'000);
    EXPECT_THAT(takeFired(), ElementsAre("update 09:00:05 set", "read 09:00:20 set"));
    setClock(9, 0, 19);
    loop_.advance(22'000);
    EXPECT_THAT(takeFired(), ElementsAre("update 09:00:25 set", "read 09:00:40 set")) << "09:00:20 is not repeated";
}

TEST_F(ClockTest, MidnightComesOnceThoughTheClockShowsItTwice) {
    setClock(23, 59, 50);
    const auto midnight = make(86'400, 0, "midnight");
    loop_.advance(11'000);
    setClock(23, 59, 58);
    loop_.advance(10'000);
    time_.changeOffset(0, 0);
    loop_.advance(7'200'000);
    EXPECT_THAT(takeFired(), ElementsAre(testing::StartsWith("midnight")));
}

TEST_F(ClockTest, DaylightSavingNeitherSkipsNorRepeatsATick) {
    for (const auto& [offset, afterwards] : {std::pair(120, "read 03:00:00"), {0, "read 01:00:00"}}) {
        VirtualLoop loop;
        LoopTime time(loop, makeDate(2026, 11, 22, 1, 59, 30), 60);
        const ScopedTimeSource inForce(time);
        Clock clock(loop);
        const auto read = make(20, 0, "read", &clock);
        time.changeOffset(30'000, offset);
        loop.advance(3'650'000);
        EXPECT_EQ(fired_.size(), 183U);
        EXPECT_EQ(fired_[0], "read 01:59:40");
        EXPECT_EQ(takeFired()[1], afterwards);
    }
}

TEST_F(ClockTest, AStandstillCostsOneLateExpiry) {
    ManualTimeSource stalled(makeDate(2026, 11, 22, 10, 0, 1), 60);
    const ScopedTimeSource inForce(stalled);
    const auto read = make(20, 0, "read");
    stalled.advanceMilliseconds(600'000);
    loop_.advance(1'000);
    EXPECT_THAT(takeFired(), ElementsAre("read 10:10:00"));
}

TEST_F(ClockTest, ADisabledIntervalMissesItsBoundaries) {
    const auto read = make(20, 0, "read");
    read->SetIntervalEnabled(false);
    loop_.advance(30'000);
    read->SetIntervalEnabled(true);
    loop_.advance(15'000);
    EXPECT_THAT(takeFired(), ElementsAre("read 10:00:40"));
}

TEST_F(ClockTest, BetweenTwoIntervalsOthersAreServed) {
    std::string order;
    std::vector<std::shared_ptr<IInterval>> sites;
    for (const char name : {'a', 'b', 'c'}) {
        sites.push_back(make(20, 0, "site"));
        sites.back()->OnIntervalExpired([&, name](std::int32_t, const Variant&, Date, bool) {
            order += name;
            loop_.post([&] { order += '.'; });
        });
    }
    loop_.advance(20'000);
    EXPECT_EQ(order, "a.b.c.");
}

TEST_F(ClockTest, NothingExpiresOnceItIsCancelledOrReleased) {
    auto first = make(20, 0, "first");
    const auto second = make(20, 0, "second");
    auto third = make(20, 0, "third");
    first->OnIntervalExpired([&](std::int32_t, const Variant&, Date, bool) {
        fired_.emplace_back("first");
        first->CancelInterval(true);
        first.reset();
        second->CancelInterval(true);
        third.reset();
    });
    loop_.advance(60'000);
    EXPECT_THAT(takeFired(), ElementsAre("first"));
    EXPECT_EQ(loop_.pendingTimers(), 0U);
}

TEST_F(ClockTest, AHandlerMayMakeIntervals) {
    const auto first = make(20, 0, "first");
    std::shared_ptr<IInterval> made;
    first->OnIntervalExpired([&](std::int32_t, const Variant&, Date, bool) {
        made = make(20, 1, "made");
        first->CancelInterval(true);
    });
    loop_.advance(25'000);
    EXPECT_THAT(takeFired(), ElementsAre("made 10:00:21"));
}

}  // namespace
}  // namespace quelm
