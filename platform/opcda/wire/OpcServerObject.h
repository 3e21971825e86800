#pragma once

// A client's server object as a COM object: the interfaces by which it browses, asks for properties and makes groups.
// While a client holds it, the server is in use; when the last reference goes, the client's groups end.

#include <memory>
#include <optional>
#include <unordered_map>

#include "dcom/orpc/ComObject.h"
#include "opcda/Server.h"
#include "opcda/wire/BrowseInterface.h"
#include "opcda/wire/CommonInterface.h"
#include "opcda/wire/ItemIoInterface.h"
#include "opcda/wire/ItemPropertiesInterface.h"
#include "opcda/wire/OfferedInterfaces.h"
#include "opcda/wire/ServerInterface.h"

namespace quelm::opcda::wire {

class OpcGroupObject;

class OpcServerObject final : public dcom::orpc::ComObject {
 public:
    // What clients may ask it for.
    using Interfaces =
        OfferedInterfaces<ServerInterface, BrowseInterface, CommonInterface, ItemPropertiesInterface, ItemIoInterface>;

    // The application outlives the object. budget: where what the client holds is counted; none: one of its own.
    explicit OpcServerObject(Application& application, std::shared_ptr<ClientBudget> budget = nullptr);
    OpcServerObject(const OpcServerObject&) = delete;
    OpcServerObject& operator=(const OpcServerObject&) = delete;

    dcom::orpc::Interface* queryInterface(const Uuid& iid) override;
    void disconnected() override;

    // nullptr when the client has let go.
    Server* server() { return server_ ? &*server_ : nullptr; }

    // The COM object of a group of this server; there is never more than one.
    std::shared_ptr<OpcGroupObject> groupObject(const std::shared_ptr<Group>& group);
    // Writes a group's [out] interface pointer, or the null pointer when result, which made the group, says failure.
    // Gives the call's result. The interface is one that groups have.
    HResult writeGroup(dcom::ndr::Writer& out, dcom::orpc::CallContext& context, const std::shared_ptr<Group>& group,
                       const Uuid& iid, HResult result);
    // RemoveGroup.
    HResult removeGroup(std::uint32_t serverHandle, bool force);
    // The client let go of all interfaces of a group, which stays until it is removed.
    void groupReleased(const Group& group);

 private:
    std::optional<Server> server_;
    std::unordered_map<std::uint32_t, std::weak_ptr<OpcGroupObject>> groupObjects_;  // by server handle
    Interfaces interfaces_;
};

}  // namespace quelm::opcda::wire
