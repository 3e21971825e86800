#pragma once

// The sets of objects that client machines keep alive with one small ping for all of them.
// Only the membership is kept here; what a ping means to an object is the exporter's business.

#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace quelm::dcom::orpc {

class PingSets {
 public:
    // Told of each object whose membership or liveness changes.
    class Listener {
     public:
        virtual ~Listener() = default;
        // False when there is no such object (any more); it then leaves the set.
        virtual bool pinged(std::uint64_t oid) = 0;
        // The host took the object out of its last set: nobody on that machine holds it any longer.
        virtual void takenOut(std::uint64_t oid, const std::string& host) = 0;
    };

    // A machine has one set for each of its programs that make their own, and one for all others. Whoever takes more
    // takes them from nobody but the programs of its own machine.
    static constexpr std::size_t setsPerHost = 256;
    // Two full pings of new members; a host that names more goes on keeping them alive by naming them.
    static constexpr std::size_t membersPerHost = 131'072;
    // Of all hosts: some 10 MB.
    static constexpr std::size_t maximumSets = 65'536;

    explicit PingSets(Listener& listener) : listener_(listener) {}

    // Pings all members. False when the host has no such set; one host's set is out of reach of the others. Which
    // account it pings with doesn't matter, as it may well be none. now in milliseconds.
    bool ping(std::uint64_t setId, const std::string& host, std::uint64_t now);

    // Makes a set (setId 0 on entry, its id afterwards) or changes one, then pings its members. A change with an
    // older sequence number than the last one arrived late and counts as a mere ping. A refused change keeps the
    // objects alive that it names.
    enum class Change { Done, UnknownSet, TooManySets };
    Change change(std::uint64_t& setId, const std::string& host, std::uint16_t sequence,
                  std::span<const std::uint64_t> add, std::span<const std::uint64_t> remove, std::uint64_t now);

    // Forgets sets that were not pinged for longer than timeout milliseconds.
    void expire(std::uint64_t now, std::uint64_t timeout);
    // Counts every set as just pinged.
    void renew(std::uint64_t now);

 private:
    struct Host {
        std::size_t sets = 0;
        std::size_t members = 0;
    };
    struct Set {
        std::string host;
        std::uint16_t sequence = 0;
        std::uint64_t lastPing = 0;
        std::unordered_set<std::uint64_t> members;
    };

    Set* find(std::uint64_t setId, const std::string& host);
    Set* make(std::uint64_t& setId, const std::string& host, std::uint16_t sequence);
    void pingMembers(Set& set, std::uint64_t now);
    void apply(Set& set, std::span<const std::uint64_t> add, std::span<const std::uint64_t> remove);
    void leave(Host& host, std::uint64_t oid);

    Listener& listener_;
    // Ids count up from 1: a client exists that puts the id into a 16-bit field.
    std::uint64_t lastId_ = 0;
    std::unordered_map<std::uint64_t, Set> sets_;
    std::unordered_map<std::string, Host> hosts_;                 // those that have sets
    std::unordered_map<std::uint64_t, std::size_t> memberships_;  // by object, in how many sets it is
};

}  // namespace quelm::dcom::orpc
