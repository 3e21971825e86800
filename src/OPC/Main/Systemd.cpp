#include "OPC/Main/Systemd.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/RuntimeError.h"

namespace quelm::systemd {
namespace {

constexpr int firstDescriptor = 3;
constexpr int mostDescriptors = 64;  // two for each address, and no machine has that many

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::optional<int> wholeNumber(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

bool listensOnTcp(int descriptor) {
    int listening = 0;
    int protocol = 0;
    socklen_t size = sizeof listening;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0 &&
           ::getsockopt(descriptor, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0 && protocol == IPPROTO_TCP;
}

std::string_view nextName(std::string_view& names) {
    const std::size_t colon = std::min(names.find(':'), names.size());
    const std::string_view name = names.substr(0, colon);
    names.remove_prefix(std::min(colon + 1, names.size()));
    return name;
}

// Empty: the socket is now in its place.
std::string sortIn(PassedSockets& sockets, int descriptor, std::string_view name) {
    if (name != activationSocket && name != objectSocket) {
        return fmt::format("descriptor {} is named \"{:.40}\" and not \"activation\" or \"object\"", descriptor, name);
    }
    if (!listensOnTcp(descriptor)) {
        return fmt::format("descriptor {}, named \"{}\", is not a listening TCP socket", descriptor, name);
    }
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    (name == activationSocket ? sockets.activation : sockets.object).push_back(descriptor);
    return {};
}

[[noreturn]] void refuse(std::string_view reason) {
    throw RuntimeError(errors::invalidCall,
                       fmt::format("The sockets handed over at start cannot be used: {}; write the units afresh with "
                                   "\"Q5OPCServer regserver\"",
                                   reason));
}

}  // namespace

PassedSockets takeSockets() {
    const std::string count = environment("LISTEN_FDS");
    const std::string names = environment("LISTEN_FDNAMES");
    const bool mine = wholeNumber(environment("LISTEN_PID")) == getpid();
    for (const char* name : {"LISTEN_FDS", "LISTEN_FDNAMES", "LISTEN_PID"}) {
        unsetenv(name);
    }
    PassedSockets sockets;
    if (!mine || count.empty()) {
        return sockets;
    }
    const auto number = wholeNumber(count);
    if (!number || *number < 0 || *number > mostDescriptors) {
        refuse(fmt::format("LISTEN_FDS = \"{:.20}\" is no number of sockets", count));
    }
    std::string reason;
    std::string_view rest = names;
    for (int descriptor = firstDescriptor; descriptor < firstDescriptor + *number; ++descriptor) {
        const std::string wrong = sortIn(sockets, descriptor, nextName(rest));
        reason = reason.empty() ? wrong : reason;
    }
    if (reason.empty() && sockets.activation.empty() != sockets.object.empty()) {
        reason = fmt::format("there is none named \"{}\"", sockets.object.empty() ? objectSocket : activationSocket);
    }
    if (!reason.empty()) {
        for (int descriptor = firstDescriptor; descriptor < firstDescriptor + *number; ++descriptor) {
            ::close(descriptor);
        }
        refuse(reason);
    }
    return sockets;
}

void tell(std::string_view news) {
    const std::string path = environment("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path.size() < 2 || path.size() >= sizeof address.sun_path || (path[0] != '/' && path[0] != '@')) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return;
    }
    // A service manager that does not listen costs its own knowledge only.
    static_cast<void>(::sendto(descriptor, news.data(), news.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                               reinterpret_cast<const sockaddr*>(&address),
                               static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size())));
    ::close(descriptor);
}

bool supervised() {
    return !environment("NOTIFY_SOCKET").empty();
}

std::string linePrefix(Priority priority) {
    static const bool journal = [] {
        struct stat status {};
        const std::string stream = environment("JOURNAL_STREAM");
        return !stream.empty() && ::fstat(STDERR_FILENO, &status) == 0 &&
               stream == fmt::format("{}:{}", status.st_dev, status.st_ino);
    }();
    return journal ? fmt::format("<{}>", static_cast<char>(priority)) : "";
}

}  // namespace quelm::systemd
