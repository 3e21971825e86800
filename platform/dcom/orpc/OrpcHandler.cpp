#include "dcom/orpc/OrpcHandler.h"

#include <fmt/format.h>

#include <exception>
#include <utility>

#include "dcom/orpc/MethodTable.h"

namespace quelm::dcom::orpc {

namespace {

bool isRemUnknown(const Uuid& iid) {
    return iid == iidRemUnknown || iid == iidRemUnknown2;
}

// COM's own, by which objects of any kind are held and made.
bool isOfEveryObject(const Uuid& iid) {
    return isRemUnknown(iid) || iid == iidUnknown || iid == iidClassFactory;
}

std::string whatWentWrong() {
    try {
        throw;
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace

Fault faultOfException(ObjectExporter& exporter, const rpc::Call& call) noexcept {
    try {
        exporter.writeLog(fmt::format("Method {} of interface {} failed, called by {} ({}): {}", call.opnum,
                                      call.interfaceId.toText(), call.peer.remoteAddress, call.account,
                                      whatWentWrong()));
    } catch (...) {  // Out of memory for the line itself: the fault tells the client all the same.
        return Fault::Server;
    }
    return Fault::Server;
}

HResult ExporterContext::writeInterface(ndr::Writer& out, const std::shared_ptr<ComObject>& object, const Uuid& iid) {
    ObjectReference reference;
    const ClientId client = exporter_.clientOf(call_.peer, call_.account);
    const HResult result = exporter_.addReference(client, object, iid, referencesPerPointer, reference);
    if (failed(result)) {
        out.nullPointer();
        return result;
    }
    out.pointer();
    writeMarshalledReference(out, iid, reference, exporter_.resolverBindings(call_.peer));
    return S_OK;
}

OrpcHandler::OrpcHandler(ObjectExporter& exporter, std::function<bool(const Uuid&)> knownInterface,
                         std::function<bool(const Uuid&)> openInterface)
    : exporter_(exporter),
      remUnknown_(exporter),
      knownInterface_(std::move(knownInterface)),
      openInterface_(std::move(openInterface)) {}

bool OrpcHandler::supports(const Uuid& interfaceId, std::uint16_t versionMajor, std::uint16_t) {
    return versionMajor == 0 && (isOfEveryObject(interfaceId) || knownInterface_(interfaceId));
}

bool OrpcHandler::isOpenToAll(const Uuid& interfaceId) {
    return exporter_.settings().opensToAll && openInterface_ &&
           (isOfEveryObject(interfaceId) || openInterface_(interfaceId));
}

Fault OrpcHandler::call(const rpc::Call& call, ndr::Writer& reply) {
    try {
        return dispatch(call, reply);
    } catch (...) {
        return faultOfException(exporter_, call);
    }
}

Fault OrpcHandler::dispatch(const rpc::Call& call, ndr::Writer& reply) {
    ndr::Reader in(call.stub);
    const OrpcThis header = readOrpcThis(in);
    if (header.fault != Fault::None) {
        return header.fault;
    }
    writeOrpcThat(reply, header);
    if (call.hasObject && call.object == exporter_.remUnknownIpid()) {
        return remUnknown_.invoke(call, in, reply);
    }
    return call.hasObject ? callObject(call, in, reply) : Fault::Disconnected;
}

// The IPID decides which interface is called: clients call the methods that an interface inherits through a
// binding to its base, and the other way round.
Fault OrpcHandler::callObject(const rpc::Call& call, ndr::Reader& in, ndr::Writer& reply) {
    const auto target = exporter_.route(call.object, call.peer, call.account);
    if (target.object == nullptr) {
        return faultOf(resultOf(target.access));
    }
    // A binding to IRemUnknown with another object's IPID would run some other method than the client meant.
    if (isRemUnknown(call.interfaceId)) {
        return Fault::UnknownInterface;
    }
    if (call.opnum < firstOpnum || target.methods == nullptr) {
        return Fault::OpnumRange;
    }
    ExporterContext context(exporter_, call);
    return target.methods->invoke(call.opnum, in, reply, context);
}

void OrpcHandler::connectionClosed(const rpc::Peer& peer, bool abrupt) {
    exporter_.connectionClosed(peer, abrupt);
}

}  // namespace quelm::dcom::orpc
