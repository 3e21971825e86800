// What an operator should know of settings that are right: what they weaken, and whom they keep out.

#include <fmt/format.h>

#include "dcom/DcomSettings.h"

namespace quelm::dcom {

namespace {

// Windows pings every 120 seconds, and one lost ping must not cost its client everything.
constexpr std::uint32_t leastPingTimeout = 240;

bool isLoopback(const std::string& address) {
    return address.rfind("127.", 0) == 0;
}

void noteWhatIsWeakIn(const CallbackSettings& callbacks, std::vector<std::string>& notices) {
    if (callbacks.minimumLevel < rpc::AuthLevel::Integrity) {
        notices.emplace_back(
            "[Callbacks] MinimumLevel = connect: values that clients are called back with are neither signed nor "
            "sealed "
            "where the client asks for no more, and can be altered on their way");
    }
    if (callbacks.allowNoLogOn) {
        notices.emplace_back(
            "[Callbacks] AllowNoLogOn = yes: clients that take no log-on are called back without protection, and "
            "whoever "
            "can change what is on its way can pass for such a client");
    }
}

void noteAboutDomain(DcomSettings& settings) {
    if (settings.letsDomainIn() && settings.access.empty()) {
        settings.notices.emplace_back("[Access] names nobody: every account of the domain is refused");
    }
    if (!settings.letsDomainIn() && !settings.access.empty()) {
        settings.notices.emplace_back("[Access] lets nobody in without [Security] Keytab or Winbind");
    }
}

}  // namespace

void noteWhatIsWeak(DcomSettings& settings) {
    auto& notices = settings.notices;
    for (const std::string& address : settings.addresses) {
        if (!isLoopback(address)) {
            notices.push_back(fmt::format("[Listen] Address = {}: other machines can reach the server", address));
        }
    }
    if (settings.minimumLevel < rpc::AuthLevel::Integrity) {
        notices.emplace_back(
            "[Security] MinimumLevel = connect: calls are neither signed nor sealed and can be "
            "altered on their way");
    }
    if (settings.pingTimeout < leastPingTimeout) {
        notices.push_back(
            fmt::format("[Clients] PingTimeout = {}: Windows clients ping every 120 seconds and may lose their objects "
                        "while they live",
                        settings.pingTimeout));
    }
    if (settings.ntlm.allowNtlmV1Ess) {
        notices.emplace_back("[Security] AllowNTLMv1 = yes: log-ons with NTLMv1 can be broken by who records them");
    }
    if (settings.ntlm.allowAnonymous) {
        notices.emplace_back("[Security] AllowAnonymous = yes: clients can log on without an account");
    } else if (settings.accounts.empty() && !settings.letsDomainIn()) {
        notices.emplace_back("[Accounts] holds no usable account: every client is refused");
    }
    noteAboutDomain(settings);
    if (settings.openServerList) {
        notices.emplace_back(
            "[Security] OpenServerList = yes: whoever reaches this machine can ask which OPC server it has, without a "
            "log-on");
    }
    noteWhatIsWeakIn(settings.callbacks, notices);
}

}  // namespace quelm::dcom
