#include "OPC DA/wire/OpcGroupObject.h"

#include "DCOM/orpc/OrpcTypes.h"
#include "OPC DA/wire/Iids.h"
#include "OPC DA/wire/OpcServerObject.h"

namespace quelm::opcda::wire {

OpcGroupObject::OpcGroupObject(std::weak_ptr<OpcServerObject> owner, std::shared_ptr<Group> group)
    : owner_(std::move(owner)), group_(std::move(group)), stateMgt_(*this), itemMgt_(*group_), syncIo_(*group_) {}

dcom::orpc::Interface* OpcGroupObject::queryInterface(const dcom::Uuid& iid) {
    if (iid == iidOpcSyncIo) {
        return &syncIo_;
    }
    if (iid == iidOpcItemMgt) {
        return &itemMgt_;
    }
    if (iid == iidOpcGroupStateMgt) {
        return &stateMgt_;
    }
    return iid == iidOpcAsyncIo2 ? &asyncIo2_ : nullptr;
}

bool OpcGroupObject::hasInterface(const dcom::Uuid& iid) {
    return iid == iidOpcSyncIo || iid == iidOpcItemMgt || iid == iidOpcGroupStateMgt || iid == iidOpcAsyncIo2 ||
           iid == dcom::orpc::iidUnknown;
}

void OpcGroupObject::disconnected() {
    const auto server = owner();
    if (server && !group_->isRemoved()) {
        server->groupReleased(*group_);
    }
}

}  // namespace quelm::opcda::wire
