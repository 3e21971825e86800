#pragma once

// Base of the server object's interfaces: calls end here once the client has let go of the object.

#include "dcom/orpc/MethodTable.h"
#include "opcda/Server.h"

namespace quelm::opcda::wire {

class OpcServerObject;

class ServerBound : public dcom::orpc::Interface {
 public:
    explicit ServerBound(OpcServerObject& object) : object_(object) {}

 protected:
    OpcServerObject& object() { return object_; }
    // nullptr when the client has let go of the object.
    Server* server();

 private:
    OpcServerObject& object_;
};

// Its methods get the server that exists.
template <class Self>
class ServerBoundInterface : public dcom::orpc::TableInterface<Self, ServerBound, Server&> {
 public:
    using dcom::orpc::TableInterface<Self, ServerBound, Server&>::TableInterface;
    dcom::Fault invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                       dcom::orpc::CallContext& context) final {
        Server* const server = this->server();
        return server != nullptr ? this->dispatch(opnum, *server, in, out, context) : dcom::Fault::Disconnected;
    }
};

}  // namespace quelm::opcda::wire
