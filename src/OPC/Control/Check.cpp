#include "OPC/Control/Check.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string_view>

#include "Clock Library/Clock.h"
#include "CurrentData Reader/CurrentDataReader.h"
#include "DB Interface Library/DBIL.h"
#include "DB Interface Library/SystemINI.h"
#include "DB Interface Library/sql/Sql.h"
#include "Data Interface/DataInterface.h"
#include "OPC/Control/CheckDomain.h"
#include "OPC/OPC DA Server/OmbrelConstants.h"
#include "OPC/OPC DA Server/SiteDataManager.h"
#include "base/RuntimeError.h"
#include "dcom/DcomSettings.h"
#include "loop/AsioLoop.h"
#include "slikda/SLIKServer.h"

namespace quelm::control {

namespace {

// The errors among a site's messages.
class Errors final : public IRaiseMsg {
 public:
    Errors(CheckResult& result, std::string area) : result_(result), area_(std::move(area)) {}
    void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) override {
        if (lngMsgType == msgtype::error) {
            result_.problems.push_back({area_, std::string(strDescription)});
        }
    }

 private:
    CheckResult& result_;
    std::string area_;
};

class Checker {
 public:
    Checker(const std::string& systemIni, const std::string& dcomConf) : systemIni_(systemIni), dcomConf_(dcomConf) {}

    CheckResult run() {
        SystemINI ini(systemIni_, thisComputer(), [this](std::string_view line) { problem("Quelm.ini", line); });
        const bool isReadable = ini.ReadINI(0, true);
        bool isSelected = false;
        if (isReadable) {
            isSelected = ini.SelectDAHS(0, true);
            if (!isSelected) {
                problem("Quelm.ini", "[OPC-0130] Cannot select DAHS entry in INI file");
            }
            checkLogFolder(ini.LogFolder());
        }
        checkNetwork();
        if (isReadable) {
            checkSites(ini, isSelected);
        }
        return std::move(result_);
    }

 private:
    void problem(std::string_view area, std::string_view text) {
        result_.problems.push_back({std::string(area), std::string(text)});
    }
    void note(std::string_view area, std::string_view text) {
        result_.notes.push_back({std::string(area), std::string(text)});
    }

    void checkLogFolder(std::string folder);
    void checkNetwork();
    void checkPort(const std::string& address, std::uint16_t port);
    void checkSites(const SystemINI& ini, bool isSelected);
    void checkSite(const DAHSEntry& entry, const std::shared_ptr<DBIL>& dbil);
    void checkItems(const DAHSEntry& entry, const std::shared_ptr<DBIL>& dbil, CheckedSite& site);

    const std::string& systemIni_;
    const std::string& dcomConf_;
    CheckResult result_;
    AsioLoop loop_;
    SLIKServer control_{loop_, loop_};
    std::shared_ptr<IClock> clock_ = std::make_shared<Clock>(loop_);
    std::string area_;  // of what the databases' libraries say
};

void Checker::checkLogFolder(std::string folder) {
    std::replace(folder.begin(), folder.end(), '\\', '/');
    if (folder.empty()) {
        return;  // told by whoever reads the file
    }
    if (folder.front() != '/') {
        problem("log", fmt::format("LogFolder {} is no absolute path: where the logs go depends on where the server is "
                                   "started from",
                                   folder));
        return;
    }
    // What is missing is made by the server, in the first folder above that is there.
    std::filesystem::path there = folder;
    std::error_code ignored;
    while (!std::filesystem::exists(there, ignored) && there.has_relative_path()) {
        there = there.parent_path();
    }
    if (!std::filesystem::is_directory(there, ignored)) {
        problem("log", fmt::format("{} is no folder, so that no log can be written to {}", there.string(), folder));
    } else if (access(there.c_str(), W_OK | X_OK) != 0) {
        problem("log",
                fmt::format("Whoever runs this check may not write to {}: {}. The server must be able to, as its "
                            "own user",
                            there.string(), std::strerror(errno)));
    }
}

void Checker::checkNetwork() {
    const dcom::DcomSettings settings = dcom::readDcomSettings(dcomConf_);
    for (const std::string& line : settings.problems) {
        problem("dcom.conf", line);
    }
    for (const std::string& line : settings.notices) {
        if (settings.accounts.empty() && line.starts_with("[Accounts]")) {
            problem("dcom.conf", line);
        } else {
            note("dcom.conf", line);
        }
    }
    for (const std::string& line : domainProblems(settings)) {
        problem("dcom.conf", line);
    }
    for (const std::string& address : settings.addresses) {
        checkPort(address, settings.activationPort);
        if (settings.objectPort != 0) {
            checkPort(address, settings.objectPort);
        }
    }
}

void Checker::checkPort(const std::string& address, std::uint16_t port) {
    sockaddr_in where{};
    where.sin_family = AF_INET;
    where.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &where.sin_addr);
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0) {
        const int error = errno;
        if (error == EADDRINUSE) {
            note("network", fmt::format("{}:{} is in use: by this server or by systemd in its place, or else by a "
                                        "program that \"ss -ltnp\" names",
                                        address, port));
        } else if (error == EACCES) {
            note("network",
                 fmt::format("{}:{} is not for every user to listen on; systemd and root may", address, port));
        } else {
            problem(
                "network",
                fmt::format("Nobody can listen on {}:{}: {}. Correct Address in [Listen] of dcom.conf, or see to the "
                            "network's settings",
                            address, port, std::strerror(error)));
        }
    }
    ::close(descriptor);
}

void Checker::checkSites(const SystemINI& ini, bool isSelected) {
    const auto dbil = std::make_shared<DBIL>(builtInSqlDrivers(ini.DatabaseTimeouts()),
                                             [this](std::string_view line) { problem(area_, line); });
    dbil->Initialize("quelmctl");
    // The selected entry comes first and shows up again in the list.
    std::vector<DAHSEntry> entries = ini.AllDAHS();
    if (isSelected) {
        entries.insert(entries.begin(), ini.SelectedDAHS());
    }
    std::map<std::string, std::int32_t> loaded;
    for (const DAHSEntry& entry : entries) {
        const auto [site, isNew] = loaded.emplace(entry.SiteID, entry.DAHSID);
        if (isNew) {
            checkSite(entry, dbil);
        } else if (site->second != entry.DAHSID) {
            problem("Quelm.ini",
                    fmt::format("[OPC-0131] Site {} is already loaded; will not load again; DAHS {} is a duplicate",
                                entry.SiteID, entry.DAHSID));
        }
    }
    dbil->Terminate();
}

void Checker::checkSite(const DAHSEntry& entry, const std::shared_ptr<DBIL>& dbil) {
    area_ = entry.SiteID;
    CheckedSite site{.siteID = entry.SiteID};
    const auto& connections = entry.Connections;
    if (!dbil->SetupSite(entry.SiteID, connections[0], connections[1], connections[2], connections[3], connections[4],
                         true, false)) {
        problem(area_, fmt::format("[OPC-0132] DBIL setup failed for site {}, DAHSID {}", entry.SiteID, entry.DAHSID));
    } else {
        site.isReached = dbil->TestConnections(entry.SiteID, true, true, false, false, false, true);
        if (site.isReached) {
            checkItems(entry, dbil, site);
        }
    }
    result_.sites.push_back(std::move(site));
}

// The tables that the server reads, and each item as it makes them.
void Checker::checkItems(const DAHSEntry& entry, const std::shared_ptr<DBIL>& dbil, CheckedSite& site) {
    const auto definitions = dbil->ConfigurationReader().LoadOPCDefs(entry.SiteID);
    if (!definitions) {
        return;  // the reason is told
    }
    site.definitions = definitions->size();
    if (definitions->empty()) {
        note(area_, "[OPC-0117] No OPC tags are defined");
        return;
    }
    Errors errors(result_, area_);
    SiteDataManager manager(SiteParts{
        [](IDBIL& of, std::string_view id) { return std::make_unique<DataInterface>(of.ConfigurationReader(), id); },
        [] { return std::make_unique<CurrentDataReader>(); }});
    if (!manager.Initialize(&errors, clock_, dbil, entry.SiteID, entry.DAHSID)) {
        return;
    }
    for (const OPCDef& definition : *definitions) {
        if (definition.TagType() != ombrel::opcDATag) {
            problem(area_, fmt::format("[OPC-0119] Only OPC DA tags are supported; will not load tag '{}'",
                                       definition.Tagname()));
        } else if (manager.CreateTag(control_.SLIKTags(), definition)) {
            ++site.items;
        } else {
            problem(area_, fmt::format("[OPC-0120] Could not load OPC tag '{}'", definition.Tagname()));
        }
    }
    manager.FinishTagCreation();
    try {
        site.fromChannels = dbil->RealtimeDB().ReadCurrentIO(entry.SiteID, false)->Count();
    } catch (...) {
        problem(area_, fmt::format("CurrentIO cannot be read: {}", currentError().text()));
    }
    manager.Shutdown();
}

}  // namespace

CheckResult check(const std::string& systemIni, const std::string& dcomConf) {
    return Checker(systemIni, dcomConf).run();
}

}  // namespace quelm::control
