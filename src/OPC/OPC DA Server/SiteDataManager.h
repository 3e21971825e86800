#pragma once

// Everything the server publishes for one site: its OPC items, created once from the site's definitions, and their
// values, rewritten on every update pass from the current-data reader and the I/O server link.

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "Clock Library/IClock.h"
#include "CurrentData Reader/ICurrentDataReader.h"
#include "DB Interface Library/IDBIL.h"
#include "Data Interface/IDataInterface.h"
#include "Messages/IRaiseMsg.h"
#include "OPC/OPC DA Server/IOSSimpleManager.h"
#include "OPC/OPC DA Server/TagConfig.h"
#include "slikda/ISLIKServer.h"

namespace quelm {

// How a site manager comes by the objects that it owns.
struct SiteParts {
    std::function<std::unique_ptr<IDataInterface>(IDBIL& objDBIL, std::string_view strSiteID)> NewDataInterface;
    std::function<std::unique_ptr<ICurrentDataReader>()> NewCurrentDataReader;
};

class SiteDataManager final : public ICDRReferences {
 public:
    explicit SiteDataManager(SiteParts parts) : parts_(std::move(parts)) {}
    SiteDataManager(const SiteDataManager&) = delete;
    SiteDataManager& operator=(const SiteDataManager&) = delete;

    // Called once. False, after a message, when the site's definitions could not be loaded: the instance is then of no
    // further use. objRaiseMsg must outlive the manager or its Shutdown.
    bool Initialize(IRaiseMsg* objRaiseMsg, std::shared_ptr<IClock> objClock, std::shared_ptr<IDBIL> objDBIL,
                    std::string_view strSiteID, std::int32_t lngDAHSID);
    // One item from one definition; False when there is none now. Costs no other item anything.
    bool CreateTag(ISLIKTags& objSLIKTags, const OPCDef& objOPCDef);
    // Called once, after the last CreateTag: lists the items, lets the data interface go and starts what the items
    // are fed from.
    void FinishTagCreation();
    // Gives every item its value, quality and the time at which this pass began.
    void UpdateTagValues();
    // Whether a database that feeds items of this site was read lately enough for their values to be trusted.
    bool IsAnySourceReached() const;
    void Shutdown();

    const std::string& SiteID() const { return mstrSiteID; }

    // Of the site's settings while the data interface is loaded, otherwise 0.
    std::int32_t ICDRReferences_FirstDayOfWeek() const override;
    // These two raise RuntimeError 91 after Shutdown.
    IClock& ICDRReferences_Intervals() const override;
    IRealtimeDB& ICDRReferences_RealtimeDB() const override;
    bool ICDRReferences_SelectedDahsIsRemote() const override { return true; }  // always, deliberately
    Date ICDRReferences_SelectedDahsNow() const override;
    const std::string& ICDRReferences_SiteID() const override { return mstrSiteID; }

 private:
    void Raise(std::int32_t lngMsgType, std::string_view strDescription) const;
    void mobjDI_Message(std::int32_t lngMsgType, std::string_view strDescription);

    bool ResolveTag(const OPCDef& objOPCDef, const std::string& strTagname, TagConfig& objTag);
    bool ResolvePID(const std::string& strID, const std::string& strTagname, TagConfig& objTag);
    bool ResolveChannels(const std::string& strID, const std::string& strTagname, TagConfig& objTag);
    ISLIKTag* CreateSlikTag(ISLIKTags& objSLIKTags, std::string_view strName, std::int32_t lngAccessRights,
                            const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp);
    void DescribeItems();
    void ListTags() const;
    const std::string& InternIntervalType(const std::string& strIntervalType);

    void UpdateQuelmTagValue(Date dtmTimestamp, const TagConfig& objTag);
    void UpdateChannelTagValue(Date dtmTimestamp, const TagConfig& objTag);
    std::int16_t ChannelQuality(const TagConfig& objTag);

    std::string mstrSiteID;
    IRaiseMsg* mobjRaiseMsg = nullptr;
    std::shared_ptr<IClock> mobjClock;
    std::shared_ptr<IDBIL> mobjDBIL;
    std::unique_ptr<IDataInterface> mobjDI;
    std::unique_ptr<ICurrentDataReader> mobjCDR;
    std::unique_ptr<IOSSimpleManager> mobjIOSManager;
    TagConfigCollection mcolQuelmTags;
    TagConfigCollection mcolChannelTags;

    SiteParts parts_;
    // A site has a handful of interval types and perhaps a hundred thousand tags that name them.
    std::set<std::string, std::less<>> intervalTypes_;
};

}  // namespace quelm
