#include "opcda/Browser.h"

#include <algorithm>
#include <random>
#include <set>

#include "base/Text.h"
#include "opcda/ElementBrowser.h"
#include "opcda/Fixture.h"
#include "opcda/NameFilter.h"

namespace quelm::opcda {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string longId(5000, 'x');
constexpr std::uint16_t up = 1;
constexpr std::uint16_t down = 2;
constexpr std::uint16_t to = 3;
constexpr std::uint16_t branches = 1;
constexpr std::uint16_t leaves = 2;
constexpr std::uint16_t flat = 3;

class BrowserTest : public OpcDaTest {
 protected:
    std::vector<std::string> names(std::uint16_t type, std::string_view filter = "", VarType dataType = VT_EMPTY,
                                   std::uint32_t rights = 0) {
        NameEnumerator found;
        result = browser.browse(type, filter, dataType, rights, found);
        const auto list = found.next(1'000'000);
        return {list.begin(), list.end()};
    }
    std::string idOf(std::string_view name) {
        std::string id;
        result = browser.itemId(name, id);
        return id;
    }
    // What a client does that walks the whole tree: every item ID that it comes by.
    void collect(std::multiset<std::string>& ids) {
        for (const std::string& leaf : names(leaves)) {
            ids.insert(idOf(leaf));
        }
        for (const std::string& branch : names(branches)) {
            const std::string before = browser.position();
            ASSERT_EQ(browser.changePosition(down, branch), S_OK) << branch;
            collect(ids);
            ASSERT_EQ(browser.changePosition(up, ""), S_OK);
            ASSERT_TRUE(equalsIgnoringCase(browser.position(), before)) << before;
        }
    }

    // What stands on a level, portion by portion: "+" what has children, without an item's name in brackets.
    std::vector<std::string> elements(ElementRequest request) {
        std::vector<std::string> found;
        std::string point;
        std::string next;
        do {
            request.continuationPoint = point = next;
            result = elementBrowser.browse(
                request,
                [&](const BrowseElement& each) {
                    EXPECT_EQ(each.itemId, each.tag != nullptr ? each.tag->Name() : each.itemId);
                    const std::string name = (each.hasChildren ? "+" : "") + std::string(each.name);
                    found.push_back(each.tag == nullptr ? "(" + name + ")" : name);
                    return true;
                },
                next);
        } while (!next.empty());
        return found;
    }
    // The same walk by elements, in portions of two.
    void collectElements(std::string_view itemId, std::multiset<std::string>& ids) {
        std::string next;
        do {
            const std::string point = next;
            std::vector<BrowseElement> portion;
            const auto take = [&portion](const BrowseElement& each) {
                portion.push_back(each);
                return true;
            };
            ASSERT_EQ(elementBrowser.browse({itemId, point, 2, 1, "", ""}, take, next), S_OK) << itemId;
            for (const BrowseElement& each : portion) {
                if (each.tag != nullptr) {
                    ids.insert(std::string(each.itemId));
                }
                if (each.hasChildren) {
                    collectElements(each.itemId, ids);
                } else {
                    EXPECT_NE(each.tag, nullptr) << each.itemId;
                }
            }
        } while (!next.empty());
    }

    Browser browser{application.items(), application.budgets().of("", "")};
    ElementBrowser elementBrowser{application.items()};
    HResult result = S_OK;
};

TEST_F(BrowserTest, LevelsShowTheirBranchesAndLeaves) {
    EXPECT_THAT(names(branches), ElementsAre("Plant"));
    EXPECT_THAT(names(leaves), ElementsAre("Status"));
    EXPECT_EQ(browser.changePosition(down, "PLANT"), S_OK);
    EXPECT_EQ(browser.position(), "Plant");
    EXPECT_THAT(names(branches), ElementsAre("Stack1", "Stack2"));
    EXPECT_THAT(names(leaves), IsEmpty());
    EXPECT_EQ(result, S_FALSE);
    EXPECT_EQ(idOf("Stack1"), "Plant.Stack1");
    EXPECT_EQ(browser.changePosition(down, "Stack1"), S_OK);
    EXPECT_THAT(names(leaves), ElementsAre("Count", "NOx", "State"));
    EXPECT_THAT(names(flat), ElementsAre("Plant.Stack1.Count", "Plant.Stack1.NOx", "Plant.Stack1.State"));
    EXPECT_EQ(idOf("nox"), "Plant.Stack1.NOx");
    EXPECT_EQ(idOf(""), "Plant.Stack1");
    EXPECT_EQ(idOf("Plant.Stack2.NOx"), "Plant.Stack2.NOx");
    EXPECT_EQ(idOf("nothing"), "");
    EXPECT_EQ(result, E_INVALIDARG);
    EXPECT_THAT(names(9), IsEmpty());
    EXPECT_EQ(result, E_INVALIDARG);
}

TEST_F(BrowserTest, PositionMovesOnlyToBranches) {
    EXPECT_EQ(browser.changePosition(up, ""), E_FAIL);
    struct Case {
        std::uint16_t direction;
        std::string_view text;
        HResult result;
        std::string_view position;
    };
    for (const Case& each :
         {Case{to, "Plant.Stack2", S_OK, "Plant.Stack2"}, Case{down, "NOx", E_INVALIDARG, "Plant.Stack2"},
          Case{down, "", E_INVALIDARG, "Plant.Stack2"}, Case{up, "ignored", S_OK, "Plant"},
          Case{to, "Status", E_INVALIDARG, "Plant"}, Case{to, "Pla", E_INVALIDARG, "Plant"},
          Case{to, "Plant.", E_INVALIDARG, "Plant"}, Case{4, "", E_INVALIDARG, "Plant"}, Case{to, "", S_OK, ""}}) {
        EXPECT_EQ(browser.changePosition(each.direction, each.text), each.result) << each.text;
        EXPECT_EQ(browser.position(), each.position);
    }
}

TEST_F(BrowserTest, FiltersByNameTypeAndRights) {
    add("Setpoint", Variant(1.0), 3);
    EXPECT_THAT(names(flat), ElementsAre("Plant.Stack1.Count", "Plant.Stack1.NOx", "Plant.Stack1.State",
                                         "Plant.Stack2.NOx", "Setpoint", "Status"));
    EXPECT_THAT(names(flat, "*nox"), ElementsAre("Plant.Stack1.NOx", "Plant.Stack2.NOx"));
    EXPECT_EQ(names(flat, "", VT_BSTR).size(), 6U) << "whatever a group would take in that type";
    EXPECT_THAT(names(flat, "", VT_BSTR_ARRAY), IsEmpty());
    EXPECT_THAT(names(flat, "", VT_EMPTY, 2), ElementsAre("Setpoint"));
    EXPECT_THAT(names(leaves, "s?a*", VT_EMPTY, 1), ElementsAre("Status"));
    EXPECT_THAT(names(branches, "p*", VT_BSTR_ARRAY, 2), ElementsAre("Plant"));
    EXPECT_THAT(names(branches, "x*"), IsEmpty());
    EXPECT_THAT(names(flat, "[a"), IsEmpty());
    EXPECT_EQ(result, OPC_E_INVALIDFILTER);
}

TEST_F(BrowserTest, OddNamesAreReachedOnceEach) {
    const std::vector<std::string> odd{"a",    "a.",   "a..",    "a..b", "a.b",  "A.b.c", "a...c", ".x",       "..y",
                                       ".",    "..",   ".x.y",   "a-b",  "a b",  "a.b-c", "a.b d", "A..B.",    "a.b.",
                                       "é.É1", "É.é2", "a.b..c", "p.q",  "P.q2", "x.y.z", "X.Y",   "x.y.z..w", "a. .b"};
    std::multiset<std::string> expected{"Plant.Stack1.NOx", "Plant.Stack1.Count", "Plant.Stack1.State",
                                        "Plant.Stack2.NOx", "Status"};
    for (const std::string& name : odd) {
        if (application.items().find(name) == nullptr) {
            add(name, Variant(1.0));
            expected.insert(name);
        }
    }
    std::multiset<std::string> found;
    collect(found);
    EXPECT_EQ(found, expected);
    EXPECT_EQ(browser.position(), "");
    EXPECT_EQ(names(flat).size(), expected.size());
    std::multiset<std::string> byElements;
    collectElements("", byElements);
    EXPECT_EQ(byElements, expected);
}

TEST_F(BrowserTest, ElementsAreFilteredByKindAndName) {
    add("plant", Variant(1.0));
    add("Plants", Variant(1.0));
    add("Room.1", Variant(1.0));
    const struct {
        ElementRequest request;
        HResult result;
        std::vector<std::string> elements;
    } cases[] = {
        {{"", "", 0, 1, "", ""}, S_OK, {"+plant", "Plants", "(+Room)", "Status"}},
        {{"", "", 1, 2, "", ""}, S_OK, {"+plant", "(+Room)"}},
        {{"", "", 2, 3, "", ""}, S_OK, {"+plant", "Plants", "Status"}},
        {{"", "", 2, 1, "P*", ""}, S_OK, {"+plant", "Plants"}},
        {{"", "", 0, 1, "zzz*", ""}, S_OK, {}},
        {{"PLANT", "", 3, 1, "", ""}, S_OK, {"(+Stack1)", "(+Stack2)"}},
        {{"Plant.Stack1", "", 3, 1, "", ""}, S_OK, {"Count", "NOx", "State"}},
        {{"Plant.Stack1.NOx", "", 0, 1, "", ""}, S_OK, {}},
        {{"no.such", "", 0, 1, "", ""}, OPC_E_UNKNOWNITEMID, {}},
        {{"Plant.", "", 0, 1, "", ""}, OPC_E_UNKNOWNITEMID, {}},
        {{std::string_view(longId), "", 0, 1, "", ""}, OPC_E_INVALIDITEMID, {}},
        {{"", "", 0, 4, "", ""}, E_INVALIDARG, {}},
        {{"", "", 0, 0, "", ""}, E_INVALIDARG, {}},
        {{"", "", 0, 1, "[a", ""}, OPC_E_INVALIDFILTER, {}},
        {{"", "", 0, 1, "", "x"}, OPC_E_INVALIDFILTER, {}},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(elements(each.request), each.elements) << each.request.itemId << " " << each.request.filter;
        EXPECT_EQ(result, each.result) << each.request.itemId << " " << each.request.filter;
    }
}

TEST_F(BrowserTest, ContinuationPointsServeTheirOwnBrowsingOnly) {
    const auto one = [](const BrowseElement&) { return true; };
    const ElementRequest request{"Plant", "", 1, 1, "", ""};
    std::string point;
    ASSERT_EQ(elementBrowser.browse(request, one, point), S_OK);
    ASSERT_EQ(point.size(), ElementBrowser::pointLength);
    std::string forged = point;
    forged[7] = '0';
    std::string next;
    for (const auto& [itemId, given, filter, names] : {std::tuple{"Plant", "nonsense", 1, ""},
                                                       {"Plant", forged.c_str(), 1, ""},
                                                       {"", point.c_str(), 1, ""},
                                                       {"Plant", point.c_str(), 2, ""},
                                                       {"Plant", point.c_str(), 1, "*"},
                                                       {"none", point.c_str(), 1, ""}}) {
        const ElementRequest other{itemId, given, 1, static_cast<std::uint16_t>(filter), names, ""};
        EXPECT_EQ(elementBrowser.browse(other, one, next), OPC_E_INVALIDCONTINUATIONPOINT) << itemId << given;
    }
    EXPECT_EQ(ElementBrowser(application.items()).browse({"Plant", point, 1, 1, "", ""}, one, next),
              OPC_E_INVALIDCONTINUATIONPOINT);
    EXPECT_EQ(elementBrowser.browse({"PLANT", point, 9, 1, "", ""}, one, next), S_OK) << "as often as the client likes";
    EXPECT_EQ(next, "");
    EXPECT_EQ(elementBrowser.browse(
                  request, [](const BrowseElement&) { return false; }, next),
              E_OUTOFMEMORY);
}

TEST(NameFilterTest, FollowsThePatternSyntax) {
    struct Case {
        std::string_view pattern, name;
        bool fits;
    };
    const Case cases[] = {
        {"", "anything", true}, {"*", "", true},         {"*", "abc", true},        {"abc", "ABC", true},
        {"abc", "abcd", false}, {"a*c", "abbbc", true},  {"a*c", "abbbcd", false},  {"a*b*c", "axbxbxc", true},
        {"?", "é", true},       {"?", "", false},        {"Tag#", "tag7", true},    {"Tag#", "tagx", false},
        {"[abc]x", "Bx", true}, {"[a-c]x", "dx", false}, {"[!a-c]x", "dx", true},   {"[!a-c]x", "bx", false},
        {"[-a]", "-", true},    {"[a-]", "-", true},     {"[*]", "*", true},        {"[*]", "x", false},
        {"[]", "x", false},     {"[!]", "x", true},      {"*[0-9]", "tag12", true}, {"ÖL*", "ölstand", true},
        {"a]", "a]", true},     {"**a**", "bab", true},  {"*a", "aab", false},
    };
    for (const Case& each : cases) {
        const NameFilter filter(each.pattern);
        EXPECT_TRUE(filter.isValid()) << each.pattern;
        EXPECT_EQ(filter.matches(each.name), each.fits) << each.pattern << " on " << each.name;
    }
    for (const std::string_view bad : {"[", "[a", "a[!", "[a-"}) {
        EXPECT_FALSE(NameFilter(bad).isValid()) << bad;
    }
    EXPECT_TRUE(NameFilter(std::string(NameFilter::longest, '?')).matches(std::string(NameFilter::longest, 'x')));
    EXPECT_FALSE(NameFilter(std::string(NameFilter::longest + 1, '*')).isValid());
}

// The same by trying every way in which a "*" may fit.
bool fitsByTrying(std::string_view pattern, std::string_view name) {
    if (pattern.empty() || name.empty()) {
        return name.empty() && pattern.find_first_not_of('*') == std::string_view::npos;
    }
    if (pattern[0] == '*') {
        return fitsByTrying(pattern.substr(1), name) || fitsByTrying(pattern, name.substr(1));
    }
    return (pattern[0] == '?' || pattern[0] == name[0]) && fitsByTrying(pattern.substr(1), name.substr(1));
}

TEST(NameFilterTest, FindsWhatTryingEveryWayFinds) {
    std::minstd_rand random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same every time
    const auto text = [&random](std::string_view letters, std::size_t most) {
        std::string made(1 + random() % most, ' ');
        std::generate(made.begin(), made.end(), [&] { return letters[random() % letters.size()]; });
        return made;
    };
    for (int i = 0; i < 3000; ++i) {
        const std::string pattern = text("ab*?", 9);
        const std::string name = text("ab", 12);
        // Longer than 64 elements too: the states then take several words.
        const std::string padding(i % 3 == 0 ? 63 : 0, 'c');
        EXPECT_EQ(NameFilter(padding + pattern).matches(padding + name), fitsByTrying(pattern, name))
            << pattern << " on " << name;
    }
}

}  // namespace
}  // namespace quelm::opcda
