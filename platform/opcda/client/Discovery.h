#pragma once

// Finds OPC servers on a machine by its list of servers, which every machine with OPC servers has as a class of its
// own.

#include <string>
#include <string_view>
#include <vector>

#include "base/Uuid.h"
#include "dcom/client/Session.h"
#include "opcda/client/OpcError.h"

namespace quelm::opcda::client {

struct FoundServer {
    Uuid classId;
    std::string progId;
    std::string userType;                  // its description
    std::string versionIndependentProgId;  // empty where the list does not know it
    bool da1 = false;
    bool da2 = false;
    bool da3 = false;
};

// The machine's OPC DA servers of any version, in the order of the list; one whose details the list does not give has
// empty texts. Throws Trouble; OpcError where the list itself answers with a failure.
std::vector<FoundServer> discover(dcom::client::Session& session);

// The class of a server by its ProgID or by the class id itself, with or without braces. Throws OpcError for a ProgID
// that the machine does not know, with those that it does know in the sentence; Trouble.
Uuid classOf(dcom::client::Session& session, std::string_view server);

// The same over a list that is there already: IOPCServerList2, or IOPCServerList where it is the older one.
std::vector<FoundServer> discover(const dcom::client::Interface& serverList);
Uuid classOf(const dcom::client::Interface& serverList, std::string_view progId);

}  // namespace quelm::opcda::client
