// What docs/opc-interfaces.md says there is, beside what there is. Run from the top of the source tree.

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

using Words = std::set<std::string>;

Words split(const std::string& list) {
    Words words;
    std::istringstream in(list);
    for (std::string word; std::getline(in >> std::ws, word, ',');) {
        words.insert(word.substr(0, word.find(' ')));
    }
    return words;
}

// The methods of each interface, from rows "| interface | methods | ..."; without an interface: of the one above.
std::map<std::string, Words> documented() {
    std::map<std::string, Words> result;
    std::ifstream file("docs/opc-interfaces.md");
    Words current;
    for (std::string line; std::getline(file, line);) {
        std::istringstream cells(line);
        std::string cell;
        std::getline(cells, cell, '|');
        if (!cell.empty() || !std::getline(cells, cell, '|')) {
            continue;
        }
        if (const Words names = split(cell); !names.empty()) {
            current = names;
        }
        std::getline(cells, cell, '|');
        for (const std::string& name : current) {
            result[name].merge(split(cell));
        }
    }
    return result;
}

TEST(InterfaceList, TellsEveryMethodOfEveryInterfaceAndNoOther) {
    auto found = documented();
    for (const InterfaceRow& row : interfaceTable) {
        EXPECT_EQ(found[std::string(row.name)], Words(row.methods.begin(), row.methods.end())) << row.name;
    }
}

}  // namespace
}  // namespace quelm::opcda::wire::test
