#include "opcda/client/Browsing.h"

#include <algorithm>
#include <unordered_set>

#include "opcda/NameFilter.h"
#include "opcda/client/EnumeratorStubs.h"

namespace quelm::opcda::client {

namespace {

// Levels below the start; no plant has a tenth of them.
constexpr unsigned mostLevels = 64;

std::string nameOf(const std::string& itemId) {
    return itemId.empty() ? "the root" : "'" + itemId + "'";
}

// What both ways of browsing have in common: what is given to the caller, and when enough is enough.
class Walk {
 public:
    Walk(const BrowseOptions& options, const OpcSession::OnElement& onElement)
        : options_(options), onElement_(onElement), filter_(options.filter) {
        if (!filter_.isValid()) {
            throw OpcError("The filter '" + options.filter +
                           "' is no pattern: a list in it has no ']', or it is too long");
        }
    }

    const BrowseOptions& options() const { return options_; }
    bool wantsAll() const { return options_.itemsOnly && options_.depth == 0 && options_.filter.empty(); }
    bool goesBelow(unsigned level) const { return options_.depth == 0 || level + 1 < options_.depth; }

    // False: the caller has enough.
    bool give(const BrowsedElement& element) const {
        const bool isWanted = element.isItem || !options_.itemsOnly;
        return !isWanted || !filter_.matches(element.name) || onElement_(element);
    }

    // So many elements more were read.
    void count(std::size_t elements) {
        elements_ += elements;
        if (elements_ > mostElements) {
            throw OpcError("Browsing is given up after " + std::to_string(mostElements) +
                           " elements: the server seems to lead in circles");
        }
        if (options_.onProgress) {
            options_.onProgress(elements_);
        }
    }

    // Before the elements of a branch are asked for. Branches without an item id cannot be told apart.
    void enter(const std::string& itemId) {
        const bool isInside = !itemId.empty() && std::ranges::find(path_, itemId) != path_.end();
        if (isInside || path_.size() > mostLevels) {
            throw OpcError("Browsing is given up at " + nameOf(itemId) +
                           (isInside ? ", which the server has inside itself" : ", more than 64 levels deep"));
        }
        path_.push_back(itemId);
    }
    void leave() { path_.pop_back(); }

    void refused(const std::string& itemId, HResult result) const {
        if (path_.size() <= 1 || !options_.onRefused) {
            throw OpcError("browsing " + nameOf(itemId), result);
        }
        options_.onRefused(itemId, result);
    }

 private:
    const BrowseOptions& options_;
    const OpcSession::OnElement& onElement_;
    NameFilter filter_;
    std::vector<std::string> path_;
    std::size_t elements_ = 0;
};

// By IOPCBrowse. A branch is read whole before anything else is asked: servers exist that have one continuation point
// in all.
class Walk3 {
 public:
    Walk3(const IOPCBrowse& browser, Walk& walk) : browser_(browser), walk_(walk) {}

    // False: the caller has enough.
    bool below(const std::string& itemId, unsigned level) {
        walk_.enter(itemId);
        for (BrowsedElement& element : elementsOf(itemId)) {
            element.level = level;
            const bool isBranch = element.hasChildren && !element.itemId.empty();
            if (!walk_.give(element) || (isBranch && walk_.goesBelow(level) && !below(element.itemId, level + 1))) {
                return false;
            }
        }
        walk_.leave();
        return true;
    }

 private:
    // A portion that says what the one before said already, or nothing at all, over and over, would never end.
    static constexpr int mostEmptyPortions = 10;

    std::vector<BrowsedElement> elementsOf(const std::string& itemId) {
        BrowseRequest request;
        request.itemId = itemId;
        request.maxElements = 1000;
        std::vector<BrowsedElement> elements;
        std::string firstOfPortion;
        int emptyPortions = 0;
        for (;;) {
            const auto reply = browser_.Browse(request);
            if (failed(reply.result)) {
                walk_.refused(itemId, reply.result);
                return elements;
            }
            const std::size_t before = elements.size();
            append(reply.out, elements);
            const std::string point = reply.out.continuationPoint.value_or(std::string());
            if (point.empty() && reply.out.moreElements && request.maxElements != 0) {
                // It has more, and no way to ask for them but all at once.
                request = BrowseRequest{};
                request.itemId = itemId;
                elements.clear();
                continue;
            }
            if (point.empty()) {
                return elements;
            }
            const bool isEmpty = elements.size() == before;
            emptyPortions += isEmpty ? 1 : 0;
            const std::string first = isEmpty ? std::string() : elements[before].itemId + '\n' + elements[before].name;
            const bool isRepeated = !isEmpty && first == firstOfPortion && point == request.continuationPoint;
            if (isRepeated || emptyPortions > mostEmptyPortions) {
                throw OpcError("Browsing " + nameOf(itemId) +
                               " is given up: the server says that there is more, and gives nothing new");
            }
            firstOfPortion = first;
            request.continuationPoint = point;
        }
    }

    void append(const BrowsePortion& portion, std::vector<BrowsedElement>& elements) {
        if (!portion.elements) {
            return;
        }
        for (const BrowseElement& element : *portion.elements) {
            elements.push_back({.name = element.name.value_or(std::string()),
                                .itemId = element.itemId.value_or(std::string()),
                                .isItem = (element.flags & BrowseElement::isItem) != 0,
                                .hasChildren = (element.flags & BrowseElement::hasChildren) != 0});
        }
        walk_.count(portion.elements->size());
    }

    const IOPCBrowse& browser_;
    Walk& walk_;
};

// By IOPCBrowseServerAddressSpace, which has one position that all calls go by.
class Walk2 {
 public:
    Walk2(const IOPCBrowseServerAddressSpace& browser, Walk& walk) : browser_(browser), walk_(walk) {}

    void run() {
        const std::string& start = walk_.options().start;
        const auto organization = browser_.QueryOrganization();
        const bool isFlat = !failed(organization.result) && organization.out == flat;
        if (!isFlat || !start.empty()) {
            moveTo(start);
        }
        walk_.enter(start);
        if (isFlat || walk_.wantsAll()) {
            const auto names = namesOf(BrowseType::Flat, start);
            for (const std::string& name : names) {
                if (!walk_.give({.name = name, .itemId = name, .isItem = true})) {
                    return;
                }
            }
            return;
        }
        below(start, 0);
    }

 private:
    static constexpr std::uint16_t flat = 2;

    // Servers of before 2.0 know no way to a place but step by step.
    void moveTo(const std::string& itemId) {
        const HResult moved = browser_.ChangeBrowsePosition(BrowseDirection::To, itemId);
        if (!failed(moved)) {
            return;
        }
        if (!itemId.empty()) {
            throw OpcError("browsing " + nameOf(itemId), moved);
        }
        for (unsigned i = 0; i < mostLevels && !failed(browser_.ChangeBrowsePosition(BrowseDirection::Up, {})); ++i) {
        }
    }

    std::vector<std::string> namesOf(BrowseType kind, const std::string& itemId) {
        const auto reply = browser_.BrowseOPCItemIDs(kind, {}, VT_EMPTY, 0);
        if (failed(reply.result)) {
            walk_.refused(itemId, reply.result);
            return {};
        }
        auto names =
            reply.out ? allOf(IEnumString(*reply.out), "browsing " + nameOf(itemId)) : std::vector<std::string>();
        walk_.count(names.size());
        return names;
    }

    std::string itemIdOf(const std::string& name) const {
        auto reply = browser_.GetItemID(name);
        return !failed(reply.result) && reply.out ? *std::move(reply.out) : std::string();
    }

    // The branches and leaves at the position; what is both stands there once.
    std::vector<BrowsedElement> elementsOf(const std::string& itemId, unsigned level) {
        const auto branches = namesOf(BrowseType::Branch, itemId);
        const auto leaves = namesOf(BrowseType::Leaf, itemId);
        const std::unordered_set<std::string> leafNames(leaves.begin(), leaves.end());
        std::unordered_set<std::string> branchNames;
        std::vector<BrowsedElement> elements;
        for (const std::string& name : branches) {
            branchNames.insert(name);
            elements.push_back({name, itemIdOf(name), level, leafNames.contains(name), true});
        }
        for (const std::string& name : leaves) {
            if (!branchNames.contains(name)) {
                const std::string id = itemIdOf(name);
                elements.push_back({name, id.empty() ? name : id, level, true, false});
            }
        }
        return elements;
    }

    // False: the caller has enough.
    bool below(const std::string& itemId, unsigned level) {
        for (const BrowsedElement& element : elementsOf(itemId, level)) {
            if (!walk_.give(element) || (element.hasChildren && walk_.goesBelow(level) && !into(element, level + 1))) {
                return false;
            }
        }
        return true;
    }

    bool into(const BrowsedElement& branch, unsigned level) {
        walk_.enter(branch.itemId);
        const HResult moved = browser_.ChangeBrowsePosition(BrowseDirection::Down, branch.name);
        if (failed(moved)) {
            walk_.refused(branch.itemId, moved);
            walk_.leave();
            return true;
        }
        const bool goesOn = below(branch.itemId, level);
        if (goesOn) {
            need(Reply<bool>{browser_.ChangeBrowsePosition(BrowseDirection::Up, {}), true},
                 "the way back from " + nameOf(branch.itemId));
        }
        walk_.leave();
        return goesOn;
    }

    const IOPCBrowseServerAddressSpace& browser_;
    Walk& walk_;
};

}  // namespace

void browseBy(const IOPCBrowse& browser, const BrowseOptions& options, const OpcSession::OnElement& onElement) {
    Walk walk(options, onElement);
    Walk3(browser, walk).below(options.start, 0);
}

void browseBy(const IOPCBrowseServerAddressSpace& browser, const BrowseOptions& options,
              const OpcSession::OnElement& onElement) {
    Walk walk(options, onElement);
    Walk2(browser, walk).run();
}

}  // namespace quelm::opcda::client
