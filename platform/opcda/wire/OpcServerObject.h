#pragma once

// A client's server object as a COM object: the interfaces by which it browses, asks for properties and makes groups.
// While a client holds it, the server is in use; when the last reference goes, the client's groups end.

#include <memory>
#include <unordered_map>

#include "dcom/orpc/ComObject.h"
#include "opcda/Server.h"
#include "opcda/wire/Browse3Interface.h"
#include "opcda/wire/BrowseInterface.h"
#include "opcda/wire/CommonInterface.h"
#include "opcda/wire/ConnectionPointContainerInterface.h"
#include "opcda/wire/ItemIoInterface.h"
#include "opcda/wire/ItemPropertiesInterface.h"
#include "opcda/wire/OfferedInterfaces.h"
#include "opcda/wire/ServerInterface.h"

namespace quelm::opcda::wire {

class OpcGroupObject;

class OpcServerObject final : public dcom::orpc::ComObject, public Connectable {
 public:
    // What clients may ask it for.
    using Interfaces = OfferedInterfaces<ServerInterface, BrowseInterface, CommonInterface, ItemPropertiesInterface,
                                         ItemIoInterface, ConnectionPointContainerInterface, Browse3Interface>;

    // The application and what is shared by all outgoing calls outlive the object. budget: where what the client holds
    // is counted; none: one of its own.
    OpcServerObject(Application& application, OutgoingCalls& outgoing, std::shared_ptr<ClientBudget> budget = nullptr);

    dcom::orpc::Interface* queryInterface(const Uuid& iid) override { return interfaces_.find(iid); }
    void disconnected() override {}

    dcom::orpc::ComObject& object() override { return *this; }
    const Uuid& outgoingInterface() const override { return iidOpcShutdown; }
    bool isGone() const override { return false; }
    std::shared_ptr<ConnectionBook> connections() const override { return connections_; }
    Hold memory() const override { return memoryOf(server_.budget()); }
    HResult advise(std::unique_ptr<SinkConnection> connection, std::uint32_t& cookie) override;
    HResult unadvise(std::uint32_t cookie) override { return server_.unadvise(cookie); }

    Server& server() { return server_; }

    // The COM object of a group of this server; there is never more than one.
    std::shared_ptr<OpcGroupObject> groupObject(const std::shared_ptr<Group>& group);
    // Writes a group's [out] interface pointer, or the null pointer when result, which made the group, says failure.
    // Gives the call's result. The interface is one that groups have.
    HResult writeGroup(dcom::ndr::Writer& out, dcom::orpc::CallContext& context, const std::shared_ptr<Group>& group,
                       const Uuid& iid, HResult result);
    // The same for a group that was just made: it does not stay where the client cannot have its pointer.
    HResult writeNewGroup(dcom::ndr::Writer& out, dcom::orpc::CallContext& context, const std::shared_ptr<Group>& group,
                          const Uuid& iid, HResult result);
    // RemoveGroup.
    HResult removeGroup(std::uint32_t serverHandle, bool force);

 private:
    // What the objects that a group has in the course of time have in common.
    struct KnownGroup {
        std::weak_ptr<OpcGroupObject> object;
        std::shared_ptr<ConnectionBook> connections = std::make_shared<ConnectionBook>();
    };

    std::shared_ptr<ConnectionBook> connections_ = std::make_shared<ConnectionBook>();
    std::unordered_map<std::uint32_t, KnownGroup> groups_;  // by server handle
    Server server_;
    Interfaces interfaces_;
};

}  // namespace quelm::opcda::wire
