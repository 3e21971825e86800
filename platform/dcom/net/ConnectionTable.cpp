#include "dcom/net/ConnectionTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>
#include <utility>

#include "base/TimeSource.h"
#include "dcom/Printable.h"

namespace quelm::dcom::net {

namespace {

bool anyConnection(const IConnection&) {
    return true;
}

}  // namespace

void ConnectionTable::add(std::shared_ptr<IConnection> connection) {
    const std::uint64_t id = connection->peer().id;
    connections_.emplace(id, std::move(connection));
}

void ConnectionTable::closeAll() {
    while (!connections_.empty()) {
        const auto connection = connections_.begin()->second;
        connection->close(false);
    }
}

std::string ConnectionTable::refusalOf(const rpc::Peer& newcomer) {
    const auto ofHost = [host = newcomer.host()](const IConnection& one) { return one.peer().host() == host; };
    if (const std::size_t open = count(ofHost); open >= limits_.ofHost) {
        const std::string reason = fmt::format("{} connections of its host are open already", open);
        if (!makeRoomAmong(ofHost, reason)) {
            return reason + "; remedy: look for a program there that opens connections without end";
        }
    }
    if (const std::size_t open = size(); open >= limits_.all) {
        const std::string reason = fmt::format("{} connections are open already", open);
        if (!makeRoomAmong(anyConnection, reason)) {
            return reason +
                   "; remedy: close clients that are not needed, or look for one that opens connections without end";
        }
    }
    return {};
}

std::string ConnectionTable::refusalOf(const IConnection& loggedOn) {
    const auto isAnother = [&loggedOn](const IConnection& one) {
        return &one != &loggedOn && !one.user().empty() && one.user() == loggedOn.user();
    };
    if (const std::size_t open = count(isAnother); open >= limits_.ofUser) {
        const std::string reason =
            fmt::format("{} connections of account '{}' are open already", open, printable(loggedOn.user()));
        if (!makeRoomAmong(isAnother, reason)) {
            return reason +
                   "; remedy: give clients accounts of their own, or look for one that opens connections without end";
        }
    }
    return {};
}

bool ConnectionTable::makeRoom(std::string_view reason) {
    return makeRoomAmong(anyConnection, reason);
}

template <class Condition>
std::size_t ConnectionTable::count(Condition condition) const {
    return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                  [&](const auto& entry) { return condition(*entry.second); }));
}

// Clients that have not logged on must not keep those out that can: the oldest of them goes first. After them the one
// goes that has been idle for longest.
template <class Condition>
bool ConnectionTable::makeRoomAmong(Condition condition, std::string_view reason) {
    const auto order = [](const IConnection& one) {
        return std::tuple(one.isLoggedOn(), one.isLoggedOn() ? one.lastUse() : 0, one.peer().id);
    };
    std::shared_ptr<IConnection> first;
    for (const auto& [id, one] : connections_) {
        if (condition(*one) && (first == nullptr || order(*one) < order(*first)) &&
            (!one->isLoggedOn() || one->isSpare())) {
            first = one;
        }
    }
    if (first != nullptr) {
        spare(*first, reason);
    }
    return first != nullptr;
}

void ConnectionTable::spare(IConnection& connection, std::string_view reason) {
    const rpc::Peer& peer = connection.peer();
    const bool loggedOn = connection.isLoggedOn();
    const std::uint64_t idle = (timeSource().monotonicMilliseconds() - connection.lastUse()) / 1000;
    lines_.say(
        std::string(peer.host()), "spared",
        fmt::format("Dropped OPC client {}: it {}, and another one comes while {}", peer.remoteAddress,
                    loggedOn ? fmt::format("has been idle for {} s and holds nothing", idle) : "has not logged on",
                    reason));
    connection.close(!loggedOn);
}

}  // namespace quelm::dcom::net
