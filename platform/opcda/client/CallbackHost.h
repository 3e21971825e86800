#pragma once

// What is needed beside calls to be called back: an address for an object of this program, and time for calls to come.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dcom/client/Session.h"

namespace quelm::opcda::client {

// See dcom::client::Session, whose members these are.
class ICallbackHost {
 public:
    virtual ~ICallbackHost() = default;
    virtual std::vector<std::uint8_t> exportObject(const Uuid& iid, dcom::client::ICallback& callback) = 0;
    virtual void withdraw(dcom::client::ICallback& callback) = 0;
    virtual bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) = 0;
    virtual std::string callbackAddress() const = 0;
};

// Of a session, which outlives it.
std::unique_ptr<ICallbackHost> callbacksOf(dcom::client::Session& session);

}  // namespace quelm::opcda::client
