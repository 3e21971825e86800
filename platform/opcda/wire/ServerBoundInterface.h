#pragma once

// Base of the server object's interfaces, whose methods get the server that the object stands for.

#include "dcom/orpc/MethodTable.h"
#include "opcda/Server.h"

namespace quelm::opcda::wire {

class OpcServerObject;

class ServerBound : public dcom::orpc::Interface {
 public:
    explicit ServerBound(OpcServerObject& object) : object_(object) {}

 protected:
    OpcServerObject& object() { return object_; }
    Server& server();

 private:
    OpcServerObject& object_;
};

template <class Self>
class ServerBoundInterface : public dcom::orpc::TableInterface<Self, ServerBound, Server&> {
 public:
    using dcom::orpc::TableInterface<Self, ServerBound, Server&>::TableInterface;
    dcom::Fault invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                       dcom::orpc::CallContext& context) final {
        return this->dispatch(opnum, this->server(), in, out, context);
    }
};

}  // namespace quelm::opcda::wire
