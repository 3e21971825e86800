#pragma once

// Base of the server object's interfaces: calls end here once the client has let go of the object.

#include "dcom/orpc/ComObject.h"
#include "opcda/Server.h"

namespace quelm::opcda::wire {

class OpcServerObject;

class ServerBoundInterface : public dcom::orpc::Interface {
 public:
    explicit ServerBoundInterface(OpcServerObject& object) : object_(object) {}
    std::uint32_t invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context) final;

 protected:
    OpcServerObject& object() { return object_; }

 private:
    // As Interface::invoke, with the server that exists.
    virtual std::uint32_t call(Server& server, std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                               dcom::orpc::CallContext& context) = 0;

    OpcServerObject& object_;
};

}  // namespace quelm::opcda::wire
