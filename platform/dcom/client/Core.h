#pragma once

// What the parts of one session share: the loop, the settings, who logs on, and where the server was found.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dcom/client/Session.h"
#include "dcom/client/Waiting.h"
#include "dcom/net/TcpDialer.h"
#include "dcom/orpc/RemoteCalls.h"
#include "dcom/outgoing/Channel.h"
#include "dcom/outgoing/Surroundings.h"

namespace quelm::dcom::client {

class Process;

struct Core {
    Core(AsioLoop& loopIn, std::string hostIn, LogOn logOnIn, Settings settingsIn);
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    // Processes that handles are held of at the same time; a server is one, its enumerator another. One that none is
    // held of keeps its connection for the next until others need the place.
    static constexpr std::size_t mostProcesses = 64;

    void trace(const std::string& line) const {
        if (settings.trace) {
            settings.trace(line);
        }
    }
    // The level that calls have where the other end asks for this one, as a number on the wire.
    rpc::AuthLevel levelFor(std::uint32_t hint) const;
    // logsOn: with the account, where there is one.
    rpc::LogOnSettings logOnSettings(rpc::AuthLevel level, bool logsOn) const;

    // Where the activation is asked for, first where it was answered before. Looks the name up, once. Throws
    // Trouble(Address).
    std::vector<outgoing::Address> activationAddresses();
    // Where to try bindings that the server named: those that lead to where we were connected already, then its other
    // addresses, then its names, the server's own address with their ports last.
    std::vector<outgoing::Address> addressesOf(const std::vector<orpc::StringBinding>& bindings) const;

    // The process of this number, known or new; resolver: where it is asked for if need be. Throws Trouble(Garbage)
    // where there are too many.
    std::shared_ptr<Process> process(std::uint64_t oxid, const std::vector<orpc::StringBinding>& resolver);
    // A handle of what was handed over; see Interface::adopt().
    Interface adopt(const orpc::RemoteReference& reference);

    std::uint64_t random64();
    Uuid randomUuid();
    // Another one for each call.
    orpc::ObjectCallHeader nextHeader(std::uint16_t minorVersion);

    AsioLoop& loop;
    std::string host;
    LogOn logOn;
    Settings settings;
    Waiting waiting;
    net::TcpDialer sockets;
    outgoing::IDialer& dialer;
    outgoing::CallSettings callSettings;
    outgoing::Surroundings surroundings;
    std::vector<std::string> addresses;  // of the host, once looked up
    std::string serverAddress;           // the one that answered
    std::uint64_t ownOxid = 0;           // of this program's own objects, once there are any
    std::map<std::uint64_t, std::shared_ptr<Process>> processes;

 private:
    std::random_device random_;
};

}  // namespace quelm::dcom::client
