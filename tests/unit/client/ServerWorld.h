#pragma once

// A server of test objects on real sockets, on the loop of the client that calls it: this project's own server half,
// calls back included. One thread runs both.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "base/TimeSource.h"
#include "dcom/client/Session.h"
#include "dcom/net/TcpDialer.h"
#include "dcom/net/TcpServer.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/outgoing/RemoteProcesses.h"
#include "orpc/OrpcWorld.h"

namespace quelm::dcom::client::test {

using orpc::test::classTest;
using orpc::test::iidBrowse;
using orpc::test::iidNobody;
using orpc::test::iidServer;
using quelm::test::Bytes;
using quelm::test::Parameters;

// Both ports of the server. What a test puts in front answers first.
class Gate final : public rpc::CallHandler {
 public:
    explicit Gate(rpc::CallHandler& behind) : behind_(behind) {}

    std::optional<Uuid> hidden;  // an interface that is not there
    std::function<std::optional<Fault>(const rpc::Call&, ndr::Writer&)> answer;

    bool supports(const Uuid& interfaceId, std::uint16_t major, std::uint16_t minor) override {
        return interfaceId != hidden && behind_.supports(interfaceId, major, minor);
    }
    bool isOpenToAll(const Uuid& interfaceId) override { return behind_.isOpenToAll(interfaceId); }
    Fault call(const rpc::Call& call, ndr::Writer& reply) override {
        const auto answered = answer ? answer(call, reply) : std::nullopt;
        return answered ? *answered : behind_.call(call, reply);
    }
    void connectionClosed(const rpc::Peer& peer, bool abrupt) override { behind_.connectionClosed(peer, abrupt); }

 private:
    rpc::CallHandler& behind_;
};

class ServerWorld : public testing::Test {
 protected:
    ServerWorld() {
        accounts_.add("*", "reader", ntlm::ntHash("secret"));
        wire.logOn.computerName = "SERVER";
        activationPort = tcp.listen("127.0.0.1", 0, activationGate);
        objectPort = tcp.listen("127.0.0.1", 0, objectGate);
        exporter.listenOn(objectPort);
        classes.add(factory);
    }

    // Of an account that the server knows, at integrity.
    static LogOn logOn(rpc::AuthLevel level = rpc::AuthLevel::Integrity, std::string_view password = "secret") {
        return {account("PLANT", "reader", password), level};
    }
    Settings settings() const {
        Settings result;
        result.activationPort = activationPort;
        result.callLimit = std::chrono::seconds(20);  // nothing here waits for it
        return result;
    }

    AsioLoop loop;
    std::vector<std::string> events;  // objects that were let go of
    ntlm::AccountTable accounts_;
    rpc::ServerSettings wire{
        .accounts = accounts_, .logOn = {}, .minimumLevel = rpc::AuthLevel::Connect, .onRefused = {}, .challenge = {}};
    orpc::ObjectExporter exporter{[] {
                                      orpc::ExporterSettings result;
                                      result.minimumLevel = rpc::AuthLevel::Connect;
                                      return result;
                                  }(),
                                  [] { return timeSource().monotonicMilliseconds(); }};
    orpc::ClassRegistry classes;
    std::shared_ptr<orpc::test::TestFactory> factory = std::make_shared<orpc::test::TestFactory>(events);
    orpc::OrpcHandler objects{exporter, [](const Uuid& iid) { return iid == iidServer || iid == iidBrowse; }};
    orpc::ActivationHandler activation{exporter, classes};
    Gate objectGate{objects};
    Gate activationGate{activation};
    net::TcpServer tcp{loop, loop, wire, {}};
    std::uint16_t activationPort = 0;
    std::uint16_t objectPort = 0;
};

}  // namespace quelm::dcom::client::test
