#include "OPC/OPC DA Server/IOSSimpleManager.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "DB Interface Library/DBRealtimeConstants.h"
#include "OPC/OPC DA Server/IOCommandConstants.h"
#include "OPC/OPC DA Server/PIDFunctions.h"
#include "OPC/OPC DA Server/TextConversionFunctions.h"
#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"
#include "Shared Types/Conversion.h"
#include "Shared Types/RuntimeError.h"
#include "Shared Types/Text.h"

namespace quelm {
namespace {

constexpr std::int32_t readPeriodSeconds = 20;
constexpr std::int32_t maxSilenceSeconds = 45;

constexpr std::uint8_t noGeneration = 0;
constexpr std::uint8_t generation5 = 5;
constexpr std::uint8_t generation6 = 6;

std::uint8_t generationOfType(std::int32_t lngDefinitionType) {
    switch (lngDefinitionType) {
        case 1:
        case 2:
            return generation5;
        case 3:
        case 4:
        case 5:
            return generation6;
        default:
            return noGeneration;
    }
}

std::int32_t addChecked(std::int32_t left, std::int32_t right) {
    std::int32_t sum = 0;
    if (__builtin_add_overflow(left, right, &sum)) {
        throw RuntimeError(errors::overflow);
    }
    return sum;
}

// The count only tells one log line from the next; having passed its limit it goes on at 1000, not 0 or 1, so that it
// doesn't look like a fresh start. Deliberate: the limit itself may be passed by one.
std::int32_t nextReadCount(std::int32_t lngReadCount) {
    constexpr std::int32_t limit = 0x3FFFFFFF;
    return lngReadCount > limit ? 1000 : lngReadCount + 1;
}

// Whole seconds between two dates, whichever comes first.
std::int64_t secondsApart(Date left, Date right) {
    constexpr double millisecondsPerDay = 86400000;
    return std::llround(std::fabs(left.days - right.days) * millisecondsPerDay) / 1000;
}

Date dateOrZero(const Variant& value) {
    return value.kind() == VariantKind::Date ? value.date() : Date{};
}

// Of the I/O server that owns channels of that definition type; "" when none does.
std::string_view queueOfType(std::int32_t lngDefinitionType) {
    switch (generationOfType(lngDefinitionType)) {
        case generation5:
            return iocommand::queueIOS5;
        case generation6:
            return iocommand::queueIOS6;
        default:
            return {};
    }
}

// Why a channel of that definition type cannot be written to; "" when it can.
std::string_view writeRefusal(std::int32_t lngDefinitionType) {
    switch (lngDefinitionType) {
        case 1:
        case 3:
            return {};
        case 2:
            return "OPC-0146: Can't write to channel; writing to Q5 implicit channel is not allowed ";
        case 4:
            return "OPC-0147: Can't write to channel; writing to Q6 multivalue CSV channel is not allowed ";
        case 5:
            return "OPC-0148: Can't write to channel; writing to Q6 multivalue UDT channel is not allowed ";
        default:
            return "OPC-0149: Can't write to channel; channel is not defined ";
    }
}

// The null that passes is deliberate: it is sent as an empty text. Nothing at all never passes.
bool isWritable(const Variant& varValue, std::string_view strText, bool blnAllowEmptyStringWrite) {
    const bool blnHasText = blnAllowEmptyStringWrite || !trimBlanks(strText).empty();
    return (blnHasText && !varValue.isEmpty()) || varValue.isNull();
}

// Deliberate in every command: values stand in it unescaped, whatever they hold.
std::string refreshCommand(std::string_view strChannelList) {
    return fmt::format("<Command action=\"{}\" value=\"{}\" />", iocommand::refreshSelectedChannels, strChannelList);
}

// The two blanks before each option are deliberate.
std::string writeCommand(std::int32_t lngChannelID, std::string_view strValue, bool blnTimeSensitive,
                         bool blnIsFrequentWrite, bool blnIsAutoOutputEnabledRequired) {
    return fmt::format("<Command action=\"{}\" id=\"C{}\" value=\"{}\" {}{}{}/>", iocommand::writeToChannel,
                       lngChannelID, strValue, blnTimeSensitive ? " priority=\"high\" " : "",
                       blnIsFrequentWrite ? " hf=\"1\" " : "",
                       blnIsAutoOutputEnabledRequired ? " requireAOE=\"1\" " : "");
}

std::string writeDescription(std::string_view strSourceLocation, std::int32_t lngChannelID,
                             std::string_view strRequestor, bool blnIsAutoOutputEnabledRequired) {
    return fmt::format("{} {}>> C{}; {}", strRequestor.empty() ? "OPC WriteValueToChannel" : strRequestor,
                       blnIsAutoOutputEnabledRequired ? "AOE " : "", lngChannelID, strSourceLocation);
}

std::string withoutLineBreaks(std::string text) {
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n'; }), text.end());
    return text;
}

// Keeps empty pieces.
std::vector<std::string> split(std::string_view text, std::string_view separator) {
    std::vector<std::string> pieces;
    for (std::size_t at = text.find(separator); at != std::string_view::npos; at = text.find(separator)) {
        pieces.emplace_back(text.substr(0, at));
        text.remove_prefix(at + separator.size());
    }
    pieces.emplace_back(text);
    return pieces;
}

}  // namespace

// What differs between the two generations: the keys of their records (IOS5's carry no digit), the codes of their
// messages and the fields that belong to them.
struct IOSSimpleManager::Generation {
    std::uint8_t number;
    std::string_view label;
    std::string_view heartbeatKey;
    std::string_view refreshedKey;
    std::string_view codeNoHeartbeat;
    std::string_view codeNoRefreshed;
    std::string_view codeUpdateFailed;
    std::string_view codePolling;
    std::string_view codePollingFailed;
    std::string_view codeUsedFailed;
    std::string_view queue;
    std::string_view codeAllDataAsked;
    std::string_view codeAllDataNotAsked;
    Date IOSSimpleManager::*dtmAllCommsOkTStamp;
    Variant IOSSimpleManager::*varAllCommsOk;
    std::int32_t IOSSimpleManager::*lngElapsed;
    Date IOSSimpleManager::*dtmAllDataRefreshedStart;
    Date IOSSimpleManager::*dtmAllDataRefreshedFinish;
    bool IOSSimpleManager::*blnAllDataRefreshedInit;
    std::int32_t IOSSimpleManager::*lngReadCount;
    std::optional<bool> IOSSimpleManager::*varIsUsed;
    bool IOSSimpleManager::*blnLastPolling;
};

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
    } catch (...) {
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

void IOSSimpleManager::CheckPendingRefresh() {
    try {
        if (mstrPendingRefreshMsgID.empty()) {
            return;
        }
        const auto record = DBIL().RealtimeDB().GetMessageRecord(mstrSiteID, mstrPendingRefreshMsgID);
        if (!record) {
            // Forgotten; the channel list keeps its text, deliberately.
            mstrPendingRefreshMsgID.clear();
            return;
        }
        if (record->State != iocommand::stateDone) {
            return;
        }
        // The reply and the command are read but not judged: a completed request is complete whatever came of it.
        if (!record->Response.empty()) {
            const XmlDocument response = LoadXMLFragment(nullptr, record->Response);
            if (!response.isNothing()) {
                GetNodeText(response.documentElement(), "Success");
            }
        }
        if (!record->MessageData.empty()) {
            const XmlDocument data = LoadXMLFragment(nullptr, record->MessageData);
            if (!data.isNothing()) {
                GetAttributeText(data.documentElement().selectSingleNode("//Command"), "value");
            }
        }
        mstrPendingRefreshMsgID.clear();
        mstrPendingRefreshChannels.clear();
    } catch (...) {
        RaiseFailure("OPC-0186: ");
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

// ---- multi-value channels

Variant IOSSimpleManager::GetMultiValueChannelCSV(std::int32_t lngIOChanID, std::int32_t lngPIDForMsgs,
                                                  std::int32_t lngNumberOfBlocksToLoad, std::int32_t lngBlockLength) {
    try {
        // The IOS5 counter, although multi-value channels are IOS6's. Deliberate.
        if (mlngIOS5Elapsed > mlngMaxElapsed) {
            return {};
        }
        std::string strSeparator = ";";
        std::string strJoined;
        for (std::int32_t lngBlock = 0; lngBlock < std::max(lngNumberOfBlocksToLoad, 1); ++lngBlock) {
            const XmlNode objCSV = FindCSV(lngIOChanID, lngPIDForMsgs);
            if (objCSV.isNothing()) {
                return {};
            }
            if (std::string strOwn = GetAttributeText(objCSV, "separator"); !strOwn.empty()) {
                strSeparator = std::move(strOwn);
            }
            strJoined += withoutLineBreaks((lngBlock == 0 ? std::string() : strSeparator) + objCSV.text());
            lngIOChanID = addChecked(lngIOChanID, lngBlockLength);
        }
        return strJoined.empty() ? Variant() : Variant(split(strJoined, strSeparator));
    } catch (...) {
        RaiseFailure("OPC-0163: ");
        return {};
    }
}

// The element with a block's values; Nothing, with a message unless the record is missing, when there is none.
XmlNode IOSSimpleManager::FindCSV(std::int32_t lngChannelID, std::int32_t lngPIDForMsgs) const {
    const CurrentIORecord* record =
        GetCurrentIORecord(fmt::format("{}{}", realtime::multiValueChannelKey, lngChannelID));
    if (record == nullptr) {
        return {};
    }
    const std::string strPID = PIDToText(lngPIDForMsgs);
    if (record->XValue.empty()) {
        Raise(msgtype::multiValueError, fmt::format("OPC-0159: Can't process multi-value channel data; can't find XML "
                                                    "data for channel {} (PID={})",
                                                    lngChannelID, strPID));
        return {};
    }
    const XmlDocument document = LoadXMLFragment(mobjRaiseMsg, record->XValue);
    if (document.isNothing()) {
        Raise(msgtype::multiValueError, fmt::format("OPC-0160: Can't process multi-value channel data; can't parse XML "
                                                    "data for channel {} (PID={})",
                                                    lngChannelID, strPID));
        return {};
    }
    const XmlNodeList nodes = document.documentElement().selectNodes("CSV");
    if (nodes.length() == 0) {
        Raise(msgtype::multiValueError, fmt::format("OPC-0161: Can't process multi-value channel data; did not find a "
                                                    "'CSV' node for channel {} (PID={})",
                                                    lngChannelID, strPID));
    } else if (nodes.length() > 1) {
        Raise(msgtype::multiValueError,
              fmt::format("OPC-0162: Error processing multi-value channel data; found {} 'CSV' nodes but expected 1 "
                          "node for channel {}; will process the first 'CSV' node only (PID={})",
                          nodes.length(), lngChannelID, strPID));
    }
    return nodes.item(0);
}

// ---- commands to the I/O servers

// strMsgID and blnCreated are "" and False when no record was created.
void IOSSimpleManager::WriteMsgRecord(std::string_view strMsgType, std::string_view strMsgData,
                                      std::string_view strDescription, std::string& strMsgID, bool& blnCreated) {
    strMsgID.clear();
    blnCreated = false;
    try {
        blnCreated =
            DBIL().RealtimeDB().InsertMessage(strMsgID, mstrSiteID, strMsgType, strMsgData, {}, {}, strDescription);
    } catch (...) {
        RaiseFailure("OPC-0205: ");
    }
}

void IOSSimpleManager::WriteValueToChannel(std::string_view strSourceLocation, std::int32_t lngChannelID,
                                           Variant varNewValue, std::string_view strRequestor, bool blnTimeSensitive,
                                           bool blnIsFrequentWrite, bool blnIsAutoOutputEnabledRequired,
                                           bool blnAllowEmptyStringWrite) {
    const auto request = [&] { return fmt::format("(ChannelID={}, Requestor={})", lngChannelID, strRequestor); };
    try {
        if (!mblnReadingCurrentIOEnabled) {
            Raise(msgtype::error, "OPC-0145: Can't write to channel; reading CurrentIO is not enabled " + request());
            return;
        }
        const std::int32_t lngType = GetChannelDefType(lngChannelID);
        if (const std::string_view strRefusal = writeRefusal(lngType); !strRefusal.empty()) {
            Raise(msgtype::error, fmt::format("{}{}", strRefusal, request()));
            return;
        }
        if (varNewValue.kind() == VariantKind::Boolean) {
            varNewValue = Variant(std::int16_t{varNewValue.boolean()});
        }
        const std::string strText = naturalText(varNewValue);
        if (!isWritable(varNewValue, strText, blnAllowEmptyStringWrite)) {
            Raise(msgtype::error,
                  fmt::format("OPC-0151: Will not attempt to write empty/null value to IO channel ({})", lngChannelID));
            return;
        }
        std::string strMsgID;
        bool blnCreated = false;
        WriteMsgRecord(queueOfType(lngType),
                       writeCommand(lngChannelID, VariantToText(varNewValue), blnTimeSensitive, blnIsFrequentWrite,
                                    blnIsAutoOutputEnabledRequired),
                       writeDescription(strSourceLocation, lngChannelID, strRequestor, blnIsAutoOutputEnabledRequired),
                       strMsgID, blnCreated);
        if (!blnCreated) {
            Raise(msgtype::error, fmt::format("OPC-0150: Could not write msg record to change channel value ({}={})",
                                              lngChannelID, strText));
        }
    } catch (...) {
        Raise(msgtype::error, fmt::format("OPC-0152: {} {}", currentError().text(), request()));
    }
}

void IOSSimpleManager::ReadAllData(std::string_view strRequestor) {
    try {
        if (IsIOS5Used()) {
            ReadAllDataOf(ios5, strRequestor);
        }
        if (IsIOS6Used()) {
            ReadAllDataOf(ios6, strRequestor);
        }
    } catch (...) {
        RaiseFailure("OPC-0175: ");
    }
}

void IOSSimpleManager::ReadAllDataOf(const Generation& generation, std::string_view strRequestor) {
    std::string strMsgID;
    bool blnCreated = false;
    WriteMsgRecord(generation.queue, fmt::format("<Command action=\"{}\" />", iocommand::refreshAllData), strRequestor,
                   strMsgID, blnCreated);
    if (blnCreated) {
        Raise(msgtype::progress, fmt::format("{}: Created msg record to refresh all {} data",
                                             generation.codeAllDataAsked, generation.label));
    } else {
        Raise(msgtype::error, fmt::format("{}: Could not create msg record to refresh all {} data",
                                          generation.codeAllDataNotAsked, generation.label));
    }
}

bool IOSSimpleManager::RefreshSelectedChannels(std::string_view strChannelList, std::string_view strRequestor) {
    const auto raisePending = [&](std::string_view strCode) {
        Raise(msgtype::error, fmt::format("{}: RefreshSelectedChannels called while another request is still pending. "
                                          "This request will be ignored. (Pending={}; New={}; NewRequestor={})",
                                          strCode, mstrPendingRefreshChannels, strChannelList, strRequestor));
    };
    try {
        if (!IsReadingCurrentIOEnabled()) {
            // The text of a pending request, although the cause is another. Deliberate.
            raisePending("OPC-0176");
            return false;
        }
        if (IsRefreshPending()) {
            raisePending("OPC-0177");
            return false;
        }
        const std::string_view strQueue = RefreshQueue(strChannelList, strRequestor);
        return !strQueue.empty() && RequestRefresh(strQueue, strChannelList, strRequestor);
    } catch (...) {
        RaiseFailure("OPC-0181: ");
        return false;
    }
}

// The queue that a channel list goes to; "", with a message, when that cannot be told. Only a site with both
// generations or neither has to look at the list, and then at its first channel alone.
std::string_view IOSSimpleManager::RefreshQueue(std::string_view strChannelList, std::string_view strRequestor) {
    const bool blnIOS5 = IsIOS5Used();
    const bool blnIOS6 = IsIOS6Used();
    if (blnIOS5 != blnIOS6) {
        return blnIOS5 ? iocommand::queueIOS5 : iocommand::queueIOS6;
    }
    const std::int32_t lngChannelID = roundToInt32(LeadingNumber(strChannelList));
    const std::string_view strQueue = queueOfType(GetChannelDefType(lngChannelID));
    if (strQueue.empty()) {
        // The list is missing between the quotation marks. Deliberate.
        Raise(msgtype::error, fmt::format("OPC-0178: Cannot refresh selected channels ''. Channel {} is not defined. "
                                          "(Requestor={})",
                                          lngChannelID, strRequestor));
    }
    return strQueue;
}

// The new record's ID goes straight into the pending field, where the next read ticks look for it.
bool IOSSimpleManager::RequestRefresh(std::string_view strQueue, std::string_view strChannelList,
                                      std::string_view strRequestor) {
    bool blnCreated = false;
    WriteMsgRecord(strQueue, refreshCommand(strChannelList), strRequestor, mstrPendingRefreshMsgID, blnCreated);
    if (!blnCreated) {
        Raise(msgtype::error, fmt::format("OPC-0180: Could not create msg record to refresh channels {} ({})",
                                          strChannelList, strRequestor));
        mstrPendingRefreshMsgID.clear();
        mstrPendingRefreshChannels.clear();
        return false;
    }
    Raise(msgtype::progress,
          fmt::format("OPC-0179: Created msg record to refresh channels {} ({})", strChannelList, strRequestor));
    mstrPendingRefreshChannels = strChannelList;
    return true;
}

// ---- the I/O servers' health

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
