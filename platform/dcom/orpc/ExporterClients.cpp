// The exporter's clients: who calls over which connection, who may call which object, and who becomes one with whom.

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Text.h"
#include "dcom/orpc/ObjectExporter.h"

namespace quelm::dcom::orpc {

namespace {

std::string userKey(const std::string& host, const std::string& account) {
    return host + ' ' + foldCase(std::string_view(account).substr(account.find('\\') + 1));
}

bool isSameAccount(const std::string& left, const std::string& right) {
    return left == right || equalsIgnoringCase(left, right);
}

}  // namespace

std::string hostOf(const rpc::Peer& peer) {
    return peer.remoteAddress.substr(0, peer.remoteAddress.rfind(':'));
}

std::size_t ObjectExporter::clientCount() const {
    return static_cast<std::size_t>(std::count_if(clients_.begin(), clients_.end(),
                                                  [](const auto& entry) { return !entry.second->objects.empty(); }));
}

ObjectExporter::Holder* ObjectExporter::Object::holderOf(const Client* client) {
    for (Holder& holder : holders) {
        if (holder.client == client) {
            return &holder;
        }
    }
    return nullptr;
}

ObjectExporter::Client& ObjectExporter::addClient(const rpc::Peer& peer, const std::string& account) {
    auto client = std::make_unique<Client>();
    client->id = ++lastClient_;
    client->host = hostOf(peer);
    client->account = account;
    client->userKey = userKey(client->host, account);
    client->user = &users_[client->userKey];
    ++client->user->clients;
    client->since = client->lastSign = now_;
    return *(clients_[client->id] = std::move(client));
}

ClientId ObjectExporter::newClient(const rpc::Peer& peer, const std::string& account) {
    return addClient(peer, account).id;
}

ClientId ObjectExporter::clientOf(const rpc::Peer& peer, const std::string& account) {
    Client* client = connectedClient(peer, account);
    if (client == nullptr) {
        client = &addClient(peer, account);
        connect(*client, peer);
    }
    return client->id;
}

void ObjectExporter::discard(ClientId client) {
    const auto found = clients_.find(client);
    if (found != clients_.end() && found->second->objects.empty() && found->second->connections.empty()) {
        forget(*found->second);
    }
}

void ObjectExporter::forget(Client& client) {
    disconnect(client);
    if (--client.user->clients == 0) {
        users_.erase(client.userKey);
    }
    clients_.erase(client.id);
}

// --- connections ---

ObjectExporter::Client* ObjectExporter::connectedClient(const rpc::Peer& peer, const std::string& account) {
    const auto found = byConnection_.find(peer.id);
    if (found == byConnection_.end()) {
        return nullptr;
    }
    for (Client* client : found->second) {
        if (isSameAccount(client->account, account)) {
            return client;
        }
    }
    return nullptr;
}

void ObjectExporter::connect(Client& client, const rpc::Peer& peer) {
    if (client.connections.insert(peer.id).second) {
        byConnection_[peer.id].push_back(&client);
    }
}

void ObjectExporter::disconnect(Client& client) {
    for (const std::uint64_t connection : client.connections) {
        const auto found = byConnection_.find(connection);
        std::erase(found->second, &client);
        if (found->second.empty()) {
            byConnection_.erase(found);
        }
    }
    client.connections.clear();
}

bool ObjectExporter::isHolding(const rpc::Peer& peer) const {
    const auto found = byConnection_.find(peer.id);
    return found != byConnection_.end() && std::any_of(found->second.begin(), found->second.end(),
                                                       [](const Client* client) { return !client->objects.empty(); });
}

void ObjectExporter::connectionClosed(const rpc::Peer& peer, bool abrupt) {
    refusedConnections_.erase(peer.id);
    const auto found = byConnection_.find(peer.id);
    if (found == byConnection_.end()) {
        return;
    }
    const std::vector<Client*> clients = std::move(found->second);
    byConnection_.erase(found);
    LeftBehind leftBehind;
    for (Client* client : clients) {
        client->connections.erase(peer.id);
        client->lostOne |= abrupt;
        if (client->connections.empty()) {
            lastConnectionEnded(*client, leftBehind);
        }
    }
    report(leftBehind);
    runDownEnded();
}

// --- whose object it is ---

// The client that calls the object, nullptr when the account holds nothing of it. An object is called over a
// connection of its holder, or over one that was never seen to hold it: the object was got by an activation of the same
// process, or handed on by another one. Both then count as one client, so that neither loses the object.
ObjectExporter::Client* ObjectExporter::callerOf(Object& object, const rpc::Peer& peer, const std::string& account) {
    Client* const own = connectedClient(peer, account);
    if (own != nullptr && object.holderOf(own) != nullptr) {
        return own;
    }
    const std::string host = hostOf(peer);
    Client* holder = nullptr;
    for (const Holder& candidate : object.holders) {
        Client* const client = candidate.client;
        if (client->ended || !isSameAccount(client->account, account)) {
            continue;
        }
        // Of several alike the latest: it is the one that still waits for its first connection.
        if (holder == nullptr ||
            std::pair(client->host == host, client->id) > std::pair(holder->host == host, holder->id)) {
            holder = client;
        }
    }
    if (holder == nullptr) {
        return nullptr;
    }
    if (own == nullptr) {
        connect(*holder, peer);
        return holder;
    }
    return merged(*own, *holder);
}

// The one that holds less becomes part of the other, so that no call takes long because its client holds much.
ObjectExporter::Client* ObjectExporter::merged(Client& one, Client& other) {
    const bool keepsOne = one.objects.size() >= other.objects.size();
    Client& into = keepsOne ? one : other;
    Client& from = keepsOne ? other : one;
    moveReferences(into, from);
    for (const std::uint64_t connection : from.connections) {
        std::vector<Client*>& clients = byConnection_[connection];
        std::replace(clients.begin(), clients.end(), &from, &into);
    }
    into.connections.merge(from.connections);
    from.connections.clear();
    into.everPinged |= from.everPinged;
    into.since = std::min(into.since, from.since);
    into.lastSign = std::max(into.lastSign, from.lastSign);
    forget(from);
    return &into;
}

void ObjectExporter::moveReferences(Client& into, Client& from) {
    for (const auto& [serial, object] : from.objects) {
        --from.user->objects;
        Holder* source = object->holderOf(&from);
        Holder* target = object->holderOf(&into);
        if (target == nullptr) {
            source->client = &into;
            ++into.user->objects;
            continue;
        }
        target->counts.resize(std::max(target->counts.size(), source->counts.size()));
        for (std::size_t i = 0; i < source->counts.size(); ++i) {
            target->counts[i] += source->counts[i];
        }
        object->holders.erase(object->holders.begin() + (source - object->holders.data()));
    }
    into.objects.merge(from.objects);
    from.objects.clear();
}

}  // namespace quelm::dcom::orpc
