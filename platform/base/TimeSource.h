#pragma once

// The one source of time. Everything that asks for the time asks it, so that tests can run a day in milliseconds. The
// system's source may be asked by any thread; another one is put in place and asked by one thread only.

#include <cstdint>
#include <memory>

#include "base/Date.h"

namespace quelm {

class TimeSource {
 public:
    virtual ~TimeSource() = default;
    // UTC, in 100-nanosecond units since 1601-01-01 (the form of an OPC time stamp).
    virtual std::int64_t fileTimeNow() const = 0;
    // Milliseconds of a clock that only goes forward; its origin means nothing.
    virtual std::uint64_t monotonicMilliseconds() const = 0;
    // Minutes that local time is ahead of UTC at that UTC instant (daylight saving included).
    virtual int utcOffsetMinutes(std::int64_t fileTime) const = 0;
};

// The source in force: the system's clocks and time zone unless a test has put its own in place.
TimeSource& timeSource();

// Puts another source in place for its own lifetime.
class ScopedTimeSource {
 public:
    explicit ScopedTimeSource(TimeSource& source);
    ~ScopedTimeSource();
    ScopedTimeSource(const ScopedTimeSource&) = delete;
    ScopedTimeSource& operator=(const ScopedTimeSource&) = delete;

 private:
    TimeSource* previous_;
};

// The present local date-time, and conversions by the source in force.
Date localNow();
Date localFromFileTime(std::int64_t fileTime);
// In the hour that the end of daylight saving repeats, the offset in force now decides; the skipped hour counts on.
std::int64_t fileTimeFromLocal(Date local);

// A source that stands still until told to move: for tests and simulations.
class ManualTimeSource : public TimeSource {
 public:
    explicit ManualTimeSource(Date localStart, int offsetMinutes = 0);
    void advanceMilliseconds(std::int64_t milliseconds);
    void setLocal(Date local);
    void setOffsetMinutes(int minutes) { offsetMinutes_ = minutes; }
    std::int64_t fileTimeNow() const override { return fileTime_; }
    std::uint64_t monotonicMilliseconds() const override { return monotonic_; }
    int utcOffsetMinutes(std::int64_t fileTime) const override;

 private:
    std::int64_t fileTime_ = 0;
    std::uint64_t monotonic_ = 0;
    int offsetMinutes_ = 0;
};

}  // namespace quelm
