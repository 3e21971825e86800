#include "base/TimeSource.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <new>
#include <stdexcept>
#include <variant>

#include "base/Conversion.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

constexpr std::int64_t hour = 36'000'000'000;

// Central European time in 2026: daylight saving from 29 March 01:00 UTC to 25 October 01:00 UTC.
class CentralEurope final : public TimeSource {
 public:
    explicit CentralEurope(Date utcNow) : now_(utcOf(utcNow)) {}
    std::int64_t fileTimeNow() const override { return now_; }
    std::uint64_t monotonicMilliseconds() const override { return 0; }
    int utcOffsetMinutes(std::int64_t fileTime) const override {
        static const std::int64_t start = utcOf(makeDate(2026, 3, 29, 1));
        static const std::int64_t end = utcOf(makeDate(2026, 10, 25, 1));
        return fileTime >= start && fileTime < end ? 120 : 60;
    }
    static std::int64_t utcOf(Date utc) { return (linearMilliseconds(utc) + 109'205 * 86'400'000LL) * 10'000; }

 private:
    std::int64_t now_;
};

TEST(TimeSourceTest, FileTimesAndLocalDatesMatch) {
    ManualTimeSource source(makeDate(2026, 11, 22, 12, 0, 5), 60);
    const ScopedTimeSource inForce(source);
    EXPECT_EQ(source.fileTimeNow(), 134'398'188'050'000'000);
    EXPECT_EQ(dateText(localNow()), "2026-11-22 12:00:05");
    source.advanceMilliseconds(86'400'000LL * 400 + 1);
    EXPECT_EQ(fileTimeFromLocal(localNow()), source.fileTimeNow());
    source.advanceMilliseconds(-5000);
    EXPECT_EQ(source.monotonicMilliseconds(), 86'400'000ULL * 400 + 1) << "this clock never goes back";
    source.setLocal(makeDate(1899, 12, 29, 18));
    EXPECT_EQ(localNow().days, -1.75);
    EXPECT_EQ(fileTimeFromLocal(Date{-1.75}), source.fileTimeNow());
}

TEST(TimeSourceTest, DaylightSavingSideBySide) {
    struct Case {
        Date utcNow, local, utc;
    };
    const Date summer = makeDate(2026, 7, 1);
    const Date winter = makeDate(2026, 12, 1);
    const Case cases[] = {
        {summer, makeDate(2026, 1, 1, 12), makeDate(2026, 1, 1, 11)},
        {winter, makeDate(2026, 7, 1, 12), makeDate(2026, 7, 1, 10)},
        // the hour that comes twice: the offset in force now decides
        {summer, makeDate(2026, 10, 25, 2, 30), makeDate(2026, 10, 25, 0, 30)},
        {winter, makeDate(2026, 10, 25, 2, 30), makeDate(2026, 10, 25, 1, 30)},
        {makeDate(2026, 10, 25, 0, 45), makeDate(2026, 10, 25, 2, 45), makeDate(2026, 10, 25, 0, 45)},
        {makeDate(2026, 10, 25, 1, 45), makeDate(2026, 10, 25, 2, 45), makeDate(2026, 10, 25, 1, 45)},
        // the hour that is skipped counts on
        {summer, makeDate(2026, 3, 29, 2, 30), makeDate(2026, 3, 29, 1, 30)},
        {summer, makeDate(2026, 3, 29, 1, 59), makeDate(2026, 3, 29, 0, 59)},
    };
    for (const Case& c : cases) {
        CentralEurope source(c.utcNow);
        const ScopedTimeSource inForce(source);
        EXPECT_EQ(fileTimeFromLocal(c.local), CentralEurope::utcOf(c.utc))
            << dateText(c.local) << " seen from " << dateText(c.utcNow);
    }
}

TEST(TimeSourceTest, TheSystemsOwnZone) {
    setenv("TZ", "<+0545>-5:45", 1);
    const TimeSource& system = timeSource();
    const std::int64_t now = system.fileTimeNow();
    EXPECT_EQ(system.utcOffsetMinutes(now), 345);
    EXPECT_EQ(system.utcOffsetMinutes(now - 3 * hour), 345);
    EXPECT_NEAR(static_cast<double>(now / 10'000'000 - 11'644'473'600), static_cast<double>(std::time(nullptr)), 2);
    unsetenv("TZ");
    tzset();
}

template <class Thrown>
ErrorInfo errorOf(const Thrown& thrown) {
    try {
        throw thrown;
    } catch (...) {
        return currentError();
    }
}

TEST(RuntimeErrorTest, EveryFailureHasNumberAndDescription) {
    EXPECT_EQ(errorOf(RuntimeError(9999)).text(), "9999, Application-defined or object-defined error");
    EXPECT_EQ(errorOf(std::bad_alloc()).text(), "7, Out of memory");
    EXPECT_EQ(errorOf(std::out_of_range("at")).text(), "9, Subscript out of range");
    EXPECT_EQ(errorOf(std::bad_variant_access()).text(), "13, Type mismatch");
    EXPECT_EQ(errorOf(std::runtime_error("disk gone")).text(), "5, disk gone");
    EXPECT_EQ(errorOf(17).text(), "5, Invalid procedure call or argument");
    EXPECT_EQ(currentError().text(), "5, Invalid procedure call or argument");
}

}  // namespace
}  // namespace quelm
