#pragma once

// Keeps the books on every object that clients on the network hold: which interfaces they were given, how many
// references each client has, and which clients are still there. An object lives as long as a client holds it;
// clients that die without letting go are found by their lost connections or their missing pings.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "DCOM/HResult.h"
#include "DCOM/Uuid.h"
#include "DCOM/orpc/ComObject.h"
#include "DCOM/orpc/OrpcTypes.h"
#include "DCOM/orpc/PingSets.h"
#include "DCOM/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

struct ExporterSettings {
    std::uint16_t objectPort = 0;        // where objects are called
    std::uint16_t activationPort = 135;  // where they are asked for and pinged
    // Names by which clients may look for this machine besides the address that they dialled.
    std::vector<std::string> hostNames;
    // Clients are told to come with at least this level.
    rpc::AuthLevel minimumLevel = rpc::AuthLevel::Integrity;
    std::uint64_t pingPeriod = 120'000;  // milliseconds between the pings of a client machine
    std::uint64_t missedPings = 3;       // periods without sign of life after which a client counts as dead
    // Milliseconds that a client's references outlive the orderly end of its last connection if it never pinged.
    std::uint64_t closeGrace = 10'000;
    // Plain lines for the operator: objects that break down, clients that went away holding objects.
    std::function<void(const std::string&)> log;
};

// Gives 64 random bits for the identifiers under which objects are reached.
using RandomSource = std::function<std::uint64_t()>;
// Gives monotonic time in milliseconds.
using MillisecondClock = std::function<std::uint64_t()>;

// One client process as far as it can be told: 0 is none.
using ClientId = std::uint64_t;

class ObjectExporter final : private PingSets::Listener {
 public:
    // Without a random source the system's own is used.
    ObjectExporter(ExporterSettings settings, MillisecondClock clock, RandomSource random = {});
    ObjectExporter(const ObjectExporter&) = delete;
    ObjectExporter& operator=(const ObjectExporter&) = delete;
    // Objects still held are dropped without being told; call revokeAll() before.
    ~ObjectExporter() override;

    // --- for the owner ---

    // Lets go of what dead clients held. To be called about once a second; all periods count from these calls.
    void tick();
    // The server stops: every object is told disconnected() and forgotten, whoever still holds it.
    void revokeAll();
    // The port of the listener for object calls, once it is known. Before the first object is exported.
    void listenOn(std::uint16_t objectPort) { settings_.objectPort = objectPort; }
    std::size_t objectCount() const { return objects_.size(); }
    // Clients that hold at least one reference.
    std::size_t clientCount() const;

    // --- identity ---

    std::uint64_t oxid() const { return oxid_; }
    const Uuid& remUnknownIpid() const { return remUnknownIpid_; }
    const ExporterSettings& settings() const { return settings_; }
    // Where the peer finds the objects, and where it finds the activation service.
    Bindings objectBindings(const rpc::Peer& peer) const;
    Bindings resolverBindings(const rpc::Peer& peer) const;

    // --- calls ---

    struct Target {
        std::shared_ptr<ComObject> object;  // keeps it alive during the call; empty when the IPID is dead or unknown
        Interface* methods = nullptr;       // nullptr for IUnknown
        Uuid iid;
    };
    // The object behind an IPID, for a call over an object connection, which is a sign of life of its client.
    Target route(const Uuid& ipid, const rpc::Peer& peer, const std::string& account);

    // Writes a line for the operator, if there is a log.
    void writeLog(const std::string& what) noexcept;

    // --- references ---

    // A client that was just given its first object and has no object connection yet.
    ClientId newClient(const rpc::Peer& peer, const std::string& account);
    // The client behind an object connection.
    ClientId clientOf(const rpc::Peer& peer, const std::string& account);
    // Gives the client so many references to an interface of the object, exporting it if need be.
    // E_NOINTERFACE, and nothing booked, when the object has no such interface.
    HResult addReference(ClientId client, const std::shared_ptr<ComObject>& object, const Uuid& iid,
                         std::uint32_t count, ObjectReference& reference);
    // More references to what is held already. False when the IPID is dead or unknown.
    bool addReferences(ClientId client, const Uuid& ipid, std::uint64_t count);
    // Takes references back, at most as many as the client has; a dead or unknown IPID is no error. Objects that
    // nobody holds any more are told by settle().
    void release(ClientId client, const Uuid& ipid, std::uint64_t count);
    // Tells the objects that nobody holds any more.
    void settle();
    // For an object that was made for a client which then could not use it: unless others hold it, it is told
    // disconnected(), as if the client had held it for a moment.
    void dismiss(const std::shared_ptr<ComObject>& object);

    // --- signs of life ---

    void connectionClosed(const rpc::Peer& peer, bool abrupt);
    bool ping(std::uint64_t setId, const rpc::Peer& peer);
    PingSets::Change changePingSet(std::uint64_t& setId, const rpc::Peer& peer, std::uint16_t sequence,
                                   std::span<const std::uint64_t> add, std::span<const std::uint64_t> remove);

 private:
    struct Object;
    struct Client;
    struct ExportedInterface {
        Uuid iid;
        Uuid ipid;
        Interface* methods = nullptr;
        Object* object = nullptr;
        std::size_t index = 0;  // in the object's list and in each holder's counts
    };
    // One client's references to one object.
    struct Holder {
        Client* client = nullptr;
        std::vector<std::uint64_t> counts;  // by interface index; may be shorter than the list of interfaces
    };
    struct Object {
        std::uint64_t oid = 0;
        std::uint64_t serial = 0;  // order of export
        std::shared_ptr<ComObject> object;
        std::vector<std::unique_ptr<ExportedInterface>> interfaces;
        std::vector<Holder> holders;  // hardly ever more than one

        Holder* holderOf(const Client* client);
    };
    struct Client {
        ClientId id = 0;
        std::string host;
        std::string account;
        std::uint64_t lastSign = 0;  // of life: the time of its last call or ping
        std::uint64_t closedAt = 0;  // when its last connection ended in order; valid while closing
        bool closing = false;        // had connections, has none, and never pinged
        bool everPinged = false;
        bool lostOne = false;  // a connection broke and no call came since
        std::unordered_set<std::uint64_t> connections;
        std::map<std::uint64_t, Object*> objects;  // by serial
    };

    bool pinged(std::uint64_t oid) override;
    void takenOut(std::uint64_t oid) override;

    std::uint64_t randomNonZero();
    Uuid newIpid();
    Client& addClient(const rpc::Peer& peer, const std::string& account);
    Client* connectedClient(const rpc::Peer& peer);
    void connect(Client& client, const rpc::Peer& peer);
    void noteUse(Object& object, const rpc::Peer& peer, const std::string& account);
    void noteSign(Client& client);
    Client* join(Object& object, const rpc::Peer& peer, const std::string& account);
    void merge(Client& into, Client& from);
    Object& exported(const std::shared_ptr<ComObject>& object);
    ExportedInterface* exportedInterface(const std::shared_ptr<ComObject>& object, const Uuid& iid);
    void book(Client& client, const ExportedInterface& entry, std::uint64_t count);
    void drop(Object& object, Client& client);
    void bury(Object& object);
    void letGo(Client& client);
    void forget(Client& client);
    std::uint64_t pingTimeout() const { return settings_.pingPeriod * settings_.missedPings; }
    bool isDead(const Client& client) const;
    void runDown(Client& client);
    void runDownTakenOut();
    void forgiveAbsence(std::uint64_t now);

    ExporterSettings settings_;
    MillisecondClock clock_;
    RandomSource random_;
    std::uint64_t now_ = 0;  // as of the last tick
    std::uint64_t lastSerial_ = 0;
    ClientId lastClient_ = 0;

    std::unordered_map<std::uint64_t, std::unique_ptr<Object>> objects_;  // by OID
    std::unordered_map<const ComObject*, Object*> byObject_;
    std::unordered_map<Uuid, ExportedInterface*> byIpid_;
    std::unordered_map<ClientId, std::unique_ptr<Client>> clients_;
    std::unordered_map<std::uint64_t, Client*> byConnection_;
    std::unordered_map<std::uint64_t, std::uint64_t> takenOut_;  // OID -> since when no ping set has it
    std::vector<std::shared_ptr<ComObject>> dead_;
    PingSets pingSets_;

    // Behind the tables, which are searched for each new identifier.
    std::uint64_t oxid_ = 0;
    Uuid remUnknownIpid_;
};

}  // namespace quelm::dcom::orpc
