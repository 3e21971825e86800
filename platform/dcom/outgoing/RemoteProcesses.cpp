#include "dcom/outgoing/RemoteProcesses.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "base/Text.h"
#include "dcom/outgoing/RemoteProcess.h"

namespace quelm::dcom::outgoing {

RemoteProcesses::RemoteProcesses(Surroundings surroundings)
    : surroundings_(std::move(surroundings)), pace_(surroundings_.loop) {}

RemoteProcesses::~RemoteProcesses() {
    for (const auto& [key, process] : std::exchange(processes_, {})) {
        process->close();
    }
}

std::unique_ptr<orpc::IRemoteObject> RemoteProcesses::connect(orpc::RemoteObjectRequest request) {
    const auto process = processOf(request);
    return process != nullptr ? process->add(std::move(request)) : nullptr;
}

// The account is the same in whatever case its client types it.
std::shared_ptr<RemoteProcess> RemoteProcesses::processOf(const orpc::RemoteObjectRequest& request) {
    const std::string client = fmt::format("{}\n{}", request.host, foldCase(request.account));
    const std::uint64_t oxid = request.reference.object.oxid;
    const Key key(client, oxid);
    if (const auto known = processes_.find(key); known != processes_.end()) {
        return known->second;
    }
    const auto first = processes_.lower_bound(Key(client, 0));
    const auto last = processes_.upper_bound(Key(client, UINT64_MAX));
    const auto ofClient = static_cast<std::size_t>(std::distance(first, last));
    const bool isFull = ofClient >= mostOfClient;
    if ((isFull && !makeRoom(first, last)) ||
        (!isFull && processes_.size() >= most && !makeRoom(processes_.begin(), processes_.end()))) {
        surroundings_.say(
            request.host, "too many processes to call back",
            fmt::format(
                "Refused to call back {}: {} programs of {} are called back already; remedy: look for a program "
                "that subscribes again and again",
                request.client, isFull ? ofClient : processes_.size(), isFull ? "this client" : "all clients"));
        return nullptr;
    }
    auto process = std::make_shared<RemoteProcess>(
        surroundings_, pace_, request.host, client, oxid, [this, key](const RemoteProcess& ended) {
            if (const auto it = processes_.find(key); it != processes_.end() && it->second.get() == &ended) {
                processes_.erase(it);
            }
        });
    processes_.emplace(key, process);
    return process;
}

// A program that works is never given up for another one.
bool RemoteProcesses::makeRoom(Processes::const_iterator first, Processes::const_iterator last) {
    std::shared_ptr<RemoteProcess> longest;
    for (; first != last; ++first) {
        const auto since = first->second->failingSince();
        if (since && (longest == nullptr || *since < *longest->failingSince())) {
            longest = first->second;
        }
    }
    if (longest == nullptr) {
        return false;
    }
    longest->makeRoom();
    return true;
}

}  // namespace quelm::dcom::outgoing
