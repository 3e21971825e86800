#pragma once

// Keeps the objects that are held of one process alive by pinging them at its machine: one set of them, told of what
// comes and goes, over a connection of its own each time.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "dcom/outgoing/Approach.h"

namespace quelm::dcom::outgoing {

class Pinger final : private Approach::IOwner {
 public:
    // Objects that one ping adds or takes out; the rest follows in the next one at once.
    static constexpr std::size_t mostChanges = 1000;

    // outcome: nullptr for a ping that was answered.
    Pinger(Surroundings& surroundings, std::string client, LogOnTries& tries,
           std::function<void(const Trouble* trouble)> outcome);

    // Where to ping: first the address that knew the process.
    void pingAt(std::vector<Address> resolver) { resolver_ = std::move(resolver); }
    // Holds of one object count.
    void hold(std::uint64_t oid) { ++held_[oid]; }
    void letGo(std::uint64_t oid);

 private:
    void onTimer();
    void opened(Channel& channel) override;
    void lost(const Trouble& trouble) override;
    void exhausted(const Trouble& worst) override;
    void ping(Channel& channel);
    void onSimplePing(Channel& channel, const rpc::CallResult& result);
    void onComplexPing(Channel& channel, const rpc::CallResult& result);
    void onRefused(Channel& channel, std::uint32_t status);
    void onAnswered();

    Surroundings& surroundings_;
    std::string client_;
    LogOnTries& tries_;
    std::vector<Address> resolver_;
    std::function<void(const Trouble*)> outcome_;
    std::map<std::uint64_t, std::size_t> held_;

    // The set as the other end knows it.
    std::uint64_t setId_ = 0;
    std::uint16_t sequence_ = 0;
    std::set<std::uint64_t> known_;
    std::vector<std::uint64_t> adding_;  // by the ping under way
    std::vector<std::uint64_t> removing_;
    bool madeAnew_ = false;  // the set, in this round

    std::unique_ptr<Approach> approach_;
    std::unique_ptr<ITimer> timer_;
};

}  // namespace quelm::dcom::outgoing
