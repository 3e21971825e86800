#pragma once

// What all outgoing connections have in common: where they come from, who they log on as, and to whom their trouble is
// told.

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/TimeSource.h"
#include "dcom/ntlm/ClientContext.h"
#include "dcom/outgoing/Dialer.h"
#include "dcom/outgoing/Turns.h"
#include "dcom/rpc/AuthLevel.h"
#include "loop/MessageLoop.h"

namespace quelm::dcom::outgoing {

// May change between two turns of the loop: what is begun later goes by it.
struct CallSettings {
    std::optional<ntlm::ClientAccount> account;  // none: nothing is called but without a log-on
    // The least level of calls that log on; more where the other end asks for it.
    rpc::AuthLevel minimumLevel = rpc::AuthLevel::Integrity;
    bool allowNoLogOn = false;                      // where the account is refused, or there is none
    std::chrono::milliseconds pingPeriod{120'000};  // the other end counts three of them without a ping as our death
    std::string settingsPath;                       // where all this is set, for lines
};

struct Surroundings {
    IDialer& dialer;
    IMessageLoop& loop;
    const CallSettings& settings;
    // Takes a line for the operator: the host that it is about, what makes lines repeats of each other, and the line.
    std::function<void(const std::string& source, const std::string& kind, const std::string& line)> say;
    Turns turns = {};
    // The number of the latest call: a client's process may outlive what is known of it here, and this server, and
    // still hears of no number twice.
    std::uint64_t latestCall = static_cast<std::uint64_t>(timeSource().fileTimeNow());
};

}  // namespace quelm::dcom::outgoing
