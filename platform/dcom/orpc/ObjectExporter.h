#pragma once

// Keeps the books on every object that clients on the network hold: which interfaces they were given, how many
// references each client has, and which clients are still there. An object lives as long as a client holds it, and is
// called by its holder's account alone; clients that die without letting go are found by their missing pings or, where
// they don't ping, by their lost connections.

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/HResult.h"
#include "base/Uuid.h"
#include "dcom/orpc/ComObject.h"
#include "dcom/orpc/OrpcTypes.h"
#include "dcom/orpc/PingSets.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

struct ExporterSettings {
    std::uint16_t objectPort = 0;        // where objects are called
    std::uint16_t activationPort = 135;  // where they are asked for and pinged
    // Names by which clients on other machines may look for this one besides the address that they dialled.
    std::vector<std::string> hostNames;
    std::string principal = {};  // that clients ask tickets for; empty: no Kerberos
    // What clients are told instead of the address that they dialled; empty: that.
    std::string announcedAddress;
    // Clients are told to come with at least this level.
    rpc::AuthLevel minimumLevel = rpc::AuthLevel::Integrity;
    // Whether calls come in below it: to objects that are open to all, and to no others.
    bool opensToAll = false;
    // All in milliseconds. Client machines ping every 120 seconds, which nobody can set.
    std::uint64_t pingTimeout = 360'000;  // without sign of life after which a client counts as dead: three pings
    // From a client's first call until its first ping has come, if it is of a kind that pings: one period and a margin.
    std::uint64_t firstPing = 150'000;
    // That the references of a client that doesn't ping outlive the orderly end of its last connection.
    std::uint64_t closeGrace = 10'000;
    // That the clients of one user on one machine may hold together; several times what a display or historian holds.
    std::size_t objectsPerUser = 16'384;
    // Plain lines for the operator: objects that break down, clients that went away holding objects.
    std::function<void(const std::string&)> log;
};

// Gives 64 random bits for the identifiers under which objects are reached.
using RandomSource = std::function<std::uint64_t()>;
// Gives monotonic time in milliseconds.
using MillisecondClock = std::function<std::uint64_t()>;

// One client process as far as it can be told: 0 is none.
using ClientId = std::uint64_t;

// Whether a caller reaches the object behind an IPID.
enum class Access : std::uint8_t {
    Granted,
    Gone,    // the IPID is dead or unknown
    Denied,  // nobody gave the object to this account
};
// The result that says so.
HResult resultOf(Access access);

// The peer's address without its port: the machine that a client runs on.
std::string hostOf(const rpc::Peer& peer);

class ObjectExporter final : private PingSets::Listener {
 public:
    // Without a random source the system's own is used.
    ObjectExporter(ExporterSettings settings, MillisecondClock clock, RandomSource random = {});
    ObjectExporter(const ObjectExporter&) = delete;
    ObjectExporter& operator=(const ObjectExporter&) = delete;
    // Objects still held are dropped without being told; call revokeAll() before.
    ~ObjectExporter() override;

    // --- for the owner ---

    // Lets go of what dead clients held, so many objects at a time that the others don't wait for it. To be called
    // about once a second; all periods count from these calls. True: there is more to do, call again at once.
    bool tick();
    // The server stops: every object is told disconnected() and forgotten, whoever still holds it.
    void revokeAll();
    // The port of the listener for object calls, once it is known. Before the first object is exported.
    void listenOn(std::uint16_t objectPort) { settings_.objectPort = objectPort; }
    // Levels and periods from now on; all else stays as it was.
    void change(const ExporterSettings& settings);
    std::size_t objectCount() const { return objects_.size(); }
    // Clients that hold at least one reference.
    std::size_t clientCount() const;

    // --- identity ---

    std::uint64_t oxid() const { return oxid_; }
    const Uuid& remUnknownIpid() const { return remUnknownIpid_; }
    const ExporterSettings& settings() const { return settings_; }
    // Where the peer finds the objects, and where it finds the activation service.
    const std::string& announced(const rpc::Peer& peer) const;
    Bindings objectBindings(const rpc::Peer& peer) const;
    Bindings resolverBindings(const rpc::Peer& peer) const;

    // --- calls ---

    struct Target {
        std::shared_ptr<ComObject> object;  // keeps it alive during the call; empty when it cannot be called
        Interface* methods = nullptr;       // nullptr for IUnknown
        Access access = Access::Granted;
    };
    // Whether a call of this protection may reach what is open to all or, as nearly everything, is not.
    bool isProtectedFor(bool openToAll, rpc::AuthLevel level) const {
        return !settings_.opensToAll || openToAll || level >= settings_.minimumLevel;
    }
    // The object behind an IPID, for a call over an object connection, which is a sign of life of its client. Another
    // program of the same account may call it, as clients hand on what they hold.
    Target route(const Uuid& ipid, const rpc::Peer& peer, const std::string& account);

    // Writes a line for the operator, if there is a log.
    void writeLog(const std::string& what) noexcept;

    // --- references ---

    // A client that was just given its first object and has no object connection yet.
    ClientId newClient(const rpc::Peer& peer, const std::string& account);
    // The client behind an object connection.
    ClientId clientOf(const rpc::Peer& peer, const std::string& account);
    // Forgets a client that was given nothing.
    void discard(ClientId client);
    // Gives the client so many references to an interface of the object, exporting it if need be. Nothing is booked
    // when the object has no such interface (E_NOINTERFACE) or the user holds too many objects (E_OUTOFMEMORY).
    HResult addReference(ClientId client, const std::shared_ptr<ComObject>& object, const Uuid& iid,
                         std::uint32_t count, ObjectReference& reference);
    // More references to what is held already, where access is granted.
    Access addReferences(const Uuid& ipid, const rpc::Peer& peer, const std::string& account, std::uint64_t count);
    // Takes references back where access is granted, at most as many as the client has. Objects that nobody holds any
    // more are told by settle().
    Access release(const Uuid& ipid, const rpc::Peer& peer, const std::string& account, std::uint64_t count);
    // Tells the objects that nobody holds any more; of very many the rest is told by tick().
    void settle();
    // For an object that was made for a client which then could not use it: unless others hold it, it is told
    // disconnected(), as if the client had held it for a moment.
    void dismiss(const std::shared_ptr<ComObject>& object);

    // --- signs of life ---

    void connectionClosed(const rpc::Peer& peer, bool abrupt);
    // Whether any client that calls over this connection holds objects.
    bool isHolding(const rpc::Peer& peer) const;
    // Pings come from the client's machine; an account says nothing about them. Also a refused one is a sign of life.
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
    // One user of one machine, whatever domain the user's name is given with.
    struct User {
        std::size_t clients = 0;
        std::size_t objects = 0;
        bool fullReported = false;
    };
    struct Client {
        ClientId id = 0;
        std::string host;
        std::string account;
        std::string userKey;
        User* user = nullptr;
        std::uint64_t since = 0;     // its first call
        std::uint64_t lastSign = 0;  // of life: the time of its last call or ping
        std::uint64_t closedAt = 0;  // when its last connection ended; 0: it never had one
        bool everPinged = false;
        bool lostOne = false;  // a connection broke and no call came since
        bool ended = false;    // what it holds is being let go of
        std::unordered_set<std::uint64_t> connections;
        std::map<std::uint64_t, Object*> objects;  // by serial
    };
    // An interface and the client that may call it, or why there is none.
    struct Reached {
        ExportedInterface* entry = nullptr;
        Client* client = nullptr;
        Access access = Access::Granted;
    };
    struct TakenOut {
        std::uint64_t since = 0;
        std::string host;
    };
    // Objects left behind, by the host and account that held them.
    using LeftBehind = std::map<std::pair<std::string, std::string>, std::size_t>;

    bool pinged(std::uint64_t oid) override;
    void takenOut(std::uint64_t oid, const std::string& host) override;

    std::uint64_t randomNonZero();
    Uuid newIpid();
    Client& addClient(const rpc::Peer& peer, const std::string& account);
    Client* connectedClient(const rpc::Peer& peer, const std::string& account);
    void connect(Client& client, const rpc::Peer& peer);
    Client* callerOf(Object& object, const rpc::Peer& peer, const std::string& account);
    Reached reach(const Uuid& ipid, const rpc::Peer& peer, const std::string& account);
    Access refuseCaller(const Object& object, const rpc::Peer& peer, const std::string& account);
    Client* merged(Client& one, Client& other);
    static void moveReferences(Client& into, Client& from);
    bool mayHoldMore(Client& client);
    Object& exported(const std::shared_ptr<ComObject>& object);
    ExportedInterface* exportedInterface(const std::shared_ptr<ComObject>& object, const Uuid& iid);
    void book(Client& client, const ExportedInterface& entry, std::uint64_t count);
    void drop(Object& object, Client& client);
    void bury(Object& object);
    void disconnect(Client& client);
    void forget(Client& client);
    void lastConnectionEnded(Client& client, LeftBehind& leftBehind);
    std::uint64_t deadline(const Client& client) const;
    void end(Client& client, LeftBehind& leftBehind);
    void report(const LeftBehind& leftBehind);
    void endDeadClients();
    bool runDownEnded();
    bool runDownTakenOut();
    void noteRefusedPing(const std::string& host);
    void countRefusedPings();
    void forgiveAbsence(std::uint64_t now);
    void tellOne();

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
    std::unordered_map<std::string, User> users_;  // by host and user name
    // More than one client of a connection: it carries calls of several accounts.
    std::unordered_map<std::uint64_t, std::vector<Client*>> byConnection_;
    std::unordered_set<std::uint64_t> refusedConnections_;  // told of in the log
    std::unordered_map<std::uint64_t, TakenOut> takenOut_;  // by OID, objects that no ping set has any more
    std::unordered_set<std::string> refusedPings_;          // hosts that sent one since the last tick
    std::deque<ClientId> ending_;
    std::deque<std::shared_ptr<ComObject>> dead_;
    PingSets pingSets_;

    // Behind the tables, which are searched for each new identifier.
    std::uint64_t oxid_ = 0;
    Uuid remUnknownIpid_;
};

}  // namespace quelm::dcom::orpc
