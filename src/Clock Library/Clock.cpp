#include "Clock Library/Clock.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <utility>

#include "base/RuntimeError.h"
#include "base/TimeSource.h"

namespace quelm {

namespace {

constexpr std::int64_t second = 1000;
constexpr std::int64_t day = 86'400 * second;
// The system's clock counts as set when it moved by this much more or less than the time that went by.
constexpr std::int64_t setThreshold = second;
// File times begin in 1601; days are counted from 1899-12-30.
constexpr std::int64_t fileTimeEpoch = -109'205 * day;

std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

std::int64_t floorRemainder(std::int64_t value, std::int64_t divisor) {
    return value - floorDivide(value, divisor) * divisor;
}

}  // namespace

IntervalBoundaries::IntervalBoundaries(std::int32_t period, std::int32_t offset)
    : period_(period * second), firstOfDay_(floorRemainder(offset * second, period_)) {}

std::int64_t IntervalBoundaries::lastUpTo(std::int64_t local) const {
    const std::int64_t midnight = floorDivide(local, day) * day;
    const std::int64_t sinceFirst = local - midnight - firstOfDay_;
    if (sinceFirst >= 0) {
        return midnight + firstOfDay_ + sinceFirst / period_ * period_;
    }
    return midnight - day + firstOfDay_ + (day - 1 - firstOfDay_) / period_ * period_;
}

std::int64_t IntervalBoundaries::firstAfter(std::int64_t local) const {
    const std::int64_t midnight = floorDivide(local, day) * day;
    const std::int64_t sinceFirst = local - midnight - firstOfDay_;
    if (sinceFirst < 0) {
        return midnight + firstOfDay_;
    }
    const std::int64_t next = firstOfDay_ + (sinceFirst / period_ + 1) * period_;
    return next < day ? midnight + next : midnight + day + firstOfDay_;
}

class Clock::Interval final : public IInterval {
 public:
    // The boundary before its creation counts as expired.
    Interval(std::int32_t id, std::int32_t period, std::int32_t offset, Variant actionData, const Reading& now)
        : id_(id),
          period_(period),
          actionData_(std::move(actionData)),
          boundaries_(period, offset),
          due_(boundaries_.firstAfter(now.local)),
          lastBoundary_(boundaries_.lastUpTo(now.local)),
          lastPassed_(now.monotonic),
          lastSeen_(now.monotonic) {}

    void OnIntervalExpired(IntervalExpired handler) override {
        handler_ = std::make_shared<IntervalExpired>(std::move(handler));
    }
    std::int32_t Period() const override { return period_; }
    void SetIntervalEnabled(bool blnEnabled) override { enabled_ = blnEnabled; }
    void CancelInterval(bool) override {
        cancelled_ = true;
        handler_.reset();
    }

    bool isCancelled() const { return cancelled_; }
    std::int64_t due() const { return due_; }

    // Takes notice of the time; the boundary that has been passed since the last time, if there is one.
    std::optional<std::int64_t> advance(const Reading& now, bool timeWasSet) {
        timeWasSet_ = timeWasSet_ || timeWasSet;
        // What the clock as it is set now would have shown the last time: behind that, boundaries count again.
        const std::int64_t shownLastTime = now.local - (now.monotonic - std::exchange(lastSeen_, now.monotonic));
        due_ = std::min(due_, boundaries_.firstAfter(shownLastTime));
        if (now.local < due_) {
            return std::nullopt;
        }
        due_ = boundaries_.firstAfter(now.local);
        const std::int64_t boundary = boundaries_.lastUpTo(now.local);
        if (isRepetition(boundary, now)) {
            return std::nullopt;
        }
        lastBoundary_ = boundary;
        lastPassed_ = now.monotonic;
        return boundary;
    }

    void expire(std::int64_t boundary) {
        if (cancelled_ || !enabled_) {
            return;
        }
        const bool timeWasSet = std::exchange(timeWasSet_, false);
        // The handler may put another one in its own place.
        if (const std::shared_ptr<IntervalExpired> handler = handler_; handler && *handler) {
            (*handler)(id_, actionData_, dateFromLinearMilliseconds(boundary), timeWasSet);
        }
    }

 private:
    // A boundary is never noticed early and up to a second late, so two in a row may lie that much closer together.
    bool isRepetition(std::int64_t boundary, const Reading& now) const {
        const std::int64_t leastGap = period_ * second - std::min(second, period_ * second / 2);
        return lastBoundary_ == boundary && now.monotonic - lastPassed_ < leastGap;
    }

    std::int32_t id_;
    std::int32_t period_;
    Variant actionData_;
    IntervalBoundaries boundaries_;
    std::int64_t due_;
    std::int64_t lastBoundary_;
    std::int64_t lastPassed_;  // monotonic, like lastSeen_
    std::int64_t lastSeen_;
    bool timeWasSet_ = false;
    bool enabled_ = true;
    bool cancelled_ = false;
    std::shared_ptr<IntervalExpired> handler_;
};

Clock::Clock(IMessageLoop& loop) : timer_(loop.makeTimer([this] { tick(); })), lastReading_(readTime()) {}

Clock::Reading Clock::readTime() {
    const TimeSource& source = timeSource();
    const std::int64_t fileTime = source.fileTimeNow();
    const std::int64_t utc = floorDivide(fileTime, 10'000) + fileTimeEpoch;
    return {utc + source.utcOffsetMinutes(fileTime) * 60 * second, utc,
            static_cast<std::int64_t>(source.monotonicMilliseconds())};
}

std::shared_ptr<IInterval> Clock::CreateInterval(std::int32_t lngPeriod, std::int32_t lngOffset,
                                                 const Variant& varActionData, std::string_view, bool, bool, bool,
                                                 std::int32_t, std::int32_t) {
    if (lngPeriod < 1 || lngPeriod > 86'400) {
        throw RuntimeError(errors::invalidCall);
    }
    const Reading now = readTime();
    if (intervals_.empty()) {
        lastReading_ = now;
    }
    auto interval = std::make_shared<Interval>(++lastID_, lngPeriod, lngOffset, varActionData, now);
    intervals_.push_back(interval);
    startTimer(now);
    return interval;
}

void Clock::tick() {
    if (due_.empty()) {
        collectDue();
    }
    std::shared_ptr<Interval> interval;
    std::int64_t boundary = 0;
    while (!interval && !due_.empty()) {
        interval = due_.front().interval.lock();
        boundary = due_.front().boundary;
        due_.pop_front();
    }
    startTimer(readTime());
    if (interval) {
        interval->expire(boundary);
    }
}

void Clock::collectDue() {
    const Reading now = readTime();
    const std::int64_t elapsed = now.monotonic - lastReading_.monotonic;
    const bool timeWasSet = std::abs(now.utc - lastReading_.utc - elapsed) >= setThreshold;
    lastReading_ = now;

    std::erase_if(intervals_, [&](const std::weak_ptr<Interval>& reference) {
        const std::shared_ptr<Interval> interval = reference.lock();
        if (!interval || interval->isCancelled()) {
            return true;
        }
        if (const auto boundary = interval->advance(now, timeWasSet)) {
            due_.push_back({*boundary, interval});
        }
        return false;
    });
    std::stable_sort(due_.begin(), due_.end(),
                     [](const Due& left, const Due& right) { return left.boundary < right.boundary; });
}

void Clock::startTimer(const Reading& now) {
    if (intervals_.empty()) {
        timer_->stop();
        return;
    }
    std::int64_t wait = due_.empty() ? second : 0;
    for (const std::weak_ptr<Interval>& reference : intervals_) {
        if (const std::shared_ptr<Interval> interval = reference.lock()) {
            wait = std::min(wait, interval->due() - now.local);
        }
    }
    timer_->start(std::chrono::milliseconds(std::max<std::int64_t>(wait, 0)));
}

}  // namespace quelm
