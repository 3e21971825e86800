#include "opcda/wire/OpcServerObject.h"

#include "opcda/wire/OpcGroupObject.h"

namespace quelm::opcda::wire {

OpcServerObject::OpcServerObject(Application& application, std::shared_ptr<ClientBudget> budget)
    : server_(std::in_place, application, std::move(budget)), interfaces_(*this) {}

dcom::orpc::Interface* OpcServerObject::queryInterface(const Uuid& iid) {
    return interfaces_.find(iid);
}

void OpcServerObject::disconnected() {
    groupObjects_.clear();
    server_.reset();
}

std::shared_ptr<OpcGroupObject> OpcServerObject::groupObject(const std::shared_ptr<Group>& group) {
    std::weak_ptr<OpcGroupObject>& known = groupObjects_[group->serverHandle()];
    if (auto object = known.lock()) {
        return object;
    }
    const auto self = std::static_pointer_cast<OpcServerObject>(shared_from_this());
    auto object = std::make_shared<OpcGroupObject>(self, group);
    known = object;
    return object;
}

HResult OpcServerObject::writeGroup(dcom::ndr::Writer& out, dcom::orpc::CallContext& context,
                                    const std::shared_ptr<Group>& group, const Uuid& iid, HResult result) {
    if (failed(result)) {
        out.nullPointer();
        return result;
    }
    const HResult written = context.writeInterface(out, groupObject(group), iid);
    return failed(written) ? written : result;
}

HResult OpcServerObject::removeGroup(std::uint32_t serverHandle, bool force) {
    const auto known = groupObjects_.find(serverHandle);
    const bool inUse = known != groupObjects_.end() && !known->second.expired();
    return server_->removeGroup(serverHandle, force, inUse);
}

void OpcServerObject::groupReleased(const Group& group) {
    groupObjects_.erase(group.serverHandle());
}

}  // namespace quelm::opcda::wire
