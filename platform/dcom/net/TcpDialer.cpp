#include "dcom/net/TcpDialer.h"

#include <sys/socket.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>

#include "dcom/net/Sockets.h"

namespace quelm::dcom::net {

namespace {

using asio::posix::stream_descriptor;

// Taken from the socket in one turn: a large answer of one end leaves turns to all others.
constexpr std::size_t readAtOnce = 16U << 10U;

// Kept alive by the waits under way, so that an event may end the link that calls it.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
    Connection(AsioLoop& loop, outgoing::ILinkEvents& events) : descriptor_(loop.context()), events_(&events) {}

    void begin(const outgoing::Address& address) {
        const Connecting attempt = beginConnecting(address.host, address.port);
        if (attempt.descriptor < 0) {
            return asio::post(descriptor_.get_executor(),
                              [self = shared_from_this(), error = attempt.error] { self->end(std::strerror(error)); });
        }
        descriptor_.assign(attempt.descriptor);
        wait(stream_descriptor::wait_write, &Connection::onConnected);
    }

    void close() {
        events_ = nullptr;
        asio::error_code ignored;  // the descriptor is gone either way
        descriptor_.close(ignored);
    }

    std::size_t send(std::span<const std::uint8_t> data) {
        ssize_t count = -1;
        do {
            count = ::send(descriptor_.native_handle(), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        } while (count < 0 && errno == EINTR);
        // A connection that broke shows to the reader as well, which then tells of it.
        return count < 0 ? 0 : static_cast<std::size_t>(count);
    }

    void awaitRoom() { wait(stream_descriptor::wait_write, &Connection::onWritable); }

 private:
    template <class Step>
    void wait(stream_descriptor::wait_type what, Step step) {
        descriptor_.async_wait(what, [self = shared_from_this(), step](const asio::error_code& error) {
            if (!error && self->events_ != nullptr) {
                ((*self).*step)();
            }
        });
    }

    void onConnected() {
        int error = 0;
        socklen_t size = sizeof error;
        ::getsockopt(descriptor_.native_handle(), SOL_SOCKET, SO_ERROR, &error, &size);
        if (error != 0) {
            return end(std::strerror(error));
        }
        if (awaitInputAlone()) {
            events_->connected();
        }
    }

    void onWritable() {
        if (awaitInputAlone()) {
            events_->writable();
        }
    }

    // False: that was the end.
    bool awaitInputAlone() {
        if (const asio::error_code error = watchAnew(descriptor_)) {
            end(error.message());
            return false;
        }
        awaitInput();
        return true;
    }

    void awaitInput() { wait(stream_descriptor::wait_read, &Connection::onReadable); }

    void onReadable() {
        std::array<std::uint8_t, readAtOnce> data;
        const ssize_t count = ::recv(descriptor_.native_handle(), data.data(), data.size(), MSG_DONTWAIT);
        if (count == 0) {
            return end({});
        }
        if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            return end(std::strerror(errno));
        }
        awaitInput();
        if (count > 0) {
            events_->received(std::span(data).first(static_cast<std::size_t>(count)));
        }
    }

    void end(std::string_view reason) {
        if (auto* const events = events_) {
            close();
            events->ended(reason);
        }
    }

    stream_descriptor descriptor_;
    outgoing::ILinkEvents* events_;  // none: the link has ended
};

class Link final : public outgoing::ILink {
 public:
    Link(AsioLoop& loop, const outgoing::Address& address, outgoing::ILinkEvents& events)
        : connection_(std::make_shared<Connection>(loop, events)) {
        connection_->begin(address);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    ~Link() override { connection_->close(); }

    std::size_t send(std::span<const std::uint8_t> data) override { return connection_->send(data); }
    void awaitRoom() override { connection_->awaitRoom(); }

 private:
    std::shared_ptr<Connection> connection_;
};

}  // namespace

std::unique_ptr<outgoing::ILink> TcpDialer::dial(const outgoing::Address& address, outgoing::ILinkEvents& events) {
    return std::make_unique<Link>(loop_, address, events);
}

}  // namespace quelm::dcom::net
