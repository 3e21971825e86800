#include "OPC/Health/ItemSites.h"

#include <algorithm>

namespace quelm::health {

namespace {

constexpr std::uint32_t siteProperty = 5003;
constexpr std::size_t itemsOfTurn = 1000;

}  // namespace

bool ItemSites::goOn() {
    if (sites_.capacity() < items_.Count()) {
        sites_.reserve(items_.Count());
    }
    const std::size_t end = std::min(items_.Count(), sites_.size() + itemsOfTurn);
    while (sites_.size() < end) {
        const std::string name = nameOf(items_.at(sites_.size()));
        const auto [place, isNew] = places_.try_emplace(name, static_cast<std::uint32_t>(names_.size()));
        if (isNew) {
            names_.push_back(name);
        }
        sites_.push_back(place->second);
    }
    return sites_.size() == items_.Count();
}

std::string ItemSites::nameOf(const SLIKTag& tag) const {
    const auto& kinds = tag.detailKinds();
    for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
        if (kinds[kind].property == siteProperty && kinds[kind].isText && tag.hasDetail(kind)) {
            return tag.detail(kind).text();
        }
    }
    const std::string& name = tag.Name();
    const std::size_t dot = name.find('.');
    return dot == std::string::npos ? std::string() : name.substr(0, dot);
}

}  // namespace quelm::health
