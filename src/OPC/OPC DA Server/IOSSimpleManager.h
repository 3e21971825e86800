#pragma once

// One site's link to its I/O servers: the periodic snapshot of the CurrentIO table, how long each generation of I/O
// server (IOS5, IOS6) has been silent, what it says about its health, and the look-ups of channel values.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Clock Library/IClock.h"
#include "DB Interface Library/IDBIL.h"
#include "Messages/IRaiseMsg.h"
#include "base/Date.h"
#include "base/Variant.h"
#include "xml/XmlDom.h"

namespace quelm {

class IOSSimpleManager final {
 public:
    IOSSimpleManager() = default;
    IOSSimpleManager(const IOSSimpleManager&) = delete;
    IOSSimpleManager& operator=(const IOSSimpleManager&) = delete;
    ~IOSSimpleManager() = default;

    // Called once, right after creation. The read interval runs from then on, but its ticks do nothing before
    // EnableReadingCurrentIO. What CreateInterval raises reaches the caller.
    void Initialize(IRaiseMsg* objRaiseMsg, IClock& objClock, std::shared_ptr<IDBIL> objDBIL,
                    std::string_view strSiteID);
    // Called once by the owner; no tick arrives afterwards.
    void Shutdown();

    const std::string& SiteID() const { return mstrSiteID; }
    bool IsReadingCurrentIOEnabled() const { return mblnReadingCurrentIOEnabled; }
    void EnableReadingCurrentIO() { mblnReadingCurrentIOEnabled = true; }
    void DisableReadingCurrentIO() { mblnReadingCurrentIOEnabled = false; }

    // Asks the channel's I/O server, by a command message record, to write a value to the channel; nothing waits for
    // the answer. strSourceLocation (where the request comes from) and strRequestor (who asks; "" = nobody named) are
    // for people. Refused, with a message, while reading CurrentIO is disabled, for channels that are not plain I/O
    // channels, and for values that are Empty or blank (blnAllowEmptyStringWrite lets blank text through). Raises
    // nothing.
    void WriteValueToChannel(std::string_view strSourceLocation, std::int32_t lngChannelID, Variant varNewValue,
                             std::string_view strRequestor = {}, bool blnTimeSensitive = false,
                             bool blnIsFrequentWrite = false, bool blnIsAutoOutputEnabledRequired = false,
                             bool blnAllowEmptyStringWrite = false);
    // "" for a channel without definition.
    std::string GetChannelName(std::int32_t lngChannelID);
    // 1 to 5; 0 for a channel without definition.
    std::int32_t GetChannelDefType(std::int32_t lngChannelID);
    // The database has not been read for longer than the values of before can be trusted.
    bool IsDatabaseLost() const { return mlngUnread > mlngMaxElapsed; }
    // The record with that IOID, or nullptr. Valid until the next read tick.
    const CurrentIORecord* GetCurrentIORecord(std::string_view strIOID) const;
    std::int32_t GetCurrentIORecordCount() const;
    // The channel's value as the I/O server last wrote it; Null when there is none, or when the channel's I/O server
    // has been silent for more than 45 seconds. Failures are reported and give what was found so far.
    Variant GetChannelValue(std::int32_t lngIOChanID);
    // The values of a multi-value channel as an array of texts, joined from lngNumberOfBlocksToLoad blocks (below 1
    // means 1) whose channel IDs start at lngIOChanID and lie lngBlockLength apart. Empty when there are none, when
    // a block is missing or unreadable, or when the I/O servers are silent. lngPIDForMsgs only appears in messages.
    // Raises nothing.
    Variant GetMultiValueChannelCSV(std::int32_t lngIOChanID, std::int32_t lngPIDForMsgs,
                                    std::int32_t lngNumberOfBlocksToLoad = 0, std::int32_t lngBlockLength = 0);
    bool UseImplicitChannels() const { return mblnUseImplicitChannels; }
    void SetUseImplicitChannels(bool blnNewValue) { mblnUseImplicitChannels = blnNewValue; }

    // Whether every device of the generations in use answers. Writes a line whenever a generation's answer changes.
    bool AllDevicesArePolling();
    bool AllDevicesArePolling_IOS5();
    bool AllDevicesArePolling_IOS6();
    // Whether the site defines channels of that generation; decided at the first question, for the manager's life.
    bool IsIOS5Used();
    bool IsIOS6Used();
    // Asks every generation in use, by a command message record each, to refresh all its data. strRequestor becomes
    // the records' description. Raises nothing.
    void ReadAllData(std::string_view strRequestor);
    // Asks the I/O server of the list's first channel to refresh the channels of a list, which is passed on unchanged.
    // True when the request was written; it is then pending until its record is done, and every further one is
    // refused meanwhile. Raises nothing.
    bool RefreshSelectedChannels(std::string_view strChannelList, std::string_view strRequestor);
    // Every generation in use has completed a refresh of all its data since the manager started watching.
    bool IsInitialCurrentIOReadComplete();

    // The definitions, read for another use already: then they are not read once more. Not nullptr.
    void TakeChannelDefs(std::shared_ptr<const ChannelDefCollection> colChannelDefs);
    // nullptr when the definitions could not be had at all; read once per instance.
    const ChannelDefCollection* GetChannelDefs();
    // nullptr for a channel without definition.
    const ChannelDef* GetChannelDef(std::int32_t lngChannelID);
    bool IsRefreshPending() const { return !mstrPendingRefreshMsgID.empty(); }
    // The pending request's message record; "" when none is pending.
    const std::string& PendingRefreshMsgID() const { return mstrPendingRefreshMsgID; }

    void mobjReadCurrentIOInterval_IntervalExpired(std::int32_t lngIntervalID, const Variant& varActionData,
                                                   Date dtmScheduledExpireTime, bool blnSystemTimeChanged);

 private:
    // Seconds of silence after which an I/O server's values count as stale.
    std::int32_t mlngMaxElapsed = 0;
    std::string mstrSiteID;
    IRaiseMsg* mobjRaiseMsg = nullptr;
    std::shared_ptr<IDBIL> mobjDBIL;
    bool mblnReadingCurrentIOEnabled = false;
    std::shared_ptr<const CurrentIOCollection> mcolCurrentIO;
    std::int32_t mlngUnread = 0;  // seconds for which it could not be read
    bool mblnUseImplicitChannels = false;
    std::shared_ptr<const ChannelDefCollection> mcolChannelDefs;

    Date mdtmIOS5AllCommsOkTStamp;
    Variant mvarIOS5AllCommsOk;
    std::int32_t mlngIOS5Elapsed = 0;
    Date mdtmIOS5AllDataRefreshedStart;
    Date mdtmIOS5AllDataRefreshedFinish;
    bool mblnIOS5AllDataRefreshedInit = false;

    Date mdtmIOS6AllCommsOkTStamp;
    Variant mvarIOS6AllCommsOk;
    std::int32_t mlngIOS6Elapsed = 0;
    Date mdtmIOS6AllDataRefreshedStart;
    Date mdtmIOS6AllDataRefreshedFinish;
    bool mblnIOS6AllDataRefreshedInit = false;

    std::string mstrPendingRefreshMsgID;
    std::string mstrPendingRefreshChannels;

    std::shared_ptr<IInterval> mobjReadCurrentIOInterval;

    // What single operations remember for the instance's life.
    bool blnChannelDefsLoaded = false;
    std::int32_t lngIOS5ReadCount = 0;
    std::int32_t lngIOS6ReadCount = 0;
    std::optional<bool> mvarIsIOS5Used;
    std::optional<bool> mvarIsIOS6Used;
    bool mblnIOS5LastPolling = false;
    bool mblnIOS6LastPolling = false;

    struct Generation;
    static const Generation ios5;
    static const Generation ios6;

    void Raise(std::int32_t lngMsgType, std::string_view strDescription) const;
    void RaiseFailure(std::string_view strPrefix) const;
    IDBIL& DBIL() const;

    void ReadCurrentIO();
    void ProcessCurrentIO(bool& blnIOS5HeartbeatChanged, bool& blnIOS6HeartbeatChanged);
    void LogReadOf(const Generation& generation, bool blnHeartbeatChanged);
    void LogCurrentIOReadStatus(std::string_view strIOS, std::int32_t& lngElapsed, std::int32_t lngSecondsSinceLastRead,
                                bool blnHeartbeatChanged, const Variant& varAllCommsOk, Date dtmTStamp,
                                std::int32_t lngReadCount);
    void CheckPendingRefresh();

    void WriteMsgRecord(std::string_view strMsgType, std::string_view strMsgData, std::string_view strDescription,
                        std::string& strMsgID, bool& blnCreated);
    void ReadAllDataOf(const Generation& generation, std::string_view strRequestor);
    std::string_view RefreshQueue(std::string_view strChannelList, std::string_view strRequestor);
    bool RequestRefresh(std::string_view strQueue, std::string_view strChannelList, std::string_view strRequestor);
    XmlNode FindCSV(std::int32_t lngChannelID, std::int32_t lngPIDForMsgs) const;

    void LoadChannelDefs();
    std::int32_t SilenceOf(std::int32_t lngChannelID);
    // Longer than the longest silence in which its values can be trusted.
    bool IsSilent(std::int32_t lngChannelID);

    void UpdateIOS5Health(bool& blnHeartbeatChanged);
    void UpdateIOS6Health(bool& blnHeartbeatChanged);
    void UpdateHealth(const Generation& generation, bool& blnHeartbeatChanged);
    void TakeInHeartbeat(const Generation& generation, const CurrentIORecord& record, Date dtmNow,
                         bool& blnHeartbeatChanged);
    void TakeInAllDataRefreshed(const Generation& generation, std::string_view strXValue);
    void StoreRefresh(const Generation& generation, Date dtmStart, Date dtmFinish);
    void RaiseRefreshLines(Date dtmStart, Date dtmFinish) const;
    void ResetIOS5Health();
    void ResetIOS6Health();
    void ResetHealth(const Generation& generation);
    bool IsUsed(const Generation& generation);
    bool IsPolling(const Generation& generation);
};

}  // namespace quelm
