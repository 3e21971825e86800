#pragma once

// The server host: start-up, site list and database set-up, the OPC server's lifetime and client events, and the one
// routine through which every message reaches the log file and the message list.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Clock Library/IClock.h"
#include "DB Interface Library/IDBIL.h"
#include "DB Interface Library/ISystemINI.h"
#include "Messages/ILogWriter.h"
#include "Messages/IRaiseMsg.h"
#include "OPC/OPC DA Server/OmbrelConstants.h"
#include "OPC/OPC DA Server/SiteDataManager.h"
#include "OPC/OPC DA Server/SiteDictionary.h"
#include "slikda/ISLIKServer.h"
#include "window/IMainWindow.h"

namespace quelm {

// What the server host works with: the controls on its window, and how it comes by the libraries' objects.
struct ServerParts {
    ISLIKServer& SLIKServer1;
    IMainWindow& Window;
    // The command line behind the program name, as one text.
    std::string CommandLine;
    // Identifies this process in the log file's name.
    std::int32_t InstanceNumber;
    std::function<std::unique_ptr<ISystemINI>()> NewSystemINI;
    // The system INI file is read by then.
    std::function<std::shared_ptr<IDBIL>(const ISystemINI&)> NewDBIL;
    std::function<std::shared_ptr<IClock>()> NewClock;
    std::function<std::unique_ptr<ILogWriter>(const ISystemINI&)> NewLogWriter;  // for each log anew
    // The display name of a message type, the first word of every log line.
    std::function<std::string(std::int32_t lngMsgType)> MessageTypeName;
    SiteParts Sites;
    // Told of each site's part of an update pass, as it begins and when it is done; may be empty.
    std::function<void(const std::string& strSiteID, bool blnDone)> OnSiteUpdate = {};
};

// How Form_Load ended.
enum class StartUp {
    HelpShown,           // nothing else was done
    Registered,          // registered or unregistered; the window is closed
    INIFailed,           // idle, the window shows why
    SitesFailed,         // idle, the window shows why
    WaitingForDatabase,  // the connection test is repeated every 20 seconds
    Running,
};

class frmOPCQuelm final : public IRaiseMsg, public ISLIKServerEvents {
 public:
    static constexpr std::string_view applicationTitle = ombrel::applicationTitle;
    static constexpr std::string_view executableName = ombrel::executableName;

    explicit frmOPCQuelm(ServerParts parts);
    frmOPCQuelm(const frmOPCQuelm&) = delete;
    frmOPCQuelm& operator=(const frmOPCQuelm&) = delete;

    // The lines of the help box, separated by CR LF.
    static std::string_view HelpText();
    // Whether a switch occurs anywhere in the text, as Form_Load looks for it.
    static bool KnowsSwitchIn(std::string_view strText);

    // The whole start-up. What escapes it (registration refused, the control cannot start) is fatal to the process.
    StartUp Form_Load();
    // Sets blnCancel while a client holds the server; otherwise everything is torn down and the window may close.
    void Form_Unload(bool& blnCancel);
    // Form_Unload and, unless cancelled, closing the window. False when cancelled.
    bool Unload();

    void AddMessage(std::int32_t lngMsgType, std::string_view strText, bool blnLogFlag);
    void AddMsg(std::int32_t lngMsgType, std::string_view strText) { AddMessage(lngMsgType, strText, false); }
    void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) override;
    void CollectMessages(bool blnOn) override;
    bool LoggingEnabled() const { return mobjLog != nullptr; }
    void StartLog(bool blnRollover);
    void StopLog();

    void SLIKServer1_OnClientDisconnect(std::int32_t lngRemainingClients) override;
    void SLIKServer1_OnRead(std::int32_t lngCount, const std::vector<ISLIKRequestedItem*>& objItems,
                            std::int32_t& lngError) override;
    void SLIKServer1_OnWrite(std::int32_t lngCount, std::int32_t& lngError) override;

 private:
    using SiteList = SiteDictionary<std::int32_t>;  // site ID → DAHS ID

    void AddFailure(std::string_view strPrefix, bool blnLogFlag);
    void AddToMessageList(std::string_view strText);
    std::string LogFilePath(bool blnRollover) const;
    void ShowHelp();

    bool ReadSystemINI();
    bool LoadSiteList(SiteList& dicSites);
    bool SetupSiteDBIL(IDBIL& objDBIL, SiteList& dicSites, const DAHSEntry& objDAHS);
    bool TestConnections();
    void LoadTagsAndStartServer(const SiteList& dicSites);
    bool InitializeSites(const SiteList& dicSites);
    bool InitializeSite(const std::string& strSiteID, std::int32_t lngDAHSID);
    void CreateTags(SiteDataManager& objManager, const OPCDefCollection& colOPCDefs);
    void ReleaseEverything();

    std::shared_ptr<IInterval> NewInterval(std::int32_t lngPeriod, std::int32_t lngOffset,
                                           std::string_view strDescription, std::int32_t lngTolerance,
                                           void (frmOPCQuelm::*handler)());
    void mobjInitializationInterval_IntervalExpired();
    void mobjUpdateTagValuesInterval_IntervalExpired();
    void mobjEndOfDayInterval_IntervalExpired();
    void tmrDisconnect_Timer();

    ServerParts parts_;
    ISLIKServer& SLIKServer1;
    IMainWindow& window_;

    std::unique_ptr<ISystemINI> mobjSystemINI;
    std::unique_ptr<ILogWriter> mobjLog;
    std::shared_ptr<IClock> mobjClock;
    std::shared_ptr<IDBIL> mobjDBIL;
    std::optional<SiteDictionary<std::unique_ptr<SiteDataManager>>> mdicSiteDataManagers;
    std::optional<SiteList> mdicPendingSites;
    std::shared_ptr<IInterval> mobjInitializationInterval;
    std::shared_ptr<IInterval> mobjUpdateTagValuesInterval;
    std::shared_ptr<IInterval> mobjEndOfDayInterval;
};

}  // namespace quelm
