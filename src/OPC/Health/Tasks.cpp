#include "OPC/Health/Tasks.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <utility>

#include "OPC/Health/ControlPath.h"
#include "base/Quality.h"
#include "base/Text.h"
#include "base/TimeSource.h"

namespace quelm::health {

namespace {

// What takes some tenths of a millisecond.
constexpr std::size_t countedOfTurn = 20'000;
constexpr std::size_t searchedOfTurn = 1000;
constexpr std::size_t describedOfTurn = 50;
constexpr std::size_t slotsOfTurn = 50'000;
constexpr std::size_t groupsOfTurn = 50;

constexpr std::size_t mostClients = 500;
// Whoever has more of them is told by their number.
constexpr std::size_t mostGroupsOfClient = 200;
constexpr std::size_t mostMessages = 200;
// Bytes, with which an answer stays well below the longest.
constexpr std::size_t fullAnswer = longestAnswer / 4 * 3;

// Resident, in bytes; 0 where the system does not say. The file is made by the kernel, so that nothing is waited for.
std::uint64_t memoryUsed() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t total = 0;
    std::uint64_t resident = 0;
    file >> total >> resident;
    return file ? resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

std::string_view nameOf(DatabaseState state) {
    constexpr std::array<std::string_view, 3> names{"unknown", "up", "down"};
    return names[static_cast<std::size_t>(state)];
}

std::string_view nameOf(opcda::Group::CallbackState state) {
    constexpr std::array<std::string_view, 4> names{"none", "advised", "waiting", "failing"};
    return names[static_cast<std::size_t>(state)];
}

}  // namespace

Quality qualityOf(std::uint16_t word) {
    return quality::isGood(word) ? Quality::good : quality::isBad(word) ? Quality::bad : Quality::uncertain;
}

// ---- status

bool StatusTask::goOn() {
    if (!isPrepared_) {
        isPrepared_ = sites_.goOn();
        return false;
    }
    const ItemStore& items = sources_.application.items();
    counts_.resize(sites_.names().size());
    const std::size_t end = std::min(items.Count(), next_ + countedOfTurn);
    for (; next_ < end; ++next_) {
        ++counts_[sites_.of(next_)][static_cast<std::size_t>(qualityOf(items.at(next_).qualityWord()))];
    }
    if (next_ < items.Count()) {
        return false;
    }
    std::uint64_t passes = 0;
    Json sites = Json::array();
    for (const SiteHealth& health : sources_.plant.sites()) {
        passes = std::max(passes, health.passes);
        sites.push_back(siteOf(health));
    }
    std::size_t groups = 0;
    for (const auto& [number, client] : sources_.clients.all()) {
        groups += client.server->groupCount();
    }
    const Counters counters = sources_.counters();
    answer(lineOf({{"version", QUELM_VERSION},
                   {"process", getpid()},
                   {"started", timeOf(sources_.application.startTime())},
                   {"now", timeOf(timeSource().fileTimeNow())},
                   {"keepRunning", counters.keepsRunning},
                   {"unloadsIn", nullptr},
                   {"memoryBytes", memoryUsed()},
                   {"passes", passes},
                   {"sites", std::move(sites)},
                   {"clients", sources_.clients.all().size()},
                   {"groups", groups},
                   {"connections", counters.connections},
                   {"calls", counters.calls},
                   {"refusals", counters.refusals},
                   {"callbacks", counters.callbacks},
                   {"callbacksFailed", counters.callbacksFailed},
                   {"deviceReadWaits", sources_.application.control().waitingReads()},
                   {"longestTurnMilliseconds", sources_.longestTurn.milliseconds()}}));
    return true;
}

Json StatusTask::siteOf(const SiteHealth& health) const {
    Counts counts{};
    const auto& names = sites_.names();
    const auto its = std::find(names.begin(), names.end(), health.siteID);
    if (its != names.end()) {
        counts = counts_[static_cast<std::size_t>(its - names.begin())];
    }
    Json site{{"site", health.siteID},
              {"lastPass", timeOf(health.lastPass)},
              {"passMilliseconds", health.passMilliseconds},
              {"passes", health.passes},
              {"lastSnapshot", timeOf(health.lastSnapshot)},
              {"snapshotMilliseconds", health.snapshotMilliseconds},
              {"snapshots", health.snapshots},
              {"snapshotsFailed", health.snapshotsFailed},
              {"database", nameOf(health.database)},
              {"databaseMessage", health.databaseMessage},
              {"items", counts[0] + counts[1] + counts[2]}};
    for (std::size_t i = 0; i < qualityNames.size(); ++i) {
        site[std::string(qualityNames[i])] = counts[i];
    }
    return site;
}

// ---- clients

// Clients and groups that go between two turns are left out, and nobody else is.
bool ClientsTask::goOn() {
    std::size_t work = 0;
    const auto& all = sources_.clients.all();
    while (work < slotsOfTurn) {
        auto client = current_ != 0 ? all.find(current_) : all.upper_bound(lastClient_);
        if (client == all.end() && current_ == 0) {
            finish(false);
            return true;
        }
        if (client != all.end()) {
            if (current_ == 0) {
                if (clients_ == mostClients || text_.size() > fullAnswer) {
                    finish(true);
                    return true;
                }
                current_ = lastClient_ = client->first;
                begin(client->second);
            }
            if (!addGroups(client->second, work)) {
                return false;
            }
        }
        text_ += (clients_++ == 0 ? "" : ",") + lineOf(listed_);
        current_ = 0;
    }
    return false;
}

void ClientsTask::begin(const Client& client) {
    lastGroup_ = 0;
    listed_ = {{"address", client.address},
               {"account", client.account},
               {"level", client.level},
               {"since", timeOf(client.since)},
               {"lastCall", timeOf(client.traffic->lastCall)},
               {"calls", client.traffic->calls},
               {"bytesHeld", client.server->budget()->memory.used()},
               {"name", client.server->clientName()},
               {"groupCount", client.server->groupCount()},
               {"groups", Json::array()}};
}

// False: the rest follows in the next turn.
bool ClientsTask::addGroups(const Client& client, std::size_t& work) {
    Json& groups = listed_["groups"];
    while (groups.size() < mostGroupsOfClient) {
        const opcda::Group* const group = client.server->groupAfter(lastGroup_);
        if (group == nullptr) {
            break;
        }
        if (work >= slotsOfTurn) {
            return false;
        }
        lastGroup_ = group->serverHandle();
        work += slotsOfTurn / groupsOfTurn + group->slotCount();
        groups.push_back({{"name", group->name()},
                          {"active", group->state().active},
                          {"rateMilliseconds", group->state().updateRate},
                          {"items", group->itemCount()},
                          {"activeItems", group->activeItemCount()},
                          {"callbacks", nameOf(group->callbackState())}});
    }
    work += slotsOfTurn / groupsOfTurn;
    return true;
}

void ClientsTask::finish(bool isMore) {
    text_ += isMore ? "],\"more\":true}" : "],\"more\":false}";
    answer(std::move(text_));
}

// ---- items

ItemsTask::ItemsTask(std::weak_ptr<Asker> asker, const Sources& sources, ItemSites& sites, ItemQuestion question)
    : Task(std::move(asker)), sources_(sources), sites_(sites), question_(std::move(question)) {
    question_.name = foldCase(question_.name);
}

bool ItemsTask::goOn() {
    if (!isPrepared_) {
        isPrepared_ = sites_.goOn();
        return false;
    }
    const ItemStore& items = sources_.application.items();
    const std::size_t end = std::min(items.Count(), next_ + searchedOfTurn);
    const std::size_t described = found_.size() + describedOfTurn;
    for (; next_ < end && found_.size() < described; ++next_) {
        const SLIKTag& tag = items.at(next_);
        if (!matches(next_, tag)) {
            continue;
        }
        if (total_ >= question_.from && found_.size() < question_.count) {
            found_.push_back(describe(next_, tag));
        }
        ++total_;
    }
    if (next_ < items.Count()) {
        return false;
    }
    answer(lineOf({{"total", total_}, {"from", question_.from}, {"items", std::move(found_)}}));
    return true;
}

bool ItemsTask::matches(std::size_t number, const SLIKTag& tag) const {
    if (question_.quality && qualityOf(tag.qualityWord()) != *question_.quality) {
        return false;
    }
    if (!question_.site.empty() && sites_.names()[sites_.of(number)] != question_.site) {
        return false;
    }
    return question_.name.empty() || FoldedKey(tag.Name()).view().find(question_.name) != std::string_view::npos;
}

Json ItemsTask::describe(std::size_t number, const SLIKTag& tag) const {
    return {{"id", tag.Name()},
            {"site", sites_.names()[sites_.of(number)]},
            {"value", valueOf(tag.Value())},
            {"type", typeNameOf(tag.varType())},
            {"quality", tag.qualityWord()},
            {"qualityText", qualityWords(tag.qualityWord())},
            {"time", timeOf(tag.fileTime())}};
}

// ---- the others

bool ReloadTask::goOn() {
    sources_.reload([asker = asker_](const Reloaded& result) {
        if (const std::shared_ptr<Asker> waiting = asker.lock()) {
            waiting->answer(lineOf({{"reloaded", result.isDone}, {"lines", result.lines}}));
        }
    });
    return true;
}

std::string messagesAfter(const PlantHealth& plant, std::uint64_t number) {
    Json list = Json::array();
    for (const MessageLine& line : plant.messages()) {
        if (line.number > number && list.size() < mostMessages) {
            list.push_back(
                {{"number", line.number}, {"time", timeOf(line.time)}, {"type", line.type}, {"text", line.text}});
        }
    }
    // To go on from: of what is here, or, where nothing is new, of what there is.
    const std::uint64_t last = !list.empty()              ? list.back()["number"].get<std::uint64_t>()
                               : plant.messages().empty() ? 0
                                                          : plant.messages().back().number;
    return lineOf({{"messages", std::move(list)}, {"last", last}});
}

}  // namespace quelm::health
