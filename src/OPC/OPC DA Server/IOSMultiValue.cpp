#include "OPC/OPC DA Server/IOSSimpleManager.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "DB Interface Library/DBRealtimeConstants.h"
#include "OPC/OPC DA Server/IOSGeneration.h"
#include "OPC/OPC DA Server/PIDFunctions.h"
#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"

namespace quelm {
namespace {

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

}  // namespace quelm
