#pragma once

// A client's group as a COM object. The group outlives it: a client may let go of all its interfaces and ask for them
// again by the group's name. Once the group is removed, whoever still holds the object is answered with failures.

#include <memory>

#include "dcom/orpc/ComObject.h"
#include "opcda/Group.h"
#include "opcda/wire/AsyncIo3Interface.h"
#include "opcda/wire/AsyncIoInterface.h"
#include "opcda/wire/ConnectionPointContainerInterface.h"
#include "opcda/wire/DataObjectInterface.h"
#include "opcda/wire/GroupStateMgtInterface.h"
#include "opcda/wire/ItemDeadbandMgtInterface.h"
#include "opcda/wire/ItemMgtInterface.h"
#include "opcda/wire/ItemSamplingMgtInterface.h"
#include "opcda/wire/OfferedInterfaces.h"
#include "opcda/wire/SyncIo2Interface.h"

namespace quelm::opcda::wire {

class OpcServerObject;

class OpcGroupObject final : public dcom::orpc::ComObject, public Connectable {
 public:
    // What clients may ask it for.
    using Interfaces = OfferedInterfaces<SyncIoInterface, ItemMgtInterface, GroupStateMgtInterface, AsyncIo2Interface,
                                         ConnectionPointContainerInterface, GroupStateMgt2Interface, SyncIo2Interface,
                                         AsyncIo3Interface, ItemDeadbandMgtInterface, ItemSamplingMgtInterface,
                                         AsyncIoInterface, DataObjectInterface>;

    // connections: of the group, whichever objects it has had.
    OpcGroupObject(std::weak_ptr<OpcServerObject> owner, std::shared_ptr<Group> group, OutgoingCalls& outgoing,
                   std::shared_ptr<ConnectionBook> connections);

    dcom::orpc::Interface* queryInterface(const Uuid& iid) override { return interfaces_.find(iid); }
    void disconnected() override {}

    dcom::orpc::ComObject& object() override { return *this; }
    const Uuid& outgoingInterface() const override { return iidOpcDataCallback; }
    bool isGone() const override { return group_->isRemoved(); }
    std::shared_ptr<ConnectionBook> connections() const override { return connections_; }
    Hold memory() const override { return group_->memory(); }
    HResult advise(std::unique_ptr<SinkConnection> connection, std::uint32_t& cookie) override;
    HResult unadvise(std::uint32_t cookie) override { return group_->unadvise(cookie); }

    // Whether clients can ask a group for this interface, IUnknown included.
    static bool hasInterface(const Uuid& iid);

    Group& group() { return *group_; }
    // Empty when the client has let go of its server object.
    std::shared_ptr<OpcServerObject> owner() const { return owner_.lock(); }

 private:
    std::weak_ptr<OpcServerObject> owner_;
    std::shared_ptr<Group> group_;
    std::shared_ptr<ConnectionBook> connections_;
    Interfaces interfaces_;
};

}  // namespace quelm::opcda::wire
