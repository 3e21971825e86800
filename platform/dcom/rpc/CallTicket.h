#pragma once

// Answering a call later: a handler that must wait for somebody (a device read for the plant) takes a ticket from the
// call, keeps it, and completes it when the answer is there.

#include <cstdint>
#include <memory>
#include <span>
#include <utility>

namespace quelm::dcom::rpc {

// What CallHandler::call returns for a call that it has taken a ticket for. Not a status that ever goes out.
inline constexpr std::uint32_t statusDeferred = 0xFFFFFFFF;
// What a client gets for a call whose ticket was thrown away (RPC_S_CALL_FAILED).
inline constexpr std::uint32_t faultCallFailed = 0x000006BE;

// Whoever waits for the answer.
class IDeferredAnswer {
 public:
    virtual ~IDeferredAnswer() = default;
    virtual void complete(std::uint32_t status, std::span<const std::uint8_t> stub) = 0;
};

// The right, and the duty, to answer one call. Used and destroyed on the network thread only: who has to ask another
// thread keeps the ticket in a table and sends its number across. Destroyed without an answer, it answers with
// faultCallFailed. When the client's connection is gone meanwhile, the ticket is worth nothing and answers nobody.
class CallTicket {
 public:
    CallTicket() = default;
    explicit CallTicket(std::weak_ptr<IDeferredAnswer> answer) : answer_(std::move(answer)) {}
    ~CallTicket() { complete(faultCallFailed, {}); }
    CallTicket(CallTicket&& other) noexcept : answer_(std::exchange(other.answer_, {})) {}
    CallTicket& operator=(CallTicket&& other) noexcept {
        if (this != &other) {
            complete(faultCallFailed, {});
            answer_ = std::exchange(other.answer_, {});
        }
        return *this;
    }

    // Whether anybody still waits for the answer; where not, the work for it can be left undone.
    bool wanted() const { return !answer_.expired(); }

    // Answers the call: status 0 with the reply's stub data (copied), or the status for a FAULT PDU. The connection
    // protects and sends it and goes on with its next call, both after the handler that is running now, so that no
    // handler is called from within this. Later answers of the same ticket go nowhere.
    void complete(std::uint32_t status, std::span<const std::uint8_t> stub) {
        if (const auto answer = std::exchange(answer_, {}).lock()) {
            answer->complete(status, stub);
        }
    }

 private:
    std::weak_ptr<IDeferredAnswer> answer_;
};

// Gives the ticket of the call that is being carried out.
class ITicketOffice {
 public:
    virtual ~ITicketOffice() = default;
    virtual CallTicket ticket() = 0;
};

}  // namespace quelm::dcom::rpc
