#include "opcda/wire/OpcGroupObject.h"

#include "dcom/orpc/OrpcTypes.h"
#include "opcda/wire/OpcServerObject.h"

namespace quelm::opcda::wire {

OpcGroupObject::OpcGroupObject(std::weak_ptr<OpcServerObject> owner, std::shared_ptr<Group> group,
                               OutgoingCalls& outgoing, std::shared_ptr<ConnectionBook> connections)
    : Connectable(outgoing),
      owner_(std::move(owner)),
      group_(std::move(group)),
      connections_(std::move(connections)),
      interfaces_(*this) {}

HResult OpcGroupObject::advise(std::unique_ptr<SinkConnection> connection, std::uint32_t& cookie) {
    return group_->advise(std::make_unique<DataSink>(*group_, std::move(connection)), cookie);
}

bool OpcGroupObject::hasInterface(const Uuid& iid) {
    return iid == dcom::orpc::iidUnknown || Interfaces::has(iid);
}

}  // namespace quelm::opcda::wire
