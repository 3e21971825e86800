#pragma once

// The current-data reader of one site: each parameter's latest value with its monitor code, out of a snapshot that
// it refreshes on an interval of its own; a look-up never waits for the database.

#include <cstdint>
#include <string_view>

#include "Clock Library/IClock.h"
#include "DB Interface Library/IDBIL.h"
#include "Messages/IRaiseMsg.h"
#include "base/Date.h"
#include "base/Variant.h"

namespace quelm {

// What the reader asks its site for.
class ICDRReferences {
 public:
    virtual ~ICDRReferences() = default;
    virtual std::int32_t ICDRReferences_FirstDayOfWeek() const = 0;
    virtual IClock& ICDRReferences_Intervals() const = 0;
    virtual IRealtimeDB& ICDRReferences_RealtimeDB() const = 0;
    virtual bool ICDRReferences_SelectedDahsIsRemote() const = 0;
    virtual Date ICDRReferences_SelectedDahsNow() const = 0;
    virtual const std::string& ICDRReferences_SiteID() const = 0;
};

class ICurrentDataReader {
 public:
    virtual ~ICurrentDataReader() = default;
    // lngPeriod: seconds between two refreshes of the snapshot. Both references must outlive the reader.
    virtual void Initialize(IRaiseMsg& objRaiseMsg, ICDRReferences& objReferences, std::int32_t lngPeriod) = 0;
    virtual void Start() = 0;
    virtual void Stop() = 0;
    // The database has not been read for so long that the values of before are no longer published.
    virtual bool IsDatabaseLost() const = 0;
    // The value of a PID for its interval type, or nullptr when there is none. Valid until the next event of the loop.
    virtual const CurrentValueRecord* CurrentValue(std::int32_t lngPID, std::string_view strIntervalType) const = 0;
};

}  // namespace quelm
