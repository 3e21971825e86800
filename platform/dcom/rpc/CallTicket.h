#pragma once

// Answering a call later: a handler that must wait for somebody (a device read for the plant) takes a ticket from the
// call, keeps it, and completes it when the answer is there.

#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "dcom/Fault.h"

namespace quelm::dcom::rpc {

// Whoever waits for the answer.
class IDeferredAnswer {
 public:
    virtual ~IDeferredAnswer() = default;
    virtual void complete(Fault fault, std::span<const std::uint8_t> stub) = 0;
};

// The right, and the duty, to answer one call. Used and destroyed on the network thread only: who has to ask another
// thread keeps the ticket in a table and sends its number across. Destroyed without an answer, it answers with
// Fault::CallFailed. When the client's connection is gone meanwhile, the ticket is worth nothing and answers nobody.
class CallTicket {
 public:
    CallTicket() = default;
    explicit CallTicket(std::weak_ptr<IDeferredAnswer> answer) : answer_(std::move(answer)) {}
    ~CallTicket() { complete(Fault::CallFailed, {}); }
    CallTicket(CallTicket&& other) noexcept : answer_(std::exchange(other.answer_, {})) {}
    CallTicket& operator=(CallTicket&& other) noexcept {
        if (this != &other) {
            complete(Fault::CallFailed, {});
            answer_ = std::exchange(other.answer_, {});
        }
        return *this;
    }

    // Whether anybody still waits for the answer; where not, the work for it can be left undone.
    bool wanted() const { return !answer_.expired(); }

    // Answers the call: Fault::None with the reply's stub data (copied), or the fault. The connection
    // protects and sends it and goes on with its next call, both after the handler that is running now, so that no
    // handler is called from within this. Later answers of the same ticket go nowhere.
    void complete(Fault fault, std::span<const std::uint8_t> stub) {
        if (const auto answer = std::exchange(answer_, {}).lock()) {
            answer->complete(fault, stub);
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
