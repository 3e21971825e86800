#include "CurrentData Reader/CurrentDataReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/RuntimeError.h"

namespace quelm {

void CurrentDataReader::Initialize(IRaiseMsg& objRaiseMsg, ICDRReferences& objReferences, std::int32_t lngPeriod) {
    objRaiseMsg_ = &objRaiseMsg;
    objReferences_ = &objReferences;
    lngPeriod_ = lngPeriod;
}

void CurrentDataReader::Start() {
    if (objReferences_ == nullptr) {
        throw RuntimeError(errors::objectNotSet);
    }
    if (objInterval_) {
        return;
    }
    objInterval_ = objReferences_->ICDRReferences_Intervals().CreateInterval(
        lngPeriod_, 0, Variant(), "CDR: read current values", true, false, true, 1000, 0);
    objInterval_->OnIntervalExpired([this](std::int32_t, const Variant&, Date, bool) { refresh(); });
    refresh();
}

void CurrentDataReader::Stop() {
    if (objInterval_) {
        objInterval_->CancelInterval(true);
        objInterval_.reset();
    }
    values_ = {};
    firstOfPID_ = {};
    nextOfPID_ = {};
    missedRefreshes_ = 0;
}

const CurrentValueRecord* CurrentDataReader::CurrentValue(std::int32_t lngPID, std::string_view strIntervalType) const {
    for (std::uint32_t at = firstOfPID_.find(lngPID); at != IntIndex::none; at = nextOfPID_[at]) {
        if (values_[at].IntervalType == strIntervalType) {
            return &values_[at];
        }
    }
    return nullptr;
}

void CurrentDataReader::refresh() noexcept {
    try {
        std::vector<ParameterValue> incoming;
        objReferences_->ICDRReferences_RealtimeDB().ReadParameterValues(objReferences_->ICDRReferences_SiteID(),
                                                                        incoming);
        if (!isLaidOutAsBefore(incoming)) {
            index(incoming);
        }
        values_.swap(incoming);
        missedRefreshes_ = 0;
    } catch (...) {
        reportFailedRefresh();
    }
}

// Parameters hardly ever come or go; while they stay, so does the index.
bool CurrentDataReader::isLaidOutAsBefore(const std::vector<ParameterValue>& incoming) const {
    return std::equal(values_.begin(), values_.end(), incoming.begin(), incoming.end(),
                      [](const ParameterValue& left, const ParameterValue& right) {
                          return left.PID == right.PID && left.IntervalType == right.IntervalType;
                      });
}

// Each PID's records are chained in the order of the read. A read that is not ordered by PID is chained all the same,
// only new records then go in behind the PID's first one.
// Made whole before it takes the old one's place: when the memory runs out on the way, the old snapshot keeps its own.
void CurrentDataReader::index(const std::vector<ParameterValue>& incoming) {
    IntIndex firstOfPID;
    firstOfPID.reserve(incoming.size());
    std::vector<std::uint32_t> nextOfPID(incoming.size(), IntIndex::none);
    for (std::uint32_t i = 0; i < incoming.size(); ++i) {
        if (!firstOfPID.add(incoming[i].PID, i)) {
            const std::uint32_t first = firstOfPID.find(incoming[i].PID);
            nextOfPID[i] = nextOfPID[first];
            nextOfPID[first] = i;
        }
    }
    firstOfPID_ = std::move(firstOfPID);
    nextOfPID_ = std::move(nextOfPID);
}

void CurrentDataReader::reportFailedRefresh() {
    const ErrorInfo error = currentError();
    missedRefreshes_ = std::min(missedRefreshes_ + 1, maxMissedRefreshes);
    const bool withdrawn = missedRefreshes_ == maxMissedRefreshes;
    if (withdrawn) {
        values_.clear();
        firstOfPID_.clear();
    }
    objRaiseMsg_->RaiseMsg(msgtype::error,
                           fmt::format("Cannot read the current parameter values of site '{}'; {}{}",
                                       objReferences_->ICDRReferences_SiteID(), error.text(),
                                       withdrawn ? "; the last values are too old and no longer published" : ""));
}

}  // namespace quelm
