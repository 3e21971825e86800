#pragma once

// Finds a way to another process: tries its addresses one after the other, each with the account and then, where that
// is allowed, without a log-on, until one is good.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "dcom/outgoing/Channel.h"
#include "dcom/outgoing/Surroundings.h"

namespace quelm::dcom::outgoing {

// What is known of logging on to a process. Each log-on that is refused counts at the account, which a domain may lock.
struct LogOnTries {
    // That may still be refused, until one is taken.
    static constexpr std::size_t most = 3;
    std::size_t left = most;
    // Its machine's resolver answers without one.
    bool isResolverOpen = false;
};

class Approach final : private Channel::IOwner {
 public:
    // Each may end the approach.
    class IOwner {
     public:
        virtual ~IOwner() = default;
        // Try a call; that a log-on was refused may show in its answer only.
        virtual void opened(Channel& channel) = 0;
        // The channel that was opened is of no further use.
        virtual void lost(const Trouble& trouble) = 0;
        // There is no further way. worst: what happened on the way that led farthest.
        virtual void exhausted(const Trouble& worst) = 0;
    };

    // No further way is begun later than this after the first: a round of black holes ends.
    static constexpr std::chrono::milliseconds longest{60'000};

    // client: host and account, who share the turns. tries: outlive the approach. level: of the calls where there is an
    // account.
    Approach(Surroundings& surroundings, std::string client, LogOnTries& tries, std::vector<Address> addresses,
             const Uuid& interfaceId, rpc::AuthLevel level, IOwner& owner);
    Approach(const Approach&) = delete;
    Approach& operator=(const Approach&) = delete;

    void begin();
    // Gives the present way up for this reason and takes the next one.
    void next(const Trouble& trouble);

    Channel& channel() { return *channel_; }
    const Address& address() const { return ways_[way_].address; }
    bool logsOn() const { return ways_[way_].logsOn; }

 private:
    struct Way {
        Address address;
        bool logsOn = false;
    };

    void opened() override;
    void broken(const Trouble& trouble) override;
    bool isWorthTrying(const Way& way) const;
    void tryWay();
    void dial();

    Surroundings& surroundings_;
    std::string client_;
    LogOnTries& tries_;
    Uuid interfaceId_;
    rpc::AuthLevel level_;
    IOwner& owner_;
    std::vector<Way> ways_;
    std::size_t way_ = 0;
    std::uint64_t begun_ = 0;
    Trouble worst_;
    bool hasFailed_ = false;  // on any way yet
    bool isOpen_ = false;
    std::unique_ptr<Channel> channel_;
    std::optional<Turns::Turn> turn_;  // while the channel is being opened
};

}  // namespace quelm::dcom::outgoing
