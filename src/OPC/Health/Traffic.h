#pragma once

// Who is there and what they do, in plain numbers of the network's thread: the calls as they pass, by who makes them,
// and the clients with their server objects.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "OPC/Health/PlantHealth.h"
#include "dcom/rpc/CallHandler.h"
#include "opcda/Server.h"

namespace quelm::health {

// Of one account on one machine, however many connections and objects it has there.
struct Traffic {
    std::uint64_t calls = 0;
    std::int64_t lastCall = 0;  // UTC, FILETIME; 0: none yet
};

// The longest turn of about the last minute, in milliseconds.
class LongestTurn {
 public:
    void note(double milliseconds) { now_ = milliseconds > now_ ? milliseconds : now_; }
    // Every half minute.
    void goOn() {
        before_ = now_;
        now_ = 0;
    }
    double milliseconds() const { return before_ > now_ ? before_ : now_; }

 private:
    double now_ = 0;
    double before_ = 0;
};

// What all calls pass on their way to the objects.
class CountedCalls final : public dcom::rpc::CallHandler {
 public:
    // Both outlive it.
    CountedCalls(dcom::rpc::CallHandler& real, LongestTurn& longest) : real_(real), longest_(longest) {}

    bool supports(const Uuid& interfaceId, std::uint16_t versionMajor, std::uint16_t versionMinor) override {
        return real_.supports(interfaceId, versionMajor, versionMinor);
    }
    bool isOpenToAll(const Uuid& interfaceId) override { return real_.isOpenToAll(interfaceId); }
    dcom::Fault call(const dcom::rpc::Call& call, dcom::ndr::Writer& reply) override;
    bool holdsAnything(const dcom::rpc::Peer& peer) const override { return real_.holdsAnything(peer); }
    void connectionClosed(const dcom::rpc::Peer& peer, bool abrupt) override {
        connections_.erase(peer.id);
        real_.connectionClosed(peer, abrupt);
    }

    std::uint64_t calls() const { return calls_; }
    // Lives as long as somebody asks for it or calls.
    std::shared_ptr<Traffic> trafficOf(std::string_view host, const std::string& account);

 private:
    struct Caller {
        std::string account;
        std::shared_ptr<Traffic> traffic;
    };
    using Known = std::map<std::string, std::weak_ptr<Traffic>>;

    dcom::rpc::CallHandler& real_;
    LongestTurn& longest_;
    std::uint64_t calls_ = 0;
    std::unordered_map<std::uint64_t, Caller> connections_;  // by peer
    // By host and account. Entries may outlive this object.
    std::shared_ptr<Known> known_ = std::make_shared<Known>();
};

// A client with its server object.
struct Client {
    const opcda::Server* server = nullptr;
    std::string address;  // numeric, without port
    std::string account;
    std::string level;
    std::int64_t since = 0;  // UTC, FILETIME
    std::shared_ptr<const Traffic> traffic;
};

class ClientBook {
 public:
    std::uint64_t add(Client client) {
        clients_.emplace(++last_, std::move(client));
        return last_;
    }
    void remove(std::uint64_t number) { clients_.erase(number); }
    const std::map<std::uint64_t, Client>& all() const { return clients_; }

 private:
    std::map<std::uint64_t, Client> clients_;  // in the order in which they came
    std::uint64_t last_ = 0;
};

}  // namespace quelm::health
