// Who of the exporter's clients still lives, and what becomes of the objects of the others.

#include <fmt/format.h>

#include <exception>
#include <utility>

#include "dcom/orpc/ObjectExporter.h"

namespace quelm::dcom::orpc {

namespace {

// That are let go of in one go. Each costs some microseconds, more when it holds much, and meanwhile nobody is served.
constexpr std::size_t objectsPerStep = 1000;
// Hosts whose refused pings are remembered until the next tick.
constexpr std::size_t rememberedHosts = 1000;

}  // namespace

// --- signs of life ---

bool ObjectExporter::ping(std::uint64_t setId, const rpc::Peer& peer) {
    const std::string host = hostOf(peer);
    const bool known = pingSets_.ping(setId, host, now_);
    if (!known) {
        noteRefusedPing(host);
    }
    return known;
}

PingSets::Change ObjectExporter::changePingSet(std::uint64_t& setId, const rpc::Peer& peer, std::uint16_t sequence,
                                               std::span<const std::uint64_t> add,
                                               std::span<const std::uint64_t> remove) {
    const std::string host = hostOf(peer);
    const PingSets::Change change = pingSets_.change(setId, host, sequence, add, remove, now_);
    if (change != PingSets::Change::Done) {
        noteRefusedPing(host);
    }
    return change;
}

bool ObjectExporter::pinged(std::uint64_t oid) {
    const auto found = objects_.find(oid);
    if (found == objects_.end()) {
        return false;
    }
    for (const Holder& holder : found->second->holders) {
        holder.client->lastSign = now_;
        holder.client->everPinged = true;
    }
    if (!takenOut_.empty()) {
        takenOut_.erase(oid);
    }
    return true;
}

void ObjectExporter::takenOut(std::uint64_t oid, const std::string& host) {
    if (objects_.contains(oid)) {
        takenOut_[oid] = {now_, host};
    }
}

// The machine lives and believes to have a set; it may go on for a while with what it was refused.
void ObjectExporter::noteRefusedPing(const std::string& host) {
    if (refusedPings_.size() < rememberedHosts) {
        refusedPings_.insert(host);
    }
}

void ObjectExporter::countRefusedPings() {
    if (refusedPings_.empty()) {
        return;
    }
    for (const auto& [id, client] : clients_) {
        if (client->everPinged && refusedPings_.contains(client->host)) {
            client->lastSign = now_;
        }
    }
    refusedPings_.clear();
}

// The process stood still (a suspended machine): the pings of that time wait in the sockets or were lost, so that
// their absence says nothing about the clients.
void ObjectExporter::forgiveAbsence(std::uint64_t now) {
    const std::uint64_t absence = now - now_;
    for (const auto& [id, client] : clients_) {
        client->lastSign = now;
        client->since += absence;
        client->closedAt += client->closedAt != 0 ? absence : 0;
    }
    for (auto& [oid, entry] : takenOut_) {
        entry.since = now;
    }
    pingSets_.renew(now);
}

// --- the end of clients ---

// When the client counts as dead unless it gives a sign of life before. A client that pings is judged by its pings, for
// its process may lose connections and make others; one that doesn't, by its connections, but not before it could have
// pinged: a client that only activated an object has no connection yet.
std::uint64_t ObjectExporter::deadline(const Client& client) const {
    if (client.everPinged || !client.connections.empty()) {
        return client.lastSign + settings_.pingTimeout;
    }
    return std::max(client.since + settings_.firstPing,
                    client.closedAt == 0 ? 0 : client.closedAt + settings_.closeGrace);
}

void ObjectExporter::lastConnectionEnded(Client& client, LeftBehind& leftBehind) {
    client.closedAt = clock_();
    if (client.objects.empty()) {
        forget(client);
    } else if (client.lostOne && !client.everPinged) {
        // A process that dies takes all of its connections along, some of them in order.
        end(client, leftBehind);
    }
}

void ObjectExporter::end(Client& client, LeftBehind& leftBehind) {
    if (client.objects.empty()) {
        forget(client);
        return;
    }
    disconnect(client);
    client.ended = true;
    ending_.push_back(client.id);
    leftBehind[{client.host, client.account}] += client.objects.size();
}

// One line for all that a user's programs held: some ask for many objects and call none, and each looks like a client.
void ObjectExporter::report(const LeftBehind& leftBehind) {
    for (const auto& [who, objects] : leftBehind) {
        writeLog(fmt::format("DCOM client {} ({}) is gone without releasing {} object(s); they are released now",
                             who.first, who.second, objects));
    }
}

void ObjectExporter::endDeadClients() {
    std::vector<Client*> dead;
    for (const auto& [id, client] : clients_) {
        const bool holdsNothing = client->objects.empty() && client->connections.empty();
        if (!client->ended && (holdsNothing || now_ >= deadline(*client))) {
            dead.push_back(client.get());
        }
    }
    LeftBehind leftBehind;
    for (Client* client : dead) {
        end(*client, leftBehind);
    }
    report(leftBehind);
}

// Latest exports first: enumerators and groups go before the server object that they belong to.
bool ObjectExporter::runDownEnded() {
    std::size_t left = objectsPerStep;
    while (!ending_.empty() && left > 0) {
        const auto found = clients_.find(ending_.front());
        Client& client = *found->second;
        for (; left > 0 && !client.objects.empty(); --left) {
            drop(*client.objects.rbegin()->second, client);
        }
        if (client.objects.empty()) {
            ending_.pop_front();
            forget(client);
        }
    }
    settle();
    return !ending_.empty() || !dead_.empty();
}

bool ObjectExporter::runDownTakenOut() {
    std::vector<std::pair<std::uint64_t, std::string>> due;
    for (const auto& [oid, entry] : takenOut_) {
        if (now_ - entry.since >= settings_.pingTimeout) {
            due.emplace_back(oid, entry.host);
        }
        if (due.size() == objectsPerStep) {
            break;
        }
    }
    for (const auto& [oid, host] : due) {
        takenOut_.erase(oid);
        const auto found = objects_.find(oid);
        if (found == objects_.end()) {
            continue;
        }
        // A client that never pings has not said anything about the object by its absence from the ping sets, nor has
        // another machine said anything about this one's.
        std::vector<Client*> holders;
        for (const Holder& holder : found->second->holders) {
            if (holder.client->everPinged && holder.client->host == host) {
                holders.push_back(holder.client);
            }
        }
        for (Client* client : holders) {
            drop(*found->second, *client);
        }
    }
    return due.size() == objectsPerStep;
}

bool ObjectExporter::tick() {
    const std::uint64_t now = clock_();
    if (now - now_ >= settings_.pingTimeout / 3) {
        forgiveAbsence(now);
    }
    now_ = now;
    countRefusedPings();
    endDeadClients();
    const bool moreTakenOut = runDownTakenOut();
    pingSets_.expire(now_, settings_.pingTimeout);
    return runDownEnded() || moreTakenOut;
}

// --- the end of objects ---

void ObjectExporter::tellOne() {
    const std::shared_ptr<ComObject> object = std::move(dead_.front());
    dead_.pop_front();
    try {
        object->disconnected();
    } catch (const std::exception& error) {
        writeLog(fmt::format("An object failed while its last client let go of it: {}", error.what()));
    } catch (...) {
        writeLog("An object failed while its last client let go of it");
    }
}

void ObjectExporter::settle() {
    for (std::size_t i = 0; i < objectsPerStep && !dead_.empty(); ++i) {
        tellOne();
    }
}

void ObjectExporter::dismiss(const std::shared_ptr<ComObject>& object) {
    if (!byObject_.contains(object.get())) {
        dead_.push_back(object);
        settle();
    }
}

void ObjectExporter::revokeAll() {
    std::map<std::uint64_t, Object*, std::greater<>> latestFirst;
    for (const auto& [oid, object] : objects_) {
        latestFirst[object->serial] = object.get();
    }
    for (const auto& [serial, object] : latestFirst) {
        bury(*object);
    }
    clients_.clear();
    users_.clear();
    byConnection_.clear();
    ending_.clear();
    while (!dead_.empty()) {
        tellOne();
    }
}

}  // namespace quelm::dcom::orpc
