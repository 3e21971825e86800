#include "dcom/orpc/PingSets.h"

namespace quelm::dcom::orpc {

namespace {

bool isOlder(std::uint16_t sequence, std::uint16_t last) {
    return static_cast<std::int16_t>(static_cast<std::uint16_t>(sequence - last)) < 0;
}

}  // namespace

PingSets::Set* PingSets::find(std::uint64_t setId, const std::string& host) {
    const auto found = sets_.find(setId);
    return found == sets_.end() || found->second.host != host ? nullptr : &found->second;
}

bool PingSets::ping(std::uint64_t setId, const std::string& host, std::uint64_t now) {
    Set* set = find(setId, host);
    if (set == nullptr) {
        return false;
    }
    pingMembers(*set, now);
    return true;
}

// nullptr when there are too many.
PingSets::Set* PingSets::make(std::uint64_t& setId, const std::string& host, std::uint16_t sequence) {
    const auto known = hosts_.find(host);
    if (sets_.size() >= maximumSets || (known != hosts_.end() && known->second.sets >= setsPerHost)) {
        return nullptr;
    }
    ++hosts_[host].sets;
    setId = ++lastId_;
    Set& set = sets_[setId];
    set.host = host;
    set.sequence = sequence;
    return &set;
}

PingSets::Change PingSets::change(std::uint64_t& setId, const std::string& host, std::uint16_t sequence,
                                  std::span<const std::uint64_t> add, std::span<const std::uint64_t> remove,
                                  std::uint64_t now) {
    const bool isNew = setId == 0;
    Set* const set = isNew ? make(setId, host, sequence) : find(setId, host);
    if (set == nullptr) {
        for (const std::uint64_t oid : add) {
            listener_.pinged(oid);
        }
        return isNew ? Change::TooManySets : Change::UnknownSet;
    }
    if (!isOlder(sequence, set->sequence)) {
        set->sequence = sequence;
        apply(*set, add, remove);
    }
    pingMembers(*set, now);
    return Change::Done;
}

void PingSets::apply(Set& set, std::span<const std::uint64_t> add, std::span<const std::uint64_t> remove) {
    Host& host = hosts_[set.host];
    // What is both added and removed stays: letting go of an object too late does less harm than too early.
    for (const std::uint64_t oid : remove) {
        if (set.members.erase(oid) != 0) {
            leave(host, oid);
            if (!memberships_.contains(oid)) {
                listener_.takenOut(oid, set.host);
            }
        }
    }
    for (const std::uint64_t oid : add) {
        if (listener_.pinged(oid) && host.members < membersPerHost && set.members.insert(oid).second) {
            ++host.members;
            ++memberships_[oid];
        }
    }
}

void PingSets::leave(Host& host, std::uint64_t oid) {
    --host.members;
    if (const auto found = memberships_.find(oid); --found->second == 0) {
        memberships_.erase(found);
    }
}

void PingSets::pingMembers(Set& set, std::uint64_t now) {
    set.lastPing = now;
    Host& host = hosts_[set.host];
    std::erase_if(set.members, [&](std::uint64_t oid) {
        const bool gone = !listener_.pinged(oid);
        if (gone) {
            leave(host, oid);
        }
        return gone;
    });
}

void PingSets::expire(std::uint64_t now, std::uint64_t timeout) {
    std::erase_if(sets_, [&](const auto& entry) {
        const Set& set = entry.second;
        if (now - set.lastPing < timeout) {
            return false;
        }
        const auto host = hosts_.find(set.host);
        for (const std::uint64_t oid : set.members) {
            leave(host->second, oid);
        }
        if (--host->second.sets == 0) {
            hosts_.erase(host);
        }
        return true;
    });
}

void PingSets::renew(std::uint64_t now) {
    for (auto& [id, set] : sets_) {
        set.lastPing = now;
    }
}

}  // namespace quelm::dcom::orpc
