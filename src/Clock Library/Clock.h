#pragma once

// The clock over the message loop. It looks at the time at least once a second, so that no interval misses its
// boundary for long when the system's clock is set or daylight saving begins or ends.

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "Clock Library/IClock.h"
#include "loop/MessageLoop.h"

namespace quelm {

// Boundaries of one interval: the times of day that, less the offset, are whole multiples of the period. Times are
// local, in milliseconds counted straight through from some midnight. Every day starts anew, so that a period that
// does not divide the day has its boundaries at the same times of every day.
class IntervalBoundaries {
 public:
    // Seconds; period 1 to 86400, offset any.
    IntervalBoundaries(std::int32_t period, std::int32_t offset);
    // The last boundary not after that time.
    std::int64_t lastUpTo(std::int64_t local) const;
    // The first boundary after that time.
    std::int64_t firstAfter(std::int64_t local) const;

 private:
    std::int64_t period_;
    std::int64_t firstOfDay_;
};

// How intervals behave when time does not run evenly:
// - Clock set forward, daylight saving begins, or the program stood still: an interval whose boundaries were passed
//   over expires once, at once, for the latest of them.
// - Clock set back, or daylight saving ends: boundaries come round again and expire again, for an interval of 20
//   seconds must not pause for an hour. Only a boundary that has expired less than one period of elapsed time ago
//   does not: midnight is one midnight, though the clock may show it twice.
// - Intervals due together expire in the order of their boundaries, and for the same boundary in the order of their
//   creation. Between two of them the loop serves whoever waits: a client need not wait for all sites' reads.
class Clock final : public IClock {
 public:
    // loop must outlive the clock. Intervals may outlive it; they then expire no more.
    explicit Clock(IMessageLoop& loop);

    std::shared_ptr<IInterval> CreateInterval(std::int32_t lngPeriod, std::int32_t lngOffset,
                                              const Variant& varActionData, std::string_view strDescription,
                                              bool blnEnabled, bool blnOneShot, bool blnAligned,
                                              std::int32_t lngTolerance, std::int32_t lngReserved) override;

 private:
    class Interval;
    struct Reading {
        std::int64_t local;      // milliseconds, local time
        std::int64_t utc;        // milliseconds
        std::int64_t monotonic;  // milliseconds
    };
    static Reading readTime();

    struct Due {
        std::int64_t boundary;
        std::weak_ptr<Interval> interval;
    };
    void tick();
    void collectDue();
    void startTimer(const Reading& now);

    std::unique_ptr<ITimer> timer_;
    // An interval lives as long as its owner keeps it.
    std::vector<std::weak_ptr<Interval>> intervals_;
    std::deque<Due> due_;
    Reading lastReading_;
    std::int32_t lastID_ = 0;
};

}  // namespace quelm
