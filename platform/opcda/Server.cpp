#include "opcda/Server.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/Text.h"
#include "base/TimeSource.h"
#include "slikda/Identity.h"

namespace quelm::opcda {

namespace {

constexpr std::int64_t unitsPerHalfYear = 182 * std::int64_t{864'000'000'000};

// Minutes from local standard time to UTC, as the clients' operating system counts its bias: daylight saving, which
// can only put the clock forward, is left out.
std::int32_t standardBias() {
    const std::int64_t now = timeSource().fileTimeNow();
    return -std::min(timeSource().utcOffsetMinutes(now), timeSource().utcOffsetMinutes(now - unitsPerHalfYear));
}

constexpr std::array<std::uint32_t, 3> locales{localeEnglish, localeSystemDefault, localeNeutral};

bool isAvailable(std::uint32_t localeId) {
    return std::find(locales.begin(), locales.end(), localeId) != locales.end();
}

}  // namespace

Server::Server(Application& application, std::shared_ptr<ClientBudget> budget)
    : application_(&application),
      isAdmitted_(application.control().clientCreated()),
      budget_(budget != nullptr ? std::move(budget) : std::make_shared<ClientBudget>(application.budgets().limits())),
      memory_(memoryOf(budget_)),
      plant_(application.control(), budget_),
      browser_(application.items(), budget_),
      elementBrowser_(application.items()),
      properties_(plant_),
      itemIO_(plant_) {
    memory_.set(footprint);
    application.servers_.push_back(this);
}

Server::~Server() {
    std::erase(application_->servers_, this);
    for (const auto& [handle, group] : groups_) {
        group->detach();
    }
    if (isAdmitted_) {
        application_->control().clientGone();
    }
}

// "" is a name that the server will make.
HResult Server::checkName(std::string_view name) const {
    if (name.size() > longestGroupName) {
        return E_INVALIDARG;
    }
    return isNameTaken(name) ? OPC_E_DUPLICATENAME : S_OK;
}

std::string Server::unusedName() {
    std::string name;
    do {
        name = "Group" + std::to_string(++lastNumber_);
    } while (isNameTaken(name));
    return name;
}

HResult Server::insert(std::string_view name, const GroupState& state, std::shared_ptr<Group>& group) {
    GroupHolds holds{memoryOf(budget_), groupsOf(budget_), plant_};
    if (!holds.place.resize(1) || !holds.memory.resize(Group::footprint)) {
        return E_OUTOFMEMORY;
    }
    group =
        std::make_shared<Group>(*this, *application_, std::move(holds), name.empty() ? unusedName() : std::string(name),
                                application_->nextGroupHandle(), state);
    groups_.emplace(group->serverHandle(), group);
    byName_.emplace(group->name(), group.get());
    return S_OK;
}

void Server::rename(Group& group, std::string_view name) {
    byName_.erase(group.name());
    group.name_ = name;
    byName_.emplace(group.name(), &group);
}

HResult Server::addGroup(const GroupRequest& request, std::shared_ptr<Group>& group) {
    const float deadband = request.percentDeadband.value_or(0.0F);
    if (!isDeadband(deadband)) {
        return E_INVALIDARG;
    }
    if (const HResult error = checkName(request.name); error != S_OK) {
        return error;
    }
    const GroupState state{revisedRate(request.updateRate),
                           request.active,
                           request.timeBias ? *request.timeBias : standardBias(),
                           deadband,
                           request.localeId,
                           request.clientHandle};
    if (const HResult error = insert(request.name, state, group); error != S_OK) {
        return error;
    }
    return state.updateRate == request.updateRate ? S_OK : OPC_S_UNSUPPORTEDRATE;
}

HResult Server::groupByName(std::string_view name, std::shared_ptr<Group>& group) const {
    const auto found = byName_.find(name);
    if (found == byName_.end()) {
        return E_INVALIDARG;
    }
    group = groups_.at(found->second->serverHandle());
    return S_OK;
}

HResult Server::removeGroup(std::uint32_t serverHandle, bool force, bool inUse) {
    const auto found = groups_.find(serverHandle);
    if (found == groups_.end()) {
        return E_INVALIDARG;
    }
    const std::shared_ptr<Group> group = std::move(found->second);
    groups_.erase(found);
    byName_.erase(group->name());
    group->detach();
    return inUse && !force ? OPC_S_INUSE : S_OK;
}

HResult Server::cloneGroup(const Group& group, std::string_view name, std::shared_ptr<Group>& clone) {
    if (group.isRemoved()) {
        return E_FAIL;
    }
    if (const HResult error = checkName(name); error != S_OK) {
        return error;
    }
    GroupState state = group.state();
    state.active = false;
    if (const HResult error = insert(name, state, clone); error != S_OK) {
        return error;
    }
    if (!clone->copyItemsFrom(group)) {
        removeGroup(std::exchange(clone, nullptr)->serverHandle(), true, false);
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HResult Server::groups(std::uint16_t scope, std::vector<std::shared_ptr<Group>>& list) const {
    list.clear();
    switch (static_cast<EnumScope>(scope)) {
        case EnumScope::privateConnections:
        case EnumScope::allConnections:
        case EnumScope::privateGroups:
        case EnumScope::allGroups:
            list.reserve(groups_.size());
            for (const auto& [handle, group] : groups_) {
                list.push_back(group);
            }
            break;
        case EnumScope::publicConnections:
        case EnumScope::publicGroups:
            break;
        default:
            return E_INVALIDARG;
    }
    return list.empty() ? S_FALSE : S_OK;
}

HResult Server::groupNames(std::uint16_t scope, StringEnumerator& names) const {
    std::vector<std::shared_ptr<Group>> list;
    const HResult result = groups(scope, list);
    std::vector<std::string> texts;
    texts.reserve(list.size());
    std::size_t size = 0;
    for (const std::shared_ptr<Group>& group : list) {
        texts.push_back(group->name());
        size += sizeof(std::string) + group->name().size();
    }
    Hold memory = memoryOf(budget_);
    if (!memory.resize(size)) {
        return E_OUTOFMEMORY;
    }
    names = StringEnumerator(std::move(texts), std::move(memory));
    return result;
}

ServerStatus Server::status() const {
    ServerStatus status;
    status.startTime = application_->startTime();
    status.currentTime = timeSource().fileTimeNow();
    status.lastUpdateTime = lastUpdate_->fileTime();
    if (application_->items().areSourcesLost()) {
        status.state = ServerState::communicationFault;
    }
    status.groupCount = static_cast<std::uint32_t>(groups_.size());
    status.majorVersion = identity::majorVersion;
    status.minorVersion = identity::minorVersion;
    status.buildNumber = identity::buildNumber;
    status.vendor = identity::vendor;
    return status;
}

HResult Server::errorString(HResult error, std::uint32_t localeId, std::string_view& text) const {
    text = errorText(error);
    return text.empty() || (localeId != 0 && !isAvailable(localeId)) ? E_INVALIDARG : S_OK;
}

HResult Server::setLocale(std::uint32_t localeId) {
    if (!isAvailable(localeId)) {
        return E_INVALIDARG;
    }
    localeId_ = localeId;
    return S_OK;
}

void Server::setClientName(std::string_view name) {
    constexpr std::size_t longest = 256;
    clientName_ = leftCharacters(name, longest);
}

HResult Server::advise(std::unique_ptr<IShutdownSink> sink, std::uint32_t& cookie) {
    cookie = 0;
    if (!memory_.resize(footprint + (shutdownSinks_.size() + 1) * sinkFootprint)) {
        return E_OUTOFMEMORY;
    }
    const HResult result = shutdownSinks_.advise(std::move(sink), cookie);
    memory_.set(footprint + shutdownSinks_.size() * sinkFootprint);
    return result;
}

HResult Server::unadvise(std::uint32_t cookie) {
    const HResult result = shutdownSinks_.unadvise(cookie);
    memory_.set(footprint + shutdownSinks_.size() * sinkFootprint);
    return result;
}

void Server::requestShutdown(std::string_view reason) const {
    shutdownSinks_.forEach([reason](IShutdownSink& sink) { sink.onShutdownRequest(reason); });
}

std::span<const std::uint32_t> Server::availableLocales() {
    return locales;
}

void LastUpdate::note() {
    fileTime_ = timeSource().fileTimeNow();
}

}  // namespace quelm::opcda
