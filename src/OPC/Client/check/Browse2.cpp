// Area 11: browsing as in OPC DA 2.0.

#include <algorithm>
#include <array>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace browse2 {
namespace {

using namespace opcda::client;
using Browse = IOPCBrowseServerAddressSpace;
using Names = std::vector<std::string>;

constexpr std::uint16_t hierarchical = 1;
constexpr std::uint32_t readable = 1;
constexpr std::uint32_t writable = 2;
const std::string nowhere = "no.such.branch.anywhere";

Browse browser(Stage& stage) {
    return stage.asOffered<Browse>(stage.server());
}

Browse treeBrowser(Stage& stage, Findings& found) {
    Browse browse = browser(stage);
    if (browse.QueryOrganization().out != hierarchical) {
        found.skip("the server's items are no tree");
    }
    return browse;
}

Names names(const Browse& browse, Findings& found, BrowseType kind, std::string_view filter = "",
            VarType type = VT_EMPTY, std::uint32_t rights = 0) {
    const auto reply = browse.BrowseOPCItemIDs(kind, filter, type, rights);
    found.result("BrowseOPCItemIDs", reply.result, {S_OK, S_FALSE});
    found.need(reply.out.has_value(), "there is no enumerator");
    Names all = allOf(IEnumString(*reply.out), "browsing");
    found.expect(all.empty() == (reply.result == S_FALSE),
                 fmt::format("{} names with {}", all.size(), resultName(reply.result)));
    return all;
}

std::string position(const Browse& browse, Findings& found) {
    const auto reply = browse.GetItemID("");
    found.result("GetItemID(\"\")", reply.result, {S_OK});
    return reply.out.value_or("(null)");
}

// A branch of the root.
std::string branch(const Browse& browse, Findings& found) {
    const Names branches = names(browse, found, BrowseType::Branch);
    if (branches.empty()) {
        found.skip("the root has no branch");
    }
    return branches.front();
}

void organization(Stage& stage, Findings& found) {
    const auto reply = browser(stage).QueryOrganization();
    found.result("QueryOrganization", reply.result, {S_OK});
    found.expect(reply.out == 1 || reply.out == 2, fmt::format("it is {}", reply.out));
}

void atRoot(Stage& stage, Findings& found) {
    const Browse browse = browser(stage);
    found.equal<std::string>("the position", position(browse, found), "");
    found.result("ChangeBrowsePosition(up)", browse.ChangeBrowsePosition(BrowseDirection::Up, ""), {E_FAIL});
}

void downAndUp(Stage& stage, Findings& found) {
    const Browse browse = treeBrowser(stage, found);
    found.result("down", browse.ChangeBrowsePosition(BrowseDirection::Down, branch(browse, found)), {S_OK});
    found.expect(!position(browse, found).empty(), "a branch's id is empty");
    found.result("up", browse.ChangeBrowsePosition(BrowseDirection::Up, ""), {S_OK});
    found.equal<std::string>("the position", position(browse, found), "");
}

void wrongMoves(Stage& stage, Findings& found) {
    const Browse browse = treeBrowser(stage, found);
    browse.ChangeBrowsePosition(BrowseDirection::Down, branch(browse, found));
    const std::string before = position(browse, found);
    Names wrong{nowhere};
    const Names leaves = names(browse, found, BrowseType::Leaf);
    const Names branches = names(browse, found, BrowseType::Branch);
    // A name may be a leaf and a branch at once.
    const auto leaf = std::find_if(leaves.begin(), leaves.end(), [&branches](const std::string& name) {
        return std::find(branches.begin(), branches.end(), name) == branches.end();
    });
    if (leaf != leaves.end()) {
        wrong.push_back(*leaf);
    }
    for (const std::string& name : wrong) {
        found.expect(failed(browse.ChangeBrowsePosition(BrowseDirection::Down, name)),
                     "down to " + name + " goes well");
        found.equal("the position", position(browse, found), before);
    }
    found.expect(failed(browse.ChangeBrowsePosition(BrowseDirection::To, nowhere)), "to a wrong id goes well");
    found.equal("the position", position(browse, found), before);
}

void moveTo(Stage& stage, Findings& found) {
    const Browse browse = treeBrowser(stage, found);
    browse.ChangeBrowsePosition(BrowseDirection::Down, branch(browse, found));
    const std::string id = position(browse, found);
    found.result("to the root", browse.ChangeBrowsePosition(BrowseDirection::To, ""), {S_OK});
    found.equal<std::string>("the position", position(browse, found), "");
    found.result("to the branch", browse.ChangeBrowsePosition(BrowseDirection::To, id), {S_OK});
    found.equal("the position", position(browse, found), id);
}

void allKinds(Stage& stage, Findings& found) {
    const Browse browse = browser(stage);
    names(browse, found, BrowseType::Branch);
    names(browse, found, BrowseType::Leaf);
    found.expect(names(browse, found, BrowseType::Flat).size() >= stage.items().size(),
                 "the flat list has fewer items than there are");
}

// The first branch that has leaves, from the root down; the browser stands there.
Names leavesSomewhere(const Browse& browse, Findings& found) {
    for (int level = 0; level < 16; ++level) {
        Names leaves = names(browse, found, BrowseType::Leaf);
        if (!leaves.empty()) {
            return leaves;
        }
        const std::string next = branch(browse, found);
        found.need(browse.ChangeBrowsePosition(BrowseDirection::Down, next) == S_OK, "down to " + next + " fails");
    }
    found.skip("no leaf was found");
}

void leavesAreItems(Stage& stage, Findings& found) {
    const Browse browse = browser(stage);
    const auto items = stage.as<IOPCItemMgt>(stage.group().state);
    const Names leaves = leavesSomewhere(browse, found);
    for (std::size_t i = 0; i < std::min<std::size_t>(leaves.size(), 20); ++i) {
        const auto id = browse.GetItemID(leaves[i]);
        found.result("GetItemID(" + leaves[i] + ")", id.result, {S_OK});
        const ItemDefinition definition{id.out.value_or(""), "", true, 1, VT_EMPTY, {}};
        found.result("AddItems(" + definition.itemId + ")", items.AddItems(std::array{definition}).result, {S_OK});
    }
}

void filterByRights(Stage& stage, Findings& found) {
    const Browse browse = browser(stage);
    const std::size_t all = names(browse, found, BrowseType::Flat).size();
    const std::size_t toRead = names(browse, found, BrowseType::Flat, "", VT_EMPTY, readable).size();
    const std::size_t toWrite = names(browse, found, BrowseType::Flat, "", VT_EMPTY, writable).size();
    found.expect(toRead <= all && toWrite <= all && toRead + toWrite >= all,
                 fmt::format("{} readable, {} writable of {}", toRead, toWrite, all));
    const bool hasWritable = std::any_of(stage.items().begin(), stage.items().end(),
                                         [](const KnownItem& item) { return (item.rights & writable) != 0; });
    found.expect((toWrite > 0) || !hasWritable, "items that can be written to are missing in the list of these");
}

void filterByType(Stage& stage, Findings& found) {
    const Browse browse = browser(stage);
    const auto items = stage.as<IOPCItemMgt>(stage.group().state);
    const Names texts = names(browse, found, BrowseType::Flat, "", VT_BSTR);
    for (std::size_t i = 0; i < std::min<std::size_t>(texts.size(), 20); ++i) {
        const ItemDefinition definition{texts[i], "", true, 1, VT_BSTR, {}};
        found.result("AddItems(" + texts[i] + " as VT_BSTR)", items.AddItems(std::array{definition}).result, {S_OK});
    }
    found.expect(names(browse, found, BrowseType::Flat, "", VT_DISPATCH).empty(), "there are items as VT_DISPATCH");
}

void filterByName(Stage& stage, Findings& found) {
    const Browse browse = browser(stage);
    const Names leaves = leavesSomewhere(browse, found);
    const std::string start(1, leaves.front().front());
    found.expect(names(browse, found, BrowseType::Leaf, "*") == leaves, "\"*\" leaves out names");
    const Names some = names(browse, found, BrowseType::Leaf, start + "*");
    found.expect(std::find(some.begin(), some.end(), leaves.front()) != some.end(),
                 "\"" + start + "*\" leaves out " + leaves.front());
    found.expect(names(browse, found, BrowseType::Leaf, "zzzzzz*").empty(), "\"zzzzzz*\" has names");
    const auto wrong = browse.BrowseOPCItemIDs(BrowseType::Leaf, "[", VT_EMPTY, 0);
    found.result("the filter \"[\"", wrong.result, {OPC_E_INVALIDFILTER, S_FALSE});
}

void wrongNumbers(Stage& stage, Findings& found) {
    const Browse browse = browser(stage);
    for (const std::uint16_t number : {0, 4}) {
        found.result(fmt::format("BrowseOPCItemIDs({})", number),
                     browse.BrowseOPCItemIDs(BrowseType{number}, "", VT_EMPTY, 0).result, {E_INVALIDARG});
        found.result(fmt::format("ChangeBrowsePosition({})", number),
                     browse.ChangeBrowsePosition(BrowseDirection{number}, ""), {E_INVALIDARG});
    }
}

void ownLists(Stage& stage, Findings& found) {
    const Browse browse = treeBrowser(stage, found);
    const Names before = names(browse, found, BrowseType::Branch);
    const auto one = browse.BrowseOPCItemIDs(BrowseType::Branch, "", VT_EMPTY, 0);
    const auto two = browse.BrowseOPCItemIDs(BrowseType::Branch, "", VT_EMPTY, 0);
    found.need(one.out && two.out && !before.empty(), "there are no two enumerators with names");
    browse.ChangeBrowsePosition(BrowseDirection::Down, before.front());
    found.expect(allOf(IEnumString(*one.out), "browsing") == before, "the first list has changed");
    found.expect(allOf(IEnumString(*two.out), "browsing") == before, "the second list has changed");
}

void accessPaths(Stage& stage, Findings& found) {
    const auto reply = browser(stage).BrowseAccessPaths(stage.item().id);
    found.result("BrowseAccessPaths", reply.result, {S_OK, S_FALSE, E_NOTIMPL});
    if (reply.result == S_FALSE) {
        found.need(reply.out.has_value(), "there is no enumerator");
        found.expect(IEnumString(*reply.out).Next(1).out.empty(), "there is a path, with S_FALSE");
    }
}

constexpr std::array<Case, 13> cases{{
    {137, Version::Da2, "QueryOrganization", "a tree, or flat", organization},
    {138, Version::Da2, "a new server object: GetItemID(\"\"), up", "the root; E_FAIL", atRoot},
    {139, Version::Da2, "down to a branch and up again", "S_OK; the branch's id; S_OK; the root", downAndUp},
    {140, Version::Da2, "down to no branch, to a leaf; to no id", "failures; the position as before", wrongMoves},
    {141, Version::Da2, "to the root, to a branch by its id", "S_OK; there", moveTo},
    {142, Version::Da2, "BrowseOPCItemIDs: branches, leaves, flat", "names; flat gives every item", allKinds},
    {143, Version::Da2, "GetItemID of each leaf; AddItems", "S_OK; S_OK", leavesAreItems},
    {144, Version::Da2, "BrowseOPCItemIDs by access rights", "the items with these rights", filterByRights},
    {145, Version::Da2, "BrowseOPCItemIDs by type VT_BSTR, VT_DISPATCH", "items that AddItems takes so; none",
     filterByType},
    {146, Version::Da2, "BrowseOPCItemIDs by names \"*\", \"A*\", \"[\"", "all; those; OPC_E_INVALIDFILTER",
     filterByName},
    {147, Version::Da2, "BrowseOPCItemIDs, ChangeBrowsePosition by 0, 4", "E_INVALIDARG", wrongNumbers},
    {148, Version::Da2, "two enumerators; the position moves", "their lists as before", ownLists},
    {149, Version::Da2, "BrowseAccessPaths", "S_FALSE and none, or E_NOTIMPL, or paths", accessPaths},
}};

}  // namespace
}  // namespace browse2

std::span<const Case> browse2Cases() {
    return browse2::cases;
}

}  // namespace quelm::opcclient::check
