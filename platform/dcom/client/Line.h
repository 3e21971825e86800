#pragma once

// One connection to a server for one purpose: found among several addresses, opened when it is needed, opened anew when
// it has ended meanwhile. Calls wait for their answer.

#include <memory>
#include <optional>
#include <vector>

#include "dcom/client/Core.h"
#include "dcom/client/Explain.h"

namespace quelm::dcom::client {

class Line final : private outgoing::Channel::IOwner {
 public:
    struct Result {
        Fault fault = Fault::None;
        std::vector<std::uint8_t> stub;
    };
    using Stub = std::shared_ptr<const std::vector<std::uint8_t>>;

    // first: the interface that is bound to at once. logsOn: with the session's account.
    Line(Core& core, Purpose purpose, std::vector<outgoing::Address> addresses, const Uuid& first, rpc::AuthLevel level,
         bool logsOn);
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    // Throws Trouble; LogOnRefused where the first call of a connection is denied, because log-ons are answered by
    // that.
    Result call(const rpc::CallTarget& target, const Stub& stub, std::chrono::milliseconds limit);
    // The address that the present or latest connection leads to.
    const outgoing::Address& address() const { return addresses_[good_]; }
    // Why the latest attempt to connect or to call came to nothing.
    rpc::ClientFailure failure() const { return failure_ ? failure_->failure : rpc::ClientFailure::None; }

 private:
    void opened() override { isOpen_ = true; }
    void broken(const outgoing::Trouble& trouble) override { failure_ = trouble; }
    void open();
    bool tryAddress(std::size_t which);
    void refresh();
    std::string who() const;

    Core& core_;
    Purpose purpose_;
    std::vector<outgoing::Address> addresses_;
    Uuid first_;
    rpc::LogOnSettings logOn_;
    std::size_t good_ = 0;
    bool isOpen_ = false;
    bool isProven_ = false;  // a call was answered over it
    std::uint64_t lastUse_ = 0;
    std::optional<outgoing::Trouble> failure_;
    std::unique_ptr<outgoing::Channel> channel_;
};

}  // namespace quelm::dcom::client
