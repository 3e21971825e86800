#include "OPC/OPC DA Server/IOSSimpleManager.h"

#include <fmt/format.h>

#include <utility>

#include "OPC/OPC DA Server/IOCommandConstants.h"
#include "OPC/OPC DA Server/IOSGeneration.h"
#include "OPC/OPC DA Server/TextConversionFunctions.h"
#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {
namespace {

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
        case definitiontype::ios5Channel:
        case definitiontype::ios6Channel:
            return {};
        case definitiontype::ios5Implicit:
            return "OPC-0146: Can't write to channel; writing to Q5 implicit channel is not allowed ";
        case definitiontype::ios6MultiValueCSV:
            return "OPC-0147: Can't write to channel; writing to Q6 multivalue CSV channel is not allowed ";
        case definitiontype::ios6MultiValueUDT:
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

}  // namespace

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

}  // namespace quelm
