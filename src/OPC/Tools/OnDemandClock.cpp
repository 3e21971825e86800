#include "OPC/Tools/OnDemandClock.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "base/TimeSource.h"

namespace quelm::tools {

class OnDemandClock::Interval final : public IInterval {
 public:
    Interval(std::int32_t id, Variant actionData) : id_(id), actionData_(std::move(actionData)) {}

    void OnIntervalExpired(IntervalExpired handler) override { handler_ = std::move(handler); }
    std::int32_t Period() const override { return period_; }
    void SetIntervalEnabled(bool blnEnabled) override { isEnabled_ = blnEnabled; }
    void CancelInterval(bool) override { handler_ = nullptr; }

    void expire() {
        takeTime();
        if (isEnabled_ && handler_) {
            handler_(id_, actionData_, localNow(), false);
        }
    }

 private:
    // Fractions of a second are carried over, so that many short periods add up to the time gone by.
    void takeTime() {
        constexpr std::uint64_t millisecondsPerSecond = 1000;
        constexpr std::uint64_t longest = std::numeric_limits<std::int32_t>::max();
        const std::uint64_t now = timeSource().monotonicMilliseconds();
        if (!countedUpTo_) {
            countedUpTo_ = now;
            return;
        }
        const std::uint64_t seconds = std::min((now - *countedUpTo_) / millisecondsPerSecond, longest);
        *countedUpTo_ += seconds * millisecondsPerSecond;
        period_ = static_cast<std::int32_t>(seconds);
    }

    std::int32_t id_;
    Variant actionData_;
    IntervalExpired handler_;
    bool isEnabled_ = true;
    std::optional<std::uint64_t> countedUpTo_;  // monotonic milliseconds
    std::int32_t period_ = beforeFirstExpiry;
};

std::shared_ptr<IInterval> OnDemandClock::CreateInterval(std::int32_t, std::int32_t, const Variant& varActionData,
                                                         std::string_view, bool blnEnabled, bool, bool, std::int32_t,
                                                         std::int32_t) {
    auto interval = std::make_shared<Interval>(++lastID_, varActionData);
    interval->SetIntervalEnabled(blnEnabled);
    intervals_.push_back(interval);
    return interval;
}

void OnDemandClock::expire() {
    for (const auto& weak : intervals_) {
        if (const auto interval = weak.lock()) {
            interval->expire();
        }
    }
}

}  // namespace quelm::tools
