#include "OPC/Tools/SiteLink.h"

#include <fmt/format.h>

#include <algorithm>

#include "DB Interface Library/DBIL.h"
#include "DB Interface Library/SystemINI.h"
#include "OPC/Tools/Terminal.h"

namespace quelm::tools {

namespace {

DAHSEntry findSite(SystemINI& systemINI, const std::optional<std::string>& site) {
    if (!systemINI.ReadINI(0, true)) {
        throw SiteTrouble("the system INI file cannot be used");
    }
    if (!site) {
        if (!systemINI.SelectDAHS(0, true)) {
            throw SiteTrouble("no site is given and none is this computer's own (--site names one)");
        }
        return systemINI.SelectedDAHS();
    }
    std::string known;
    for (const DAHSEntry& entry : systemINI.AllDAHS()) {
        if (entry.SiteID == *site) {
            return entry;
        }
        known.append(known.empty() ? "" : ", ").append(entry.SiteID);
    }
    throw SiteTrouble(fmt::format("there is no site '{}' in the system INI file (it has {})", *site, known));
}

std::shared_ptr<IDBIL> connect(const DAHSEntry& entry, const SqlTimeouts& timeouts) {
    auto dbil = std::make_shared<DBIL>(builtInSqlDrivers(timeouts), showProblem);
    const auto& connections = entry.Connections;
    if (!dbil->Initialize("iosctl") || !dbil->SetupSite(entry.SiteID, connections[0], connections[1], connections[2],
                                                        connections[3], connections[4], true, false)) {
        throw SiteTrouble(fmt::format("site '{}' cannot be set up", entry.SiteID));
    }
    if (!dbil->TestConnections(entry.SiteID, true, true, false, false, false, true)) {
        throw SiteTrouble(fmt::format("the databases of site '{}' cannot be reached", entry.SiteID));
    }
    return dbil;
}

}  // namespace

SiteLink::SiteLink(const std::optional<std::string>& ini, const std::optional<std::string>& site, MessageList& messages)
    : messages_(messages) {
    SystemINI systemINI(ini.value_or(systemIniPath()), thisComputer(), showProblem);
    const DAHSEntry entry = findSite(systemINI, site);
    dbil_ = connect(entry, systemINI.DatabaseTimeouts());
    manager_.Initialize(&messages_, clock_, dbil_, entry.SiteID);
    manager_.EnableReadingCurrentIO();
}

SiteLink::~SiteLink() {
    manager_.Shutdown();
    dbil_->Terminate();
}

std::optional<MessageRecord> SiteLink::record(const std::string& id) {
    return dbil_->RealtimeDB().GetMessageRecord(manager_.SiteID(), id);
}

}  // namespace quelm::tools
