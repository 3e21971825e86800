#include "dcom/net/TcpServer.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/write.hpp>
#include <deque>

#include "RpcFixture.h"
#include "base/TimeSource.h"
#include "loop/VirtualLoop.h"

namespace quelm::dcom::net {
namespace {

using namespace rpc::test;
using rpc::PduType;
using testing::_;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Socket {
 public:
    explicit Socket(std::uint16_t port) {
        socket_.connect({asio::ip::address_v4::loopback(), port});
        socket_.non_blocking(true);
    }
    void close() { socket_.close(); }
    void reset() {
        socket_.set_option(asio::socket_base::linger(true, 0));
        close();
    }
    void send(std::span<const std::uint8_t> data) { asio::write(socket_, asio::buffer(data.data(), data.size())); }
    // Appends what is there; false at the end of the stream, and broken() then tells a reset from an orderly end.
    bool receive(Data& into) {
        std::uint8_t buffer[65536];
        const std::size_t count = socket_.read_some(asio::buffer(buffer), error_);
        into.insert(into.end(), buffer, buffer + count);
        return !error_ || error_ == asio::error::would_block;
    }
    bool broken() const { return error_ != asio::error::eof; }

 private:
    asio::io_context context_;
    asio::ip::tcp::socket socket_{context_};
    asio::error_code error_;
};

class TcpServerTest : public RpcFixture {
 protected:
    TcpServerTest() {
        tcp.onTrouble = [this](std::string_view line) { troubles.emplace_back(line); };
    }

    void start() {
        server.emplace(loop, timers, settings, tcp);
        port = server->listen("127.0.0.1", 0, handler);
    }

    template <class Condition>
    void runUntil(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            loop.context().run_one_for(std::chrono::milliseconds(1));
        }
    }
    void runUntilConnections(std::size_t count) {
        runUntil([&] { return server->connectionCount() == count; });
    }
    // What the client has received when so many bytes are there or the stream ends.
    Data receive(Socket& socket, std::size_t atLeast) {
        Data data;
        runUntil([&] { return !socket.receive(data) || data.size() >= atLeast; });
        return data;
    }
    Data roundTrip(Socket& socket, const Data& data) {
        socket.send(data);
        return receive(socket, rpc::headerSize);
    }
    void logOn(Socket& socket, const char* user = "opc") {
        NtlmLogOn client(NtlmLogOn::Kind::V2, user, "secret");
        const auto ack =
            splitReplies(roundTrip(socket, pdu(PduType::Bind, 3, 0, bindBody({{0}}), {2, 1, client.negotiate()})));
        ASSERT_EQ(ack.size(), 1U);
        socket.send(pdu(PduType::Auth3, 3, 0, Data(4), {2, 1, client.authenticate(ack[0].token())}));
        EXPECT_EQ(roundTrip(socket, request({.opnum = 3})).size(), 24U);
    }

    // Connections one after the other, each used later than those before.
    void logOn(std::deque<Socket>& sockets, std::size_t count, const char* user = "opc") {
        for (std::size_t i = 0; i < count; ++i) {
            pass(1);
            logOn(sockets.emplace_back(port), user);
        }
    }
    void pass(std::int64_t milliseconds) {
        time.advanceMilliseconds(milliseconds);
        timers.advance(milliseconds);
    }

    ManualTimeSource time{Date{46348.5}};
    ScopedTimeSource inForce{time};
    AsioLoop loop;
    VirtualLoop timers;
    TcpSettings tcp;
    std::vector<std::string> troubles;
    std::optional<TcpServer> server;
    std::uint16_t port = 0;
};

const Data anonymousBind = pdu(PduType::Bind, 3, 0, bindBody({{0}}, 5840));

TEST_F(TcpServerTest, ServesAndTellsHowConnectionsEnd) {
    start();
    Socket orderly(port);
    Socket reset(port);
    logOn(orderly);
    logOn(reset);
    orderly.close();
    runUntilConnections(1);
    reset.reset();
    runUntilConnections(0);
    Socket open(port);
    runUntilConnections(1);
    server->close();
    EXPECT_THAT(handler.closed, ElementsAre("1 orderly", "2 abrupt", "3 orderly"));
    EXPECT_EQ(handler.calls.size(), 2U);
    EXPECT_THAT(troubles, IsEmpty());
    EXPECT_EQ(timers.pendingTimers(), 0U);
}

TEST_F(TcpServerTest, SaysWhyItCannotListen) {
    start();
    const std::tuple<const char*, std::uint16_t, const char*> cases[] = {
        {"127.0.0.1", port, "address already in use; stop the program that listens there"},
        {"192.0.2.1", 4711, "Cannot listen on 192.0.2.1:4711: no network interface has this address; correct the"},
        {"localhost", 135, "Cannot listen on localhost:135: not a numeric address"},
        {"2001:db8::1", 4711, "Cannot listen on [2001:db8::1]:4711: "},
    };
    for (const auto& [address, number, words] : cases) {
        try {
            server->listen(address, number, handler);
            ADD_FAILURE() << address;
        } catch (const ListenError& error) {
            EXPECT_THAT(error.what(), HasSubstr(words));
        }
    }
    EXPECT_THROW(server->adopt(STDIN_FILENO, handler), ListenError);
}

TEST_F(TcpServerTest, TurnsAwayConnectionsBeyondTheLimit) {
    tcp.maxConnections = 2;
    handler.holders = {1, 3};
    start();
    Socket first(port);
    logOn(first);
    Socket silent(port);
    runUntilConnections(2);
    Socket second(port);
    logOn(second);
    EXPECT_THAT(handler.closed, ElementsAre("2 abrupt"));  // it had not logged on and made room
    for (int i = 0; i < 3; ++i) {
        Socket more(port);
        EXPECT_THAT(receive(more, 1), IsEmpty());
    }
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("has not logged on, and another one comes while 2 connections are"),
                                      HasSubstr("Refused OPC client 127.0.0.1:"),
                                      HasSubstr(": 2 connections are open already; remedy: close clients"), _));
    first.close();
    runUntilConnections(1);
    Socket again(port);
    logOn(again);
}

// The share of a host or of an account is used up: what holds nothing goes, the longest idle first, then the newcomer.
TEST_F(TcpServerTest, NoHostAndNoAccountTakesAllPlaces) {
    accounts.add("*", "other", ntlm::ntHash("secret"));
    tcp.maxOfHost = 5;
    tcp.maxOfAccount = 3;
    handler.holders = {1};
    start();
    std::deque<Socket> sockets;
    logOn(sockets, 2);
    pass(1);
    sockets[1].send(request({.callId = 1, .opnum = 7}));  // waits for its answer
    runUntil([&] { return handler.tickets.size() == 1; });
    logOn(sockets, 2, "OPC");
    EXPECT_THAT(handler.closed, ElementsAre("3 orderly"));
    handler.holders = {1, 4};
    Socket refused(port);
    NtlmLogOn client;
    const auto ack =
        splitReplies(roundTrip(refused, pdu(PduType::Bind, 3, 0, bindBody({{0}}), {2, 1, client.negotiate()})));
    refused.send(pdu(PduType::Auth3, 3, 0, Data(4), {2, 1, client.authenticate(ack[0].token())}));
    EXPECT_THAT(receive(refused, 1), IsEmpty());

    handler.closed.clear();
    logOn(sockets, 3, "other");
    EXPECT_THAT(handler.closed, ElementsAre("6 orderly"));
    handler.holders = {1, 4, 7, 8};
    Socket last(port);
    EXPECT_THAT(receive(last, 1), IsEmpty());
    EXPECT_THAT(troubles,
                ElementsAre(HasSubstr("has been idle for 0 s and holds nothing, and another one comes while 3 conn"),
                            HasSubstr("3 connections of account 'opc' are open already; remedy: give clients"),
                            HasSubstr("and another one comes while 5 connections of its host are open already"),
                            HasSubstr(": 5 connections of its host are open already; remedy: look for a program")));
}

TEST_F(TcpServerTest, ClosesConnectionsWithoutLogOn) {
    start();
    Socket logged(port);
    logOn(logged);
    Socket silent(port);
    runUntilConnections(2);
    timers.advance(29'999);
    EXPECT_EQ(server->connectionCount(), 2U);
    timers.advance(1);
    EXPECT_EQ(server->connectionCount(), 1U);
    EXPECT_THAT(handler.closed, ElementsAre("2 abrupt"));
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("no log-on within 30 s")));
}

TEST_F(TcpServerTest, ClosesIdleConnectionsOfClientsThatHoldNothing) {
    handler.holders = {1};
    start();
    std::deque<Socket> sockets;
    logOn(sockets, 2);
    pass(599'990);
    logOn(sockets[1]);
    pass(599'999);
    EXPECT_THAT(handler.closed, IsEmpty());
    pass(1);
    EXPECT_THAT(handler.closed, ElementsAre("2 orderly"));
    pass(24LL * 3600 * 1000);
    EXPECT_EQ(server->connectionCount(), 1U);
    handler.holders.clear();
    pass(600'000);
    EXPECT_EQ(server->connectionCount(), 0U);
    EXPECT_THAT(troubles, IsEmpty());
}

TEST_F(TcpServerTest, AClientThatTakesItsRepliesLateGetsThemAllAndOneThatTakesNothingIsDropped) {
    settings.minimumLevel = rpc::AuthLevel::None;
    start();
    Socket client(port);
    roundTrip(client, anonymousBind);
    constexpr std::uint32_t size = 6'000'000;
    const auto sendCalls = [&] {
        handler.calls.clear();
        for (int i = 0; i < 3; ++i) {
            client.send(request({.opnum = 4, .stub = Builder().u32(size).data()}));
        }
        runUntil([&] { return !handler.calls.empty() && loop.context().poll() == 0; });  // the server waits for room
        EXPECT_LT(handler.calls.size(), 3U);
    };
    sendCalls();
    Data received;
    constexpr std::size_t pieces = (size + 5815) / 5816;
    constexpr std::size_t expected = 3 * (size + pieces * 24);
    runUntil([&] { return !client.receive(received) || received.size() >= expected; });
    EXPECT_EQ(received.size(), expected);

    sendCalls();
    timers.advance(120'000);
    EXPECT_EQ(server->connectionCount(), 0U);
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("it took none of its replies for 120 s")));
}

TEST_F(TcpServerTest, TheFaultThatEndsAConnectionIsSeen) {
    start();
    Socket client(port);
    Data data = anonymousBind;
    const Data bad = request({.opnum = 3, .flags = 0});
    data.insert(data.end(), bad.begin(), bad.end());
    data.resize(data.size() + 50'000);  // most of it unread when the connection ends
    client.send(data);
    Data received;
    runUntil([&] { return !client.receive(received); });
    EXPECT_FALSE(client.broken());
    const auto replies = splitReplies(received);
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[1].faultStatus(), Fault::Protocol);
    client.close();
    runUntilConnections(0);
}

// Somebody's call waits for the plant: the others are served, and what it sent on meanwhile comes to its turn.
TEST_F(TcpServerTest, ALateAnswerHoldsUpItsOwnConnectionOnly) {
    start();
    Socket waiting(port);
    Socket other(port);
    logOn(waiting);
    logOn(other);
    waiting.send(request({.callId = 1, .opnum = 7}));
    runUntil([&] { return handler.tickets.size() == 1; });
    waiting.send(request({.callId = 2, .opnum = 3}));
    logOn(other);
    EXPECT_EQ(handler.calls.size(), 4U);

    const Data stub(200'000, 0x5A);
    handler.tickets[0].complete(Fault::None, stub);
    Data received;
    const auto isWhole = [&] {
        const auto replies = splitReplies(received);
        return !replies.empty() && replies.back().header.callId == 2;
    };
    runUntil([&] { return !waiting.receive(received) || isWhole(); });
    EXPECT_EQ(handler.calls.size(), 5U);

    waiting.send(request({.callId = 3, .opnum = 7}));
    runUntil([&] { return handler.tickets.size() == 2; });
    waiting.close();
    runUntilConnections(1);
    EXPECT_THAT(handler.closed, ElementsAre("1 orderly"));
    handler.tickets.clear();
    logOn(other);
}

// While it lives no descriptor can be opened.
class NoDescriptors {
 public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &normal_);
        const int lowestFree = ::dup(STDIN_FILENO);
        ::close(lowestFree);
        const rlimit none{static_cast<rlim_t>(lowestFree), normal_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() { end(); }
    void end() const { ::setrlimit(RLIMIT_NOFILE, &normal_); }

 private:
    rlimit normal_{};
};

TEST_F(TcpServerTest, WantOfDescriptorsIsWaitedOut) {
    start();
    Socket client(port);
    const NoDescriptors none;
    for (int i = 0; i < 3; ++i) {
        runUntil([&] { return timers.pendingTimers() == 1; });
        EXPECT_EQ(loop.context().poll(), 0U) << "it must not spin";
        timers.advance(500);
    }
    none.end();
    runUntil([&] {
        timers.advance(500);
        return server->connectionCount() == 1;
    });
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("Cannot accept OPC clients: Too many open files")));
}

TEST_F(TcpServerTest, WantOfDescriptorsCostsWhoeverHoldsNothing) {
    handler.holders = {2};
    start();
    std::deque<Socket> sockets;
    logOn(sockets, 2);
    Socket newcomer(port);
    const NoDescriptors none;
    logOn(newcomer);
    EXPECT_THAT(handler.closed, ElementsAre("1 orderly"));
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("another one comes while no descriptors are left (Too many open")));
}

}  // namespace
}  // namespace quelm::dcom::net
