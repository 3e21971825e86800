// Outgoing connections over real sockets of this machine, towards this project's own server.

#include "dcom/net/TcpDialer.h"

#include <gmock/gmock.h>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include "RpcFixture.h"
#include "dcom/net/TcpServer.h"
#include "dcom/rpc/ClientConnection.h"

namespace quelm::dcom::net {
namespace {

using namespace rpc::test;

class TcpDialerTest : public RpcFixture, public outgoing::ILinkEvents {
 protected:
    void connected() override { happened += "connected "; }
    void received(std::span<const std::uint8_t> data) override {
        input.insert(input.end(), data.begin(), data.end());
        if (onInput) {
            onInput();
        }
    }
    void writable() override { happened += "writable "; }
    void ended(std::string_view reason) override {
        happened += fmt::format("ended ({}) ", reason);
        link.reset();
    }

    template <class Condition>
    void runUntil(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << happened;
            loop.context().run_one_for(std::chrono::milliseconds(1));
        }
    }
    void dial(std::uint16_t port) {
        happened.clear();
        link = TcpDialer(loop).dial({"127.0.0.1", port}, *this);
        EXPECT_EQ(happened, "") << "nothing happens within the call";
        runUntil([this] { return !happened.empty(); });
    }

    AsioLoop loop;
    std::unique_ptr<outgoing::ILink> link;
    std::string happened;
    Data input;
    std::function<void()> onInput;
};

TEST_F(TcpDialerTest, CarriesBytesBothWaysAndTellsHowItEnds) {
    settings.minimumLevel = rpc::AuthLevel::None;
    TcpServer server(loop, loop, settings, {});
    const std::uint16_t port = server.listen("127.0.0.1", 0, handler);
    dial(port);
    EXPECT_EQ(happened, "connected ");
    rpc::ClientConnection client({}, interfaceA, 1 << 20);
    const auto flush = [&] { client.sent(link->send(client.output())); };
    onInput = [&] { client.received(std::exchange(input, {})); };
    flush();
    runUntil([&] { return client.idle(); });
    Data answer;
    client.call(
        {interfaceA, 4, {}}, [](ndr::Writer& out) { out.u32(100'000); },
        [&answer](const rpc::CallResult& result) { answer.assign(result.stub.begin(), result.stub.end()); });
    flush();
    runUntil([&] { return !answer.empty(); });
    EXPECT_EQ(answer.size(), 100'000U);
    server.close();
    runUntil([&] { return link == nullptr; });
    EXPECT_EQ(happened, "connected ended () ");
    dial(port);
    EXPECT_EQ(happened, "ended (Connection refused) ");
    link = TcpDialer(loop).dial({"127.0.0.1", port}, *this);
    link.reset();  // before anything has come of it
    loop.context().poll();
    EXPECT_EQ(happened, "ended (Connection refused) ");
}

TEST_F(TcpDialerTest, WaitsForRoomAndSeesABreak) {
    asio::ip::tcp::acceptor acceptor(loop.context(), {asio::ip::address_v4::loopback(), 0});
    dial(acceptor.local_endpoint().port());
    auto other = acceptor.accept();
    const Data large(1 << 20, 0x5A);
    std::size_t filled = 0;
    for (std::size_t count = 1; count != 0; filled += count) {
        count = link->send(large);
    }
    EXPECT_GT(filled, 0U);
    EXPECT_EQ(link->send(large), 0U) << "the other end never reads";
    link->awaitRoom();
    loop.context().poll();
    EXPECT_EQ(happened, "connected ");
    Data taken(filled);
    std::size_t read = 0;
    runUntil([&] {
        read += other.available() != 0 ? other.read_some(asio::buffer(taken)) : 0;
        return happened == "connected writable ";
    });
    onInput = [this] { link.reset(); };  // within its own event
    other.send(asio::buffer("x"));
    runUntil([&] { return link == nullptr; });
    dial(acceptor.local_endpoint().port());
    other = acceptor.accept();
    other.set_option(asio::socket_base::linger(true, 0));
    other.close();
    runUntil([&] { return link == nullptr; });
    EXPECT_EQ(happened, "connected ended (Connection reset by peer) ");
}

}  // namespace
}  // namespace quelm::dcom::net
