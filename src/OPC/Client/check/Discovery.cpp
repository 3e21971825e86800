// Area 1: how programs find the server, and what its object offers.

#include <algorithm>
#include <array>

#include "OPC/Client/check/Stage.h"
#include "base/Text.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace discovery {
namespace {

using namespace opcda::client;
using ClassIds = std::vector<Uuid>;

Interface enumerator(Stage& stage, Findings& found) {
    const std::array wanted{IOPCServerList2::iid, IOPCServerList::iid};
    const auto made = stage.session().activate(serverListClass, wanted);
    for (const auto& [result, list] : made.interfaces) {
        if (list) {
            return *list;
        }
    }
    found.need(false, "the list of OPC servers has neither IOPCServerList2 nor IOPCServerList");
    found.skip("");
}

template <class List, class Enumerator>
ClassIds classesBy(const List& list, Findings& found, std::span<const Uuid> categories) {
    const auto reply = list.EnumClassesOfCategories(categories, {});
    found.result("EnumClassesOfCategories", reply.result, {S_OK});
    found.need(reply.out.has_value(), "EnumClassesOfCategories gave no enumerator");
    const auto next = Enumerator(*reply.out).Next(100);
    found.result("Next beyond the end", next.result, {S_FALSE});
    return next.out;
}

// The classes of any of these categories, by both interfaces of the list, which must agree.
ClassIds classes(Stage& stage, Findings& found, std::span<const Uuid> categories) {
    const Interface list = enumerator(stage, found);
    const auto younger = ask<IOPCServerList2>(list).out;
    const auto older = ask<IOPCServerList>(list).out;
    found.need(younger || older, "the list of OPC servers offers no interface");
    ClassIds first = younger ? classesBy<IOPCServerList2, IOPCEnumGUID>(*younger, found, categories)
                             : classesBy<IOPCServerList, IEnumGUID>(*older, found, categories);
    if (younger && older) {
        const ClassIds second = classesBy<IOPCServerList, IEnumGUID>(*older, found, categories);
        found.expect(std::is_permutation(first.begin(), first.end(), second.begin(), second.end()),
                     "IOPCServerList and IOPCServerList2 list different classes");
    }
    return first;
}

std::ptrdiff_t timesListed(Stage& stage, Findings& found, std::span<const Uuid> categories) {
    const ClassIds all = classes(stage, found, categories);
    return std::count(all.begin(), all.end(), stage.target().classId);
}

bool offersDa3(Stage& stage) {
    return ask<IOPCItemIO>(stage.server()).out.has_value();
}

void listed(Stage& stage, Findings& found) {
    found.expect(timesListed(stage, found, std::array{categoryDa2}) == 1, "the class is not listed once for DA 2.0");
    if (offersDa3(stage)) {
        found.expect(timesListed(stage, found, std::array{categoryDa3}) == 1,
                     "the class is not listed once for DA 3.0");
    }
}

void listedForDa1(Stage& stage, Findings& found) {
    constexpr Uuid asyncIo = Uuid::parse("39C13A53-011E-11D0-9675-0020AFD8ADB3");
    const Group group = stage.group();
    const bool offers = group.state.query(asyncIo).interface.has_value();
    found.expect((timesListed(stage, found, std::array{categoryDa1}) > 0) == offers,
                 offers ? "offers IOPCAsyncIO of DA 1.0, and is not listed for it"
                        : "listed for DA 1.0, and does not offer its interfaces");
}

void listedOnce(Stage& stage, Findings& found) {
    found.equal<std::ptrdiff_t>("the number of times that the class is listed",
                                timesListed(stage, found, std::array{categoryDa2, categoryDa3}), 1);
}

void unknownCategory(Stage& stage, Findings& found) {
    found.expect(classes(stage, found, std::array{unknownIid}).empty(), "classes are listed for it");
}

void details(Stage& stage, Findings& found) {
    const Interface list = enumerator(stage, found);
    if (const auto younger = ask<IOPCServerList2>(list).out) {
        const auto reply = younger->GetClassDetails(stage.target().classId);
        found.result("IOPCServerList2::GetClassDetails", reply.result, {S_OK});
        found.expect(!reply.out.progId.value_or("").empty(), "no ProgID");
        found.expect(reply.out.userType.has_value(), "no description");
        found.expect(!reply.out.versionIndependentProgId.value_or("").empty(),
                     "neither a version independent ProgID nor the ProgID again");
    }
    if (const auto older = ask<IOPCServerList>(list).out) {
        const auto reply = older->GetClassDetails(stage.target().classId);
        found.result("IOPCServerList::GetClassDetails", reply.result, {S_OK});
        found.expect(!reply.out.progId.value_or("").empty() && reply.out.userType, "ProgID or description is missing");
    }
}

void detailsOfUnknown(Stage& stage, Findings& found) {
    const Interface list = enumerator(stage, found);
    const auto check = [&found](const auto& reply) {
        found.result("GetClassDetails", reply.result, {REGDB_E_CLASSNOTREG});
        found.expect(!reply.out.progId && !reply.out.userType && !reply.out.versionIndependentProgId,
                     "texts came with the failure");
    };
    if (const auto younger = ask<IOPCServerList2>(list).out) {
        check(younger->GetClassDetails(unknownIid));
    }
    if (const auto older = ask<IOPCServerList>(list).out) {
        check(older->GetClassDetails(unknownIid));
    }
}

// By whichever interface the list has.
Reply<Uuid> classOf(Stage& stage, Findings& found, const std::string& progId) {
    const Interface list = enumerator(stage, found);
    const auto younger = ask<IOPCServerList2>(list).out;
    return younger ? younger->CLSIDFromProgID(progId) : stage.as<IOPCServerList>(list).CLSIDFromProgID(progId);
}

void classByName(Stage& stage, Findings& found) {
    const std::string& name = stage.target().progId;
    if (name.empty()) {
        found.skip("the server's ProgID is not known");
    }
    for (const std::string& each : {name, toUpperCase(name)}) {
        const auto reply = classOf(stage, found, each);
        found.result(each, reply.result, {S_OK});
        found.expect(reply.out == stage.target().classId, each + " leads to another class");
    }
}

void classByWrongName(Stage& stage, Findings& found) {
    const auto reply = classOf(stage, found, "No.Such.Server");
    found.expect(failed(reply.result), "CLSIDFromProgID: " + resultName(reply.result));
    found.expect(reply.out.isNull(), "a class came with the failure");
}

void enumeratesClasses(Stage& stage, Findings& found) {
    const auto list = stage.asOffered<IOPCServerList2>(enumerator(stage, found));
    const auto reply = list.EnumClassesOfCategories(std::array{categoryDa2}, {});
    found.need(reply.out.has_value(), "no enumerator");
    const IOPCEnumGUID classes(*reply.out);
    const auto all = classes.Next(100);
    found.result("Next(100)", all.result, {S_FALSE});
    found.need(!all.out.empty(), "no class is listed");
    found.result("Reset", classes.Reset(), {S_OK});
    const auto one = classes.Next(1);
    found.result("Next(1)", one.result, {S_OK});
    const auto clone = classes.Clone();
    found.result("Clone", clone.result, {S_OK});
    found.need(clone.out.has_value(), "Clone gave nothing");
    found.expect(IOPCEnumGUID(*clone.out).Next(100).out.size() + 1 == all.out.size(), "the clone stands elsewhere");
    found.result("Skip(1000)", classes.Skip(1000), {S_FALSE});
}

void serverInterfaces(Stage& stage, Findings& found) {
    const Interface& server = stage.server();
    const auto identity = server.query(dcom::orpc::iidUnknown);
    found.need(identity.interface.has_value(), "there is no IUnknown");
    const bool is3 = offersDa3(stage);
    std::vector<Uuid> wanted{IOPCServer::iid, IOPCCommon::iid, IConnectionPointContainer::iid};
    if (is3) {
        wanted.insert(wanted.end(), {IOPCBrowse::iid, IOPCItemIO::iid});
    }
    if (!is3 || ask<IOPCItemProperties>(server).out) {
        wanted.push_back(IOPCItemProperties::iid);
    }
    for (const Uuid& iid : wanted) {
        const auto reply = server.query(iid);
        if (!found.expect(reply.interface.has_value(), interfaceName(iid) + ": " + resultName(reply.result))) {
            continue;
        }
        const auto back = reply.interface->query(dcom::orpc::iidUnknown);
        found.expect(back.interface && back.interface->oid() == server.oid(),
                     interfaceName(iid) + " has another IUnknown");
    }
}

void notOffered(Stage& stage, Findings& found) {
    constexpr Uuid publicGroups = Uuid::parse("39C13A4E-011E-11D0-9675-0020AFD8ADB3");
    const auto random = stage.server().query(unknownIid);
    found.result("an id that nobody has", random.result, {E_NOINTERFACE});
    const auto groups = stage.server().query(publicGroups);
    found.result("IOPCServerPublicGroups", groups.result, {S_OK, E_NOINTERFACE});
    found.expect(groups.interface.has_value() == !failed(groups.result), "result and pointer contradict each other");
}

constexpr std::array<Case, 11> cases{{
    {1, Version::Da2, "list of servers: the classes of DA 2.0, of DA 3.0", "S_OK; the server's class is in each",
     listed},
    {2, Version::Da2, "list of servers: the classes of DA 1.0", "the class only where it offers DA 1.0", listedForDa1},
    {3, Version::Da2, "list of servers: DA 2.0 or DA 3.0", "the class once", listedOnce},
    {4, Version::Da2, "list of servers: a category that nobody has", "S_OK; an enumerator; Next S_FALSE, 0",
     unknownCategory},
    {5, Version::Da2, "GetClassDetails(class)", "ProgID and description; by List2 one more name", details},
    {6, Version::Da2, "GetClassDetails(a class that nobody has)", "REGDB_E_CLASSNOTREG; no texts", detailsOfUnknown},
    {7, Version::Da2, "CLSIDFromProgID(ProgID), also in capitals", "the same class", classByName},
    {8, Version::Da2, "CLSIDFromProgID(a name that nobody has)", "a failure; the null class", classByWrongName},
    {9, Version::Da2, "IOPCEnumGUID: Next, Reset, Next, Clone, Skip", "S_FALSE, S_OK, S_OK, same place, S_FALSE",
     enumeratesClasses},
    {10, Version::Da2, "the server object: every interface that it must have", "all there, one IUnknown",
     serverInterfaces},
    {11, Version::Da2, "the server object: interfaces that it need not have", "E_NOINTERFACE", notOffered},
}};

}  // namespace
}  // namespace discovery

std::span<const Case> discoveryCases() {
    return discovery::cases;
}

}  // namespace quelm::opcclient::check
