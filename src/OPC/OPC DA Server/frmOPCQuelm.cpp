#include "OPC/OPC DA Server/frmOPCQuelm.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "OPC/OPC DA Server/CommandLineFunctions.h"
#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "base/HResult.h"
#include "base/RuntimeError.h"

namespace quelm {
namespace {

constexpr std::int32_t maxListedMessages = 500;
constexpr std::int32_t shutdownDelayMilliseconds = 5000;
constexpr std::int32_t comFailure = asNumber(E_FAIL);

constexpr std::int32_t secondsOfDay = 86400;
constexpr std::int32_t refreshPeriodSeconds = 20;
// Five seconds behind the I/O server links' reads, so that every pass finds a fresh snapshot.
constexpr std::int32_t updateOffsetSeconds = 5;
constexpr std::int32_t refreshTolerance = 1000;
constexpr std::int32_t dailyTolerance = 1;

constexpr std::string_view helpText =
    "Command line options\r\n"
    "\r\n"
    "regserver\r\n"
    "      Register COM server (installer use only)\r\n"
    "\r\n"
    "unregserver\r\n"
    "      Unregister COM server (installer use only)\r\n"
    "\r\n"
    "visible\r\n"
    "      Show main window";

bool isGiven(std::string_view strCommandLine, std::string_view strSwitch) {
    return !GetCommandLineArg(strCommandLine, strSwitch, false, false).isNull();
}

}  // namespace

frmOPCQuelm::frmOPCQuelm(ServerParts parts)
    : parts_(std::move(parts)), SLIKServer1(parts_.SLIKServer1), window_(parts_.Window) {
    SLIKServer1.SetEvents(this);
    window_.tmrDisconnect().OnTimer([this] { tmrDisconnect_Timer(); });
}

// ---- start-up

StartUp frmOPCQuelm::Form_Load() {
    const auto given = [this](std::string_view strSwitch) { return isGiven(parts_.CommandLine, strSwitch); };
    if (given("?")) {
        ShowHelp();
        return StartUp::HelpShown;
    }
    // "regserver" also occurs in "unregserver", hence this order.
    if (given("unregserver")) {
        SLIKServer1.UnregisterServer();
        Unload();
        return StartUp::Registered;
    }
    if (given("regserver")) {
        SLIKServer1.RegisterServer();
        Unload();
        return StartUp::Registered;
    }
    if (given("visible")) {
        window_.Show();
    } else {
        window_.Hide();
    }
    if (!ReadSystemINI()) {
        window_.Show();
        return StartUp::INIFailed;
    }
    StartLog(false);
    AddMsg(msgtype::information, fmt::format("[OPC-0100] Command Line:  {}", parts_.CommandLine));
    AddMessage(msgtype::information, "[OPC-0101] Initializing DBIL...", true);
    mobjDBIL = parts_.NewDBIL(*mobjSystemINI);
    // The result isn't looked at: what is wrong shows when the sites are set up.
    mobjDBIL->Initialize(executableName);
    AddMessage(msgtype::information, "[OPC-0102] Loading site IDs and connection strings...", true);
    SiteList dicSites;
    if (!LoadSiteList(dicSites)) {
        window_.Show();
        return StartUp::SitesFailed;
    }
    mobjClock = parts_.NewClock();
    AddMessage(msgtype::information, "[OPC-0223] Testing database connections...", true);
    if (TestConnections()) {
        LoadTagsAndStartServer(dicSites);
        return StartUp::Running;
    }
    AddMessage(msgtype::error, "[OPC-0224] Could not successfully test database connection(s)", true);
    mdicPendingSites = std::move(dicSites);
    mobjInitializationInterval = NewInterval(refreshPeriodSeconds, 0, "Initialize", refreshTolerance,
                                             &frmOPCQuelm::mobjInitializationInterval_IntervalExpired);
    return StartUp::WaitingForDatabase;
}

bool frmOPCQuelm::KnowsSwitchIn(std::string_view strText) {
    constexpr std::string_view switches[] = {"?", "regserver", "visible"};  // "unregserver" holds the second
    return std::any_of(std::begin(switches), std::end(switches), [&](auto each) { return isGiven(strText, each); });
}

std::string_view frmOPCQuelm::HelpText() {
    return helpText;
}

void frmOPCQuelm::ShowHelp() {
    window_.ShowInformationBox(applicationTitle, helpText);
}

bool frmOPCQuelm::TestConnections() {
    if (!mobjDBIL) {
        throw RuntimeError(errors::objectNotSet);
    }
    return mobjDBIL->TestConnections("", true, true, false, false, false, true);
}

std::shared_ptr<IInterval> frmOPCQuelm::NewInterval(std::int32_t lngPeriod, std::int32_t lngOffset,
                                                    std::string_view strDescription, std::int32_t lngTolerance,
                                                    void (frmOPCQuelm::*handler)()) {
    auto interval =
        mobjClock->CreateInterval(lngPeriod, lngOffset, Variant{}, strDescription, true, false, true, lngTolerance, 0);
    interval->OnIntervalExpired([this, handler](std::int32_t, const Variant&, Date, bool) { (this->*handler)(); });
    return interval;
}

void frmOPCQuelm::mobjInitializationInterval_IntervalExpired() {
    try {
        AddMessage(msgtype::information, "[OPC-0225] Testing database connections...", true);
        if (!TestConnections()) {
            AddMessage(msgtype::error, "[OPC-0226] Could not successfully test database connection(s)", true);
            return;
        }
        if (mobjInitializationInterval) {
            mobjInitializationInterval->CancelInterval(true);
            mobjInitializationInterval.reset();
        }
        // From here on a failure is final: the database was reachable, and there is no further retry.
        if (!mdicPendingSites) {
            throw RuntimeError(errors::objectNotSet);
        }
        LoadTagsAndStartServer(*mdicPendingSites);
        mdicPendingSites.reset();
    } catch (...) {
        AddFailure("[OPC-0227] ", false);
    }
}

void frmOPCQuelm::LoadTagsAndStartServer(const SiteList& dicSites) {
    AddMessage(msgtype::information, "[OPC-0104] Loading tag definitions and initializing tags...", true);
    AddMsg(msgtype::information, "[OPC-0212] NOTE: These OPCDef fields are ignored: ");
    AddMsg(msgtype::information, "[OPC-0213]       Write (writes are not supported)");
    AddMsg(msgtype::information, "[OPC-0214]       RefreshRate (server automatically picks up latest current value)");
    AddMsg(msgtype::information,
           "[OPC-0215]       ShowStartOfPeriodTStamp (server automatically picks up latest current value)");
    // The result isn't looked at: the server starts even when some or all sites failed to load.
    InitializeSites(dicSites);
    mobjUpdateTagValuesInterval =
        NewInterval(refreshPeriodSeconds, updateOffsetSeconds, "Update Tag Values", refreshTolerance,
                    &frmOPCQuelm::mobjUpdateTagValuesInterval_IntervalExpired);
    mobjEndOfDayInterval = NewInterval(secondsOfDay, 0, "Start new OPC log file", dailyTolerance,
                                       &frmOPCQuelm::mobjEndOfDayInterval_IntervalExpired);
    AddMessage(msgtype::information, "[OPC-0105] Starting NDI SLIK server...", true);
    SLIKServer1.StartServer();
    AddMsg(msgtype::information, fmt::format("[OPC-0106] SLIKServer AppID={}", SLIKServer1.AppID()));
    AddMsg(msgtype::information, fmt::format("[OPC-0107] SLIKServer AppName={}", SLIKServer1.AppName()));
    AddMessage(msgtype::information,
               fmt::format("[OPC-0108] ---------- {} startup complete ----------", applicationTitle), true);
}

// ---- site list and database set-up

bool frmOPCQuelm::ReadSystemINI() {
    mobjSystemINI = parts_.NewSystemINI();
    bool blnOK = true;
    if (!mobjSystemINI->ReadINI(0, true)) {
        AddMsg(msgtype::error, "[OPC-0129] Cannot read INI file");
        blnOK = false;
    }
    // Also after a failed read, so that the operator sees both reasons.
    if (!mobjSystemINI->SelectDAHS(0, true)) {
        AddMsg(msgtype::error, "[OPC-0130] Cannot select DAHS entry in INI file");
        blnOK = false;
    }
    return blnOK;
}

bool frmOPCQuelm::LoadSiteList(SiteList& dicSites) {
    bool blnOK = SetupSiteDBIL(*mobjDBIL, dicSites, mobjSystemINI->SelectedDAHS());
    for (const DAHSEntry& objDAHS : mobjSystemINI->AllDAHS()) {
        if (const std::int32_t* lngLoaded = dicSites.Find(objDAHS.SiteID)) {
            // The selected entry shows up again in the list; only another DAHS of the same site is a mistake.
            if (*lngLoaded != objDAHS.DAHSID) {
                AddMsg(msgtype::error,
                       fmt::format("[OPC-0131] Site {} is already loaded; will not load again; DAHS {} is a duplicate",
                                   objDAHS.SiteID, objDAHS.DAHSID));
            }
        } else if (!SetupSiteDBIL(*mobjDBIL, dicSites, objDAHS)) {
            blnOK = false;
        }
    }
    return blnOK;
}

bool frmOPCQuelm::SetupSiteDBIL(IDBIL& objDBIL, SiteList& dicSites, const DAHSEntry& objDAHS) {
    AddMsg(msgtype::information, fmt::format("[OPC-0208] found site {}, DAHSID {}", objDAHS.SiteID, objDAHS.DAHSID));
    const auto& connections = objDAHS.Connections;
    if (!objDBIL.SetupSite(objDAHS.SiteID, connections[0], connections[1], connections[2], connections[3],
                           connections[4], true, false)) {
        AddMsg(msgtype::error,
               fmt::format("[OPC-0132] DBIL setup failed for site {}, DAHSID {}", objDAHS.SiteID, objDAHS.DAHSID));
        return false;
    }
    dicSites.Add(objDAHS.SiteID, objDAHS.DAHSID);
    return true;
}

// ---- sites and their tags

bool frmOPCQuelm::InitializeSites(const SiteList& dicSites) {
    mdicSiteDataManagers.emplace();
    bool blnOK = true;
    for (const auto& [strSiteID, lngDAHSID] : dicSites) {
        if (!InitializeSite(strSiteID, lngDAHSID)) {
            blnOK = false;
        }
    }
    return blnOK;
}

bool frmOPCQuelm::InitializeSite(const std::string& strSiteID, std::int32_t lngDAHSID) {
    try {
        // No blank before the dashes. Deliberate.
        AddMessage(msgtype::information,
                   fmt::format("[OPC-0115] Loading OPC tag definitions for {}----------", strSiteID), true);
        const auto colOPCDefs = mobjDBIL->ConfigurationReader().LoadOPCDefs(strSiteID);
        // A site without definitions is not a failure. Deliberate.
        if (!colOPCDefs) {
            AddMessage(msgtype::error, "[OPC-0116] Error: could not load OPC tag definitions", true);
            return true;
        }
        if (colOPCDefs->empty()) {
            AddMessage(msgtype::information, "[OPC-0117] No OPC tags are defined", true);
            return true;
        }
        auto objManager = std::make_unique<SiteDataManager>(parts_.Sites);
        if (!objManager->Initialize(this, mobjClock, mobjDBIL, strSiteID, lngDAHSID)) {
            AddMessage(msgtype::error, "[OPC-0118] Error: could not create site data manager", true);
            return false;
        }
        SiteDataManager& objSite = *objManager;
        mdicSiteDataManagers->Add(strSiteID, std::move(objManager));
        CreateTags(objSite, *colOPCDefs);
        objSite.FinishTagCreation();
        return true;
    } catch (...) {
        AddFailure("[OPC-0216] ", true);
        return false;
    }
}

void frmOPCQuelm::CreateTags(SiteDataManager& objManager, const OPCDefCollection& colOPCDefs) {
    ISLIKTags& objSLIKTags = SLIKServer1.SLIKTags();
    for (const OPCDef& objOPCDef : colOPCDefs) {
        if (objOPCDef.TagType() != ombrel::opcDATag) {
            AddMsg(msgtype::error, fmt::format("[OPC-0119] Only OPC DA tags are supported; will not load tag '{}'",
                                               objOPCDef.Tagname()));
        } else if (!objManager.CreateTag(objSLIKTags, objOPCDef)) {
            AddMsg(msgtype::error, fmt::format("[OPC-0120] Could not load OPC tag '{}'", objOPCDef.Tagname()));
        }
    }
}

void frmOPCQuelm::mobjUpdateTagValuesInterval_IntervalExpired() {
    try {
        AddMsg(msgtype::information, "[OPC-0127] Update tag values");
        if (!mdicSiteDataManagers) {
            throw RuntimeError(errors::objectNotSet);
        }
        for (const auto& site : *mdicSiteDataManagers) {
            if (parts_.OnSiteUpdate) {
                parts_.OnSiteUpdate(site.first, false);
            }
            site.second->UpdateTagValues();
            if (parts_.OnSiteUpdate) {
                parts_.OnSiteUpdate(site.first, true);
            }
        }
        SLIKServer1.SetSourcesLost(SLIKServer1.SLIKTags().Count() > 0 &&
                                   std::none_of(mdicSiteDataManagers->begin(), mdicSiteDataManagers->end(),
                                                [](const auto& site) { return site.second->IsAnySourceReached(); }));
    } catch (...) {
        AddFailure("[OPC-0128] ", false);
    }
}

// ---- clients

void frmOPCQuelm::SLIKServer1_OnClientDisconnect(std::int32_t lngRemainingClients) {
    AddMessage(msgtype::information,
               fmt::format("[OPC-0113] Client disconnecting:  remaining clients={}", lngRemainingClients), true);
    if (lngRemainingClients == 0) {
        AddMessage(msgtype::information, "[OPC-0114] Client count is 0, starting shutdown timer", true);
        window_.tmrDisconnect().SetEnabled(true);
        window_.tmrDisconnect().SetInterval(shutdownDelayMilliseconds);
    }
}

void frmOPCQuelm::tmrDisconnect_Timer() {
    if (!SLIKServer1.InUse()) {
        // The timer runs on: an unload that is cancelled is tried again five seconds later.
        Unload();
    } else {
        window_.tmrDisconnect().SetEnabled(false);
        window_.tmrDisconnect().SetInterval(0);
    }
}

// A device read gives what the last update pass stored, never a fresh reading.
void frmOPCQuelm::SLIKServer1_OnRead(std::int32_t lngCount, const std::vector<ISLIKRequestedItem*>& objItems,
                                     std::int32_t& lngError) {
    try {
        AddMsg(msgtype::information, fmt::format("[OPC-0122] OnRead   count={}", lngCount));
        ISLIKTags& objSLIKTags = SLIKServer1.SLIKTags();
        for (std::int32_t i = 0; i < lngCount; ++i) {
            if (static_cast<std::size_t>(i) >= objItems.size()) {
                throw RuntimeError(errors::subscript);
            }
            ISLIKRequestedItem* objRequested = objItems[static_cast<std::size_t>(i)];
            if (objRequested == nullptr) {
                throw RuntimeError(errors::objectNotSet);
            }
            const ISLIKTag& objItem = objSLIKTags.Item(objRequested->Name());
            objRequested->SetVQT(objItem.Value(), objItem.Quality(), objItem.Timestamp());
        }
        lngError = 0;
    } catch (...) {
        AddFailure("[OPC-0123] ", false);
        lngError = comFailure;
    }
}

void frmOPCQuelm::SLIKServer1_OnWrite(std::int32_t lngCount, std::int32_t& lngError) {
    // Refused first: whatever happens to the messages, no write may look accepted.
    lngError = comFailure;
    try {
        AddMsg(msgtype::information, fmt::format("[OPC-0124] OnWrite   count={}", lngCount));
        AddMsg(msgtype::error,
               "[OPC-0125] This application does not support OPC writes; write attempt will be ignored");
    } catch (...) {
        AddFailure("[OPC-0126] ", false);
    }
}

// ---- unloading

bool frmOPCQuelm::Unload() {
    bool blnCancel = false;
    Form_Unload(blnCancel);
    if (!blnCancel) {
        window_.Close();
    }
    return !blnCancel;
}

void frmOPCQuelm::Form_Unload(bool& blnCancel) {
    if (!mobjDBIL) {
        return;
    }
    try {
        AddMsg(msgtype::information, "[OPC-0109] Attempting to unload OPC server...");
        // On every attempt, also when it is cancelled below: clients are asked to let go.
        SLIKServer1.RequestDisconnect("Unloading Server");
        if (SLIKServer1.InUse()) {
            AddMsg(msgtype::information, "[OPC-0110] Server in use; cancelling OPC server unload attempt");
            blnCancel = true;
            return;
        }
        AddMsg(msgtype::information, "[OPC-0111] Unloading of OPC Server complete");
        ReleaseEverything();
    } catch (...) {
        AddFailure("[OPC-0112] ", true);
        mobjDBIL.reset();
    }
}

void frmOPCQuelm::ReleaseEverything() {
    if (mobjEndOfDayInterval) {
        mobjEndOfDayInterval->SetIntervalEnabled(false);
        mobjEndOfDayInterval.reset();
    }
    if (mobjUpdateTagValuesInterval) {
        mobjUpdateTagValuesInterval->SetIntervalEnabled(false);
        mobjUpdateTagValuesInterval.reset();
    }
    if (mdicSiteDataManagers) {
        for (auto& site : *mdicSiteDataManagers) {
            site.second->Shutdown();
            site.second.reset();
        }
        mdicSiteDataManagers.reset();
    }
    if (mobjDBIL) {
        mobjDBIL->Terminate();
        mobjDBIL.reset();
    }
    StopLog();
}

// ---- messages and log

void frmOPCQuelm::AddMessage(std::int32_t lngMsgType, std::string_view strText, bool blnLogFlag) {
    if (LoggingEnabled()) {
        mobjLog->WriteEntry(fmt::format("{} {}", parts_.MessageTypeName(lngMsgType), strText), blnLogFlag);
    }
    AddToMessageList(strText);
}

// Only inside a catch block.
void frmOPCQuelm::AddFailure(std::string_view strPrefix, bool blnLogFlag) {
    AddMessage(msgtype::error, fmt::format("{}{}", strPrefix, currentError().text()), blnLogFlag);
}

// The entry point of IRaiseMsg for the sites' managers and their I/O server links.
void frmOPCQuelm::RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) {
    AddMessage(lngMsgType, strDescription, false);
}

void frmOPCQuelm::CollectMessages(bool blnOn) {
    if (LoggingEnabled()) {
        mobjLog->CollectLines(blnOn);
    }
}

void frmOPCQuelm::AddToMessageList(std::string_view strText) {
    IMessageList& lvMessages = window_.lvMessages();
    const std::int32_t lngCount = lvMessages.Count();
    if (lngCount < maxListedMessages) {
        lvMessages.Add(strText);
        window_.Refresh();
    } else if (lngCount == maxListedMessages) {
        lvMessages.Add("Max messages displayed. See log file.");
    }
}

std::string frmOPCQuelm::LogFilePath(bool blnRollover) const {
    const CivilTime now = civilTime(CurrentTime());
    return fmt::format("{}\\OPCServer {:04}-{:02}-{:02} {:02}.{:02}.{:02}.{:05}{}.log", mobjSystemINI->LogFolder(),
                       now.year, now.month, now.day, now.hour, now.minute, now.second, parts_.InstanceNumber,
                       blnRollover ? "_r" : "");
}

void frmOPCQuelm::StartLog(bool blnRollover) {
    const std::string strFilePath = LogFilePath(blnRollover);
    // No log is open now, so this line reaches the list only. Deliberate.
    AddMsg(msgtype::information, fmt::format("[OPC-0133] Starting log '{}'...", strFilePath));
    mobjLog = parts_.NewLogWriter(*mobjSystemINI);
    // The result isn't looked at: a log that cannot be opened counts as open and tries again with every line.
    mobjLog->Open(strFilePath, applicationTitle, false, true);
}

void frmOPCQuelm::StopLog() {
    if (!mobjLog) {
        return;
    }
    AddMessage(msgtype::information, "[OPC-0134] Stopping log...", true);
    mobjLog->Close();
    mobjLog.reset();
}

// The two day lines go straight to the log: the list shows neither, and they carry no type name.
void frmOPCQuelm::mobjEndOfDayInterval_IntervalExpired() {
    try {
        if (!LoggingEnabled()) {
            return;
        }
        mobjLog->WriteEntry("[OPC-0135] End of day");
        StopLog();
        StartLog(true);
        mobjLog->WriteEntry("[OPC-0136] Start of day", true);
    } catch (...) {
        // Two blanks, unlike the other failure lines. Deliberate.
        AddFailure("[OPC-0137]  ", false);
    }
}

}  // namespace quelm
