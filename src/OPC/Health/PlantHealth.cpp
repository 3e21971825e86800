#include "OPC/Health/PlantHealth.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <utility>

#include "base/TimeSource.h"

namespace quelm::health {

namespace {

constexpr double unitsOfMillisecond = 10'000;
// The two clocks may differ by so much within one measurement, rounding included.
constexpr double usualDifference = 20;

}  // namespace

Stopwatch::Stopwatch() : begun_(timeSource().fileTimeNow()), begunMonotonic_(timeSource().monotonicMilliseconds()) {}

double Stopwatch::milliseconds() const {
    const double fine = static_cast<double>(timeSource().fileTimeNow() - begun_) / unitsOfMillisecond;
    const auto coarse = static_cast<double>(timeSource().monotonicMilliseconds() - begunMonotonic_);
    return fine >= 0 && std::abs(fine - coarse) <= usualDifference ? fine : coarse;
}

PlantHealth::Site& PlantHealth::site(std::string_view siteID) {
    const auto found = sites_.find(siteID);
    if (found != sites_.end()) {
        return found->second;
    }
    Site& fresh = sites_[std::string(siteID)];
    fresh.health.siteID = siteID;
    return fresh;
}

void PlantHealth::siteIsKnown(std::string_view siteID) {
    site(siteID);
    note();
}

void PlantHealth::passDone(std::string_view siteID, double milliseconds) {
    SiteHealth& health = site(siteID).health;
    health.lastPass = timeSource().fileTimeNow();
    health.passMilliseconds = milliseconds;
    ++health.passes;
    note();
}

void PlantHealth::snapshotRead(std::string_view siteID, Source source, double milliseconds) {
    Site& its = site(siteID);
    its.health.lastSnapshot = timeSource().fileTimeNow();
    its.health.snapshotMilliseconds = milliseconds;
    ++its.health.snapshots;
    its.failures[static_cast<std::size_t>(source)].clear();
    judge(its);
}

void PlantHealth::snapshotFailed(std::string_view siteID, Source source, std::string_view why) {
    Site& its = site(siteID);
    ++its.health.snapshotsFailed;
    its.failures[static_cast<std::size_t>(source)] = why.empty() ? "no reason is known" : why.substr(0, longestMessage);
    judge(its);
}

void PlantHealth::judge(Site& site) {
    const std::string& failure = site.failures[0].empty() ? site.failures[1] : site.failures[0];
    site.health.database = failure.empty() ? DatabaseState::up : DatabaseState::down;
    site.health.databaseMessage = failure;
    note();
}

void PlantHealth::messageRaised(std::string_view type, std::string_view text) {
    if (lines_.size() == keptMessages) {
        lines_.pop_front();
    }
    lines_.push_back(
        {++lastNumber_, timeSource().fileTimeNow(), std::string(type), std::string(text.substr(0, longestMessage))});
    note();
}

PlantHealth::Pass PlantHealth::lastPass() const {
    Pass pass;
    for (const auto& [siteID, its] : sites_) {
        pass.ended = std::max(pass.ended, its.health.lastPass);
        pass.milliseconds += its.health.passMilliseconds;
    }
    return pass;
}

std::vector<std::string> PlantHealth::siteIDs() const {
    std::vector<std::string> list;
    for (const auto& [siteID, its] : sites_) {
        list.push_back(siteID);
    }
    return list;
}

const SiteHealth* PlantHealth::siteNow(const std::string& siteID) const {
    const auto found = sites_.find(siteID);
    return found == sites_.end() ? nullptr : &found->second.health;
}

std::string PlantHealth::summary(std::int32_t clients) const {
    std::string down;
    for (const auto& [siteID, its] : sites_) {
        if (its.health.database == DatabaseState::down) {
            down += (down.empty() ? "" : ", ") + siteID;
        }
    }
    const Pass last = lastPass();
    std::string pass = "no pass yet";
    if (last.ended != 0) {
        const CivilTime time = civilTimeSeconds(localFromFileTime(last.ended));
        pass = fmt::format("last pass {:02}:{:02}:{:02} in {:.1f} ms", time.hour, time.minute, time.second,
                           last.milliseconds);
    }
    return fmt::format("{} site{}{}  |  {} client{}  |  {}", sites_.size(), sites_.size() == 1 ? "" : "s",
                       down.empty() ? "" : fmt::format(", no database for {}", down), clients, clients == 1 ? "" : "s",
                       pass);
}

void PlantHealth::note() {
    if (!std::exchange(isNew_, true) && !underWay_) {
        plant_.afterHandler([this] { send(); });
    }
}

// While one is under way, what is new waits for the next one and does not grow.
void PlantHealth::send() {
    if (underWay_ || !std::exchange(isNew_, false)) {
        return;
    }
    struct News {
        std::vector<SiteHealth> sites;
        std::deque<MessageLine> lines;
    };
    const auto news = std::make_shared<News>();
    for (const auto& [siteID, its] : sites_) {
        news->sites.push_back(its.health);
    }
    news->lines.swap(lines_);
    underWay_ = true;
    network_.post([this, news] {
        shown_ = std::move(news->sites);
        for (MessageLine& line : news->lines) {
            if (messages_.size() == keptMessages) {
                messages_.pop_front();
            }
            messages_.push_back(std::move(line));
        }
        plant_.post([this] {
            underWay_ = false;
            send();
        });
    });
}

}  // namespace quelm::health
