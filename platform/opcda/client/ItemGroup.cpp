#include "opcda/client/ItemGroup.h"

#include <algorithm>

#include "opcda/client/Readings.h"

namespace quelm::opcda::client {

namespace {

NewGroup addGroup(const OpcSession& session, std::uint32_t updateRate, bool active) {
    GroupRequest request;
    request.active = active;
    request.updateRate = updateRate;
    auto added = need(session.server().AddGroup(request, IOPCItemMgt::iid), "the request for a group");
    if (!added.group) {
        throw OpcError("The server answered the request for a group with success, and sent none");
    }
    return added;
}

}  // namespace

ItemGroup::Removal::~Removal() {
    try {
        server_.RemoveGroup(handle_, false);
    } catch (const std::exception&) {
        // A server that is gone has no groups.
    }
}

ItemGroup::ItemGroup(const OpcSession& session, std::vector<std::string> itemIds, std::uint32_t updateRate, bool active)
    : itemIds_(std::move(itemIds)), results_(itemIds_.size(), E_FAIL) {
    NewGroup added = addGroup(session, updateRate, active);
    removal_.emplace(session.server(), added.serverHandle);
    updateRate_ = added.revisedUpdateRate;
    items_.emplace(*std::move(added.group));
    sync2_ = ask<IOPCSyncIO2>(target()).out;
    if (!sync2_) {
        sync_ = ask<IOPCSyncIO>(target()).out;
    }
    for (std::size_t first = 0; first < itemIds_.size(); first += itemsPerCall) {
        add(first, std::min(itemsPerCall, itemIds_.size() - first), active);
    }
}

void ItemGroup::add(std::size_t first, std::size_t count, bool active) {
    std::vector<ItemDefinition> definitions(count);
    for (std::size_t i = 0; i < count; ++i) {
        definitions[i].itemId = itemIds_[first + i];
        definitions[i].active = active;
        definitions[i].clientHandle = static_cast<std::uint32_t>(first + i);
    }
    const auto added = need(items_->AddItems(definitions), "the request for items in a group");
    if (!added.items || !added.errors) {
        throw OpcError("The server answered the request for items with success, and sent no handles");
    }
    for (std::size_t i = 0; i < count; ++i) {
        results_[first + i] = (*added.errors)[i];
        if (!failed(results_[first + i])) {
            handles_.push_back((*added.items)[i].serverHandle);
            places_.push_back(first + i);
        }
    }
}

std::vector<ItemValue> ItemGroup::readPortion(Handles handles, std::uint32_t maxAge) const {
    const std::string asked = "the read of items";
    if (sync2_) {
        const std::vector<std::uint32_t> ages(handles.size(), maxAge);
        return readingsOf(need(sync2_->ReadMaxAge(handles, ages), asked));
    }
    if (!sync_) {
        throw OpcError("The server's groups cannot be read: they have no IOPCSyncIO");
    }
    return readingsOf(need(sync_->Read(maxAge == fromCache ? Source::Cache : Source::Device, handles), asked));
}

std::vector<ItemValue> ItemGroup::read(std::uint32_t maxAge) const {
    std::vector<ItemValue> values(itemIds_.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i].itemId = itemIds_[i];
        values[i].result = results_[i];
    }
    const Handles all(handles_);
    for (std::size_t first = 0; first < all.size(); first += itemsPerCall) {
        const Handles part = all.subspan(first, std::min(itemsPerCall, all.size() - first));
        auto readings = readPortion(part, maxAge);
        for (std::size_t i = 0; i < part.size(); ++i) {
            readings[i].itemId = itemIds_[places_[first + i]];
            values[places_[first + i]] = std::move(readings[i]);
        }
    }
    return values;
}

}  // namespace quelm::opcda::client
