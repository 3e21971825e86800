#include "dcom/orpc/ObjectExporter.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

namespace quelm::dcom::orpc {

namespace {

std::uint64_t systemRandom() {
    static std::random_device device;
    return static_cast<std::uint64_t>(device()) << 32 | device();
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

// Who logged on when less was asked for goes on calling.
void ObjectExporter::change(const ExporterSettings& settings) {
    settings_.minimumLevel =
        settings_.opensToAll ? std::min(settings_.minimumLevel, settings.minimumLevel) : settings.minimumLevel;
    settings_.pingTimeout = settings.pingTimeout;
    settings_.firstPing = settings.firstPing;
    settings_.closeGrace = settings.closeGrace;
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

const std::string& ObjectExporter::announced(const rpc::Peer& peer) const {
    return settings_.announcedAddress.empty() ? peer.localAddress : settings_.announcedAddress;
}

Bindings ObjectExporter::objectBindings(const rpc::Peer& peer) const {
    return {announced(peer), settings_.hostNames, settings_.objectPort, settings_.principal};
}

Bindings ObjectExporter::resolverBindings(const rpc::Peer& peer) const {
    const std::uint16_t port = settings_.activationPort == wellKnownPort ? std::uint16_t{0} : settings_.activationPort;
    return {announced(peer), settings_.hostNames, port, settings_.principal};
}

// --- calls ---

HResult resultOf(Access access) {
    switch (access) {
        case Access::Granted:
            return S_OK;
        case Access::Gone:
            return RPC_E_DISCONNECTED;
        case Access::Denied:
            break;
    }
    return E_ACCESSDENIED;
}

ObjectExporter::Target ObjectExporter::route(const Uuid& ipid, const rpc::Peer& peer, const std::string& account) {
    const Reached reached = reach(ipid, peer, account);
    if (reached.access != Access::Granted) {
        return {nullptr, nullptr, reached.access};
    }
    return {reached.entry->object->object, reached.entry->methods, Access::Granted};
}

ObjectExporter::Reached ObjectExporter::reach(const Uuid& ipid, const rpc::Peer& peer, const std::string& account) {
    const auto found = byIpid_.find(ipid);
    if (found == byIpid_.end()) {
        return {nullptr, nullptr, Access::Gone};
    }
    ExportedInterface& entry = *found->second;
    if (!isProtectedFor(entry.object->object->isOpenToAll(), peer.level)) {
        return {nullptr, nullptr, Access::Denied};
    }
    Client* const client = callerOf(*entry.object, peer, account);
    if (client == nullptr) {
        return {nullptr, nullptr, refuseCaller(*entry.object, peer, account)};
    }
    client->lastSign = now_;
    client->lostOne = false;
    if (!takenOut_.empty()) {
        takenOut_.erase(entry.object->oid);
    }
    return {&entry, client, Access::Granted};
}

// Identifiers of objects travel in the clear at the lower levels, so that knowing one proves nothing.
Access ObjectExporter::refuseCaller(const Object& object, const rpc::Peer& peer, const std::string& account) {
    if (std::all_of(object.holders.begin(), object.holders.end(),
                    [](const Holder& holder) { return holder.client->ended; })) {
        return Access::Gone;
    }
    if (refusedConnections_.insert(peer.id).second) {
        writeLog(
            fmt::format("DCOM client {} ({}) was refused an object that another account holds; let programs that "
                        "share objects use one account",
                        peer.remoteAddress, account));
    }
    return Access::Denied;
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
    if (found == clients_.end() || found->second->ended) {
        return E_FAIL;
    }
    const auto known = byObject_.find(object.get());
    const bool holds = known != byObject_.end() && known->second->holderOf(found->second.get()) != nullptr;
    if (!holds && !mayHoldMore(*found->second)) {
        return E_OUTOFMEMORY;
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
        ++client.user->objects;
    }
    holder->counts.resize(std::max(holder->counts.size(), object.interfaces.size()));
    holder->counts[entry.index] += count;
}

bool ObjectExporter::mayHoldMore(Client& client) {
    User& user = *client.user;
    if (user.objects < settings_.objectsPerUser) {
        user.fullReported = false;
        return true;
    }
    if (!std::exchange(user.fullReported, true)) {
        writeLog(
            fmt::format("DCOM client {} ({}) holds {} objects and gets no more; look for a program there that "
                        "does not release what it asks for",
                        client.host, client.account, user.objects));
    }
    return false;
}

Access ObjectExporter::addReferences(const Uuid& ipid, const rpc::Peer& peer, const std::string& account,
                                     std::uint64_t count) {
    const Reached reached = reach(ipid, peer, account);
    if (reached.access == Access::Granted) {
        book(*reached.client, *reached.entry, count);
    }
    return reached.access;
}

Access ObjectExporter::release(const Uuid& ipid, const rpc::Peer& peer, const std::string& account,
                               std::uint64_t count) {
    const Reached reached = reach(ipid, peer, account);
    if (reached.access != Access::Granted) {
        return reached.access;
    }
    Object& object = *reached.entry->object;
    Holder& holder = *object.holderOf(reached.client);
    if (holder.counts.size() <= reached.entry->index) {
        return Access::Granted;
    }
    std::uint64_t& held = holder.counts[reached.entry->index];
    held -= std::min(held, count);
    if (std::all_of(holder.counts.begin(), holder.counts.end(), [](std::uint64_t left) { return left == 0; })) {
        drop(object, *reached.client);
    }
    return Access::Granted;
}

void ObjectExporter::drop(Object& object, Client& client) {
    client.user->objects -= client.objects.erase(object.serial);
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

}  // namespace quelm::dcom::orpc
