#include "OPC/OPC DA Server/IOSSimpleManager.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "DB Interface Library/DBRealtimeConstants.h"
#include "OPC/OPC DA Server/IOCommandConstants.h"
#include "OPC/OPC DA Server/IOSGeneration.h"
#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

// Whole seconds between two dates, whichever comes first.
std::int64_t secondsApart(Date left, Date right) {
    constexpr double millisecondsPerDay = 86400000;
    return std::llround(std::fabs(left.days - right.days) * millisecondsPerDay) / 1000;
}

Date dateOrZero(const Variant& value) {
    return value.kind() == VariantKind::Date ? value.date() : Date{};
}

}  // namespace

const IOSSimpleManager::Generation IOSSimpleManager::ios5{
    generation5,
    "IOS5",
    realtime::ios5AllCommsOkKey,
    realtime::ios5AllDataRefreshedKey,
    "OPC-0196",
    "OPC-0197",
    "OPC-0199",
    "OPC-0165",
    "OPC-0166",
    "OPC-0169",
    iocommand::queueIOS5,
    "OPC-0171",
    "OPC-0172",
    &IOSSimpleManager::mdtmIOS5AllCommsOkTStamp,
    &IOSSimpleManager::mvarIOS5AllCommsOk,
    &IOSSimpleManager::mlngIOS5Elapsed,
    &IOSSimpleManager::mdtmIOS5AllDataRefreshedStart,
    &IOSSimpleManager::mdtmIOS5AllDataRefreshedFinish,
    &IOSSimpleManager::mblnIOS5AllDataRefreshedInit,
    &IOSSimpleManager::lngIOS5ReadCount,
    &IOSSimpleManager::mvarIsIOS5Used,
    &IOSSimpleManager::mblnIOS5LastPolling,
};

const IOSSimpleManager::Generation IOSSimpleManager::ios6{
    generation6,
    "IOS6",
    realtime::ios6AllCommsOkKey,
    realtime::ios6AllDataRefreshedKey,
    "OPC-0200",
    "OPC-0201",
    "OPC-0204",
    "OPC-0167",
    "OPC-0168",
    "OPC-0170",
    iocommand::queueIOS6,
    "OPC-0173",
    "OPC-0174",
    &IOSSimpleManager::mdtmIOS6AllCommsOkTStamp,
    &IOSSimpleManager::mvarIOS6AllCommsOk,
    &IOSSimpleManager::mlngIOS6Elapsed,
    &IOSSimpleManager::mdtmIOS6AllDataRefreshedStart,
    &IOSSimpleManager::mdtmIOS6AllDataRefreshedFinish,
    &IOSSimpleManager::mblnIOS6AllDataRefreshedInit,
    &IOSSimpleManager::lngIOS6ReadCount,
    &IOSSimpleManager::mvarIsIOS6Used,
    &IOSSimpleManager::mblnIOS6LastPolling,
};

bool IOSSimpleManager::IsIOS5Used() {
    return IsUsed(ios5);
}
bool IOSSimpleManager::IsIOS6Used() {
    return IsUsed(ios6);
}

bool IOSSimpleManager::IsUsed(const Generation& generation) {
    std::optional<bool>& varIsUsed = this->*generation.varIsUsed;
    if (varIsUsed) {
        return *varIsUsed;
    }
    // Decided before it is worked out: a failure leaves the generation unused for good instead of failing on
    // every tick.
    varIsUsed = false;
    try {
        const ChannelDefCollection* colChannelDefs = GetChannelDefs();
        if (colChannelDefs == nullptr) {
            throw RuntimeError(errors::objectNotSet);
        }
        varIsUsed = std::any_of(colChannelDefs->begin(), colChannelDefs->end(), [&](const ChannelDef& definition) {
            return generationOfType(definition.DefinitionType) == generation.number;
        });
    } catch (...) {
        RaiseFailure(fmt::format("{}: ", generation.codeUsedFailed));
    }
    return *varIsUsed;
}

void IOSSimpleManager::UpdateIOS5Health(bool& blnHeartbeatChanged) {
    UpdateHealth(ios5, blnHeartbeatChanged);
}
void IOSSimpleManager::UpdateIOS6Health(bool& blnHeartbeatChanged) {
    UpdateHealth(ios6, blnHeartbeatChanged);
}

void IOSSimpleManager::UpdateHealth(const Generation& generation, bool& blnHeartbeatChanged) {
    blnHeartbeatChanged = false;
    try {
        const Date dtmNow = CurrentTime();
        const CurrentIORecord* heartbeat = GetCurrentIORecord(generation.heartbeatKey);
        if (heartbeat == nullptr) {
            Raise(msgtype::error, fmt::format("{}: Could not find '{}' CurrentIO record", generation.codeNoHeartbeat,
                                              generation.heartbeatKey));
        }
        const CurrentIORecord* refreshed = GetCurrentIORecord(generation.refreshedKey);
        if (refreshed == nullptr) {
            Raise(msgtype::error, fmt::format("{}: Could not find '{}' CurrentIO record", generation.codeNoRefreshed,
                                              generation.refreshedKey));
        }
        if (heartbeat == nullptr || refreshed == nullptr) {
            ResetHealth(generation);
            return;
        }
        TakeInHeartbeat(generation, *heartbeat, dtmNow, blnHeartbeatChanged);
        TakeInAllDataRefreshed(generation, refreshed->XValue);
    } catch (...) {
        RaiseFailure(fmt::format("{}: ", generation.codeUpdateFailed));
    }
}

// At the first sighting a record left behind by an I/O server that died long ago must not pass for a heartbeat; a
// time stamp ahead of now (clocks that differ) counts like one behind it.
void IOSSimpleManager::TakeInHeartbeat(const Generation& generation, const CurrentIORecord& record, Date dtmNow,
                                       bool& blnHeartbeatChanged) {
    Date& dtmTStamp = this->*generation.dtmAllCommsOkTStamp;
    if (dtmTStamp.isZero()) {
        if (secondsApart(record.TStamp, dtmNow) > mlngMaxElapsed) {
            ResetHealth(generation);
            return;
        }
        blnHeartbeatChanged = true;
    } else {
        blnHeartbeatChanged = !record.TStamp.isZero() && record.TStamp != dtmTStamp;
    }
    // A zero time stamp is stored too, so that the next read is a first sighting again.
    dtmTStamp = record.TStamp;
    this->*generation.varAllCommsOk = record.NValue;
}

void IOSSimpleManager::TakeInAllDataRefreshed(const Generation& generation, std::string_view strXValue) {
    const XmlDocument document = LoadXMLFragment(nullptr, strXValue);
    if (document.isNothing()) {
        return;
    }
    const Date dtmStart = dateOrZero(GetNodeDate(document.documentElement(), "Start"));
    const Date dtmFinish = dateOrZero(GetNodeDate(document.documentElement(), "Finish"));
    // Both must have changed: while a refresh is under way one of them is still the old one.
    if (!dtmStart.isZero() && !dtmFinish.isZero() && dtmStart != this->*generation.dtmAllDataRefreshedStart &&
        dtmFinish != this->*generation.dtmAllDataRefreshedFinish) {
        StoreRefresh(generation, dtmStart, dtmFinish);
    }
}

// Deliberate asymmetry: IOS5's first pair only marks the refresh as seen, and is stored when the next read still shows
// it; IOS6 stores the first pair silently and announces every later one.
void IOSSimpleManager::StoreRefresh(const Generation& generation, Date dtmStart, Date dtmFinish) {
    const bool blnInit = std::exchange(this->*generation.blnAllDataRefreshedInit, true);
    if (generation.number == generation5 && !blnInit) {
        return;
    }
    if (generation.number == generation6 && blnInit) {
        RaiseRefreshLines(dtmStart, dtmFinish);
    }
    this->*generation.dtmAllDataRefreshedStart = dtmStart;
    this->*generation.dtmAllDataRefreshedFinish = dtmFinish;
}

// The lines announce an event, but there is none: they and the stored pair are all that happens. Deliberate.
void IOSSimpleManager::RaiseRefreshLines(Date dtmStart, Date dtmFinish) const {
    Raise(msgtype::progress, "Will raise IOSAllDataRefreshed event [OPC-0202]");
    Raise(msgtype::progress, "    dtmAllDataRefreshedStart=" + dateText(dtmStart));
    Raise(msgtype::progress, "    dtmAllDataRefreshedFinish=" + dateText(dtmFinish));
    Raise(msgtype::progress, "    mdtmIOS6AllDataRefreshedStart=" + dateText(mdtmIOS6AllDataRefreshedStart));
    Raise(msgtype::progress, "    mdtmIOS6AllDataRefreshedFinish=" + dateText(mdtmIOS6AllDataRefreshedFinish));
}

void IOSSimpleManager::ResetIOS5Health() {
    ResetHealth(ios5);
}
void IOSSimpleManager::ResetIOS6Health() {
    ResetHealth(ios6);
}

void IOSSimpleManager::ResetHealth(const Generation& generation) {
    this->*generation.dtmAllCommsOkTStamp = Date{};
    this->*generation.varAllCommsOk = Variant{};
}

bool IOSSimpleManager::AllDevicesArePolling() {
    try {
        // Both are asked, so that each may write its line.
        const bool blnIOS5 = AllDevicesArePolling_IOS5();
        const bool blnIOS6 = AllDevicesArePolling_IOS6();
        return blnIOS5 && blnIOS6;
    } catch (...) {
        RaiseFailure("OPC-0164: 'AllDevicesArePolling' error; ");
        return false;
    }
}

bool IOSSimpleManager::AllDevicesArePolling_IOS5() {
    return IsPolling(ios5);
}
bool IOSSimpleManager::AllDevicesArePolling_IOS6() {
    return IsPolling(ios6);
}

bool IOSSimpleManager::IsPolling(const Generation& generation) {
    try {
        if (!IsUsed(generation)) {
            return true;
        }
        const Variant& varAllCommsOk = this->*generation.varAllCommsOk;
        const bool blnAllCommsOk = !varAllCommsOk.isNull() && toBoolean(varAllCommsOk);
        const bool blnPolling = blnAllCommsOk && this->*generation.lngElapsed <= mlngMaxElapsed;
        if (blnPolling != this->*generation.blnLastPolling) {
            const Date dtmTStamp = this->*generation.dtmAllCommsOkTStamp;
            // The IOS6 line shows the IOS5 counter as well. Deliberate.
            Raise(msgtype::error,
                  fmt::format("{}: ({}) AllDevicesArePolling={}; AllCommsOk={}, TS={}; Elapsed={}, Max={}",
                              generation.codePolling, generation.label, blnPolling ? 1 : 0, naturalText(varAllCommsOk),
                              dtmTStamp.isZero() ? "zero" : dateText(dtmTStamp), mlngIOS5Elapsed, mlngMaxElapsed));
            this->*generation.blnLastPolling = blnPolling;
        }
        return blnPolling;
    } catch (...) {
        RaiseFailure(fmt::format("{}: 'AllDevicesArePolling' error; ", generation.codePollingFailed));
        return false;
    }
}

bool IOSSimpleManager::IsInitialCurrentIOReadComplete() {
    return (!IsIOS5Used() || mblnIOS5AllDataRefreshedInit) && (!IsIOS6Used() || mblnIOS6AllDataRefreshedInit);
}

}  // namespace quelm
