#include "opcda/wire/BrowseInterface.h"

#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

namespace {

// An empty list is an enumerator without elements, never a null pointer: some clients call whatever they get.
Fault writeNames(const Server& server, Writer& out, CallContext& context, HResult result, NameEnumerator names) {
    out.hresult(writeEnumerator<EnumString<std::string_view>>(out, context, iidEnumString, memoryOf(server.budget()),
                                                              std::move(names), result));
    return Fault::None;
}

}  // namespace

Fault BrowseInterface::organization(Server& server, Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    out.u16(static_cast<std::uint16_t>(server.browser().organization()));
    out.hresult(S_OK);
    return Fault::None;
}

Fault BrowseInterface::changePosition(Server& server, Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint16_t direction = in.u16();
    const std::string text = in.wideString();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(server.browser().changePosition(direction, text));
    return Fault::None;
}

Fault BrowseInterface::browseItemIds(Server& server, Reader& in, Writer& out, CallContext& context) {
    const std::uint16_t type = in.u16();
    const std::string filter = in.wideString();
    const VarType dataType = in.u16();
    const std::uint32_t accessRights = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    NameEnumerator names;
    const HResult result = server.browser().browse(type, filter, dataType, accessRights, names);
    return writeNames(server, out, context, result, std::move(names));
}

Fault BrowseInterface::getItemId(Server& server, Reader& in, Writer& out, CallContext& /*context*/) {
    const std::string name = in.wideString();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::string itemId;
    const HResult result = server.browser().itemId(name, itemId);
    writeStringOrNull(out, result, itemId);
    out.hresult(result);
    return Fault::None;
}

Fault BrowseInterface::browseAccessPaths(Server& server, Reader& in, Writer& out, CallContext& context) {
    const std::string itemId = in.wideString();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    NameEnumerator paths;
    const HResult result = server.browser().accessPaths(itemId, paths);
    return writeNames(server, out, context, result, std::move(paths));
}

}  // namespace quelm::opcda::wire
