#include "OPC/OPC DA Server/IOSSimpleManager.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "OPC/OPC DA Server/IOSGeneration.h"
#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

constexpr std::int32_t readPeriodSeconds = 20;
constexpr std::int32_t maxSilenceSeconds = 45;

}  // namespace

void IOSSimpleManager::Raise(std::int32_t lngMsgType, std::string_view strDescription) const {
    if (mobjRaiseMsg != nullptr) {
        mobjRaiseMsg->RaiseMsg(lngMsgType, strDescription);
    }
}

// Only inside a catch block.
void IOSSimpleManager::RaiseFailure(std::string_view strPrefix) const {
    Raise(msgtype::error, fmt::format("{}{}", strPrefix, currentError().text()));
}

IDBIL& IOSSimpleManager::DBIL() const {
    if (!mobjDBIL) {
        throw RuntimeError(errors::objectNotSet);
    }
    return *mobjDBIL;
}

// ---- set-up and tear-down

void IOSSimpleManager::Initialize(IRaiseMsg* objRaiseMsg, IClock& objClock, std::shared_ptr<IDBIL> objDBIL,
                                  std::string_view strSiteID) {
    mobjRaiseMsg = objRaiseMsg;
    mobjDBIL = std::move(objDBIL);
    mstrSiteID = strSiteID;
    mcolChannelDefs = std::make_shared<const ChannelDefCollection>();
    mlngMaxElapsed = maxSilenceSeconds;
    mobjReadCurrentIOInterval = objClock.CreateInterval(readPeriodSeconds, 0, Variant{}, "IOSManager: read CurrentIO",
                                                        true, false, true, 1000, 0);
    mobjReadCurrentIOInterval->OnIntervalExpired([this](std::int32_t lngIntervalID, const Variant& varActionData,
                                                        Date dtmScheduledExpireTime, bool blnSystemTimeChanged) {
        mobjReadCurrentIOInterval_IntervalExpired(lngIntervalID, varActionData, dtmScheduledExpireTime,
                                                  blnSystemTimeChanged);
    });
    mlngIOS5Elapsed = 0;
    mlngIOS6Elapsed = 0;
}

void IOSSimpleManager::Shutdown() {
    if (mobjReadCurrentIOInterval) {
        mobjReadCurrentIOInterval->CancelInterval(true);
        mobjReadCurrentIOInterval.reset();
    }
    mcolChannelDefs.reset();
    mcolCurrentIO.reset();
    mobjDBIL.reset();
    mobjRaiseMsg = nullptr;
}

// ---- the read tick

void IOSSimpleManager::mobjReadCurrentIOInterval_IntervalExpired(std::int32_t, const Variant&, Date, bool) {
    if (!mblnReadingCurrentIOEnabled) {
        return;
    }
    try {
        ReadCurrentIO();
        bool blnIOS5HeartbeatChanged = false;
        bool blnIOS6HeartbeatChanged = false;
        ProcessCurrentIO(blnIOS5HeartbeatChanged, blnIOS6HeartbeatChanged);
        if (IsIOS5Used()) {
            LogReadOf(ios5, blnIOS5HeartbeatChanged);
        }
        if (IsIOS6Used()) {
            LogReadOf(ios6, blnIOS6HeartbeatChanged);
        }
        CheckPendingRefresh();
    } catch (...) {
        RaiseFailure("OPC-0182: ");
    }
}

void IOSSimpleManager::LogReadOf(const Generation& generation, bool blnHeartbeatChanged) {
    if (!mobjReadCurrentIOInterval) {
        throw RuntimeError(errors::objectNotSet);
    }
    std::int32_t& lngReadCount = this->*generation.lngReadCount;
    lngReadCount = nextReadCount(lngReadCount);
    LogCurrentIOReadStatus(generation.label, this->*generation.lngElapsed, mobjReadCurrentIOInterval->Period(),
                           blnHeartbeatChanged, this->*generation.varAllCommsOk, this->*generation.dtmAllCommsOkTStamp,
                           lngReadCount);
}

// A snapshot that cannot be read leaves the previous one in place. That one shows no new heartbeat, so the silence
// grows and the values go away on the third failed tick.
void IOSSimpleManager::ReadCurrentIO() {
    try {
        mcolCurrentIO = DBIL().RealtimeDB().ReadCurrentIO(mstrSiteID, mblnUseImplicitChannels);
        mlngUnread = 0;
    } catch (...) {
        mlngUnread = std::min(mlngUnread + readPeriodSeconds, mlngMaxElapsed + readPeriodSeconds);
        RaiseFailure("OPC-0192: ");
    }
}

void IOSSimpleManager::ProcessCurrentIO(bool& blnIOS5HeartbeatChanged, bool& blnIOS6HeartbeatChanged) {
    blnIOS5HeartbeatChanged = false;
    blnIOS6HeartbeatChanged = false;
    try {
        if (!mcolCurrentIO) {
            Raise(msgtype::error, fmt::format("OPC-0193: Found no CurrentIO records for site '{}'", mstrSiteID));
            ResetIOS5Health();
            ResetIOS6Health();
        } else if (mcolCurrentIO->Count() > 0) {
            // A generation that the site doesn't use counts as alive.
            if (IsIOS5Used()) {
                UpdateIOS5Health(blnIOS5HeartbeatChanged);
            } else {
                blnIOS5HeartbeatChanged = true;
            }
            if (IsIOS6Used()) {
                UpdateIOS6Health(blnIOS6HeartbeatChanged);
            } else {
                blnIOS6HeartbeatChanged = true;
            }
        } else {
            Raise(msgtype::notice, fmt::format("OPC-0194: Found 0 CurrentIO records for site '{}'", mstrSiteID));
            ResetIOS5Health();
            ResetIOS6Health();
        }
    } catch (...) {
        RaiseFailure("OPC-0195: ");
    }
}

// The code stands at the end of these three lines, unlike elsewhere. Deliberate.
void IOSSimpleManager::LogCurrentIOReadStatus(std::string_view strIOS, std::int32_t& lngElapsed,
                                              std::int32_t lngSecondsSinceLastRead, bool blnHeartbeatChanged,
                                              const Variant& varAllCommsOk, Date dtmTStamp, std::int32_t lngReadCount) {
    lngElapsed = blnHeartbeatChanged ? 0 : addChecked(lngElapsed, lngSecondsSinceLastRead);
    if (lngElapsed == 0) {
        Raise(msgtype::progress, fmt::format("{} CurrentIO [OPC-0183]", strIOS));
    } else {
        Raise(msgtype::progress, fmt::format("{} CurrentIO  Elapsed={}; TStamp={}; ReadCount={} [OPC-0184]", strIOS,
                                             lngElapsed, dateText(dtmTStamp), lngReadCount));
    }
    if (lngElapsed > mlngMaxElapsed) {
        Raise(msgtype::notice,
              fmt::format("Quelm I/O Server is not active; {}; Elapsed={}; TStamp={}; AllCommsOk={} [OPC-0185]", strIOS,
                          lngElapsed, dateText(dtmTStamp), naturalText(varAllCommsOk)));
    }
}

// ---- channel definitions

const ChannelDefCollection* IOSSimpleManager::GetChannelDefs() {
    try {
        if (!mcolChannelDefs || !blnChannelDefsLoaded) {
            LoadChannelDefs();
            blnChannelDefsLoaded = true;
        }
        return mcolChannelDefs.get();
    } catch (...) {
        RaiseFailure("OPC-0153: ");
        return nullptr;
    }
}

void IOSSimpleManager::TakeChannelDefs(std::shared_ptr<const ChannelDefCollection> colChannelDefs) {
    mcolChannelDefs = std::move(colChannelDefs);
    blnChannelDefsLoaded = true;
}

void IOSSimpleManager::LoadChannelDefs() {
    try {
        mcolChannelDefs = DBIL().ConfigurationReader().LoadChannelDefs(mstrSiteID);
    } catch (...) {
        RaiseFailure("OPC-0154: ");
    }
}

const ChannelDef* IOSSimpleManager::GetChannelDef(std::int32_t lngChannelID) {
    const ChannelDefCollection* colChannelDefs = GetChannelDefs();
    return colChannelDefs == nullptr ? nullptr : colChannelDefs->Channel(lngChannelID);
}

// ---- look-ups

std::string IOSSimpleManager::GetChannelName(std::int32_t lngChannelID) {
    try {
        const ChannelDef* objChannelDef = GetChannelDef(lngChannelID);
        return objChannelDef == nullptr ? std::string() : objChannelDef->Name;
    } catch (...) {
        RaiseFailure("OPC-0156: ");
        return {};
    }
}

std::int32_t IOSSimpleManager::GetChannelDefType(std::int32_t lngChannelID) {
    try {
        const ChannelDef* objChannelDef = GetChannelDef(lngChannelID);
        return objChannelDef == nullptr ? 0 : objChannelDef->DefinitionType;
    } catch (...) {
        RaiseFailure("OPC-0157: ");
        return 0;
    }
}

const CurrentIORecord* IOSSimpleManager::GetCurrentIORecord(std::string_view strIOID) const {
    return mcolCurrentIO ? mcolCurrentIO->Item(strIOID) : nullptr;
}

std::int32_t IOSSimpleManager::GetCurrentIORecordCount() const {
    return mcolCurrentIO ? static_cast<std::int32_t>(mcolCurrentIO->Count()) : 0;
}

// Seconds for which the channel's I/O server has been silent; 0 for a channel that belongs to none.
std::int32_t IOSSimpleManager::SilenceOf(std::int32_t lngChannelID) {
    switch (generationOfType(GetChannelDefType(lngChannelID))) {
        case generation5:
            return mlngIOS5Elapsed;
        case generation6:
            return mlngIOS6Elapsed;
        default:
            return 0;
    }
}

bool IOSSimpleManager::IsSilent(std::int32_t lngChannelID) {
    // Loads them when that is due, also while no I/O server is silent and the pass can do without each channel's.
    GetChannelDefs();
    const bool blnAnySilent = std::max(mlngIOS5Elapsed, mlngIOS6Elapsed) > mlngMaxElapsed;
    return blnAnySilent && SilenceOf(lngChannelID) > mlngMaxElapsed;
}

Variant IOSSimpleManager::GetChannelValue(std::int32_t lngIOChanID) {
    Variant varResult;
    try {
        if (IsSilent(lngIOChanID)) {
            return Variant::null();
        }
        const CurrentIORecord* record = mcolCurrentIO ? mcolCurrentIO->Channel(lngIOChanID) : nullptr;
        if (record == nullptr) {
            return Variant::null();
        }
        varResult = record->NValue;
        if (!record->XValue.empty() && !isNumeric(varResult)) {
            const XmlDocument document = LoadXMLFragment(nullptr, record->XValue);
            if (!document.isNothing()) {
                std::string strText = GetNodeText(document.documentElement(), "Value");
                if (!strText.empty()) {
                    varResult = Variant(std::move(strText));
                }
            }
        }
    } catch (...) {
        RaiseFailure("OPC-0158: ");
    }
    return varResult;
}

}  // namespace quelm
