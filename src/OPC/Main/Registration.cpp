#include "OPC/Main/Registration.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <utility>
#include <vector>

#include "DB Interface Library/Sql.h"
#include "DB Interface Library/SystemINI.h"
#include "DCOM/DcomSettings.h"
#include "OPC/Main/Systemd.h"
#include "SLIK-DA/Identity.h"
#include "Shared Types/RuntimeError.h"

extern char** environ;

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr const char* account = "quelm";
constexpr const char* unitFolder = "/etc/systemd/system";
constexpr const char* serviceUnit = "quelm-opc-server.service";
constexpr const char* activationUnit = "quelm-opc-server.socket";
constexpr const char* objectUnit = "quelm-opc-server-objects.socket";
constexpr std::array units{activationUnit, objectUnit, serviceUnit};

[[noreturn]] void fail(const std::string& what) {
    throw RuntimeError(errors::invalidCall, what);
}

[[noreturn]] void failOn(std::string_view what, const std::string& path, int error) {
    const bool rights = error == EACCES || error == EPERM || error == EROFS;
    fail(fmt::format("Cannot {} {}: {}; {}", what, path, std::strerror(error),
                     rights ? "run it as root" : "correct that and run it again"));
}

bool isUnder(const std::string& folder, std::string_view top) {
    return folder == top || folder.rfind(std::string(top) + '/', 0) == 0;
}

// ---- texts of units

// A word in a unit file: quoted, with what systemd would read as its own.
std::string unitWord(std::string_view text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        result += c;
        if (c == '%') {
            result += '%';
        }
    }
    return result + '"';
}

// In a command line a dollar sign is systemd's own too.
std::string commandWord(std::string_view text) {
    std::string result;
    for (const char c : unitWord(text)) {
        result += c;
        if (c == '$') {
            result += '$';
        }
    }
    return result;
}

std::string socketText(const dcom::DcomSettings& settings, std::string_view kind, std::uint16_t port,
                       std::string_view otherUnit) {
    std::string listen;
    for (const std::string& address : settings.addresses) {
        listen += fmt::format("ListenStream={}:{}\n", address, port);
    }
    // FreeBind: an address may come up later than the sockets.
    return fmt::format(
        "# Written by \"Q5OPCServer regserver\" after dcom.conf; run that again when addresses or ports have changed.\n"
        "[Unit]\n"
        "Description={0} ({1} port)\n"
        "Requires={3}\n"
        "\n"
        "[Socket]\n"
        "{2}"
        "FileDescriptorName={1}\n"
        "Service={4}\n"
        "FreeBind=yes\n"
        "NoDelay=yes\n"
        "Backlog=128\n"
        "\n"
        "[Install]\n"
        "WantedBy=sockets.target\n",
        identity::description, kind, listen, otherUnit, serviceUnit);
}

// The path as it is once the destination is the root of a machine.
std::string onTarget(const std::string& path, const std::string& destination) {
    return !destination.empty() && isUnder(path, destination) ? path.substr(destination.size()) : path;
}

// Settings that stand elsewhere than usual.
std::string environmentText(const Registration& registration) {
    std::string text;
    for (const auto& [name, usual] :
         {std::pair{"QUELM_INI", "/etc/quelm/Quelm.ini"}, std::pair{"QUELM_DCOM_CONF", "/etc/quelm/dcom.conf"}}) {
        const char* const value = std::getenv(name);
        if (value == nullptr || *value == '\0') {
            continue;
        }
        const std::string path = onTarget(fs::absolute(value).string(), registration.destination);
        if (path != usual) {
            text += fmt::format("Environment={}\n", unitWord(fmt::format("{}={}", name, path)));
        }
    }
    return text;
}

std::string writableText(const std::set<std::string>& folders) {
    std::string text;
    for (const std::string& folder : folders) {
        // The minus sign: a folder that is gone costs what is in it and not the start.
        text += fmt::format("ReadWritePaths={}\n", unitWord('-' + folder));
    }
    return text;
}

std::string serviceText(const Registration& registration, const std::set<std::string>& folders) {
    // Why some lines are as they are: on SIGTERM clients get eight seconds to leave, and the end in order some more.
    // The limit on starts is off, for a server that cannot start now shall serve again as soon as it can. The sockets
    // come from systemd, so that no right over ports is needed.
    return fmt::format(
        "# Written by \"Q5OPCServer regserver\" after Quelm.ini and dcom.conf; run that again when folders, "
        "databases,\n"
        "# addresses or ports have changed. Additions of your own: systemctl edit {0}\n"
        "[Unit]\n"
        "Description={1}\n"
        "Documentation=man:Q5OPCServer(8)\n"
        "Requires={2} {3}\n"
        "After={2} {3}\n"
        "StartLimitIntervalSec=0\n"
        "\n"
        "[Service]\n"
        "Type=notify\n"
        "ExecStart={4}\n"
        "TimeoutStopSec=20\n"
        "Sockets={2} {3}\n"
        "Restart=on-failure\n"
        "RestartSec=5\n"
        "{5}"
        "User={6}\n"
        "Group={6}\n"
        "UMask=0027\n"
        "LogsDirectory=quelm\n"
        "{7}"
        "ProtectSystem=strict\n"
        "ProtectHome=yes\n"
        "PrivateTmp=yes\n"
        "PrivateDevices=yes\n"
        "ProtectClock=yes\n"
        "ProtectHostname=yes\n"
        "ProtectKernelLogs=yes\n"
        "ProtectKernelModules=yes\n"
        "ProtectKernelTunables=yes\n"
        "ProtectControlGroups=yes\n"
        "ProtectProc=invisible\n"
        "ProcSubset=pid\n"
        "NoNewPrivileges=yes\n"
        "CapabilityBoundingSet=\n"
        "AmbientCapabilities=\n"
        "RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX\n"
        "RestrictNamespaces=yes\n"
        "RestrictRealtime=yes\n"
        "RestrictSUIDSGID=yes\n"
        "LockPersonality=yes\n"
        "MemoryDenyWriteExecute=yes\n"
        "RemoveIPC=yes\n"
        "KeyringMode=private\n"
        "SystemCallArchitectures=native\n"
        "SystemCallFilter=@system-service\n"
        "SystemCallFilter=~@privileged @resources\n"
        "SystemCallErrorNumber=EPERM\n",
        serviceUnit, identity::description, activationUnit, objectUnit, commandWord(registration.program),
        environmentText(registration), account, writableText(folders));
}

// ---- what the settings ask for

// The folders that the server writes to: logs, and databases with the files that stand beside them.
std::set<std::string> writtenFolders(const Registration& registration) {
    std::set<std::string> folders;
    SystemINI ini(systemIniPath(), thisComputer(), registration.trouble);
    if (!ini.ReadINI(0, true)) {
        registration.trouble(fmt::format(
            "{} cannot be used yet; once it can, run \"Q5OPCServer regserver\" again so that the server may write to "
            "its folders",
            systemIniPath()));
        return folders;
    }
    const auto add = [&](const std::string& folder) {
        if (folder.empty() || folder.front() != '/' || folder.find_first_of("\r\n") != std::string::npos) {
            registration.trouble(
                fmt::format("The folder \"{}\" is no absolute path, so the service cannot use it", folder));
            return;
        }
        if (!folders.insert(folder).second) {
            return;
        }
        for (const char* hidden : {"/home", "/root", "/run/user", "/tmp", "/var/tmp"}) {
            if (isUnder(folder, hidden)) {
                registration.trouble(
                    fmt::format("The service cannot see the folder {}; use one outside {}", folder, hidden));
            }
        }
    };
    add(ini.LogFolder());
    for (const DAHSEntry& entry : ini.AllDAHS()) {
        for (const std::string& connection : entry.Connections) {
            const ConnectionString parts(connection);
            const std::string* const driver = parts.find("Driver");
            const std::string* const database = parts.find("Database");
            if (driver != nullptr && database != nullptr && fs::path(*database).is_absolute()) {
                add(fs::path(*database).parent_path().string());
            }
        }
    }
    return folders;
}

dcom::DcomSettings listenSettings(const Registration& registration) {
    dcom::DcomSettings settings = dcom::readDcomSettings(dcom::dcomSettingsPath());
    for (const std::string& problem : settings.problems) {
        registration.trouble(problem);
    }
    if (settings.objectPort == 0) {
        fail(
            fmt::format("{}: [Listen] ObjectPort must be a port of its own, for nobody can listen on \"any\" in the "
                        "server's place; set one, such as 49200",
                        dcom::dcomSettingsPath()));
    }
    return settings;
}

// ---- files and systemd

void writeUnit(const std::string& path, const std::string& text) {
    const std::string fresh = path + ".new";
    const int descriptor = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (descriptor < 0) {
        failOn("write", path, errno);
    }
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    const int error = written < 0 ? errno : ENOSPC;
    const bool complete = written == static_cast<ssize_t>(text.size()) && ::fsync(descriptor) == 0;
    ::close(descriptor);
    if (!complete || ::rename(fresh.c_str(), path.c_str()) != 0) {
        const int reason = complete ? errno : error;
        ::unlink(fresh.c_str());
        failOn("write", path, reason);
    }
}

bool systemdRuns(const Registration& registration) {
    return registration.destination.empty() && fs::exists("/run/systemd/system");
}

void systemctl(const Registration& registration, std::vector<const char*> arguments) {
    std::string shown = "systemctl";
    for (const char* argument : arguments) {
        shown += fmt::format(" {}", argument);
    }
    arguments.insert(arguments.begin(), "systemctl");
    arguments.push_back(nullptr);
    pid_t child = 0;
    int status = -1;
    const int error =
        ::posix_spawnp(&child, "systemctl", nullptr, nullptr, const_cast<char* const*>(arguments.data()), environ);
    while (error == 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (error != 0 || status != 0) {
        registration.trouble(fmt::format("\"{}\" failed; see \"systemctl status {}\"", shown, activationUnit));
    }
}

std::string folderOf(const Registration& registration) {
    return registration.destination + unitFolder;
}

}  // namespace

Registration thisProgramsRegistration(std::function<void(std::string_view)> say,
                                      std::function<void(std::string_view)> trouble) {
    Registration result{{}, fs::read_symlink("/proc/self/exe").string(), std::move(say), std::move(trouble)};
    const char* const destination = std::getenv("QUELM_DESTDIR");
    if (destination != nullptr && *destination != '\0') {
        result.destination = fs::weakly_canonical(destination).string();
        if (result.destination == "/") {
            result.destination.clear();
        }
        result.program = onTarget(result.program, result.destination);
    }
    return result;
}

void registerServer(const Registration& registration) {
    const dcom::DcomSettings settings = listenSettings(registration);
    if (registration.destination.empty() && ::getpwnam(account) == nullptr) {
        fail(
            fmt::format("There is no user \"{0}\" for the server to run as; create it: useradd --system --user-group "
                        "--no-create-home --shell /usr/sbin/nologin {0}",
                        account));
    }
    const std::string folder = folderOf(registration);
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        failOn("create", folder, error.value());
    }
    writeUnit(fmt::format("{}/{}", folder, activationUnit),
              socketText(settings, systemd::activationSocket, settings.activationPort, objectUnit));
    writeUnit(fmt::format("{}/{}", folder, objectUnit),
              socketText(settings, systemd::objectSocket, settings.objectPort, activationUnit));
    writeUnit(fmt::format("{}/{}", folder, serviceUnit), serviceText(registration, writtenFolders(registration)));
    registration.say(
        fmt::format("Registered: wrote {}, {} and {} in {}; clients are expected on {}, activation port "
                    "{}, object port {}",
                    activationUnit, objectUnit, serviceUnit, folder, fmt::join(settings.addresses, ", "),
                    settings.activationPort, settings.objectPort));
    if (systemdRuns(registration)) {
        systemctl(registration, {"daemon-reload"});
        systemctl(registration, {"enable", activationUnit, objectUnit});
        // Sockets cannot be bound afresh while the service holds them, so it gives way first.
        systemctl(registration, {"stop", activationUnit, objectUnit, serviceUnit});
        systemctl(registration, {"start", activationUnit, objectUnit});
    }
}

void unregisterServer(const Registration& registration) {
    const std::string folder = folderOf(registration);
    const auto written = [&](const char* unit) { return fs::exists(fmt::format("{}/{}", folder, unit)); };
    if (std::none_of(units.begin(), units.end(), written)) {
        registration.say(fmt::format("Nothing to unregister in {}", folder));
        return;
    }
    if (::access(folder.c_str(), W_OK) != 0) {
        failOn("remove units in", folder, errno);
    }
    if (systemdRuns(registration)) {
        systemctl(registration, {"disable", activationUnit, objectUnit});
        systemctl(registration, {"stop", activationUnit, objectUnit, serviceUnit});
    }
    for (const char* unit : units) {
        const std::string path = fmt::format("{}/{}", folder, unit);
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
            failOn("remove", path, errno);
        }
    }
    if (systemdRuns(registration)) {
        systemctl(registration, {"daemon-reload"});
    }
    registration.say(fmt::format("Unregistered: removed the units in {}", folder));
}

}  // namespace quelm
