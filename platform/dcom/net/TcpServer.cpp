#include "dcom/net/TcpServer.h"

#include <fmt/format.h>
#include <poll.h>
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
#include <system_error>
#include <utility>
#include <vector>

#include "base/Text.h"
#include "base/TimeSource.h"
#include "dcom/net/ConnectionTable.h"
#include "dcom/net/RepeatFilter.h"
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
        : loop(socketLoop),
          timers(timerLoop),
          protocol(protocolSettings),
          settings(std::move(own)),
          lines(timerLoop, [this](std::string_view line) { trouble(line); }),
          connections({settings.maxConnections, settings.maxOfHost, settings.maxOfAccount}, lines) {}

    void trouble(std::string_view line) {
        if (settings.onTrouble) {
            settings.onTrouble(line);
        }
    }
    Listening addListener(int descriptor, rpc::CallHandler& handler);
    void admit(int descriptor, rpc::CallHandler& handler, const Endpoint& remote);
    // kind: of what befell the client, the same for all lines that are repeats of each other.
    void say(std::string_view what, const rpc::Peer& peer, const std::string& kind, std::string_view why) {
        lines.say(std::string(peer.host()), kind, fmt::format("{} OPC client {}: {}", what, peer.remoteAddress, why));
    }

    AsioLoop& loop;
    IMessageLoop& timers;
    const rpc::ServerSettings& protocol;
    TcpSettings settings;
    std::vector<std::shared_ptr<Listener>> listeners;
    RepeatFilter lines;
    ConnectionTable connections;
    std::uint64_t lastPeerId = 0;
};

// ---- One client ----------------------------------------------------------------------------------------------

class TcpServer::Impl::Connection final : public IConnection, public std::enable_shared_from_this<Connection> {
 public:
    Connection(Impl& server, int descriptor, rpc::CallHandler& handler, rpc::Peer peer)
        : server_(server),
          descriptor_(server.loop.context(), descriptor),
          handler_(handler),
          protocol_(server.protocol, handler, std::move(peer)),
          timer_(server.timers.makeTimer([this] { onTimeout(); })) {}

    void start() {
        protocol_.onAnswered([this] { onAnswered(); });
        watch();
        read();
    }

    const rpc::Peer& peer() const override { return protocol_.peer(); }
    const std::string& user() const override { return user_; }
    bool isLoggedOn() const override {
        return protocol_.loggedOn() || server_.protocol.minimumLevel == rpc::AuthLevel::None;
    }
    std::uint64_t lastUse() const override { return lastUse_; }
    bool isSpare() const override {
        return !protocol_.deferred() && !protocol_.waiting() && protocol_.output().empty() &&
               !handler_.holdsAnything(peer());
    }

    // The last thing that happens to a connection; the handler is told once.
    void close(bool abrupt) override {
        if (phase_ == Phase::Closed) {
            return;
        }
        phase_ = Phase::Closed;
        const auto self = shared_from_this();
        pause_.reset();
        timer_.reset();            // waits under way keep this object a little longer than the loops need to live
        asio::error_code ignored;  // the descriptor is gone either way
        descriptor_.close(ignored);
        server_.connections.remove(peer());
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
            server_.say("Dropped", peer(), "failure", error.what());
            close(true);
        }
    }

    template <class Step>
    void wait(stream_descriptor::wait_type what, Step step) {
        // A wait that ends for another reason than it was for (see watchAnew) is one in which nothing was found.
        descriptor_.async_wait(what, [self = shared_from_this(), step](const asio::error_code& /*ignored*/) {
            if (self->phase_ != Phase::Closed) {
                self->guarded([&] { ((*self).*step)(); });
            }
        });
    }

    void watch() { timer_->start(isLoggedOn() ? server_.settings.idleTimeout : server_.settings.logOnTimeout); }

    // False when the connection ends over it.
    bool mayStay() {
        if (!protocol_.loggedOn() || !user_.empty()) {
            return true;
        }
        const std::string& account = protocol_.account();
        user_ = foldCase(std::string_view(account).substr(account.rfind('\\') + 1));
        watch();
        const std::string refusal = server_.connections.refusalOf(*this);
        if (!refusal.empty()) {
            server_.say("Refused", peer(), "account " + user_, refusal);
            close(false);
        }
        return refusal.empty();
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
            protocol_.received(static_cast<std::size_t>(count));
            if (phase_ == Phase::Closed || !mayStay()) {
                return;  // a call ended the whole server, or there is no room
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
        lastUse_ = timeSource().monotonicMilliseconds();
        if (phase_ == Phase::Sending) {
            watch();
            phase_ = Phase::Reading;
            if (const asio::error_code error = watchAnew(descriptor_)) {
                throw std::system_error(error);
            }
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
        if (phase_ != Phase::Closed && mayStay()) {
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

    // A client that holds something may be silent for as long as it likes; by its pings it shows that it lives.
    void onIdle() {
        const std::chrono::milliseconds limit = server_.settings.idleTimeout;
        const std::chrono::milliseconds idle(timeSource().monotonicMilliseconds() - lastUse_);
        if (idle >= limit && isSpare()) {
            return close(false);  // it will come anew, should it have more to ask
        }
        timer_->start(idle < limit ? limit - idle : limit);
    }

    void onTimeout() {
        const auto self = shared_from_this();
        if (phase_ == Phase::Reading && isLoggedOn()) {
            return onIdle();
        }
        const auto seconds = [](std::chrono::milliseconds time) { return static_cast<double>(time.count()) / 1000; };
        if (phase_ == Phase::Reading && protocol_.served()) {
            // A machine that pings without a log-on and keeps its connection for the next time; it will come anew.
        } else if (phase_ == Phase::Reading) {
            server_.say("Dropped", peer(), "no log-on",
                        fmt::format("no log-on within {} s; remedy: check which program connects to this port",
                                    seconds(server_.settings.logOnTimeout)));
        } else if (phase_ == Phase::Sending) {
            server_.say("Dropped", peer(), "replies",
                        fmt::format("it took none of its replies for {} s; remedy: check whether the client program "
                                    "hangs",
                                    seconds(server_.settings.sendTimeout)));
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
    std::string user_;
    std::uint64_t lastUse_ = timeSource().monotonicMilliseconds();
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
        bool roomMade = false;  // for the next one
        for (int i = 0; i < acceptsPerTurn; ++i) {
            Endpoint remote;
            const int client =
                ::accept4(descriptor_.native_handle(), remote.raw(), &remote.size, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (client >= 0) {
                troubled_ = roomMade = false;
                server_.admit(client, handler_, remote);
            } else if (wouldBlock(errno)) {
                break;
            } else if (const int error = errno; isWantOfResources(error)) {
                if (!isSomebodyWaiting()) {
                    break;
                }
                if (roomMade || !makeRoom(error)) {
                    return pause(error);
                }
                roomMade = true;
            }
            // Anything else is the fate of that one client, which was gone before it was accepted.
        }
        wait();
    }

    // Without a descriptor an accept fails the same when nobody is there.
    bool isSomebodyWaiting() {
        pollfd listener{descriptor_.native_handle(), POLLIN, 0};
        return ::poll(&listener, 1, 0) != 0;
    }

    bool makeRoom(int error) {
        return (error == EMFILE || error == ENFILE) &&
               server_.connections.makeRoom(fmt::format("no descriptors are left ({})", std::strerror(error)));
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
    const Endpoint own = Endpoint::ownOf(descriptor);
    const rpc::Peer peer{++lastPeerId, remote.text(), own.host(), own.port()};
    if (const std::string refusal = connections.refusalOf(peer); !refusal.empty()) {
        ::close(descriptor);
        return say("Refused", peer, "no room", refusal);
    }
    setClientOptions(descriptor);
    try {
        const auto connection = std::make_shared<Connection>(*this, descriptor, handler, peer);
        connections.add(connection);
        connection->start();
    } catch (const std::exception& error) {
        ::close(descriptor);  // nobody else can have got this number meanwhile, should it be closed already
        say("Refused", peer, "failure", error.what());
    }
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
    impl_->connections.closeAll();
}

std::size_t TcpServer::connectionCount() const {
    return impl_->connections.size();
}

}  // namespace quelm::dcom::net
