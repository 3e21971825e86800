#pragma once

// A client's group as a COM object. The client's references keep it; the group itself stays without them, and a new
// object is made for it when the client asks for it again. The object of a group that was removed answers E_FAIL.

#include <memory>

#include "dcom/orpc/ComObject.h"
#include "opcda/Group.h"
#include "opcda/wire/AsyncIo2Interface.h"
#include "opcda/wire/GroupStateMgtInterface.h"
#include "opcda/wire/ItemMgtInterface.h"
#include "opcda/wire/OfferedInterfaces.h"
#include "opcda/wire/SyncIoInterface.h"

namespace quelm::opcda::wire {

class OpcServerObject;

class OpcGroupObject final : public dcom::orpc::ComObject {
 public:
    // What clients may ask it for.
    using Interfaces = OfferedInterfaces<SyncIoInterface, ItemMgtInterface, GroupStateMgtInterface, AsyncIo2Interface>;

    OpcGroupObject(std::weak_ptr<OpcServerObject> owner, std::shared_ptr<Group> group);
    OpcGroupObject(const OpcGroupObject&) = delete;
    OpcGroupObject& operator=(const OpcGroupObject&) = delete;

    dcom::orpc::Interface* queryInterface(const Uuid& iid) override;
    void disconnected() override;

    // Whether clients can ask a group for this interface, IUnknown included.
    static bool hasInterface(const Uuid& iid);

    Group& group() { return *group_; }
    // Empty when the client has let go of its server object.
    std::shared_ptr<OpcServerObject> owner() const { return owner_.lock(); }

 private:
    std::weak_ptr<OpcServerObject> owner_;
    std::shared_ptr<Group> group_;
    Interfaces interfaces_;
};

}  // namespace quelm::opcda::wire
