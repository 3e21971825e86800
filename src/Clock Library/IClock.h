#pragma once

// The clock: makes intervals that expire at fixed times of the local day.

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "base/Date.h"
#include "base/Variant.h"

namespace quelm {

// The interval's expiry event: interval id, the action data given at creation, the local time for which the expiry
// was due, and whether the system's clock was set since the last one. Runs on the message loop; must not throw.
using IntervalExpired = std::function<void(std::int32_t lngIntervalID, const Variant& varActionData,
                                           Date dtmScheduledExpireTime, bool blnSystemTimeChanged)>;

class IInterval {
 public:
    virtual ~IInterval() = default;
    virtual void OnIntervalExpired(IntervalExpired handler) = 0;
    // Seconds.
    virtual std::int32_t Period() const = 0;
    // A disabled interval stays in being but raises nothing.
    virtual void SetIntervalEnabled(bool blnEnabled) = 0;
    // No expiry is raised afterwards, not even one already due.
    virtual void CancelInterval(bool blnNow) = 0;
};

class IClock {
 public:
    virtual ~IClock() = default;
    // An interval that expires whenever the local time of day, less the offset, is a whole multiple of the period
    // (both in seconds; period 1 to 86400, otherwise raises RuntimeError 5): once per boundary, never in a burst,
    // also when the clock is set or daylight saving begins or ends. The five trailing values are kept as the
    // product passes them (enabled at once, repeating aligned to the time of day and the rest) and have no
    // further effect.
    virtual std::shared_ptr<IInterval> CreateInterval(std::int32_t lngPeriod, std::int32_t lngOffset,
                                                      const Variant& varActionData, std::string_view strDescription,
                                                      bool blnEnabled, bool blnOneShot, bool blnAligned,
                                                      std::int32_t lngTolerance, std::int32_t lngReserved) = 0;
};

}  // namespace quelm
