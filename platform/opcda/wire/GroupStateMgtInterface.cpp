#include "opcda/wire/GroupStateMgtInterface.h"

#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/OpcServerObject.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

// A parameter that may be left out.
template <class T, class ReadOne>
void readOptional(Reader& in, std::optional<T>& value, ReadOne readOne) {
    if (in.pointer()) {
        value = readOne();
    }
}

}  // namespace

Fault GroupStateCalls::getState(Reader& /*in*/, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const Group& group = object_.group();
    const bool removed = group.isRemoved();
    const GroupState state = removed ? GroupState{} : group.state();
    out.u32(state.updateRate);
    out.u32(state.active ? 1 : 0);
    if (removed) {
        out.nullPointer();
    } else {
        writeString(out, group.name());
    }
    out.i32(state.timeBias);
    out.f32(state.percentDeadband);
    out.u32(state.localeId);
    out.u32(state.clientHandle);
    out.u32(removed ? 0 : group.serverHandle());
    out.hresult(removed ? E_FAIL : S_OK);
    return Fault::None;
}

Fault GroupStateCalls::setState(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    GroupChange change;
    readOptional(in, change.updateRate, [&in] { return in.u32(); });
    readOptional(in, change.active, [&in] { return in.u32() != 0; });
    readOptional(in, change.timeBias, [&in] { return in.i32(); });
    readOptional(in, change.percentDeadband, [&in] { return in.f32(); });
    readOptional(in, change.localeId, [&in] { return in.u32(); });
    readOptional(in, change.clientHandle, [&in] { return in.u32(); });
    if (!in.good()) {
        return Fault::BadStubData;
    }
    Group& group = object_.group();
    const HResult result = group.isRemoved() ? E_FAIL : group.setState(change);
    out.u32(group.isRemoved() ? 0 : group.state().updateRate);
    out.hresult(result);
    return Fault::None;
}

Fault GroupStateCalls::setName(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const std::string name = in.wideString();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    Group& group = object_.group();
    out.hresult(group.isRemoved() ? E_FAIL : group.setName(name));
    return Fault::None;
}

Fault GroupStateCalls::cloneGroup(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const std::string name = in.wideString();
    const Uuid iid = in.uuid();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    const auto owner = object_.owner();
    if (object_.group().isRemoved() || !owner) {
        return writeNoInterface(out, E_FAIL);
    }
    if (!OpcGroupObject::hasInterface(iid)) {
        return writeNoInterface(out, E_NOINTERFACE);
    }
    std::shared_ptr<Group> clone;
    const HResult result = owner->server().cloneGroup(object_.group(), name, clone);
    out.hresult(owner->writeNewGroup(out, context, clone, iid, result));
    return Fault::None;
}

Fault GroupStateMgt2Interface::setKeepAlive(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const std::uint32_t time = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    Group& group = object_.group();
    const HResult result = group.setKeepAlive(time);
    out.u32(group.isRemoved() ? 0 : group.state().keepAlive);
    out.hresult(result);
    return Fault::None;
}

Fault GroupStateMgt2Interface::getKeepAlive(Reader& /*in*/, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const Group& group = object_.group();
    out.u32(group.isRemoved() ? 0 : group.state().keepAlive);
    out.hresult(group.isRemoved() ? E_FAIL : S_OK);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
