#include "OPC/Health/SystemItems.h"

#include <fmt/format.h>

#include "OPC/Health/ItemSites.h"
#include "base/Quality.h"
#include "base/RuntimeError.h"
#include "base/TimeSource.h"

namespace quelm::health {

namespace {

constexpr std::int32_t readable = 1;
constexpr std::int32_t description = 101;

void set(ISLIKTag* item, const Variant& value, std::uint16_t quality, Date now) {
    if (item != nullptr) {
        item->SetVQT(value, static_cast<std::int16_t>(quality), now);
    }
}

std::uint16_t goodIf(bool isKnown) {
    return isKnown ? quality::good : quality::bad;
}

}  // namespace

SystemItems::SystemItems(PlantItems& items, const PlantHealth& health, const std::string& branch,
                         const std::function<void(std::string_view)>& problem)
    : items_(items), health_(health) {
    ItemSites owners(items.shown());
    while (!owners.goOn()) {
    }
    const auto plantsItems = static_cast<std::uint32_t>(items.Count());
    const auto add = [&](const std::string& name, const Variant& value, std::string_view what) -> ISLIKTag* {
        try {
            PlantTag& item = items.Add(branch + '.' + name, readable, value,
                                       static_cast<std::int16_t>(quality::badCommFailure), localNow());
            item.SetProperty(description, "Item Description", Variant(what));
            return &item;
        } catch (...) {
            problem(
                fmt::format("[Items] SystemBranch: there is no item {}.{}: {}", branch, name, currentError().text()));
            return nullptr;
        }
    };
    clients_ = add("Clients", Variant(std::int32_t{0}), "Clients that hold the server");
    passTime_ = add("LastPass.Time", Variant(Date{}), "When the last update pass ended");
    passMilliseconds_ = add("LastPass.Milliseconds", Variant(0.0), "How long the last update pass took");
    for (const std::string& siteID : health.siteIDs()) {
        const std::string path = "Sites." + siteID + '.';
        Site& site = sites_[siteID];
        site.databaseUp = add(path + "DatabaseUp", Variant(false), "Whether the site's values can be read");
        site.snapshotTime = add(path + "LastSnapshot.Time", Variant(Date{}), "When the site's values were read last");
        site.snapshotMilliseconds = add(path + "LastSnapshot.Milliseconds", Variant(0.0), "How long that took");
        constexpr std::array<const char*, 3> names{"Good", "Uncertain", "Bad"};
        for (std::size_t i = 0; i < names.size(); ++i) {
            site.counts[i] = add(path + "Items." + names[i], Variant(std::int32_t{0}), "Items of that quality");
        }
        for (std::uint32_t number = 0; number < plantsItems; ++number) {
            if (owners.names()[owners.of(number)] == siteID) {
                site.numbers.push_back(number);
            }
        }
    }
}

void SystemItems::update(const std::string& siteID, std::int32_t clients) {
    const Date now = localNow();
    const PlantHealth::Pass pass = health_.lastPass();
    set(clients_, Variant(clients), quality::good, now);
    set(passTime_, Variant(localFromFileTime(pass.ended)), quality::good, now);
    set(passMilliseconds_, Variant(pass.milliseconds), quality::good, now);
    const auto site = sites_.find(siteID);
    const SiteHealth* const its = health_.siteNow(siteID);
    if (site != sites_.end() && its != nullptr) {
        updateSite(site->second, *its, now);
    }
}

void SystemItems::updateSite(Site& site, const SiteHealth& health, Date now) {
    const bool isRead = health.lastSnapshot != 0;
    set(site.databaseUp, Variant(health.database == DatabaseState::up),
        goodIf(health.database != DatabaseState::unknown), now);
    set(site.snapshotTime, Variant(isRead ? localFromFileTime(health.lastSnapshot) : Date{}), goodIf(isRead), now);
    set(site.snapshotMilliseconds, Variant(health.snapshotMilliseconds), goodIf(isRead), now);
    std::array<std::int32_t, 3> counts{};
    for (const std::uint32_t number : site.numbers) {
        const auto word = static_cast<std::uint16_t>(items_.at(number).Quality());
        ++counts[quality::isGood(word) ? 0 : quality::isBad(word) ? 2 : 1];
    }
    for (std::size_t i = 0; i < counts.size(); ++i) {
        set(site.counts[i], Variant(counts[i]), quality::good, now);
    }
}

}  // namespace quelm::health
