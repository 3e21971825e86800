#include "OPC/OPC DA Server/SiteDataManager.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <optional>
#include <utility>

#include "OPC/OPC DA Server/IOChannelIDFunctions.h"
#include "OPC/OPC DA Server/MonitorProcessCodeFunctions.h"
#include "OPC/OPC DA Server/OmbrelConstants.h"
#include "OPC/OPC DA Server/PIDFunctions.h"
#include "OPC/OPC DA Server/QuelmOpcMappingFunctions.h"
#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "base/Conversion.h"
#include "base/Quality.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

constexpr std::int32_t readableOnly = 1;
constexpr std::int32_t readerPeriodSeconds = 15;

// A number in its own right: a channel-fed text item is published as Bad even when its text reads as a number.
bool isNumberKind(const Variant& value) {
    return value.kind() != VariantKind::Text && value.kind() != VariantKind::Date && isNumeric(value);
}

// What clients can learn of where an item's value comes from.
struct SourceProperty {
    std::int32_t lngID;
    const char* strName;
    Variant (*valueOf)(const TagConfig& objTag);  // 0 or "": there is nothing to say
};

constexpr std::array sourceProperties{
    SourceProperty{5000, "Parameter Number", [](const TagConfig& objTag) { return Variant(objTag.PID); }},
    SourceProperty{5001, "Value Channel", [](const TagConfig& objTag) { return Variant(objTag.IOChannelID_Value); }},
    SourceProperty{5002, "Monitor Code Channel",
                   [](const TagConfig& objTag) { return Variant(objTag.IOChannelID_MC); }},
    SourceProperty{5004, "Interval Type", [](const TagConfig& objTag) { return Variant(*objTag.IntervalType); }},
};

// The item is nullptr when the control refused it. strDescription: what people call its parameter or channel.
void DescribeItem(const TagConfig& objTag, const Variant& varSiteID, std::string_view strDescription) {
    if (objTag.SlikTag == nullptr) {
        return;
    }
    ISLIKTag& objItem = *objTag.SlikTag;
    objItem.SetProperty(101, "Item Description", Variant(strDescription));
    for (const SourceProperty& property : sourceProperties) {
        objItem.SetProperty(property.lngID, property.strName, property.valueOf(objTag));
    }
    objItem.SetProperty(5003, "Site ID", varSiteID);
}

ISLIKTag& slikTag(const TagConfig& objTag) {
    if (objTag.SlikTag == nullptr) {
        throw RuntimeError(errors::objectNotSet);
    }
    return *objTag.SlikTag;
}

}  // namespace

void SiteDataManager::Raise(std::int32_t lngMsgType, std::string_view strDescription) const {
    if (mobjRaiseMsg != nullptr) {
        mobjRaiseMsg->RaiseMsg(lngMsgType, strDescription);
    }
}

void SiteDataManager::mobjDI_Message(std::int32_t lngMsgType, std::string_view strDescription) {
    Raise(lngMsgType, strDescription);
}

// ---- set-up and tear-down

bool SiteDataManager::Initialize(IRaiseMsg* objRaiseMsg, std::shared_ptr<IClock> objClock,
                                 std::shared_ptr<IDBIL> objDBIL, std::string_view strSiteID, std::int32_t lngDAHSID) {
    mobjRaiseMsg = objRaiseMsg;
    mobjClock = std::move(objClock);
    mobjDBIL = std::move(objDBIL);
    mstrSiteID = strSiteID;
    if (mobjRaiseMsg == nullptr || !mobjClock || !mobjDBIL) {
        throw RuntimeError(errors::objectNotSet);
    }
    Raise(msgtype::information, fmt::format("[OPC-0209] Loading DI for {}...", mstrSiteID));
    mobjDI = parts_.NewDataInterface(*mobjDBIL, mstrSiteID);
    mobjDI->OnMessage([this](std::int32_t lngMsgType, std::string_view strDescription) {
        mobjDI_Message(lngMsgType, strDescription);
    });
    if (!mobjDI->Load(lngDAHSID, true, false)) {
        Raise(msgtype::error,
              fmt::format("[OPC-0210] Error loading DI; will not load OPC tag definitions for {}", mstrSiteID));
        mobjDI.reset();
        return false;
    }
    mobjCDR = parts_.NewCurrentDataReader();
    mobjCDR->Initialize(*mobjRaiseMsg, *this, readerPeriodSeconds);
    mobjIOSManager = std::make_unique<IOSSimpleManager>();
    mobjIOSManager->Initialize(mobjRaiseMsg, *mobjClock, mobjDBIL, mstrSiteID);
    return true;
}

void SiteDataManager::Shutdown() {
    if (mobjDI) {
        mobjDI->TearDown();
        mobjDI.reset();
    }
    if (mobjCDR) {
        mobjCDR->Stop();
        mobjCDR.reset();
    }
    if (mobjIOSManager) {
        mobjIOSManager->Shutdown();
        mobjIOSManager.reset();
    }
    mobjClock.reset();
    if (mobjDBIL) {
        // Every site of the shared object does this, and the window once more.
        mobjDBIL->Terminate();
        mobjDBIL.reset();
    }
    mobjRaiseMsg = nullptr;
}

// ---- tag creation

bool SiteDataManager::CreateTag(ISLIKTags& objSLIKTags, const OPCDef& objOPCDef) {
    std::string strTagname;
    try {
        strTagname = objOPCDef.Tagname();
        const Date dtmNow = CurrentTime();
        TagConfig objNewTag;
        if (!ResolveTag(objOPCDef, strTagname, objNewTag)) {
            return false;
        }
        TagConfigCollection& colTags = objNewTag.IsValueFromPID() ? mcolQuelmTags : mcolChannelTags;
        const TagConfig& objTag = colTags.Add(objNewTag);
        Variant varValue;
        if (!ConvertToOPCType(objTag.OPCDataType, varValue, objTag.DefaultValue)) {
            // No error is pending here; the line keeps the form of the others with the number 0 and no description.
            Raise(msgtype::error,
                  fmt::format("[OPC-0206] Could not initialize OPC tag '{}' value; 0, ", objTag.OPCTagName));
        }
        ISLIKTag* objItem =
            CreateSlikTag(objSLIKTags, objTag.OPCTagName, readableOnly, varValue, quality::badCommFailure, dtmNow);
        // A refused item leaves its tag in the collection: the summary counts it and every update pass reports it.
        // Deliberate.
        if (objItem == nullptr) {
            return false;
        }
        colTags.AttachItem(*objItem);
        return true;
    } catch (...) {
        Raise(msgtype::error,
              fmt::format("[OPC-0141] Could not initialize OPC tag '{}'; {}", strTagname, currentError().text()));
        return false;
    }
}

// What the item is fed from and how it is presented. False when there can be no item; every reason has been reported,
// except that of a definition which isn't an OPC DA tag or has no refresh rate.
bool SiteDataManager::ResolveTag(const OPCDef& objOPCDef, const std::string& strTagname, TagConfig& objTag) {
    if (objOPCDef.RefreshRate() <= 0 || objOPCDef.TagType() != ombrel::opcDATag) {
        return false;
    }
    objTag.OPCTagName = strTagname;
    objTag.OPCDataType = static_cast<std::int16_t>(GetOPCVarType(objOPCDef.DataType()));
    const std::string strID = objOPCDef.ID();
    objTag.PID = ParsePID(strID, false);
    const bool blnOK =
        objTag.IsValueFromPID() ? ResolvePID(strID, strTagname, objTag) : ResolveChannels(strID, strTagname, objTag);
    objTag.DownIsInvalid = !objOPCDef.DownIsValid();
    objTag.UseSubStatus = objOPCDef.UseSubstatus();
    objTag.DefaultValue = objOPCDef.NullValue();
    if (objOPCDef.Write()) {
        // Also for a definition that has failed already, so that one start-up shows everything that is wrong with it.
        Raise(
            msgtype::error,
            fmt::format("[OPC-0140] This application does not support OPC writes; any writes will be ignored (Tag={})",
                        strTagname));
    }
    return blnOK;
}

bool SiteDataManager::ResolvePID(const std::string& strID, const std::string& strTagname, TagConfig& objTag) {
    if (!mobjDI) {
        throw RuntimeError(errors::objectNotSet);
    }
    const IPIDDefinitions& colPIDDefinitions = mobjDI->PIDDefinitions();
    if (!colPIDDefinitions.IsDefined(objTag.PID)) {
        Raise(msgtype::error, fmt::format("[OPC-0211] Quelm PID '{}' does not exist; cannot create OPC tag (Tag={})",
                                          strID, strTagname));
        return false;
    }
    objTag.IntervalType = &InternIntervalType(colPIDDefinitions.IntervalType(objTag.PID, true));
    if (objTag.IntervalType->empty()) {
        Raise(msgtype::error,
              fmt::format("[OPC-0222] Could not find interval type for PID '{}'; cannot create OPC tag (Tag={})", strID,
                          strTagname));
        return false;
    }
    return true;
}

bool SiteDataManager::ResolveChannels(const std::string& strID, const std::string& strTagname, TagConfig& objTag) {
    const std::int32_t lngChannel = ParseIOChannelID(strID, true);
    if (lngChannel == 0) {
        Raise(msgtype::error,
              fmt::format("[OPC-0139] Cannot determine Quelm PID or I/O Channel ID (Tag={})", strTagname));
        return false;
    }
    objTag.IOChannelID_Value = lngChannel;
    if (strID.find(';') != std::string::npos) {
        objTag.IOChannelID_MC = ParseIOChannelID(GetTextBetween(strID, ";", "", 1), true);
        if (objTag.IOChannelID_MC == 0) {
            // The value is worth having without its monitor code. Deliberate.
            Raise(
                msgtype::error,
                fmt::format("[OPC-0138] Cannot determine Quelm I/O Channel ID for monitor code (Tag={})", strTagname));
        }
    }
    return true;
}

ISLIKTag* SiteDataManager::CreateSlikTag(ISLIKTags& objSLIKTags, std::string_view strName, std::int32_t lngAccessRights,
                                         const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) {
    try {
        return &objSLIKTags.Add(strName, lngAccessRights, varValue, intQuality, dtmTimestamp);
    } catch (...) {
        Raise(msgtype::error,
              fmt::format("[OPC-0207] Could not initialize SLIK server tag '{}'; {}", strName, currentError().text()));
        return nullptr;
    }
}

const std::string& SiteDataManager::InternIntervalType(const std::string& strIntervalType) {
    return *intervalTypes_.insert(strIntervalType).first;
}

// While the definitions are at hand, and before clients are.
void SiteDataManager::DescribeItems() {
    const std::string strNoName;
    const Variant varSiteID(mstrSiteID);
    for (const TagConfig& objTag : mcolQuelmTags) {
        DescribeItem(objTag, varSiteID, mobjDI ? mobjDI->PIDDefinitions().Name(objTag.PID) : strNoName);
    }
    if (mcolChannelTags.Count() == 0 || !mobjDBIL) {
        return;
    }
    const auto colNames = mobjDBIL->ConfigurationReader().LoadChannelNames(mstrSiteID);
    if (colNames && mobjIOSManager) {
        mobjIOSManager->TakeChannelDefs(colNames);
    }
    for (const TagConfig& objTag : mcolChannelTags) {
        const ChannelDef* objChannelDef = colNames ? colNames->Channel(objTag.IOChannelID_Value) : nullptr;
        DescribeItem(objTag, varSiteID, objChannelDef != nullptr ? objChannelDef->Name : strNoName);
    }
}

void SiteDataManager::FinishTagCreation() {
    DescribeItems();
    if (mobjDI) {
        Raise(msgtype::information, fmt::format("[OPC-0219] Tearing down DI for {}", SiteID()));
        mobjDI->TearDown();
        mobjDI.reset();
    }
    mcolQuelmTags.Close();
    mcolChannelTags.Close();
    ListTags();
    if (mcolQuelmTags.Count() > 0) {
        mobjCDR->Start();
    }
    if (mcolChannelTags.Count() > 0) {
        mobjIOSManager->EnableReadingCurrentIO();
    }
}

void SiteDataManager::ListTags() const {
    std::optional<MessageListing> objListing;
    if (mobjRaiseMsg != nullptr) {
        objListing.emplace(*mobjRaiseMsg);
    }
    Raise(msgtype::information,
          fmt::format("[OPC-0217] ========== {} OPC tags from Quelm tags for {}", mcolQuelmTags.Count(), SiteID()));
    for (const TagConfig& objTag : mcolQuelmTags) {
        Raise(msgtype::information, fmt::format("  {} {}  {}", PIDToText(objTag.PID),
                                                PadText(*objTag.IntervalType, 4, true, true), objTag.OPCTagName));
    }
    Raise(msgtype::information,
          fmt::format("[OPC-0218] ========== {} OPC tags from I/O channels for {}", mcolChannelTags.Count(), SiteID()));
    for (const TagConfig& objTag : mcolChannelTags) {
        Raise(msgtype::information,
              fmt::format("  {} {}  {}", PadText(std::to_string(objTag.IOChannelID_Value), 9, false, true),
                          PadText(std::to_string(objTag.IOChannelID_MC), 9, false, true), objTag.OPCTagName));
    }
}

// ---- the update pass

void SiteDataManager::UpdateTagValues() {
    try {
        const Date dtmTimestamp = CurrentTime();
        for (const TagConfig& objTag : mcolQuelmTags) {
            UpdateQuelmTagValue(dtmTimestamp, objTag);
        }
        for (const TagConfig& objTag : mcolChannelTags) {
            UpdateChannelTagValue(dtmTimestamp, objTag);
        }
    } catch (...) {
        Raise(msgtype::error,
              fmt::format("[OPC-0142] Error updating SLIK tag values for {}; {}", mstrSiteID, currentError().text()));
    }
}

bool SiteDataManager::IsAnySourceReached() const {
    return (mcolQuelmTags.Count() > 0 && mobjCDR && !mobjCDR->IsDatabaseLost()) ||
           (mcolChannelTags.Count() > 0 && mobjIOSManager && !mobjIOSManager->IsDatabaseLost());
}

void SiteDataManager::UpdateQuelmTagValue(Date dtmTimestamp, const TagConfig& objTag) {
    try {
        if (!mobjCDR) {
            throw RuntimeError(errors::objectNotSet);
        }
        Variant varValue;
        std::int16_t intQuality = quality::bad;
        if (const CurrentValueRecord* record = mobjCDR->CurrentValue(objTag.PID, *objTag.IntervalType)) {
            const std::int16_t intVarType = slikTag(objTag).DataType();
            varValue = record->Value;
            if (!ConvertToOPCType(intVarType, varValue, objTag.DefaultValue)) {
                varValue = Variant(std::int16_t{0});
                ConvertToOPCType(intVarType, varValue, objTag.DefaultValue);
            } else if (isNumeric(record->MonitorCode)) {
                // Any number goes to the quality table here; a channel's code must be a ranked one. Deliberate.
                intQuality = GetOPCQuality(toInt32(record->MonitorCode), objTag.DownIsInvalid, objTag.UseSubStatus);
            } else if (isNumeric(record->Value)) {
                intQuality = quality::good;
            }
        }
        slikTag(objTag).SetVQT(varValue, intQuality, dtmTimestamp);
    } catch (...) {
        Raise(msgtype::error, fmt::format("[OPC-0143] {}; Error updating SLIK tag values for {} tag '{}' from [{}]",
                                          currentError().text(), mstrSiteID, objTag.OPCTagName, PIDToText(objTag.PID)));
    }
}

void SiteDataManager::UpdateChannelTagValue(Date dtmTimestamp, const TagConfig& objTag) {
    try {
        if (!mobjIOSManager) {
            throw RuntimeError(errors::objectNotSet);
        }
        Variant varValue = mobjIOSManager->GetChannelValue(objTag.IOChannelID_Value);
        const std::int16_t intVarType = slikTag(objTag).DataType();
        std::int16_t intQuality = quality::bad;
        if (!ConvertToOPCType(intVarType, varValue, objTag.DefaultValue)) {
            varValue = Variant(std::int16_t{0});
            ConvertToOPCType(intVarType, varValue, objTag.DefaultValue);
        } else if (isNumberKind(varValue)) {
            intQuality = ChannelQuality(objTag);
        }
        slikTag(objTag).SetVQT(varValue, intQuality, dtmTimestamp);
    } catch (...) {
        Raise(msgtype::error,
              fmt::format("[OPC-0144] {}; Error updating SLIK tag values for {} tag '{}' from channel(s) {}, {}",
                          currentError().text(), mstrSiteID, objTag.OPCTagName, objTag.IOChannelID_Value,
                          objTag.IOChannelID_MC));
    }
}

// The quality of a channel's numeric value, by its monitor-code channel.
std::int16_t SiteDataManager::ChannelQuality(const TagConfig& objTag) {
    if (objTag.IOChannelID_MC == 0) {
        return quality::good;
    }
    const Variant varCode = mobjIOSManager->GetChannelValue(objTag.IOChannelID_MC);
    if (!isNumeric(varCode)) {
        return quality::uncertain;
    }
    if (!(std::fabs(toDouble(varCode)) <= MaxMonitorCode() + 1)) {
        return quality::bad;
    }
    const std::int32_t lngCode = toInt32(varCode);
    if (!IsRankedMonitorCode(lngCode)) {
        return quality::bad;
    }
    return GetOPCQuality(lngCode, objTag.DownIsInvalid, objTag.UseSubStatus);
}

// ---- what the current-data reader asks

std::int32_t SiteDataManager::ICDRReferences_FirstDayOfWeek() const {
    return mobjDI ? mobjDI->FirstDayOfWeek() : 0;
}

IClock& SiteDataManager::ICDRReferences_Intervals() const {
    if (!mobjClock) {
        throw RuntimeError(errors::objectNotSet);
    }
    return *mobjClock;
}

IRealtimeDB& SiteDataManager::ICDRReferences_RealtimeDB() const {
    if (!mobjDBIL) {
        throw RuntimeError(errors::objectNotSet);
    }
    return mobjDBIL->RealtimeDB();
}

Date SiteDataManager::ICDRReferences_SelectedDahsNow() const {
    return CurrentTime();
}

}  // namespace quelm
