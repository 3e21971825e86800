#pragma once

// A clock whose intervals expire when the tool wants to look at the database, so that nobody waits for the next
// 20-second boundary.

#include <cstdint>
#include <memory>
#include <vector>

#include "Clock Library/IClock.h"

namespace quelm::tools {

class OnDemandClock final : public IClock {
 public:
    // The period asked for is not kept: an interval's period is always the whole seconds that its last expiry came
    // after the one before. The I/O servers' silence, which is counted in periods, so comes out in real seconds.
    std::shared_ptr<IInterval> CreateInterval(std::int32_t lngPeriod, std::int32_t lngOffset,
                                              const Variant& varActionData, std::string_view strDescription,
                                              bool blnEnabled, bool blnOneShot, bool blnAligned,
                                              std::int32_t lngTolerance, std::int32_t lngReserved) override;

    // Lets every interval expire, now.
    void expire();

    // Seconds that count as gone by before the first expiry: more than an I/O server may be silent. One that shows no
    // heartbeat of the last 45 seconds at the first look is then known to be silent at once.
    static constexpr std::int32_t beforeFirstExpiry = 46;

 private:
    class Interval;
    std::vector<std::weak_ptr<Interval>> intervals_;
    std::int32_t lastID_ = 0;
};

}  // namespace quelm::tools
