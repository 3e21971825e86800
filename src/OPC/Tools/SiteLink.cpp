#include "OPC/Tools/SiteLink.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "DB Interface Library/DBIL.h"
#include "DB Interface Library/SystemINI.h"
#include "DB Interface Library/sql/Sql.h"
#include "OPC/Tools/Terminal.h"

namespace quelm::tools {

namespace {

// What the package lets read the settings and the databases.
constexpr std::string_view usersGroup = "quelm";

// What an operator without rights to a file can do; "" for one who has them.
std::string missingRights(const std::string& path) {
    if (access(path.c_str(), R_OK) == 0 || errno != EACCES) {
        return {};
    }
    return fmt::format("; {} is for the group {} only: join it (usermod -aG {} {} as root) and log on again", path,
                       usersGroup, usersGroup, userName());
}

// The same for databases that are files.
std::string missingRights(const std::array<std::string, 5>& connections) {
    for (const std::string& connection : connections) {
        const ConnectionString parsed(connection);
        const std::string* const file = parsed.find("Database");
        if (std::string hint = file == nullptr ? "" : missingRights(*file); !hint.empty()) {
            return hint;
        }
    }
    return {};
}

DAHSEntry findSite(SystemINI& systemINI, const std::string& path, const std::optional<std::string>& site) {
    if (!systemINI.ReadINI(0, true)) {
        throw SiteTrouble("the system INI file cannot be used" + missingRights(path));
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
        throw SiteTrouble(fmt::format("the databases of site '{}' cannot be reached{}", entry.SiteID,
                                      missingRights(entry.Connections)));
    }
    return dbil;
}

}  // namespace

SiteLink::SiteLink(const std::optional<std::string>& ini, const std::optional<std::string>& site, MessageList& messages)
    : messages_(messages) {
    const std::string path = ini.value_or(systemIniPath());
    SystemINI systemINI(path, thisComputer(), showProblem);
    const DAHSEntry entry = findSite(systemINI, path, site);
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
