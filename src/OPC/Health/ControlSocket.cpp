#include "OPC/Health/ControlSocket.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/read_until.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "OPC/Health/ControlPath.h"

namespace quelm::health {

namespace {

using Protocol = asio::local::stream_protocol;

constexpr std::size_t mostConnections = 8;
constexpr std::chrono::seconds idleTime{60};
constexpr std::chrono::seconds takingTime{20};  // for an answer to be taken as a whole
constexpr std::chrono::seconds acceptRetry{1};
constexpr ::mode_t ownerAndGroup = 0660;

std::string reasonOf(int error) {
    return std::strerror(error);
}

}  // namespace

// One peer: reads a line, waits for its answer, sends it, and reads the next line.
class ControlSocket::Connection final : public Asker, public std::enable_shared_from_this<Connection> {
 public:
    Connection(AsioLoop& loop, Answers& answers, Protocol::socket socket)
        : answers_(answers), socket_(std::move(socket)), timer_(loop.makeTimer([this] { close(); })) {}

    void read() {
        timer_->start(idleTime);
        asio::async_read_until(socket_, asio::dynamic_buffer(input_, longestQuestion), '\n',
                               [self = shared_from_this()](const asio::error_code& error, std::size_t size) {
                                   if (error) {
                                       self->close();
                                   } else {
                                       self->ask(size);
                                   }
                               });
    }

    void answer(std::string line) override {
        output_ = std::move(line);
        output_ += '\n';
        timer_->start(takingTime);
        asio::async_write(socket_, asio::buffer(output_),
                          [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                              if (error) {
                                  self->close();
                              } else {
                                  self->output_ = {};
                                  self->read();
                              }
                          });
    }

    void close() {
        timer_->stop();
        asio::error_code ignored;
        socket_.close(ignored);
    }
    bool isOpen() const { return socket_.is_open(); }

 private:
    void ask(std::size_t size) {
        timer_->stop();
        std::string line = input_.substr(0, size - 1);
        input_.erase(0, size);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        answers_.ask(line, shared_from_this());
    }

    Answers& answers_;
    Protocol::socket socket_;
    std::string input_;
    std::string output_;
    std::unique_ptr<ITimer> timer_;
};

struct ControlSocket::Impl {
    Impl(AsioLoop& itsLoop, Answers& itsAnswers)
        : loop(itsLoop),
          answers(itsAnswers),
          acceptor(itsLoop.context()),
          retry(itsLoop.makeTimer([this] { accept(); })) {}

    // Whether a server answers there.
    bool isAnswered(const Protocol::endpoint& endpoint) const {
        asio::error_code error;
        Protocol::socket peer(loop.context());
        peer.connect(endpoint, error);
        return !error;
    }

    std::string open(const std::string& asked) {
        struct stat status {};
        if (asked.size() >= sizeof(sockaddr_un::sun_path)) {
            return fmt::format("the path has more than {} bytes", sizeof(sockaddr_un::sun_path) - 1);
        }
        const Protocol::endpoint endpoint(asked);
        if (::lstat(asked.c_str(), &status) == 0) {
            if (!S_ISSOCK(status.st_mode)) {
                return "there is something else of that name";
            }
            if (isAnswered(endpoint)) {
                return "another server is asked there";
            }
            if (::unlink(asked.c_str()) != 0) {
                return reasonOf(errno);
            }
        }
        asio::error_code error;
        acceptor.open(endpoint.protocol(), error);
        if (!error) {
            acceptor.bind(endpoint, error);
        }
        if (error) {
            acceptor.close();
            return reasonOf(error.value());
        }
        path = asked;
        // Nobody can connect before it listens.
        const bool isOurs = ::chmod(path.c_str(), ownerAndGroup) == 0 && ::lstat(path.c_str(), &status) == 0;
        if (isOurs) {
            acceptor.listen(static_cast<int>(mostConnections), error);
        }
        if (!isOurs || error) {
            std::string reason = reasonOf(isOurs ? error.value() : errno);
            close();
            return reason;
        }
        made = status.st_ino;
        accept();
        return {};
    }

    void accept() {
        acceptor.async_accept([this](const asio::error_code& error, Protocol::socket socket) {
            if (!acceptor.is_open()) {
                return;
            }
            if (error) {
                retry->start(acceptRetry);
                return;
            }
            std::erase_if(connections, [](const auto& each) { return !each->isOpen(); });
            if (connections.size() < mostConnections) {
                connections.push_back(std::make_shared<Connection>(loop, answers, std::move(socket)));
                connections.back()->read();
            } else {
                refuse(socket);
            }
            accept();
        });
    }

    static void refuse(Protocol::socket& socket) {
        constexpr std::string_view reason = "{\"error\":\"too many ask at the same time\"}\n";
        asio::error_code ignored;
        socket.non_blocking(true, ignored);
        socket.write_some(asio::buffer(reason), ignored);
    }

    void close() {
        asio::error_code ignored;
        acceptor.close(ignored);
        retry->stop();
        for (const auto& each : connections) {
            each->close();
        }
        connections.clear();
        struct stat status {};
        if (!path.empty() && ::lstat(path.c_str(), &status) == 0 && (made == 0 || status.st_ino == made)) {
            ::unlink(path.c_str());
        }
        path.clear();
    }

    AsioLoop& loop;
    Answers& answers;
    Protocol::acceptor acceptor;
    std::unique_ptr<ITimer> retry;
    std::vector<std::shared_ptr<Connection>> connections;
    std::string path;  // "": there is none
    ::ino_t made = 0;
};

ControlSocket::ControlSocket(AsioLoop& loop, Answers& answers) : impl_(std::make_unique<Impl>(loop, answers)) {}

ControlSocket::~ControlSocket() {
    close();
}

std::string ControlSocket::open(const std::string& path) {
    return impl_->open(path);
}

void ControlSocket::close() {
    impl_->close();
}

}  // namespace quelm::health
