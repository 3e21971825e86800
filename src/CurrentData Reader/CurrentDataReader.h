#pragma once

// One site's current-data reader over the realtime database's parameter values.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "CurrentData Reader/ICurrentDataReader.h"
#include "base/IntIndex.h"

namespace quelm {

class CurrentDataReader final : public ICurrentDataReader {
 public:
    CurrentDataReader() = default;
    CurrentDataReader(const CurrentDataReader&) = delete;
    CurrentDataReader& operator=(const CurrentDataReader&) = delete;
    ~CurrentDataReader() override { Stop(); }

    void Initialize(IRaiseMsg& objRaiseMsg, ICDRReferences& objReferences, std::int32_t lngPeriod) override;
    // Reads at once, so that the first update pass finds values. Raises what CreateInterval raises.
    void Start() override;
    void Stop() override;
    bool IsDatabaseLost() const override { return missedRefreshes_ == maxMissedRefreshes; }
    const CurrentValueRecord* CurrentValue(std::int32_t lngPID, std::string_view strIntervalType) const override;

    // Refreshes in a row that may fail before the values are withdrawn: with 15 seconds' period that makes 45 seconds,
    // the time after which an I/O server's values are no longer trusted either.
    static constexpr int maxMissedRefreshes = 3;

 private:
    void refresh() noexcept;
    bool isLaidOutAsBefore(const std::vector<ParameterValue>& incoming) const;
    void index(const std::vector<ParameterValue>& incoming);
    void reportFailedRefresh();

    IRaiseMsg* objRaiseMsg_ = nullptr;
    ICDRReferences* objReferences_ = nullptr;
    std::int32_t lngPeriod_ = 0;
    std::shared_ptr<IInterval> objInterval_;
    int missedRefreshes_ = 0;

    std::vector<ParameterValue> values_;
    // PID -> its first record; nextOfPID_ leads on to those of its other interval types, none behind the last.
    IntIndex firstOfPID_;
    std::vector<std::uint32_t> nextOfPID_;
};

}  // namespace quelm
