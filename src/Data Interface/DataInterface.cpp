#include "Data Interface/DataInterface.h"

#include <fmt/format.h>

#include "base/RuntimeError.h"

namespace quelm {

namespace {

constexpr std::int32_t errorMessage = 4;

}  // namespace

bool DataInterface::Load(std::int32_t lngDAHSID, bool blnDefinitions, bool) {
    TearDown();
    try {
        if (blnDefinitions) {
            definitions_.take(reader_.LoadPIDDefinitions(strSiteID_, lngDAHSID));
        }
        settings_ = reader_.LoadSiteSettings(strSiteID_, lngDAHSID);
        return true;
    } catch (...) {
        const ErrorInfo error = currentError();
        TearDown();
        if (message_) {
            message_(errorMessage, fmt::format("Cannot read the parameter definitions of site '{}' (DAHS {}); {}",
                                               strSiteID_, lngDAHSID, error.text()));
        }
        return false;
    }
}

void DataInterface::TearDown() {
    definitions_ = Definitions();
    settings_ = SiteSettings();
}

void DataInterface::Definitions::take(std::vector<PIDDefinition> definitions) {
    items_ = std::move(definitions);
    index_.reserve(items_.size());
    for (std::size_t i = 0; i < items_.size(); ++i) {
        index_.add(items_[i].PID, static_cast<std::uint32_t>(i));
    }
}

bool DataInterface::Definitions::IsDefined(std::int32_t lngPID) const {
    return index_.find(lngPID) != IntIndex::none;
}

const std::string& DataInterface::Definitions::IntervalType(std::int32_t lngPID, bool) const {
    return definition(lngPID).IntervalType;
}

const std::string& DataInterface::Definitions::Name(std::int32_t lngPID) const {
    return definition(lngPID).Name;
}

const PIDDefinition& DataInterface::Definitions::definition(std::int32_t lngPID) const {
    const std::uint32_t position = index_.find(lngPID);
    if (position == IntIndex::none) {
        throw RuntimeError(errors::invalidCall);
    }
    return items_[position];
}

}  // namespace quelm
