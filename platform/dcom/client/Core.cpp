#include "dcom/client/Core.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "base/Text.h"
#include "dcom/client/Explain.h"
#include "dcom/client/Names.h"
#include "dcom/client/Process.h"
#include "dcom/outgoing/Candidates.h"

namespace quelm::dcom::client {

namespace {

// Names that the server gives, beyond the one that it was reached by; each may cost a wait for the name service.
constexpr std::size_t mostNames = 2;

outgoing::CallSettings pingSettings(const LogOn& logOn, const Settings& settings) {
    outgoing::CallSettings result;
    result.account = logOn.account;
    result.minimumLevel = logOn.level;
    result.allowNoLogOn = !logOn.account;
    result.pingPeriod = settings.pingPeriod;
    return result;
}

}  // namespace

Core::Core(AsioLoop& loopIn, std::string hostIn, LogOn logOnIn, Settings settingsIn)
    : loop(loopIn),
      host(std::move(hostIn)),
      logOn(std::move(logOnIn)),
      settings(std::move(settingsIn)),
      waiting(loop),
      sockets(loop),
      dialer(settings.dialer != nullptr ? *settings.dialer : sockets),
      callSettings(pingSettings(logOn, settings)),
      surroundings{.dialer = dialer, .loop = loop, .settings = callSettings, .say = {}} {
    if (!settings.lookUp) {
        settings.lookUp = lookUpName;
    }
}

rpc::AuthLevel Core::levelFor(std::uint32_t hint) const {
    if (!logOn.account) {
        return rpc::AuthLevel::None;
    }
    const auto asked = rpc::effectiveLevel(static_cast<std::uint8_t>(std::min<std::uint32_t>(hint, UINT8_MAX)));
    return std::max({rpc::effectiveLevel(static_cast<std::uint8_t>(logOn.level)), asked, rpc::AuthLevel::Connect});
}

rpc::LogOnSettings Core::logOnSettings(rpc::AuthLevel level, bool logsOn) const {
    return logsOn && logOn.account ? rpc::LogOnSettings{&*logOn.account, level, false} : rpc::LogOnSettings{};
}

std::vector<outgoing::Address> Core::activationAddresses() {
    if (addresses.empty()) {
        addresses = settings.lookUp(host);
        if (addresses.empty()) {
            throw Trouble(Trouble::Kind::Address, {},
                          fmt::format("'{}' is not known to the name service as a machine with an IPv4 address; check "
                                      "the spelling, or give the address itself",
                                      host));
        }
        if (addresses.front() != host) {
            trace(fmt::format("{} is {}", host, addresses.front()));
        }
    }
    std::vector<outgoing::Address> result;
    for (const std::string& address : addresses) {
        result.push_back({address, settings.activationPort});
    }
    std::stable_partition(result.begin(), result.end(),
                          [this](const outgoing::Address& address) { return address.host == serverAddress; });
    return result;
}

std::vector<outgoing::Address> Core::addressesOf(const std::vector<orpc::StringBinding>& bindings) const {
    std::vector<orpc::StringBinding> numeric = bindings;
    std::vector<orpc::StringBinding> names;
    for (orpc::StringBinding& binding : numeric) {
        if (equalsIgnoringCase(binding.address, host)) {
            binding.address = serverAddress;
        }
    }
    const auto isName = [](const orpc::StringBinding& binding) { return !isAddress(binding.address); };
    std::copy_if(numeric.begin(), numeric.end(), std::back_inserter(names), isName);
    numeric.erase(std::remove_if(numeric.begin(), numeric.end(), isName), numeric.end());
    const auto isServer = [this](const orpc::StringBinding& binding) { return binding.address == serverAddress; };
    const auto others = std::stable_partition(numeric.begin(), numeric.end(), isServer);
    if (others == numeric.begin()) {  // else names lead nowhere else that is worth a wait
        for (std::size_t i = 0; i < std::min(names.size(), mostNames); ++i) {
            for (std::string& address : settings.lookUp(names[i].address)) {
                numeric.push_back({std::move(address), names[i].port});
            }
        }
        // For the port of names that could not be looked up.
        numeric.insert(numeric.end(), names.begin(), names.end());
    }
    return outgoing::candidates(numeric, serverAddress);
}

std::shared_ptr<Process> Core::process(std::uint64_t oxid, const std::vector<orpc::StringBinding>& resolver) {
    if (const auto known = processes.find(oxid); known != processes.end()) {
        return known->second;
    }
    if (processes.size() >= mostProcesses) {
        std::erase_if(processes,
                      [](const auto& entry) { return entry.second.use_count() == 1 && !entry.second->owesAnything(); });
    }
    if (processes.size() >= mostProcesses) {
        throw garbage(serverAddress, "objects of ever more programs");
    }
    return processes.emplace(oxid, std::make_shared<Process>(*this, oxid, addressesOf(resolver))).first->second;
}

Interface Core::adopt(const orpc::RemoteReference& reference) {
    if (reference.object.ipid == Uuid{}) {
        throw garbage(serverAddress, "a reference to no object");
    }
    if (ownOxid != 0 && reference.object.oxid == ownOxid) {
        throw garbage(serverAddress, "a reference to an object of this program");
    }
    return process(reference.object.oxid, reference.resolver)->handle(reference.iid, reference.object);
}

std::uint64_t Core::random64() {
    return std::uint64_t{random_()} << 32U | random_();
}

Uuid Core::randomUuid() {
    Uuid result;
    const std::uint64_t halves[] = {random64(), random64()};
    std::memcpy(result.bytes.data(), halves, sizeof halves);
    return result;
}

orpc::ObjectCallHeader Core::nextHeader(std::uint16_t minorVersion) {
    return {.minorVersion = std::min(minorVersion, orpc::comMinorVersion), .causality = randomUuid()};
}

}  // namespace quelm::dcom::client
