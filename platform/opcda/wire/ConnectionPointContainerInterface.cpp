#include "opcda/wire/ConnectionPointContainerInterface.h"

#include "opcda/wire/ConnectionPointObject.h"
#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

std::shared_ptr<ConnectionPointObject> Connectable::connectionPoint() {
    if (auto known = point_.lock()) {
        return known;
    }
    Hold held = memory();
    if (!held.resize(ConnectionPointObject::footprint)) {
        return nullptr;
    }
    auto made = std::make_shared<ConnectionPointObject>(*this, std::move(held));
    point_ = made;
    return made;
}

Fault ConnectionPointContainerInterface::enumPoints(Reader& /*in*/, Writer& out, dcom::orpc::CallContext& context) {
    const auto point = owner_.isGone() ? nullptr : owner_.connectionPoint();
    if (point == nullptr) {
        return writeNoInterface(out, owner_.isGone() ? E_FAIL : E_OUTOFMEMORY);
    }
    Enumerator<std::shared_ptr<dcom::orpc::ComObject>> points({point});
    out.hresult(writeEnumerator<EnumConnectionPoints>(out, context, iidEnumConnectionPoints, owner_.memory(),
                                                      std::move(points), S_OK));
    return Fault::None;
}

Fault ConnectionPointContainerInterface::findPoint(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const Uuid iid = in.uuid();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (owner_.isGone()) {
        return writeNoInterface(out, E_FAIL);
    }
    if (iid != owner_.outgoingInterface()) {
        return writeNoInterface(out, CONNECT_E_NOCONNECTION);
    }
    const auto point = owner_.connectionPoint();
    if (point == nullptr) {
        return writeNoInterface(out, E_OUTOFMEMORY);
    }
    out.hresult(context.writeInterface(out, point, iidConnectionPoint));
    return Fault::None;
}

}  // namespace quelm::opcda::wire
