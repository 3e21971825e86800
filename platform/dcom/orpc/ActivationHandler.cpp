#include "dcom/orpc/ActivationHandler.h"

#include "dcom/orpc/OrpcHandler.h"

namespace quelm::dcom::orpc {

bool ActivationHandler::supports(const Uuid& interfaceId, std::uint16_t versionMajor, std::uint16_t) {
    return versionMajor == 0 &&
           (interfaceId == iidActivation || interfaceId == iidRemoteScmActivator || interfaceId == iidObjectExporter);
}

// Clients ask whether the machine is alive, and by which addresses, before they know how to log on. Pings come from
// the client's machine, whose own account is unknown here, and objects must not die over that. Where a class is open to
// all, activation looks at which one is asked for.
bool ActivationHandler::isOpenToAll(const Uuid& interfaceId) {
    return interfaceId == iidObjectExporter || exporter_.settings().opensToAll;
}

Fault ActivationHandler::call(const rpc::Call& call, ndr::Writer& reply) {
    try {
        return dispatch(call, reply);
    } catch (...) {
        return faultOfException(exporter_, call);
    }
}

Fault ActivationHandler::dispatch(const rpc::Call& call, ndr::Writer& reply) {
    if (call.interfaceId == iidObjectExporter) {
        return resolver_.invoke(call, reply);
    }
    if (call.interfaceId == iidActivation) {
        return activation_.invokeActivation(call, reply);
    }
    if (call.interfaceId == iidRemoteScmActivator) {
        return activation_.invokeScmActivator(call, reply);
    }
    return Fault::UnknownInterface;
}

void ActivationHandler::connectionClosed(const rpc::Peer&, bool) {}

}  // namespace quelm::dcom::orpc
