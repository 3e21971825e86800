#include "OPC/Control/RunningServer.h"

#include <fmt/format.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "OPC/Control/Descriptor.h"
#include "OPC/Health/ControlPath.h"

namespace quelm::control {

namespace {

constexpr ::timeval patience{10, 0};  // seconds; a server that is well needs some milliseconds
constexpr double bytesOfMebibyte = 1024.0 * 1024.0;

// Whose members may ask: the group that the socket belongs to, or the usual one where it cannot be seen.
std::string groupOf(const std::string& path) {
    struct stat status {};
    const ::group* const found = ::stat(path.c_str(), &status) == 0 ? ::getgrgid(status.st_gid) : nullptr;
    return found != nullptr ? found->gr_name : "quelm";
}

[[noreturn]] void refuse(const std::string& path, int error) {
    switch (error) {
        case ENOENT:
        case ECONNREFUSED:
            throw NoAnswer(
                fmt::format("the server does not run: nobody answers at {}. It is started by the first "
                            "client's connection, or by: systemctl start quelm-opc-server",
                            path));
        case EACCES:
        case EPERM:
            throw NoAnswer(
                fmt::format("you may not ask the server: {} is for the group '{}'. Run this as root, or "
                            "join the group and log on again: adduser YOU {}",
                            path, groupOf(path), groupOf(path)));
        case EAGAIN:
            throw NoAnswer(fmt::format("the server does not answer at {}: it is stopped, or too many ask it", path));
        default:
            throw NoAnswer(fmt::format("the server cannot be asked at {}: {}", path, std::strerror(error)));
    }
}

void connectTo(const std::string& path, int descriptor) {
    ::sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        refuse(path, ENAMETOOLONG);
    }
    path.copy(address.sun_path, path.size());
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (::connect(descriptor, reinterpret_cast<const ::sockaddr*>(&address), sizeof address) != 0) {
        refuse(path, errno);
    }
}

std::string lineFrom(const std::string& path, int descriptor) {
    constexpr std::size_t pieceSize = 65'536;
    std::string line;
    while (line.empty() || line.back() != '\n') {
        const std::size_t had = line.size();
        if (had > health::longestAnswer) {
            refuse(path, EMSGSIZE);
        }
        line.resize(had + pieceSize);
        const ::ssize_t got = ::recv(descriptor, line.data() + had, pieceSize, 0);
        line.resize(had + static_cast<std::size_t>(got > 0 ? got : 0));
        if (got <= 0) {
            refuse(path, got == 0 ? ECONNRESET : errno);
        }
    }
    return line;
}

std::string text(const Answer& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

double number(const Answer& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_number() ? found->get<double>() : 0;
}

// "2026-11-23 22:31:40 UTC"
std::string timeText(const Answer& object, const char* name) {
    std::string time = text(object, name);
    const std::size_t seconds = std::string_view("2026-11-23T22:31:40").size();
    if (time.size() < seconds) {
        return "never";
    }
    time.resize(seconds);
    time[time.find('T')] = ' ';
    return time + " UTC";
}

std::string count(const Answer& object, const char* name) {
    return fmt::format("{:.0f}", number(object, name));
}

// "1 client", "2 clients"
std::string counted(const Answer& object, const char* name, std::string_view one, std::string_view several) {
    return fmt::format("{} {}", count(object, name), number(object, name) == 1 ? one : several);
}

}  // namespace

Answer askServer(const std::string& path, const Answer& question) {
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.number() < 0) {
        refuse(path, errno);
    }
    connectTo(path, socket.number());
    const std::string asked = question.dump() + '\n';
    if (::send(socket.number(), asked.data(), asked.size(), MSG_NOSIGNAL) != static_cast<::ssize_t>(asked.size())) {
        refuse(path, errno);
    }
    Answer answer = Answer::parse(lineFrom(path, socket.number()), nullptr, false);
    if (!answer.is_object()) {
        refuse(path, EBADMSG);
    }
    if (answer.contains("error")) {
        throw NoAnswer(fmt::format("the server says: {}", text(answer, "error")));
    }
    return answer;
}

std::vector<std::string> statusLines(const Answer& status) {
    std::vector<std::string> lines{
        fmt::format("server   version {}, process {}, runs since {}{}", text(status, "version"),
                    count(status, "process"), timeText(status, "started"),
                    status.value("keepRunning", false) ? ", is kept running" : ""),
        fmt::format("clients  {}, {}, {}; {} calls, {} refused log-ons and calls",
                    counted(status, "clients", "client", "clients"), counted(status, "groups", "group", "groups"),
                    counted(status, "connections", "connection", "connections"), count(status, "calls"),
                    count(status, "refusals")),
        fmt::format("         {} callbacks, {} of them failed; {} under way", count(status, "callbacks"),
                    count(status, "callbacksFailed"),
                    counted(status, "deviceReadWaits", "device read", "device reads")),
        fmt::format("load     {:.1f} MiB of memory; longest turn of the last minute {:.1f} ms",
                    number(status, "memoryBytes") / bytesOfMebibyte, number(status, "longestTurnMilliseconds"))};
    for (const Answer& site : status.value("sites", Answer::array())) {
        lines.push_back(fmt::format("site     {}: {} items: {} good, {} uncertain, {} bad", text(site, "site"),
                                    count(site, "items"), count(site, "good"), count(site, "uncertain"),
                                    count(site, "bad")));
        lines.push_back(fmt::format("         last pass {} in {:.1f} ms, {} since the start",
                                    timeText(site, "lastPass"), number(site, "passMilliseconds"),
                                    count(site, "passes")));
        lines.push_back(fmt::format("         last read of its values {} in {:.1f} ms, {} since the start, {} failed",
                                    timeText(site, "lastSnapshot"), number(site, "snapshotMilliseconds"),
                                    count(site, "snapshots"), count(site, "snapshotsFailed")));
        const std::string why = text(site, "databaseMessage");
        lines.push_back(fmt::format("         database {}{}{}", text(site, "database"), why.empty() ? "" : ": ", why));
    }
    return lines;
}

std::vector<std::string> clientLines(const Answer& clients) {
    std::vector<std::string> lines;
    for (const Answer& client : clients.value("clients", Answer::array())) {
        const std::string name = text(client, "name");
        const std::string account = text(client, "account");
        lines.push_back(fmt::format("{} {}{}, level {}", text(client, "address"),
                                    account.empty() ? "without a log-on" : account,
                                    name.empty() ? "" : fmt::format(" \"{}\"", name), text(client, "level")));
        lines.push_back(fmt::format("    since {}, last call {}, {} calls, {:.1f} KiB held", timeText(client, "since"),
                                    timeText(client, "lastCall"), count(client, "calls"),
                                    number(client, "bytesHeld") / 1024));
        const Answer groups = client.value("groups", Answer::array());
        for (const Answer& group : groups) {
            lines.push_back(fmt::format("    group \"{}\": {}, {} ms, {}, {} active; callbacks: {}",
                                        text(group, "name"), group.value("active", false) ? "active" : "inactive",
                                        count(group, "rateMilliseconds"), counted(group, "items", "item", "items"),
                                        count(group, "activeItems"), text(group, "callbacks")));
        }
        if (const double all = number(client, "groupCount"); all > static_cast<double>(groups.size())) {
            lines.push_back(fmt::format("    and {:.0f} further groups", all - static_cast<double>(groups.size())));
        }
    }
    if (lines.empty()) {
        lines.emplace_back("No client is connected");
    } else if (clients.value("more", false)) {
        lines.emplace_back("There are further clients");
    }
    return lines;
}

}  // namespace quelm::control
