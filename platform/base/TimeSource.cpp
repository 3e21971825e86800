#include "base/TimeSource.h"

#include <array>
#include <ctime>
#include <initializer_list>

namespace quelm {

namespace {

constexpr std::int64_t unitsPerMillisecond = 10'000;
constexpr std::int64_t unitsPerSecond = 10'000'000;
constexpr std::int64_t unitsPerMinute = 60 * unitsPerSecond;
constexpr std::int64_t unitsPerDay = 86'400 * unitsPerSecond;
constexpr std::int64_t unixEpoch = 116'444'736'000'000'000;
// Days from 1899-12-30 back to 1601-01-01, where file times begin.
constexpr std::int64_t fileTimeEpochDay = -109'205;

std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

class SystemTimeSource final : public TimeSource {
 public:
    std::int64_t fileTimeNow() const override {
        std::timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return unixEpoch + now.tv_sec * unitsPerSecond + now.tv_nsec / 100;
    }

    std::uint64_t monotonicMilliseconds() const override {
        std::timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
    }

    // No time zone changes its offset inside a quarter of an hour, so one look-up per quarter serves. Each thread keeps
    // its own.
    int utcOffsetMinutes(std::int64_t fileTime) const override {
        const std::int64_t quarter = floorDivide(fileTime, 15 * unitsPerMinute);
        static thread_local std::array<Entry, 16> entries;
        Entry& entry = entries[static_cast<std::uint64_t>(quarter) % entries.size()];
        if (!entry.known || entry.quarter != quarter) {
            entry = Entry{quarter, lookUp(quarter), true};
        }
        return entry.minutes;
    }

 private:
    struct Entry {
        std::int64_t quarter = 0;
        int minutes = 0;
        bool known = false;
    };

    static int lookUp(std::int64_t quarter) {
        // Has the library notice a time zone that was changed while the server runs.
        tzset();
        const std::time_t seconds = quarter * 15 * 60 - unixEpoch / unitsPerSecond;
        std::tm local{};
        return localtime_r(&seconds, &local) == nullptr ? 0 : static_cast<int>(local.tm_gmtoff / 60);
    }
};

TimeSource*& sourceInForce() {
    static SystemTimeSource system;
    static TimeSource* inForce = &system;
    return inForce;
}

// A local date as file time units, before the offset to UTC is taken off.
std::int64_t localUnits(Date local) {
    return linearMilliseconds(local) * unitsPerMillisecond - fileTimeEpochDay * unitsPerDay;
}

}  // namespace

TimeSource& timeSource() {
    return *sourceInForce();
}

ScopedTimeSource::ScopedTimeSource(TimeSource& source) : previous_(sourceInForce()) {
    sourceInForce() = &source;
}

ScopedTimeSource::~ScopedTimeSource() {
    sourceInForce() = previous_;
}

Date localNow() {
    return localFromFileTime(timeSource().fileTimeNow());
}

Date localFromFileTime(std::int64_t fileTime) {
    const std::int64_t units = fileTime + timeSource().utcOffsetMinutes(fileTime) * unitsPerMinute;
    const std::int64_t day = floorDivide(units, unitsPerDay);
    const auto rest = static_cast<double>(units - day * unitsPerDay);
    return dateFromLinearDays(day + fileTimeEpochDay, rest / static_cast<double>(unitsPerDay));
}

std::int64_t fileTimeFromLocal(Date local) {
    const TimeSource& source = timeSource();
    const std::int64_t units = localUnits(local);
    const auto utcWith = [units](int minutes) { return units - minutes * unitsPerMinute; };
    const auto isConsistent = [&](int minutes) { return source.utcOffsetMinutes(utcWith(minutes)) == minutes; };

    const int now = source.utcOffsetMinutes(source.fileTimeNow());
    if (isConsistent(now)) {
        return utcWith(now);
    }
    const int before = source.utcOffsetMinutes(units - unitsPerDay);
    const int after = source.utcOffsetMinutes(units + unitsPerDay);
    for (const int candidate : {before, after}) {
        if (isConsistent(candidate)) {
            return utcWith(candidate);
        }
    }
    return utcWith(before);
}

ManualTimeSource::ManualTimeSource(Date localStart, int offsetMinutes) : offsetMinutes_(offsetMinutes) {
    setLocal(localStart);
}

void ManualTimeSource::advanceMilliseconds(std::int64_t milliseconds) {
    fileTime_ += milliseconds * unitsPerMillisecond;
    monotonic_ += milliseconds > 0 ? static_cast<std::uint64_t>(milliseconds) : 0;
}

void ManualTimeSource::setLocal(Date local) {
    fileTime_ = localUnits(local) - offsetMinutes_ * unitsPerMinute;
}

int ManualTimeSource::utcOffsetMinutes(std::int64_t) const {
    return offsetMinutes_;
}

}  // namespace quelm
