#include "OPC DA/Server.h"

#include <algorithm>
#include <array>

#include "SLIK-DA/Identity.h"
#include "Shared Types/TimeSource.h"

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

Application::Application(SLIKNetwork& control) : control_(&control), startTime_(timeSource().fileTimeNow()) {}

Server::Server(Application& application)
    : application_(&application),
      isAdmitted_(application.control().clientCreated()),
      browser_(application.items()),
      properties_(application.items()),
      itemIO_(application.control()) {}

Server::~Server() {
    for (const std::shared_ptr<Group>& group : groups_) {
        group->detach();
    }
    for (const std::weak_ptr<Group>& leaving : leaving_) {
        if (const std::shared_ptr<Group> group = leaving.lock()) {
            group->detach();
        }
    }
    if (isAdmitted_) {
        application_->control().clientGone();
    }
}

bool Server::isNameTaken(std::string_view name) const {
    return std::any_of(groups_.begin(), groups_.end(), [name](const auto& group) { return group->name() == name; });
}

std::string Server::unusedName() {
    std::string name;
    do {
        name = "Group" + std::to_string(++lastNumber_);
    } while (isNameTaken(name));
    return name;
}

std::shared_ptr<Group> Server::insert(std::string name, const GroupState& state) {
    return groups_.emplace_back(
        std::make_shared<Group>(*this, *application_, std::move(name), application_->nextGroupHandle(), state));
}

HResult Server::addGroup(const GroupRequest& request, std::shared_ptr<Group>& group) {
    const float deadband = request.percentDeadband.value_or(0.0F);
    if (!isDeadband(deadband)) {
        return E_INVALIDARG;
    }
    if (!request.name.empty() && isNameTaken(request.name)) {
        return OPC_E_DUPLICATENAME;
    }
    const GroupState state{revisedRate(request.updateRate),
                           request.active,
                           request.timeBias ? *request.timeBias : standardBias(),
                           deadband,
                           request.localeId,
                           request.clientHandle};
    group = insert(request.name.empty() ? unusedName() : std::string(request.name), state);
    return state.updateRate == request.updateRate ? S_OK : OPC_S_UNSUPPORTEDRATE;
}

HResult Server::groupByName(std::string_view name, std::shared_ptr<Group>& group) const {
    const auto found =
        std::find_if(groups_.begin(), groups_.end(), [name](const auto& each) { return each->name() == name; });
    if (found == groups_.end()) {
        return E_INVALIDARG;
    }
    group = *found;
    return S_OK;
}

HResult Server::removeGroup(std::uint32_t serverHandle, bool force, bool inUse) {
    const auto found = std::find_if(groups_.begin(), groups_.end(),
                                    [serverHandle](const auto& each) { return each->serverHandle() == serverHandle; });
    if (found == groups_.end()) {
        return E_INVALIDARG;
    }
    const std::shared_ptr<Group> group = *found;
    groups_.erase(found);
    if (inUse && !force) {
        std::erase_if(leaving_, [](const auto& leaving) { return leaving.expired(); });
        leaving_.push_back(group);
        return OPC_S_INUSE;
    }
    group->detach();
    return S_OK;
}

HResult Server::cloneGroup(const Group& group, std::string_view name, std::shared_ptr<Group>& clone) {
    if (group.isRemoved()) {
        return E_FAIL;
    }
    if (!name.empty() && isNameTaken(name)) {
        return OPC_E_DUPLICATENAME;
    }
    GroupState state = group.state();
    state.active = false;
    clone = insert(name.empty() ? unusedName() : std::string(name), state);
    clone->copyItemsFrom(group);
    return S_OK;
}

HResult Server::groups(std::uint16_t scope, std::vector<std::shared_ptr<Group>>& list) const {
    list.clear();
    switch (static_cast<EnumScope>(scope)) {
        case EnumScope::privateConnections:
        case EnumScope::allConnections:
        case EnumScope::privateGroups:
        case EnumScope::allGroups:
            list = groups_;
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
    for (const std::shared_ptr<Group>& group : list) {
        texts.push_back(group->name());
    }
    names = StringEnumerator(std::move(texts));
    return result;
}

ServerStatus Server::status() const {
    ServerStatus status;
    status.startTime = application_->startTime();
    status.currentTime = timeSource().fileTimeNow();
    status.lastUpdateTime = lastUpdateTime_;
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

std::span<const std::uint32_t> Server::availableLocales() {
    return locales;
}

void Server::noteDataSent() {
    lastUpdateTime_ = timeSource().fileTimeNow();
}

}  // namespace quelm::opcda
