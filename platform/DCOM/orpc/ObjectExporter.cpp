#include "DCOM/orpc/ObjectExporter.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <random>
#include <utility>

namespace quelm::dcom::orpc {

namespace {

std::uint64_t systemRandom() {
    static std::random_device device;
    return static_cast<std::uint64_t>(device()) << 32 | device();
}

std::string hostOf(const rpc::Peer& peer) {
    return peer.remoteAddress.substr(0, peer.remoteAddress.rfind(':'));
}

// The well-known port is left out of addresses, as clients expect.
constexpr std::uint16_t wellKnownPort = 135;

}  // namespace

ObjectExporter::ObjectExporter(ExporterSettings settings, MillisecondClock clock, RandomSource random)
    : settings_(std::move(settings)),
      clock_(std::move(clock)),
      random_(random ? std::move(random) : RandomSource(systemRandom)),
      now_(clock_()),
      pingSets_(*this),
      oxid_(randomNonZero()) {
    // Not among the initialisers: the number is compared with what this member holds.
    remUnknownIpid_ = newIpid();
}

ObjectExporter::~ObjectExporter() = default;

std::uint64_t ObjectExporter::randomNonZero() {
    std::uint64_t value = random_();
    while (value == 0) {
        value = random_();
    }
    return value;
}

Uuid ObjectExporter::newIpid() {
    Uuid ipid;
    do {
        const std::uint64_t low = randomNonZero();
        const std::uint64_t high = random_();
        std::memcpy(ipid.bytes.data(), &low, 8);
        std::memcpy(ipid.bytes.data() + 8, &high, 8);
    } while (ipid == remUnknownIpid_ || byIpid_.contains(ipid));
    return ipid;
}

Bindings ObjectExporter::objectBindings(const rpc::Peer& peer) const {
    return {peer.localAddress, settings_.hostNames, settings_.objectPort};
}

Bindings ObjectExporter::resolverBindings(const rpc::Peer& peer) const {
    const std::uint16_t port = settings_.activationPort == wellKnownPort ? std::uint16_t{0} : settings_.activationPort;
    return {peer.localAddress, settings_.hostNames, port};
}

std::size_t ObjectExporter::clientCount() const {
    return static_cast<std::size_t>(std::count_if(clients_.begin(), clients_.end(),
                                                  [](const auto& entry) { return !entry.second->objects.empty(); }));
}

// --- calls ---

ObjectExporter::Target ObjectExporter::route(const Uuid& ipid, const rpc::Peer& peer, const std::string& account) {
    const auto found = byIpid_.find(ipid);
    if (found == byIpid_.end()) {
        return {};
    }
    const ExportedInterface& entry = *found->second;
    noteUse(*entry.object, peer, account);
    return {entry.object->object, entry.methods, entry.iid};
}

void ObjectExporter::noteUse(Object& object, const rpc::Peer& peer, const std::string& account) {
    Client* client = connectedClient(peer);
    if (client == nullptr || object.holderOf(client) == nullptr) {
        client = join(object, peer, account);
    }
    if (client != nullptr) {
        noteSign(*client);
    }
    if (!takenOut_.empty()) {
        takenOut_.erase(object.oid);
    }
}

void ObjectExporter::noteSign(Client& client) {
    client.lastSign = now_;
    client.closing = false;
    client.lostOne = false;
}

void ObjectExporter::writeLog(const std::string& what) noexcept {
    if (!settings_.log) {
        return;
    }
    try {
        settings_.log(what);
    } catch (...) {  // A log that fails has nowhere to report to, and the clients must not suffer for it.
    }
}

// --- clients ---

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
    client->lastSign = now_;
    return *(clients_[client->id] = std::move(client));
}

ClientId ObjectExporter::newClient(const rpc::Peer& peer, const std::string& account) {
    return addClient(peer, account).id;
}

ClientId ObjectExporter::clientOf(const rpc::Peer& peer, const std::string& account) {
    Client* client = connectedClient(peer);
    if (client == nullptr) {
        client = &addClient(peer, account);
        connect(*client, peer);
    }
    return client->id;
}

ObjectExporter::Client* ObjectExporter::connectedClient(const rpc::Peer& peer) {
    const auto found = byConnection_.find(peer.id);
    return found == byConnection_.end() ? nullptr : found->second;
}

void ObjectExporter::connect(Client& client, const rpc::Peer& peer) {
    byConnection_[peer.id] = &client;
    client.connections.insert(peer.id);
}

// A connection calls an object that its client was never seen to hold: the object was got by an activation of the
// same process, or handed over by another one. Both then count as one client, so that neither loses the object.
ObjectExporter::Client* ObjectExporter::join(Object& object, const rpc::Peer& peer, const std::string& account) {
    const std::string host = hostOf(peer);
    Client* holder = object.holders.size() == 1 ? object.holders.front().client : nullptr;
    for (const Holder& candidate : object.holders) {
        // Of several alike the latest: it is the one that still waits for its first connection.
        if (candidate.client->host == host && candidate.client->account == account &&
            (holder == nullptr || candidate.client->id > holder->id)) {
            holder = candidate.client;
        }
    }
    Client* own = connectedClient(peer);
    if (holder == nullptr) {
        return own;
    }
    if (own == nullptr) {
        connect(*holder, peer);
        return holder;
    }
    merge(*own, *holder);
    return own;
}

void ObjectExporter::merge(Client& into, Client& from) {
    for (const auto& [serial, object] : from.objects) {
        Holder* source = object->holderOf(&from);
        Holder* target = object->holderOf(&into);
        if (target == nullptr) {
            source->client = &into;
            continue;
        }
        target->counts.resize(std::max(target->counts.size(), source->counts.size()));
        for (std::size_t i = 0; i < source->counts.size(); ++i) {
            target->counts[i] += source->counts[i];
        }
        object->holders.erase(object->holders.begin() + (source - object->holders.data()));
    }
    into.objects.merge(from.objects);
    for (const std::uint64_t connection : from.connections) {
        byConnection_[connection] = &into;
    }
    into.connections.merge(from.connections);
    into.everPinged |= from.everPinged;
    into.lastSign = std::max(into.lastSign, from.lastSign);
    clients_.erase(from.id);
}

void ObjectExporter::connectionClosed(const rpc::Peer& peer, bool abrupt) {
    const auto found = byConnection_.find(peer.id);
    if (found == byConnection_.end()) {
        return;
    }
    Client& client = *found->second;
    byConnection_.erase(found);
    client.connections.erase(peer.id);
    client.lostOne |= abrupt;
    if (!client.connections.empty()) {
        return;
    }
    if (client.objects.empty()) {
        forget(client);
    } else if (client.lostOne) {
        // A process that dies takes all of its connections along, some of them in order.
        runDown(client);
        settle();
    } else if (!client.everPinged) {
        client.closing = true;
        client.closedAt = clock_();
    }
}

void ObjectExporter::forget(Client& client) {
    for (const std::uint64_t connection : client.connections) {
        byConnection_.erase(connection);
    }
    clients_.erase(client.id);
}

// --- references ---

ObjectExporter::Object& ObjectExporter::exported(const std::shared_ptr<ComObject>& object) {
    if (const auto found = byObject_.find(object.get()); found != byObject_.end()) {
        return *found->second;
    }
    auto entry = std::make_unique<Object>();
    do {
        entry->oid = randomNonZero();
    } while (objects_.contains(entry->oid));
    entry->serial = ++lastSerial_;
    entry->object = object;
    byObject_[object.get()] = entry.get();
    return *(objects_[entry->oid] = std::move(entry));
}

ObjectExporter::ExportedInterface* ObjectExporter::exportedInterface(const std::shared_ptr<ComObject>& object,
                                                                     const Uuid& iid) {
    if (const auto found = byObject_.find(object.get()); found != byObject_.end()) {
        for (const auto& entry : found->second->interfaces) {
            if (entry->iid == iid) {
                return entry.get();
            }
        }
    }
    Interface* methods = iid == iidUnknown ? nullptr : object->queryInterface(iid);
    if (methods == nullptr && iid != iidUnknown) {
        return nullptr;
    }
    Object& owner = exported(object);
    auto entry = std::make_unique<ExportedInterface>();
    entry->iid = iid;
    entry->ipid = newIpid();
    entry->methods = methods;
    entry->object = &owner;
    entry->index = owner.interfaces.size();
    byIpid_[entry->ipid] = entry.get();
    owner.interfaces.push_back(std::move(entry));
    return owner.interfaces.back().get();
}

HResult ObjectExporter::addReference(ClientId client, const std::shared_ptr<ComObject>& object, const Uuid& iid,
                                     std::uint32_t count, ObjectReference& reference) {
    reference = {};
    const auto found = clients_.find(client);
    if (found == clients_.end()) {
        return E_FAIL;
    }
    ExportedInterface* entry = object == nullptr ? nullptr : exportedInterface(object, iid);
    if (entry == nullptr) {
        return E_NOINTERFACE;
    }
    book(*found->second, *entry, count);
    reference = {count, oxid_, entry->object->oid, entry->ipid};
    return S_OK;
}

void ObjectExporter::book(Client& client, const ExportedInterface& entry, std::uint64_t count) {
    if (count == 0) {
        return;
    }
    Object& object = *entry.object;
    Holder* holder = object.holderOf(&client);
    if (holder == nullptr) {
        holder = &object.holders.emplace_back(Holder{&client, {}});
        client.objects[object.serial] = &object;
    }
    holder->counts.resize(std::max(holder->counts.size(), object.interfaces.size()));
    holder->counts[entry.index] += count;
}

bool ObjectExporter::addReferences(ClientId client, const Uuid& ipid, std::uint64_t count) {
    const auto entry = byIpid_.find(ipid);
    const auto holder = clients_.find(client);
    if (entry == byIpid_.end() || holder == clients_.end()) {
        return false;
    }
    book(*holder->second, *entry->second, count);
    return true;
}

void ObjectExporter::release(ClientId client, const Uuid& ipid, std::uint64_t count) {
    const auto entry = byIpid_.find(ipid);
    const auto found = clients_.find(client);
    if (entry == byIpid_.end() || found == clients_.end()) {
        return;
    }
    Object& object = *entry->second->object;
    Holder* holder = object.holderOf(found->second.get());
    if (holder == nullptr || holder->counts.size() <= entry->second->index) {
        return;
    }
    std::uint64_t& held = holder->counts[entry->second->index];
    held -= std::min(held, count);
    if (std::all_of(holder->counts.begin(), holder->counts.end(), [](std::uint64_t left) { return left == 0; })) {
        drop(object, *found->second);
    }
}

void ObjectExporter::drop(Object& object, Client& client) {
    client.objects.erase(object.serial);
    std::erase_if(object.holders, [&client](const Holder& holder) { return holder.client == &client; });
    if (object.holders.empty()) {
        bury(object);
    }
}

// Takes the object out of all books. It hears of it later, when these are in order again, because it may well
// let go of other objects then.
void ObjectExporter::bury(Object& object) {
    for (const auto& entry : object.interfaces) {
        byIpid_.erase(entry->ipid);
    }
    byObject_.erase(object.object.get());
    takenOut_.erase(object.oid);
    dead_.push_back(std::move(object.object));
    objects_.erase(object.oid);
}

void ObjectExporter::settle() {
    while (!dead_.empty()) {
        for (const auto& object : std::exchange(dead_, {})) {
            try {
                object->disconnected();
            } catch (const std::exception& error) {
                writeLog(fmt::format("An object failed while its last client let go of it: {}", error.what()));
            } catch (...) {
                writeLog("An object failed while its last client let go of it");
            }
        }
    }
}

void ObjectExporter::dismiss(const std::shared_ptr<ComObject>& object) {
    if (!byObject_.contains(object.get())) {
        dead_.push_back(object);
        settle();
    }
}

// Latest exports first: enumerators and groups go before the server object that they belong to.
void ObjectExporter::letGo(Client& client) {
    while (!client.objects.empty()) {
        drop(*client.objects.rbegin()->second, client);
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
    byConnection_.clear();
    settle();
}

// --- signs of life ---

bool ObjectExporter::ping(std::uint64_t setId, const rpc::Peer& peer) {
    return pingSets_.ping(setId, hostOf(peer), now_);
}

PingSets::Change ObjectExporter::changePingSet(std::uint64_t& setId, const rpc::Peer& peer, std::uint16_t sequence,
                                               std::span<const std::uint64_t> add,
                                               std::span<const std::uint64_t> remove) {
    return pingSets_.change(setId, hostOf(peer), sequence, add, remove, now_);
}

bool ObjectExporter::pinged(std::uint64_t oid) {
    const auto found = objects_.find(oid);
    if (found == objects_.end()) {
        return false;
    }
    for (const Holder& holder : found->second->holders) {
        holder.client->lastSign = now_;
        holder.client->everPinged = true;
        holder.client->closing = false;
    }
    takenOut_.erase(oid);
    return true;
}

void ObjectExporter::takenOut(std::uint64_t oid) {
    if (objects_.contains(oid)) {
        takenOut_[oid] = now_;
    }
}

bool ObjectExporter::isDead(const Client& client) const {
    if (client.objects.empty() && client.connections.empty()) {
        return true;
    }
    return (client.closing && now_ - client.closedAt >= settings_.closeGrace) ||
           now_ - client.lastSign >= pingTimeout();
}

void ObjectExporter::tick() {
    const std::uint64_t now = clock_();
    if (now - now_ >= settings_.pingPeriod) {
        forgiveAbsence(now);
    }
    now_ = now;
    std::vector<Client*> gone;
    for (const auto& [id, client] : clients_) {
        if (isDead(*client)) {
            gone.push_back(client.get());
        }
    }
    for (Client* client : gone) {
        runDown(*client);
    }
    runDownTakenOut();
    pingSets_.expire(now_, pingTimeout());
    settle();
}

// The process stood still (a suspended machine): the pings of that time wait in the sockets or were lost, so that
// their absence says nothing about the clients.
void ObjectExporter::forgiveAbsence(std::uint64_t now) {
    for (const auto& [id, client] : clients_) {
        client->lastSign = now;
    }
    for (auto& [oid, since] : takenOut_) {
        since = now;
    }
    pingSets_.renew(now);
}

void ObjectExporter::runDown(Client& client) {
    if (!client.objects.empty()) {
        writeLog(fmt::format("DCOM client {} ({}) is gone without releasing {} object(s); they are released now",
                             client.host, client.account, client.objects.size()));
        letGo(client);
    }
    forget(client);
}

void ObjectExporter::runDownTakenOut() {
    std::vector<std::uint64_t> due;
    std::erase_if(takenOut_, [&](const auto& entry) {
        const bool isDue = now_ - entry.second >= pingTimeout();
        if (isDue) {
            due.push_back(entry.first);
        }
        return isDue;
    });
    for (const std::uint64_t oid : due) {
        const auto found = objects_.find(oid);
        if (found == objects_.end()) {
            continue;
        }
        // A client that never pings has not said anything about the object by its absence from the ping sets.
        std::vector<Client*> holders;
        for (const Holder& holder : found->second->holders) {
            if (holder.client->everPinged) {
                holders.push_back(holder.client);
            }
        }
        for (Client* client : holders) {
            drop(*found->second, *client);
        }
    }
}

}  // namespace quelm::dcom::orpc
