#include "opcda/client/Discovery.h"

#include <algorithm>
#include <array>

#include "base/Text.h"
#include "opcda/client/EnumeratorStubs.h"
#include "opcda/client/ServerStubs.h"

namespace quelm::opcda::client {

using dcom::client::Interface;
using dcom::client::Trouble;

namespace {

Interface serverListOf(dcom::client::Session& session) {
    try {
        const auto made = session.activate(serverListClass, std::array{IOPCServerList2::iid, IOPCServerList::iid});
        for (const auto& [result, list] : made.interfaces) {
            if (list) {
                return *list;
            }
        }
        throw OpcError("the request for its list of OPC servers", failed(made.result) ? made.result : E_NOINTERFACE);
    } catch (const Trouble& trouble) {
        if (trouble.kind != Trouble::Kind::ClassUnknown) {
            throw;
        }
        throw Trouble(trouble.kind, trouble.address,
                      "The machine has no list of OPC servers (OpcEnum): install that there, or name the server by its "
                      "class id instead of its ProgID",
                      trouble.code);
    }
}

template <class Calls>
auto withList(const Interface& list, Calls calls) {
    return list.iid() == IOPCServerList2::iid ? calls(IOPCServerList2(list)) : calls(IOPCServerList(list));
}

template <class Enumerator, class List>
std::vector<Uuid> classesOf(const List& list, const Uuid& category) {
    const std::string asked = "the question which OPC servers it has";
    const auto enumerator = need(list.EnumClassesOfCategories(std::span(&category, 1), {}), asked);
    return enumerator ? allOf(Enumerator(*enumerator), asked) : std::vector<Uuid>();
}

// In the order in which their classes turn up, the youngest version first.
template <class List>
std::vector<FoundServer> serversOf(const List& list) {
    using Enumerator = std::conditional_t<std::is_same_v<List, IOPCServerList2>, IOPCEnumGUID, IEnumGUID>;
    constexpr std::array versions{std::pair(categoryDa3, &FoundServer::da3), std::pair(categoryDa2, &FoundServer::da2),
                                  std::pair(categoryDa1, &FoundServer::da1)};
    std::vector<FoundServer> servers;
    for (const auto& version : versions) {
        for (const Uuid& classId : classesOf<Enumerator>(list, version.first)) {
            auto known = std::ranges::find(servers, classId, &FoundServer::classId);
            if (known == servers.end()) {
                known = servers.insert(servers.end(), FoundServer());
                known->classId = classId;
            }
            (*known).*version.second = true;
        }
    }
    for (FoundServer& server : servers) {
        auto details = list.GetClassDetails(server.classId);
        server.progId = std::move(details.out.progId).value_or(std::string());
        server.userType = std::move(details.out.userType).value_or(std::string());
        server.versionIndependentProgId = std::move(details.out.versionIndependentProgId).value_or(std::string());
    }
    return servers;
}

std::string namesOf(const std::vector<FoundServer>& servers) {
    std::string names;
    for (const FoundServer& server : servers) {
        names += (names.empty() ? "" : ", ") + (server.progId.empty() ? server.classId.toText() : server.progId);
    }
    return names.empty() ? "none" : names;
}

std::optional<Uuid> classIdIn(std::string_view text) {
    try {
        return Uuid::parse(text);
    } catch (const std::invalid_argument&) {
        return std::nullopt;
    }
}

}  // namespace

std::vector<FoundServer> discover(const Interface& serverList) {
    return withList(serverList, [](const auto& list) { return serversOf(list); });
}

// Lists exist that know a name only where it stands among the details of a class.
Uuid classOf(const Interface& serverList, std::string_view progId) {
    const auto known = withList(serverList, [&](const auto& list) { return list.CLSIDFromProgID(progId); });
    if (!failed(known.result)) {
        return known.out;
    }
    const std::vector<FoundServer> servers = discover(serverList);
    const auto isNamed = [&](const FoundServer& server) {
        return equalsIgnoringCase(server.progId, progId) || equalsIgnoringCase(server.versionIndependentProgId, progId);
    };
    const auto found = std::ranges::find_if(servers, isNamed);
    if (found == servers.end()) {
        throw OpcError("The machine knows no OPC server '" + std::string(progId) + "'. It has: " + namesOf(servers));
    }
    return found->classId;
}

std::vector<FoundServer> discover(dcom::client::Session& session) {
    return discover(serverListOf(session));
}

Uuid classOf(dcom::client::Session& session, std::string_view server) {
    const auto classId = classIdIn(server);
    return classId ? *classId : classOf(serverListOf(session), server);
}

}  // namespace quelm::opcda::client
