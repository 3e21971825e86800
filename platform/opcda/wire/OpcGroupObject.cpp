#include "opcda/wire/OpcGroupObject.h"

#include "dcom/orpc/OrpcTypes.h"
#include "opcda/wire/InterfaceTable.h"
#include "opcda/wire/OpcServerObject.h"

namespace quelm::opcda::wire {

OpcGroupObject::OpcGroupObject(std::weak_ptr<OpcServerObject> owner, std::shared_ptr<Group> group)
    : owner_(std::move(owner)), group_(std::move(group)), stateMgt_(*this), itemMgt_(*group_), syncIo_(*group_) {}

// What clients may ask it for.
struct OpcGroupObject::Table {
    using Row = Offered<OpcGroupObject>;
    static constexpr std::array rows{
        Row{iidOpcSyncIo, [](OpcGroupObject& object) -> dcom::orpc::Interface* { return &object.syncIo_; }},
        Row{iidOpcItemMgt, [](OpcGroupObject& object) -> dcom::orpc::Interface* { return &object.itemMgt_; }},
        Row{iidOpcGroupStateMgt, [](OpcGroupObject& object) -> dcom::orpc::Interface* { return &object.stateMgt_; }},
        Row{iidOpcAsyncIo2, [](OpcGroupObject& object) -> dcom::orpc::Interface* { return &object.asyncIo2_; }},
    };
};

dcom::orpc::Interface* OpcGroupObject::queryInterface(const dcom::Uuid& iid) {
    return findOffered(Table::rows, *this, iid);
}

bool OpcGroupObject::hasInterface(const dcom::Uuid& iid) {
    const auto isRow = [&iid](const Table::Row& row) { return row.iid == iid; };
    return iid == dcom::orpc::iidUnknown || std::any_of(Table::rows.begin(), Table::rows.end(), isRow);
}

void OpcGroupObject::disconnected() {
    const auto server = owner();
    if (server && !group_->isRemoved()) {
        server->groupReleased(*group_);
    }
}

}  // namespace quelm::opcda::wire
