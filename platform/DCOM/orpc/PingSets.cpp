#include "DCOM/orpc/PingSets.h"

namespace quelm::dcom::orpc {

namespace {

// Client machines have one set each; far more of them than machines in a plant means a client gone wild.
constexpr std::size_t maximumSets = 4096;

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

PingSets::Change PingSets::change(std::uint64_t& setId, const std::string& host, std::uint16_t sequence,
                                  std::span<const std::uint64_t> add, std::span<const std::uint64_t> remove,
                                  std::uint64_t now) {
    Set* set = nullptr;
    if (setId == 0) {
        if (sets_.size() >= maximumSets) {
            return Change::TooManySets;
        }
        setId = ++lastId_;
        set = &sets_[setId];
        set->host = host;
        set->sequence = sequence;
    } else if (set = find(setId, host); set == nullptr) {
        return Change::UnknownSet;
    }
    if (!isOlder(sequence, set->sequence)) {
        set->sequence = sequence;
        apply(*set, add, remove);
    }
    pingMembers(*set, now);
    return Change::Done;
}

void PingSets::apply(Set& set, std::span<const std::uint64_t> add, std::span<const std::uint64_t> remove) {
    // What is both added and removed stays: letting go of an object too late does less harm than too early.
    for (const std::uint64_t oid : remove) {
        if (set.members.erase(oid) != 0 && !contains(oid)) {
            listener_.takenOut(oid);
        }
    }
    for (const std::uint64_t oid : add) {
        if (listener_.pinged(oid)) {
            set.members.insert(oid);
        }
    }
}

void PingSets::pingMembers(Set& set, std::uint64_t now) {
    set.lastPing = now;
    std::erase_if(set.members, [this](std::uint64_t oid) { return !listener_.pinged(oid); });
}

void PingSets::expire(std::uint64_t now, std::uint64_t timeout) {
    std::erase_if(sets_, [&](const auto& entry) { return now - entry.second.lastPing >= timeout; });
}

void PingSets::renew(std::uint64_t now) {
    for (auto& [id, set] : sets_) {
        set.lastPing = now;
    }
}

bool PingSets::contains(std::uint64_t oid) const {
    for (const auto& [id, set] : sets_) {
        if (set.members.contains(oid)) {
            return true;
        }
    }
    return false;
}

}  // namespace quelm::dcom::orpc
