#pragma once

// One connection to another machine, from the first byte to its end: connects, binds, logs on and carries one call at a
// time, with a time limit for each.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "dcom/outgoing/Deadline.h"
#include "dcom/outgoing/Dialer.h"
#include "dcom/outgoing/Trouble.h"
#include "dcom/rpc/ClientConnection.h"

namespace quelm::dcom::outgoing {

// A machine that is there connects within a second. One that is not would keep others waiting for their turn.
inline constexpr std::chrono::milliseconds connectLimit{5'000};
// Answers that take nobody's decision: to a binding, and of the service that every machine has on port 135.
inline constexpr std::chrono::milliseconds serviceLimit{10'000};
// Answers of a client's program. One that draws its pictures in the thread which takes the callbacks may be busy for
// seconds; after half a minute whoever looks at it would say that it hangs.
inline constexpr std::chrono::milliseconds programLimit{30'000};

// What a channel waits for and takes.
struct ChannelLimits {
    std::chrono::milliseconds connect = connectLimit;
    std::chrono::milliseconds logOn = serviceLimit;
    std::size_t answer = 64U << 10U;  // bytes of a reply's stub data
};

class Channel final : private ILinkEvents {
 public:
    // The last thing that an event does is to call one of these, which may end the channel.
    class IOwner {
     public:
        virtual ~IOwner() = default;
        // Bound and, as far as this end can tell, logged on: ready for a call.
        virtual void opened() = 0;
        // The channel is of no further use, and the call under way is not answered.
        virtual void broken(const Trouble& trouble) = 0;
    };
    using Done = std::function<void(const rpc::CallResult&)>;

    // owner must outlive the channel.
    Channel(IDialer& dialer, IMessageLoop& loop, const Address& address, const rpc::LogOnSettings& logOn,
            const Uuid& firstInterface, IOwner& owner, const ChannelLimits& limits = {});
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // Begins a call, once opened() and while none is under way. parameters: see ClientConnection. step: what it is
    // for. done may end the channel or begin the next call; a channel that breaks before does not call it.
    void call(Step step, const rpc::CallTarget& target, const rpc::ClientConnection::WriteStub& front, Done done,
              std::chrono::milliseconds limit, rpc::ClientConnection::SharedStub more = nullptr);

    Trouble trouble(Reason reason, std::string detail = {}) const;
    // What is wrong with an answer that is a fault, or else cannot be read.
    Trouble troubleOf(const rpc::CallResult& result) const;

 private:
    void connected() override;
    void received(std::span<const std::uint8_t> data) override;
    void writable() override;
    void ended(std::string_view reason) override;
    void flush();
    void goOn();
    void onTimeLimit();
    void fail(const Trouble& trouble);

    Address address_;
    rpc::LogOnSettings logOn_;
    std::optional<ntlm::ClientAccount> account_;  // of the log-on
    Uuid firstInterface_;
    IOwner& owner_;
    Deadline deadline_;
    ChannelLimits limits_;
    std::chrono::milliseconds limit_;
    Step step_ = Step::Connect;
    bool opened_ = false;
    bool awaitsRoom_ = false;
    std::optional<rpc::ClientConnection> connection_;  // once the socket is connected
    Done done_;
    std::optional<rpc::CallResult> result_;  // of the call, until the last of it has been sent
    std::unique_ptr<ILink> link_;
};

}  // namespace quelm::dcom::outgoing
