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
#include <fstream>
#include <set>
#include <utility>
#include <vector>

#include "DB Interface Library/SystemINI.h"
#include "DB Interface Library/sql/Sql.h"
#include "OPC/Main/Units.h"
#include "base/RuntimeError.h"
#include "dcom/DcomSettings.h"

extern char** environ;

namespace quelm {
namespace {

namespace fs = std::filesystem;

constexpr const char* account = "quelm";
constexpr const char* ownFolder = "/etc/systemd/system";
constexpr std::array<const char*, 2> packagesFolders{"/usr/lib/systemd/system", "/lib/systemd/system"};
constexpr const char* packagesProgram = "/usr/sbin/Q5OPCServer";
constexpr const char* serviceUnit = "quelm-opc-server.service";
constexpr const char* activationUnit = "quelm-opc-server.socket";
constexpr const char* objectUnit = "quelm-opc-server-objects.socket";
constexpr const char* settingsFile = "settings.conf";
constexpr std::string_view mark = "# Written by \"Q5OPCServer regserver\"";
// What the service cannot see, for its unit hides it.
constexpr std::array hiddenFolders{"/home", "/root", "/run/user", "/tmp", "/var/tmp"};

struct Unit {
    const char* name;
    const char* text;
};
constexpr std::array<Unit, 3> allUnits{
    {{activationUnit, units::activationSocket}, {objectUnit, units::objectSocket}, {serviceUnit, units::service}}};

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

std::string socketSettings(const dcom::DcomSettings& settings, std::uint16_t port) {
    std::string text =
        fmt::format("{} after dcom.conf; run that again when addresses, ports or KeepRunning have changed.\n", mark);
    // Clients find a server that was started with the machine, and its values good.
    if (settings.keepRunning) {
        text += fmt::format("[Unit]\nWants={}\n", serviceUnit);
    }
    text += "[Socket]\nListenStream=\n";
    for (const std::string& address : settings.addresses) {
        text += fmt::format("ListenStream={}:{}\n", address, port);
    }
    return text;
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

std::string serviceSettings(const Registration& registration, const std::set<std::string>& folders) {
    std::string text = fmt::format(
        "{} after Quelm.ini; run that again when folders or databases have changed.\n"
        "[Service]\n",
        mark);
    if (registration.program != packagesProgram) {
        text += fmt::format("ExecStart=\nExecStart={}\n", commandWord(registration.program));
    }
    return text + environmentText(registration) + writableText(folders);
}

// ---- what the settings ask for

// nullptr: the service can see the path.
const char* hiddenFolderOf(const std::string& path) {
    const auto* const hidden = std::find_if(hiddenFolders.begin(), hiddenFolders.end(),
                                            [&](const char* folder) { return isUnder(path, folder); });
    return hidden != hiddenFolders.end() ? *hidden : nullptr;
}

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
        if (const char* const hidden = hiddenFolderOf(folder)) {
            registration.trouble(
                fmt::format("The service cannot see the folder {}; use one outside {}", folder, hidden));
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
    return !registration.onlyFiles && fs::exists("/run/systemd/system");
}

// Runs it and, when it fails, raises what came of that, with what to look at.
void systemctl(std::vector<const char*> arguments, std::string_view consequence) {
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
        fail(
            fmt::format("\"{}\" failed, so {}; \"journalctl -b -u 'quelm-opc-server*'\" says why", shown, consequence));
    }
}

std::string inFolder(const Registration& registration, const char* folder, std::string_view name) {
    return fmt::format("{}{}/{}", registration.destination, folder, name);
}

std::string settingsPath(const Registration& registration, const char* unit) {
    return inFolder(registration, ownFolder, fmt::format("{}.d/{}", unit, settingsFile));
}

bool packageIsThere(const Registration& registration) {
    return std::any_of(packagesFolders.begin(), packagesFolders.end(),
                       [&](const char* folder) { return fs::exists(inFolder(registration, folder, serviceUnit)); });
}

// Whether a file is one of those that are written here, and no administrator's.
bool isOurs(const std::string& path) {
    std::string first;
    return fs::is_regular_file(fs::symlink_status(path)) && std::getline(std::ifstream(path), first) &&
           first.starts_with(mark);
}

void makeFolder(const std::string& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        failOn("create", folder, error.value());
    }
}

// False when it was not there. Settings go with their folder, unless an administrator has put something in it.
bool removeFile(const std::string& path) {
    if (::unlink(path.c_str()) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            return false;
        }
        failOn("remove", path, errno);
    }
    if (path.ends_with(settingsFile)) {
        ::rmdir(fs::path(path).parent_path().c_str());
    }
    return true;
}

// The units themselves: the package's, or else files of our own, which would hide the package's.
void placeUnits(const Registration& registration) {
    const bool packaged = packageIsThere(registration);
    for (const Unit& unit : allUnits) {
        const std::string path = inFolder(registration, ownFolder, unit.name);
        if (packaged && isOurs(path)) {
            removeFile(path);
        } else if (!packaged) {
            writeUnit(path, fmt::format("{}, for the package is not installed.\n{}", mark, unit.text));
        }
    }
}

void startListening() {
    systemctl({"daemon-reload"}, "systemd does not know of the new settings");
    systemctl({"enable", "--quiet", activationUnit, objectUnit}, "the server will not listen after the next boot");
    // Sockets cannot be bound afresh while the service holds them, so it gives way first.
    systemctl({"stop", activationUnit, objectUnit, serviceUnit}, "the server listens as before");
    systemctl({"start", activationUnit, objectUnit},
              "nobody listens for clients; when a port is taken, \"ss -ltnp\" names the program that has it");
}

void checkProgram(const Registration& registration) {
    if (const char* const hidden = hiddenFolderOf(registration.program)) {
        fail(
            fmt::format("The service cannot see the program {}, for {} is out of its sight; install it elsewhere, such "
                        "as {}, and run that",
                        registration.program, hidden, packagesProgram));
    }
    if (!registration.onlyFiles && ::getpwnam(account) == nullptr) {
        fail(
            fmt::format("There is no user \"{0}\" for the server to run as; create it: useradd --system --user-group "
                        "--no-create-home --shell /usr/sbin/nologin {0}",
                        account));
    }
}

}  // namespace

Registration thisProgramsRegistration(std::function<void(std::string_view)> say,
                                      std::function<void(std::string_view)> trouble) {
    Registration result{{}, false, fs::read_symlink("/proc/self/exe").string(), std::move(say), std::move(trouble)};
    const char* const destination = std::getenv("QUELM_DESTDIR");
    if (destination != nullptr && *destination != '\0') {
        result.onlyFiles = true;
        result.destination = fs::weakly_canonical(destination).string();
        if (result.destination == "/") {
            result.destination.clear();
        }
        result.program = onTarget(result.program, result.destination);
    }
    return result;
}

void registerServer(const Registration& registration) {
    checkProgram(registration);
    const dcom::DcomSettings settings = listenSettings(registration);
    for (const Unit& unit : allUnits) {
        makeFolder(fs::path(settingsPath(registration, unit.name)).parent_path());
    }
    placeUnits(registration);
    writeUnit(settingsPath(registration, activationUnit), socketSettings(settings, settings.activationPort));
    writeUnit(settingsPath(registration, objectUnit), socketSettings(settings, settings.objectPort));
    writeUnit(settingsPath(registration, serviceUnit), serviceSettings(registration, writtenFolders(registration)));
    if (systemdRuns(registration)) {
        startListening();
    }
    registration.say(fmt::format(
        "Registered: wrote settings of {}, {} and {} to {}{}; clients are expected on {}, activation port {}, "
        "object port {}",
        activationUnit, objectUnit, serviceUnit, registration.destination, ownFolder,
        fmt::join(settings.addresses, ", "), settings.activationPort, settings.objectPort));
}

void unregisterServer(const Registration& registration) {
    const std::string folder = registration.destination + ownFolder;
    if (fs::exists(folder) && ::access(folder.c_str(), W_OK) != 0) {
        failOn("remove units in", folder, errno);
    }
    bool any = false;
    const auto written = [&](const Unit& unit) { return isOurs(inFolder(registration, ownFolder, unit.name)); };
    if (systemdRuns(registration) &&
        (packageIsThere(registration) || std::any_of(allUnits.begin(), allUnits.end(), written))) {
        systemctl({"disable", "--quiet", activationUnit, objectUnit},
                  "the server will listen again after the next boot");
        systemctl({"stop", activationUnit, objectUnit, serviceUnit}, "the server still listens");
        any = true;
    }
    for (const Unit& unit : allUnits) {
        any = (written(unit) && removeFile(inFolder(registration, ownFolder, unit.name))) || any;
        any = removeFile(settingsPath(registration, unit.name)) || any;
    }
    if (systemdRuns(registration)) {
        systemctl({"daemon-reload"}, "systemd still knows of the old settings");
    }
    registration.say(
        any ? fmt::format("Unregistered: nobody listens any more; removed what regserver wrote to {}", folder)
            : fmt::format("Nothing to unregister in {}", folder));
}

}  // namespace quelm
