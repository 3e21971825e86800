#pragma once

// All processes of clients that this server calls back.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "dcom/orpc/RemoteObjects.h"
#include "dcom/outgoing/Pace.h"
#include "dcom/outgoing/Surroundings.h"

namespace quelm::dcom::outgoing {

class RemoteProcess;

class RemoteProcesses final : public orpc::IRemoteObjects {
 public:
    // A client is one program, or a few on a machine with several displays. Beyond these the one that has failed for
    // longest makes room, and without any that fails the newcomer is refused.
    static constexpr std::size_t mostOfClient = 8;
    // Of the descriptors that a process has unless told otherwise, half are for connections that come in.
    static constexpr std::size_t most = 384;

    explicit RemoteProcesses(Surroundings surroundings);
    ~RemoteProcesses() override;
    RemoteProcesses(const RemoteProcesses&) = delete;
    RemoteProcesses& operator=(const RemoteProcesses&) = delete;

    std::unique_ptr<orpc::IRemoteObject> connect(orpc::RemoteObjectRequest request) override;
    std::size_t processCount() const { return processes_.size(); }

 private:
    using Key = std::tuple<std::string, std::uint64_t>;  // client and OXID

    using Processes = std::map<Key, std::shared_ptr<RemoteProcess>>;

    std::shared_ptr<RemoteProcess> processOf(const orpc::RemoteObjectRequest& request);
    static bool makeRoom(Processes::const_iterator first, Processes::const_iterator last);

    Surroundings surroundings_;
    Pace pace_;
    Processes processes_;
};

}  // namespace quelm::dcom::outgoing
