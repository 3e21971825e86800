#include "opcda/wire/OpcGroupObject.h"

#include "dcom/orpc/OrpcTypes.h"
#include "opcda/wire/OpcServerObject.h"

namespace quelm::opcda::wire {

OpcGroupObject::OpcGroupObject(std::weak_ptr<OpcServerObject> owner, std::shared_ptr<Group> group)
    : owner_(std::move(owner)), group_(std::move(group)), interfaces_(*this) {}

dcom::orpc::Interface* OpcGroupObject::queryInterface(const Uuid& iid) {
    return interfaces_.find(iid);
}

bool OpcGroupObject::hasInterface(const Uuid& iid) {
    return iid == dcom::orpc::iidUnknown || Interfaces::has(iid);
}

void OpcGroupObject::disconnected() {
    if (const auto server = owner()) {
        server->groupReleased(*group_);
    }
}

}  // namespace quelm::opcda::wire
