#include "CurrentData Reader/CurrentDataReader.h"

#include <fmt/format.h>

#include <algorithm>

#include "Shared Types/RuntimeError.h"

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
    incoming_ = {};
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
        objReferences_->ICDRReferences_RealtimeDB().ReadParameterValues(objReferences_->ICDRReferences_SiteID(),
                                                                        incoming_);
        const bool rebuild = !isLaidOutAsBefore();
        values_.swap(incoming_);
        if (rebuild) {
            buildIndex();
        }
        missedRefreshes_ = 0;
    } catch (...) {
        reportFailedRefresh();
    }
}

// Parameters hardly ever come or go; while they stay, so does the index.
bool CurrentDataReader::isLaidOutAsBefore() const {
    return std::equal(values_.begin(), values_.end(), incoming_.begin(), incoming_.end(),
                      [](const ParameterValue& left, const ParameterValue& right) {
                          return left.PID == right.PID && left.IntervalType == right.IntervalType;
                      });
}

// Each PID's records are chained in the order of the read. A read that is not ordered by PID is chained all the same,
// only new records then go in behind the PID's first one.
void CurrentDataReader::buildIndex() {
    firstOfPID_.clear();
    firstOfPID_.reserve(values_.size());
    nextOfPID_.assign(values_.size(), IntIndex::none);
    for (std::uint32_t i = 0; i < values_.size(); ++i) {
        if (!firstOfPID_.add(values_[i].PID, i)) {
            const std::uint32_t first = firstOfPID_.find(values_[i].PID);
            nextOfPID_[i] = nextOfPID_[first];
            nextOfPID_[first] = i;
        }
    }
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
