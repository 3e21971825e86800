#include "dcom/net/TcpServer.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <exception>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "dcom/net/Sockets.h"

namespace quelm::dcom::net {

namespace {

using asio::posix::stream_descriptor;

constexpr int acceptsPerTurn = 16;  // so that a rush of new clients leaves turns to the ones that are there
constexpr std::chrono::milliseconds lingerTime{2'000};

bool wouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

struct TcpServer::Impl {
    class Connection;
    class Listener;

    Impl(AsioLoop& socketLoop, IMessageLoop& timerLoop, const rpc::ServerSettings& protocolSettings, TcpSettings own)
        : loop(socketLoop), timers(timerLoop), protocol(protocolSettings), settings(std::move(own)) {}

    void trouble(std::string_view line) {
        if (settings.onTrouble) {
            settings.onTrouble(line);
        }
    }
    Listening addListener(int descriptor, rpc::CallHandler& handler);
    void admit(int descriptor, rpc::CallHandler& handler, const Endpoint& remote);
    bool makeRoom();
    void forget(std::uint64_t id);

    AsioLoop& loop;
    IMessageLoop& timers;
    const rpc::ServerSettings& protocol;
    TcpSettings settings;
    std::vector<std::shared_ptr<Listener>> listeners;
    std::unordered_map<std::uint64_t, std::shared_ptr<Connection>> connections;
    std::uint64_t lastPeerId = 0;
    bool fullReported = false;
};

// ---- One client ----------------------------------------------------------------------------------------------

class TcpServer::Impl::Connection : public std::enable_shared_from_this<Connection> {
 public:
    Connection(Impl& server, int descriptor, rpc::CallHandler& handler, rpc::Peer peer)
        : server_(server),
          descriptor_(server.loop.context(), descriptor),
          handler_(handler),
          protocol_(server.protocol, handler, std::move(peer)),
          timer_(server.timers.makeTimer([this] { onTimeout(); })) {}

    void start() {
        protocol_.onAnswered([this] { onAnswered(); });
        awaitLogOn();
        read();
    }

    std::uint64_t id() const { return protocol_.peer().id; }
    // Also true where calls need no log-on.
    bool loggedOn() const { return protocol_.loggedOn() || server_.protocol.minimumLevel == rpc::AuthLevel::None; }

    // The last thing that happens to a connection; the handler is told once.
    void close(bool abrupt) {
        if (phase_ == Phase::Closed) {
            return;
        }
        phase_ = Phase::Closed;
        const auto self = shared_from_this();
        pause_.reset();
        timer_.reset();            // waits under way keep this object a little longer than the loops need to live
        asio::error_code ignored;  // the descriptor is gone either way
        descriptor_.close(ignored);
        server_.forget(protocol_.peer().id);
        handler_.connectionClosed(protocol_.peer(), abrupt);
    }

 private:
    // Reading and waiting for output to go take turns, so that a client that doesn't take its replies gets no further
    // calls carried out and costs a bounded amount of memory.
    enum class Phase { Reading, Sending, Lingering, Closed };

    template <class Step>
    void guarded(Step step) {
        try {
            step();
        } catch (const std::exception& error) {
            server_.trouble(fmt::format("Dropped OPC client {}: {}", protocol_.peer().remoteAddress, error.what()));
            close(true);
        }
    }

    template <class Step>
    void wait(stream_descriptor::wait_type what, Step step) {
        descriptor_.async_wait(what, [self = shared_from_this(), step](const asio::error_code& error) {
            if (!error && self->phase_ != Phase::Closed) {
                self->guarded([&] { ((*self).*step)(); });
            }
        });
    }

    void awaitLogOn() {
        if (!loggedOn()) {
            timer_->start(server_.settings.logOnTimeout);
        }
    }

    // While an answer is waited for, what comes is only taken as far as there is room for it; that the client is gone
    // shows as well.
    void read() {
        phase_ = Phase::Reading;
        if (!awaitingInput_ && !protocol_.receiveSpace().empty()) {
            awaitingInput_ = true;
            wait(stream_descriptor::wait_read, &Connection::onReadable);
        }
    }

    // A log-on that has to wait is looked at again when its time has come, also when nothing more comes in.
    void waitOut(std::chrono::milliseconds pause) {
        if (!pause_) {
            pause_ = server_.timers.makeTimer([this] { later(&Connection::carryOn); });
        }
        if (!pause_->pending()) {
            pause_->start(pause);
        }
    }

    void onReadable() {
        awaitingInput_ = false;
        const auto space = protocol_.receiveSpace();
        if (phase_ != Phase::Reading || space.empty()) {
            return;  // an answer came in between, and its output goes first
        }
        const ssize_t count = ::recv(descriptor_.native_handle(), space.data(), space.size(), MSG_DONTWAIT);
        if (count > 0) {
            const bool wasLoggedOn = protocol_.loggedOn();
            protocol_.received(static_cast<std::size_t>(count));
            if (phase_ == Phase::Closed) {
                return;  // a call ended the whole server
            }
            if (!wasLoggedOn && protocol_.loggedOn()) {
                timer_->stop();
            }
            if (protocol_.output().empty()) {
                // Nothing goes back that could carry the acknowledgement, and a client that waits for it before it
                // sends the rest (after the last message of a log-on, say) would stand still for 40 ms.
                acknowledgeAtOnce(descriptor_.native_handle());
            }
            send();
        } else if (count == 0) {
            close(false);
        } else if (wouldBlock(errno) || errno == EINTR) {
            read();
        } else {
            close(true);
        }
    }

    void send() {
        while (!protocol_.output().empty()) {
            const auto output = protocol_.output();
            const ssize_t count =
                ::send(descriptor_.native_handle(), output.data(), output.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count >= 0) {
                protocol_.sent(static_cast<std::size_t>(count));
            } else if (wouldBlock(errno)) {
                return awaitRoom();
            } else if (errno != EINTR) {
                return close(true);
            }
        }
        onSent();
    }

    void awaitRoom() {
        phase_ = Phase::Sending;
        timer_->start(server_.settings.sendTimeout);
        wait(stream_descriptor::wait_write, &Connection::send);
    }

    void onSent() {
        if (phase_ == Phase::Sending) {
            timer_->stop();
            awaitLogOn();
            phase_ = Phase::Reading;
        }
        if (protocol_.closing()) {
            linger();
        } else if (protocol_.waiting()) {
            // Calls that came in one go wait for their turn again, so that the other clients get theirs.
            later(&Connection::carryOn);
        } else {
            if (protocol_.pause().count() != 0) {
                waitOut(protocol_.pause());
            }
            read();
        }
    }

    void carryOn() {
        protocol_.process();
        if (phase_ != Phase::Closed) {
            send();
        }
    }

    // A call has got its late answer, perhaps in the middle of another client's call.
    void onAnswered() { later(&Connection::send); }

    // Unless output waits to be taken by then: when it is gone everything else follows.
    template <class Step>
    void later(Step step) {
        asio::post(server_.loop.context(), [self = shared_from_this(), step] {
            if (self->phase_ == Phase::Reading) {
                self->guarded([&] { ((*self).*step)(); });
            }
        });
    }

    // Closing with input unread would reset the connection, and the fault that says why would never be seen.
    void linger() {
        phase_ = Phase::Lingering;
        ::shutdown(descriptor_.native_handle(), SHUT_WR);
        timer_->start(lingerTime);
        wait(stream_descriptor::wait_read, &Connection::discard);
    }

    void discard() {
        std::array<std::uint8_t, 4096> unread{};
        const ssize_t count = ::recv(descriptor_.native_handle(), unread.data(), unread.size(), MSG_DONTWAIT);
        if (count > 0 || (count < 0 && (wouldBlock(errno) || errno == EINTR))) {
            wait(stream_descriptor::wait_read, &Connection::discard);
        } else {
            close(true);
        }
    }

    void onTimeout() {
        const auto self = shared_from_this();
        const auto seconds = [](std::chrono::milliseconds time) { return static_cast<double>(time.count()) / 1000; };
        if (phase_ == Phase::Reading && protocol_.served()) {
            // A machine that pings without a log-on and keeps its connection for the next time; it will come anew.
        } else if (phase_ == Phase::Reading) {
            server_.trouble(
                fmt::format("Dropped OPC client {}: no log-on within {} s; remedy: check which program "
                            "connects to this port",
                            protocol_.peer().remoteAddress, seconds(server_.settings.logOnTimeout)));
        } else if (phase_ == Phase::Sending) {
            server_.trouble(
                fmt::format("Dropped OPC client {}: it took none of its replies for {} s; remedy: check "
                            "whether the client program hangs",
                            protocol_.peer().remoteAddress, seconds(server_.settings.sendTimeout)));
        }
        close(true);
    }

    Impl& server_;
    stream_descriptor descriptor_;
    rpc::CallHandler& handler_;
    rpc::ServerConnection protocol_;
    std::unique_ptr<ITimer> timer_;
    std::unique_ptr<ITimer> pause_;  // made when needed
    Phase phase_ = Phase::Reading;
    bool awaitingInput_ = false;
};

// ---- One listening socket ------------------------------------------------------------------------------------

class TcpServer::Impl::Listener : public std::enable_shared_from_this<Listener> {
 public:
    Listener(Impl& server, int descriptor, rpc::CallHandler& handler)
        : server_(server),
          descriptor_(server.loop.context(), descriptor),
          handler_(handler),
          retry_(server.timers.makeTimer([this] { wait(); })) {
        descriptor_.non_blocking(true);
    }

    void wait() {
        descriptor_.async_wait(stream_descriptor::wait_read,
                               [self = shared_from_this()](const asio::error_code& error) {
                                   if (!error && self->descriptor_.is_open()) {
                                       self->accept();
                                   }
                               });
    }

    void close() {
        retry_.reset();
        asio::error_code ignored;  // the descriptor is gone either way
        descriptor_.close(ignored);
    }

 private:
    void accept() {
        for (int i = 0; i < acceptsPerTurn; ++i) {
            Endpoint remote;
            const int client =
                ::accept4(descriptor_.native_handle(), remote.raw(), &remote.size, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (client >= 0) {
                troubled_ = false;
                server_.admit(client, handler_, remote);
            } else if (wouldBlock(errno)) {
                break;
            } else if (isWantOfResources(errno)) {
                return pause(errno);
            }
            // Anything else is the fate of that one client, which was gone before it was accepted.
        }
        wait();
    }

    static bool isWantOfResources(int error) {
        return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == EBADF ||
               error == EINVAL;
    }

    // The waiting client keeps the socket readable, so that trying again at once would only spin.
    void pause(int error) {
        if (!std::exchange(troubled_, true)) {
            server_.trouble(
                fmt::format("Cannot accept OPC clients: {}; trying again until it works", std::strerror(error)));
        }
        retry_->start(server_.settings.acceptRetry);
    }

    Impl& server_;
    stream_descriptor descriptor_;
    rpc::CallHandler& handler_;
    std::unique_ptr<ITimer> retry_;
    bool troubled_ = false;
};

TcpServer::Listening TcpServer::Impl::addListener(int descriptor, rpc::CallHandler& handler) {
    listeners.push_back(std::make_shared<Listener>(*this, descriptor, handler));
    listeners.back()->wait();
    const Endpoint own = Endpoint::ownOf(descriptor);
    return {own.host(), own.port()};
}

void TcpServer::Impl::admit(int descriptor, rpc::CallHandler& handler, const Endpoint& remote) {
    const std::string client = remote.text();
    if (connections.size() >= settings.maxConnections && !makeRoom()) {
        ::close(descriptor);
        if (!std::exchange(fullReported, true)) {
            trouble(
                fmt::format("Refused OPC client {}: {} connections are open already; remedy: close clients that "
                            "are not needed, or look for one that opens connections without end",
                            client, connections.size()));
        }
        return;
    }
    fullReported = false;
    const Endpoint own = Endpoint::ownOf(descriptor);
    setClientOptions(descriptor);
    try {
        const auto connection = std::make_shared<Connection>(*this, descriptor, handler,
                                                             rpc::Peer{++lastPeerId, client, own.host(), own.port()});
        connections.emplace(lastPeerId, connection);
        connection->start();
    } catch (const std::exception& error) {
        ::close(descriptor);  // nobody else can have got this number meanwhile, should it be closed already
        trouble(fmt::format("Refused OPC client {}: {}", client, error.what()));
    }
}

// Clients that have not logged on must not keep those out that can: the oldest of them goes.
bool TcpServer::Impl::makeRoom() {
    std::shared_ptr<Connection> oldest;
    for (const auto& [id, connection] : connections) {
        if (!connection->loggedOn() && (!oldest || id < oldest->id())) {
            oldest = connection;
        }
    }
    if (oldest) {
        oldest->close(true);
    }
    return oldest != nullptr;
}

void TcpServer::Impl::forget(std::uint64_t id) {
    connections.erase(id);
}

// ---- The server ----------------------------------------------------------------------------------------------

TcpServer::TcpServer(AsioLoop& loop, IMessageLoop& timers, const rpc::ServerSettings& protocol, TcpSettings settings)
    : impl_(std::make_unique<Impl>(loop, timers, protocol, std::move(settings))) {}

TcpServer::~TcpServer() {
    close();
}

std::uint16_t TcpServer::listen(const std::string& address, std::uint16_t port, rpc::CallHandler& handler) {
    return impl_->addListener(openListener(address, port), handler).port;
}

TcpServer::Listening TcpServer::adopt(int descriptor, rpc::CallHandler& handler) {
    checkListener(descriptor);
    return impl_->addListener(descriptor, handler);
}

void TcpServer::close() {
    for (const auto& listener : std::exchange(impl_->listeners, {})) {
        listener->close();
    }
    while (!impl_->connections.empty()) {
        const auto connection = impl_->connections.begin()->second;
        connection->close(false);
    }
}

std::size_t TcpServer::connectionCount() const {
    return impl_->connections.size();
}

}  // namespace quelm::dcom::net
