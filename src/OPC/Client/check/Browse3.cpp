// Area 12: browsing as in OPC DA 3.0.

#include <algorithm>
#include <array>
#include <set>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace browse3 {
namespace {

using namespace opcda::client;
using Elements = std::vector<BrowseElement>;

IOPCBrowse browser(Stage& stage) {
    return stage.asOffered<IOPCBrowse>(stage.server());
}

// The elements of one call that must go well, and give all there is.
Elements elements(const IOPCBrowse& browse, Findings& found, const BrowseRequest& request) {
    const auto reply = browse.Browse(request);
    found.result("Browse", reply.result, {S_OK});
    found.expect(!reply.out.moreElements && reply.out.continuationPoint.value_or("").empty(),
                 "there are more elements");
    Elements all = reply.out.elements.value_or(Elements());
    found.equal<std::size_t>("the number of elements", all.size(), reply.out.count);
    return all;
}

BrowseRequest below(std::string id, BrowseFilter filter = BrowseFilter::All) {
    BrowseRequest request;
    request.itemId = std::move(id);
    request.filter = filter;
    return request;
}

std::vector<std::string> idsOf(const Elements& elements) {
    std::vector<std::string> ids;
    for (const BrowseElement& each : elements) {
        ids.push_back(each.itemId.value_or("(null)"));
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

// The first element that has the flag, from the root down.
BrowseElement first(const IOPCBrowse& browse, Findings& found, std::uint32_t flag) {
    std::vector<std::string> branches{""};
    for (std::size_t next = 0; next < branches.size() && next < 100; ++next) {
        for (const BrowseElement& each : elements(browse, found, below(branches[next]))) {
            if ((each.flags & flag) != 0) {
                return each;
            }
            if ((each.flags & BrowseElement::hasChildren) != 0) {
                branches.push_back(each.itemId.value_or(""));
            }
        }
    }
    found.skip("no such element was found");
}

// A branch with several elements in it, the root where it has several.
std::string wideBranch(const IOPCBrowse& browse, Findings& found) {
    std::vector<std::string> branches{""};
    for (std::size_t next = 0; next < branches.size() && next < 100; ++next) {
        const Elements all = elements(browse, found, below(branches[next]));
        if (all.size() > 2) {
            return branches[next];
        }
        for (const BrowseElement& each : all) {
            if ((each.flags & BrowseElement::hasChildren) != 0) {
                branches.push_back(each.itemId.value_or(""));
            }
        }
    }
    found.skip("no branch has more than two elements");
}

void root(Stage& stage, Findings& found) {
    for (const BrowseElement& each : elements(browser(stage), found, {})) {
        found.expect(!each.name.value_or("").empty() && each.itemId, "an element without a name or an id");
        found.expect((each.flags & ~3U) == 0, fmt::format("flags {}", each.flags));
    }
}

void children(Stage& stage, Findings& found) {
    const IOPCBrowse browse = browser(stage);
    const BrowseElement branch = first(browse, found, BrowseElement::hasChildren);
    found.expect(!elements(browse, found, below(branch.itemId.value_or(""))).empty(), "the branch has nothing in it");
    const BrowseElement item = first(browse, found, BrowseElement::isItem);
    if ((item.flags & BrowseElement::hasChildren) == 0) {
        found.expect(elements(browse, found, below(item.itemId.value_or(""))).empty(), "the leaf has something in it");
    }
}

void nowhere(Stage& stage, Findings& found) {
    const auto reply = browser(stage).Browse(below("no.such.branch.anywhere"));
    found.result("Browse", reply.result, {OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID});
    found.expect(reply.out.count == 0 && !reply.out.elements, "elements came with the failure");
}

void byKind(Stage& stage, Findings& found) {
    const IOPCBrowse browse = browser(stage);
    const std::string place = wideBranch(browse, found);
    const Elements branches = elements(browse, found, below(place, BrowseFilter::Branches));
    const Elements items = elements(browse, found, below(place, BrowseFilter::Items));
    for (const BrowseElement& each : branches) {
        found.expect((each.flags & BrowseElement::hasChildren) != 0 || (each.flags & BrowseElement::isItem) == 0,
                     each.itemId.value_or("") + " is no branch");
    }
    for (const BrowseElement& each : items) {
        found.expect((each.flags & BrowseElement::isItem) != 0, each.itemId.value_or("") + " is no item");
    }
    const auto all = idsOf(elements(browse, found, below(place)));
    auto both = idsOf(branches);
    const auto others = idsOf(items);
    both.insert(both.end(), others.begin(), others.end());
    found.expect(std::set(both.begin(), both.end()) == std::set(all.begin(), all.end()),
                 "branches and items together are not all elements");
}

void portions(Stage& stage, Findings& found) {
    const IOPCBrowse browse = browser(stage);
    const std::string place = wideBranch(browse, found);
    const auto all = idsOf(elements(browse, found, below(place)));
    BrowseRequest request = below(place);
    request.maxElements = 2;
    std::vector<std::string> ids;
    for (std::size_t calls = 0; calls <= all.size(); ++calls) {
        const auto reply = browse.Browse(request);
        found.need(reply.result == S_OK, "Browse: " + resultName(reply.result));
        found.expect(reply.out.count <= 2, fmt::format("{} elements came at once", reply.out.count));
        const auto more = idsOf(reply.out.elements.value_or(Elements()));
        ids.insert(ids.end(), more.begin(), more.end());
        request.continuationPoint = reply.out.continuationPoint.value_or("");
        if (request.continuationPoint->empty()) {
            if (reply.out.moreElements) {
                found.tolerate("the server has no continuation points and says that there is more");
                return;
            }
            std::sort(ids.begin(), ids.end());
            found.expect(ids == all, "the portions together are not all elements, each once");
            return;
        }
    }
    found.fail("the continuation points do not end");
}

void wrongPoint(Stage& stage, Findings& found) {
    BrowseRequest request;
    request.continuationPoint = "nonsense";
    found.result("Browse", browser(stage).Browse(request).result, {OPC_E_INVALIDCONTINUATIONPOINT});
}

void nameFilter(Stage& stage, Findings& found) {
    const IOPCBrowse browse = browser(stage);
    BrowseRequest request = below(wideBranch(browse, found));
    const Elements all = elements(browse, found, request);
    const std::string name = all.front().name.value_or("?");
    request.nameFilter = name.substr(0, 1) + "*";
    const auto some = idsOf(elements(browse, found, request));
    found.expect(std::find(some.begin(), some.end(), all.front().itemId.value_or("")) != some.end(),
                 "\"" + request.nameFilter + "\" leaves out " + name);
    request.nameFilter = "zzzzzz*";
    found.expect(elements(browse, found, request).empty(), "\"zzzzzz*\" has elements");
}

void vendorFilter(Stage& stage, Findings& found) {
    BrowseRequest request;
    request.vendorFilter = "x";
    found.result("Browse", browser(stage).Browse(request).result, {S_OK, OPC_E_INVALIDFILTER});
}

// The element of an item with what is asked for.
BrowseElement itemWith(Stage& stage, Findings& found, HResult result, BrowseRequest request) {
    const IOPCBrowse browse = browser(stage);
    const std::string id = first(browse, found, BrowseElement::isItem).itemId.value_or("");
    const std::size_t end = id.find_last_of("./");
    request.filter = BrowseFilter::Items;
    for (const std::string& place : {end == std::string::npos ? "" : id.substr(0, end), std::string()}) {
        request.itemId = place;
        const auto reply = browse.Browse(request);
        if (!failed(reply.result) && reply.out.elements && !reply.out.elements->empty()) {
            found.result("Browse", reply.result, {result});
            return reply.out.elements->front();
        }
    }
    found.skip("the branch of " + id + " was not found");
}

void allProperties(Stage& stage, Findings& found) {
    BrowseRequest request;
    request.allProperties = true;
    request.propertyValues = true;
    const BrowseElement item = itemWith(stage, found, S_OK, request);
    std::set<std::uint32_t> ids;
    for (const Property& each : item.properties.properties.value_or(std::vector<Property>())) {
        ids.insert(each.id);
        found.expect(
            failed(each.error) || each.id == 2 || each.value.type == each.type,
            fmt::format("property {} is a {}, not a {}", each.id, typeName(each.value.type), typeName(each.type)));
    }
    for (const std::uint32_t id : {1U, 2U, 3U, 4U, 5U, 6U}) {
        found.expect(ids.contains(id), fmt::format("property {} is missing", id));
    }
}

void someProperties(Stage& stage, Findings& found) {
    BrowseRequest request;
    request.propertyIds = {1, 99999};
    const BrowseElement item = itemWith(stage, found, S_FALSE, request);
    found.result("the element", item.properties.error, {S_FALSE});
    const auto properties = item.properties.properties.value_or(std::vector<Property>());
    found.need(properties.size() == 2, "there are no two properties");
    found.result("property 1", properties[0].error, {S_OK});
    found.expect(properties[0].value.isEmpty(), "a value came that was not asked for");
    found.result("property 99999", properties[1].error, {OPC_E_INVALID_PID});
}

constexpr std::array<Case, 10> cases{{
    {150, Version::Da3, "Browse the root", "S_OK; names, ids, flags; no more elements", root},
    {151, Version::Da3, "Browse a branch, a leaf", "its elements; none", children},
    {152, Version::Da3, "Browse an unknown id", "OPC_E_UNKNOWNITEMID; nothing", nowhere},
    {153, Version::Da3, "Browse by branches, by items", "these; together all", byKind},
    {154, Version::Da3, "Browse by portions of two", "all elements once; an empty point at the end", portions},
    {155, Version::Da3, "Browse with a wrong continuation point", "OPC_E_INVALIDCONTINUATIONPOINT", wrongPoint},
    {156, Version::Da3, "Browse by names", "those; none: S_OK, 0", nameFilter},
    {157, Version::Da3, "Browse by a vendor's filter", "passed over, or OPC_E_INVALIDFILTER", vendorFilter},
    {158, Version::Da3, "Browse with all properties and values", "1 to 6 at least, of their types", allProperties},
    {159, Version::Da3, "Browse with properties 1, 99999", "S_FALSE; S_OK without value; OPC_E_INVALID_PID",
     someProperties},
}};

}  // namespace
}  // namespace browse3

std::span<const Case> browse3Cases() {
    return browse3::cases;
}

}  // namespace quelm::opcclient::check
