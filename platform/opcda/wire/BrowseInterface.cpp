#include "opcda/wire/BrowseInterface.h"

#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

namespace {

// An empty list is an enumerator without elements, never a null pointer: some clients call whatever they get.
std::uint32_t writeNames(const Server& server, Writer& out, CallContext& context, HResult result,
                         NameEnumerator names) {
    out.u32(writeEnumerator<EnumString<std::string_view>>(out, context, iidEnumString, memoryOf(server.budget()),
                                                          std::move(names), result));
    return 0;
}

}  // namespace

std::uint32_t BrowseInterface::organization(Server& server, Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    out.u16(static_cast<std::uint16_t>(server.browser().organization()));
    out.u32(S_OK);
    return 0;
}

std::uint32_t BrowseInterface::changePosition(Server& server, Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint16_t direction = in.u16();
    const std::string text = in.wideString();
    if (!in.good()) {
        return faultBadStubData;
    }
    out.u32(server.browser().changePosition(direction, text));
    return 0;
}

std::uint32_t BrowseInterface::browseItemIds(Server& server, Reader& in, Writer& out, CallContext& context) {
    const std::uint16_t type = in.u16();
    const std::string filter = in.wideString();
    const VarType dataType = in.u16();
    const std::uint32_t accessRights = in.u32();
    if (!in.good()) {
        return faultBadStubData;
    }
    NameEnumerator names;
    const HResult result = server.browser().browse(type, filter, dataType, accessRights, names);
    return writeNames(server, out, context, result, std::move(names));
}

std::uint32_t BrowseInterface::getItemId(Server& server, Reader& in, Writer& out, CallContext& /*context*/) {
    const std::string name = in.wideString();
    if (!in.good()) {
        return faultBadStubData;
    }
    std::string itemId;
    const HResult result = server.browser().itemId(name, itemId);
    writeStringOrNull(out, result, itemId);
    out.u32(result);
    return 0;
}

std::uint32_t BrowseInterface::browseAccessPaths(Server& server, Reader& in, Writer& out, CallContext& context) {
    const std::string itemId = in.wideString();
    if (!in.good()) {
        return faultBadStubData;
    }
    NameEnumerator paths;
    const HResult result = server.browser().accessPaths(itemId, paths);
    return writeNames(server, out, context, result, std::move(paths));
}

}  // namespace quelm::opcda::wire
