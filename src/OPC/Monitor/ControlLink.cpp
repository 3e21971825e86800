#include "OPC/Monitor/ControlLink.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "base/TimeSource.h"

namespace quelm::monitor {
namespace {

constexpr std::uint64_t answerTime = 3000;  // milliseconds
constexpr std::uint64_t restTime = 1000;

std::string words(int error) {
    return std::generic_category().message(error);
}

Json objectFrom(const std::string& line) {
    Json answer = Json::parse(line, nullptr, false);
    if (!answer.is_object()) {
        throw LinkTrouble(Trouble::Failed, "the server's answer cannot be read: it is no JSON object");
    }
    if (const auto error = answer.find("error"); error != answer.end()) {
        throw LinkTrouble(Trouble::Refused, error->is_string() ? error->get<std::string>() : error->dump());
    }
    return answer;
}

}  // namespace

// The connection has ended, as it does when the server was restarted or closed it for being idle.
class ControlLink::Lost : public LinkTrouble {
 public:
    Lost() : LinkTrouble(Trouble::Failed, "the server closed the connection without an answer") {}
};

ControlLink::~ControlLink() {
    close();
}

void ControlLink::close() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
        descriptor_ = -1;
    }
}

Json ControlLink::ask(const Json& request) {
    if (!failure_.empty() && timeSource().monotonicMilliseconds() - failedAt_ < restTime) {
        throw LinkTrouble(Trouble::Failed, failure_);
    }
    failure_.clear();
    // What a browser sent may be no UTF-8.
    const std::string line = request.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
    try {
        return objectFrom(exchange(line));
    } catch (const LinkTrouble& trouble) {
        if (trouble.kind() == Trouble::Failed) {
            close();
            failure_ = trouble.what();
            failedAt_ = timeSource().monotonicMilliseconds();
        }
        throw;
    }
}

std::string ControlLink::exchange(const std::string& line) {
    const std::uint64_t deadline = timeSource().monotonicMilliseconds() + answerTime;
    for (;;) {
        const bool isNew = descriptor_ < 0;
        if (isNew) {
            connect();
        }
        try {
            for (std::size_t sent = 0; sent < line.size();) {
                const ssize_t taken = ::send(descriptor_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
                if (taken >= 0) {
                    sent += static_cast<std::size_t>(taken);
                } else if (errno == EAGAIN) {
                    waitFor(POLLOUT, deadline);
                } else if (errno != EINTR) {
                    throw Lost();
                }
            }
            return receive(deadline);
        } catch (const Lost&) {
            close();
            if (isNew) {
                throw;
            }
        }
    }
}

std::string ControlLink::receive(std::uint64_t deadline) {
    std::string answer;
    char piece[65536];
    while (answer.empty() || answer.back() != '\n') {
        waitFor(POLLIN, deadline);
        const ssize_t got = ::recv(descriptor_, piece, sizeof piece, 0);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
            throw Lost();
        }
        answer.append(piece, got < 0 ? 0 : static_cast<std::size_t>(got));
        if (answer.size() > longestAnswer) {
            throw LinkTrouble(Trouble::Failed, "the server's answer is longer than 4 MiB");
        }
    }
    return answer;
}

void ControlLink::waitFor(short events, std::uint64_t deadline) const {
    for (;;) {
        const std::uint64_t now = timeSource().monotonicMilliseconds();
        pollfd waiting{descriptor_, events, 0};
        const int ready = now >= deadline ? 0 : ::poll(&waiting, 1, static_cast<int>(deadline - now));
        if (ready > 0) {
            return;
        }
        if (ready == 0) {
            throw LinkTrouble(Trouble::Failed,
                              fmt::format("the server did not answer within {} seconds", answerTime / 1000));
        }
        if (errno != EINTR) {
            throw LinkTrouble(Trouble::Failed, "waiting for the server failed: " + words(errno));
        }
    }
}

void ControlLink::connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) {
        throw LinkTrouble(Trouble::Failed, fmt::format("the path of the control socket is too long: {}", path_));
    }
    std::memcpy(address.sun_path, path_.data(), path_.size());
    descriptor_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor_ < 0) {
        throw LinkTrouble(Trouble::Failed, "no socket can be made: " + words(errno));
    }
    if (::connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return;
    }
    const int error = errno;
    close();
    if (error == ENOENT || error == ECONNREFUSED) {
        throw LinkTrouble(Trouble::Stopped, fmt::format("the server is not running: nobody listens on {}", path_));
    }
    if (error == EACCES || error == EPERM) {
        throw LinkTrouble(
            Trouble::Forbidden,
            fmt::format("this user may not use {}; whoever does must be in the group of the file", path_));
    }
    throw LinkTrouble(Trouble::Failed, fmt::format("{} cannot be reached: {}", path_, words(error)));
}

}  // namespace quelm::monitor
