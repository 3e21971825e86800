#include "dcom/domain/Pac.h"

#include <fmt/format.h>

#include <array>
#include <string>
#include <utility>

#include "dcom/ndr/Reader.h"

namespace quelm::dcom {

namespace {

constexpr std::size_t serializationHeader = 16;
// A group that is switched off, or that only counts where access is denied, lets nobody in.
constexpr std::uint32_t groupEnabled = 0x04;
constexpr std::uint32_t groupForDenialOnly = 0x10;

bool counts(std::uint32_t attributes) {
    return (attributes & groupEnabled) != 0 && (attributes & groupForDenialOnly) == 0;
}

// The fixed part of a counted string: whether its characters follow.
bool readStringHeader(ndr::Reader& in) {
    in.u16();
    in.u16();
    return in.pointer();
}

std::string readSid(ndr::Reader& in) {
    in.count(sizeof(std::uint32_t));
    in.u8();  // the revision
    const std::uint8_t count = in.u8();
    std::uint64_t authority = 0;
    for (const std::uint8_t byte : in.bytes(6)) {
        authority = authority << 8 | byte;
    }
    std::string sid = fmt::format("S-1-{}", authority);
    for (unsigned i = 0; i < count && in.good(); ++i) {
        sid += fmt::format("-{}", in.u32());
    }
    return sid;
}

struct Membership {
    std::uint32_t rid = 0;
    std::uint32_t attributes = 0;
};

std::vector<Membership> readMemberships(ndr::Reader& in) {
    std::vector<Membership> memberships(in.count(sizeof(Membership)));
    for (Membership& each : memberships) {
        each.rid = in.u32();
        each.attributes = in.u32();
    }
    if (memberships.size() > mostGroups) {
        in.fail();
    }
    return memberships;
}

// The fields in front, of which the pointers say what follows behind them.
struct Front {
    std::array<bool, 6> names{};  // the account's name, then what nobody needs here
    std::uint32_t userId = 0;
    bool hasGroups = false;
    bool hasServer = false;
    bool hasDomain = false;
    bool hasDomainSid = false;
    bool hasExtras = false;
    bool hasResourceDomain = false;
    bool hasResourceGroups = false;
};

Front readFront(ndr::Reader& in) {
    Front front;
    in.align(4);
    in.bytes(std::size_t{6} * 8);  // times of log-on, log-off and password
    for (bool& name : front.names) {
        name = readStringHeader(in);
    }
    in.u32();  // counts of log-ons
    front.userId = in.u32();
    in.u32();  // the primary group, which stands among the groups
    in.u32();
    front.hasGroups = in.pointer();
    in.u32();
    in.bytes(16);  // a session key, of no use here
    front.hasServer = readStringHeader(in);
    front.hasDomain = readStringHeader(in);
    front.hasDomainSid = in.pointer();
    in.bytes(std::size_t{10} * 4);
    in.u32();
    front.hasExtras = in.pointer();
    front.hasResourceDomain = in.pointer();
    in.u32();
    front.hasResourceGroups = in.pointer();
    return front;
}

void addMembers(Person& person, const std::string& domainSid, const std::vector<Membership>& groups) {
    for (const Membership& group : groups) {
        if (counts(group.attributes)) {
            person.sids.push_back(fmt::format("{}-{}", domainSid, group.rid));
        }
    }
}

void readExtras(ndr::Reader& in, Person& person) {
    const auto extras = readMemberships(in);  // a pointer in place of the number
    for (const Membership& extra : extras) {
        if (extra.rid != 0 && in.good()) {
            std::string sid = readSid(in);
            if (counts(extra.attributes)) {
                person.sids.push_back(std::move(sid));
            }
        }
    }
}

}  // namespace

std::optional<Person> readLogonInfo(std::span<const std::uint8_t> encoded) {
    ndr::Reader in(encoded);
    in.bytes(serializationHeader);
    if (!in.pointer()) {
        return std::nullopt;
    }
    const Front front = readFront(in);
    Person person;
    for (std::size_t i = 0; i < front.names.size(); ++i) {
        std::string text = front.names[i] ? in.wideString() : std::string();
        if (i == 0) {
            person.user = std::move(text);
        }
    }
    const auto groups = front.hasGroups ? readMemberships(in) : std::vector<Membership>();
    if (front.hasServer) {
        in.wideString();
    }
    person.domain = front.hasDomain ? in.wideString() : std::string();
    const std::string domainSid = front.hasDomainSid ? readSid(in) : std::string();
    if (!domainSid.empty() && front.userId != 0) {
        person.sids.push_back(fmt::format("{}-{}", domainSid, front.userId));
    }
    if (!domainSid.empty()) {
        addMembers(person, domainSid, groups);
    }
    if (front.hasExtras) {
        readExtras(in, person);
    }
    if (front.hasResourceDomain) {
        const std::string resourceSid = readSid(in);
        addMembers(person, resourceSid, front.hasResourceGroups ? readMemberships(in) : std::vector<Membership>());
    }
    if (!in.good() || person.user.empty() || person.domain.empty()) {
        return std::nullopt;
    }
    return person;
}

}  // namespace quelm::dcom
