#include "opcda/client/BrowseStubs.h"

#include <array>

namespace quelm::opcda::client {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

Reply<std::uint16_t> IOPCBrowseServerAddressSpace::QueryOrganization() const {
    Answer answer = ask(wire::Browse::QueryOrganization, "IOPCBrowseServerAddressSpace::QueryOrganization");
    Reply<std::uint16_t> reply;
    reply.out = answer.in().u16();
    reply.result = answer.done();
    return reply;
}

HResult IOPCBrowseServerAddressSpace::ChangeBrowsePosition(BrowseDirection direction, std::string_view name) const {
    return tell(wire::Browse::ChangeBrowsePosition, "IOPCBrowseServerAddressSpace::ChangeBrowsePosition",
                [&](Writer& out) {
                    out.u16(static_cast<std::uint16_t>(direction));
                    out.align(4);
                    out.wideString(name);
                });
}

Reply<Maybe<Interface>> IOPCBrowseServerAddressSpace::BrowseOPCItemIDs(BrowseType kind, std::string_view filter,
                                                                       VarType type, std::uint32_t rights) const {
    return fetch(wire::Browse::BrowseOpcItemIds, "IOPCBrowseServerAddressSpace::BrowseOPCItemIDs", [&](Writer& out) {
        out.u16(static_cast<std::uint16_t>(kind));
        out.align(4);
        out.wideString(filter);
        out.u16(type);
        out.u32(rights);
    });
}

Reply<Maybe<std::string>> IOPCBrowseServerAddressSpace::GetItemID(std::string_view name) const {
    return text(wire::Browse::GetItemId, "IOPCBrowseServerAddressSpace::GetItemID",
                [&](Writer& out) { out.wideString(name); });
}

Reply<Maybe<Interface>> IOPCBrowseServerAddressSpace::BrowseAccessPaths(std::string_view itemId) const {
    return fetch(wire::Browse::BrowseAccessPaths, "IOPCBrowseServerAddressSpace::BrowseAccessPaths",
                 [&](Writer& out) { out.wideString(itemId); });
}

Reply<AvailableProperties> IOPCItemProperties::QueryAvailableProperties(std::string_view itemId) const {
    Answer answer = ask(wire::ItemProperties::QueryAvailableProperties, "IOPCItemProperties::QueryAvailableProperties",
                        [&](Writer& out) { out.wideString(itemId); });
    Reader& in = answer.in();
    Reply<AvailableProperties> reply;
    reply.out.count = in.u32();
    reply.out.ids = readNumbers(in, reply.out.count);
    if (auto texts = readTexts(in, reply.out.count)) {
        std::vector<std::string>& descriptions = reply.out.descriptions.emplace();
        for (auto& text : *texts) {
            descriptions.push_back(std::move(text).value_or(std::string()));
        }
    }
    reply.out.types = readArray<VarType>(in, reply.out.count, sizeof(VarType), [](Reader& each) { return each.u16(); });
    reply.result = answer.done();
    return reply;
}

Reply<PropertyValues> IOPCItemProperties::GetItemProperties(std::string_view itemId,
                                                            std::span<const std::uint32_t> ids) const {
    Answer answer =
        ask(wire::ItemProperties::GetItemProperties, "IOPCItemProperties::GetItemProperties", [&](Writer& out) {
            out.wideString(itemId);
            writeCounted(out, ids);
        });
    Reply<PropertyValues> reply;
    reply.out.values = readValues(answer.in(), ids.size());
    reply.out.errors = readErrors(answer.in(), ids.size());
    reply.result = answer.done();
    return reply;
}

Reply<PropertyItemIds> IOPCItemProperties::LookupItemIDs(std::string_view itemId,
                                                         std::span<const std::uint32_t> ids) const {
    Answer answer = ask(wire::ItemProperties::LookupItemIds, "IOPCItemProperties::LookupItemIDs", [&](Writer& out) {
        out.wideString(itemId);
        writeCounted(out, ids);
    });
    Reply<PropertyItemIds> reply;
    reply.out.itemIds = readTexts(answer.in(), ids.size());
    reply.out.errors = readErrors(answer.in(), ids.size());
    reply.result = answer.done();
    return reply;
}

namespace {

constexpr std::size_t propertySize = 28;
constexpr std::size_t propertiesSize = 16;
constexpr std::size_t elementSize = 16 + propertiesSize;

// The structure of an item's properties, without the array that it points to.
struct PropertiesHead {
    HResult error{};
    std::uint32_t count = 0;
    bool hasArray = false;
};

PropertiesHead readPropertiesHead(Reader& in) {
    PropertiesHead head;
    head.error = in.hresult();
    head.count = in.u32();
    head.hasArray = in.pointer();
    in.u32();  // reserved
    return head;
}

// The array behind such a structure. In it all that properties point to stands behind all of them.
ItemPropertyList readProperties(Reader& in, const PropertiesHead& head) {
    ItemPropertyList list{head.error, {}};
    if (!head.hasArray) {
        return list;
    }
    if (in.count(propertySize) != head.count || !in.good()) {
        in.fail();
        return list;
    }
    std::vector<Property>& properties = list.properties.emplace(head.count);
    std::vector<std::array<bool, 3>> has(head.count);  // item id, description, value
    for (std::size_t i = 0; i < head.count; ++i) {
        properties[i].type = in.u16();
        in.u16();  // reserved
        properties[i].id = in.u32();
        for (bool& each : has[i]) {
            each = in.pointer();
        }
        properties[i].error = in.hresult();
        in.u32();  // reserved
    }
    for (std::size_t i = 0; i < head.count && in.good(); ++i) {
        if (has[i][0]) {
            properties[i].itemId = in.wideString();
        }
        if (has[i][1]) {
            properties[i].description = in.wideString();
        }
        if (has[i][2]) {
            properties[i].value = readValue(in);
        }
    }
    return list;
}

std::vector<BrowseElement> readElements(Reader& in, std::uint32_t count) {
    struct Head {
        bool hasName = false;
        bool hasItemId = false;
        PropertiesHead properties;
    };
    std::vector<BrowseElement> elements(count);
    std::vector<Head> heads(count);
    for (std::size_t i = 0; i < count; ++i) {
        heads[i].hasName = in.pointer();
        heads[i].hasItemId = in.pointer();
        elements[i].flags = in.u32();
        in.u32();  // reserved
        heads[i].properties = readPropertiesHead(in);
    }
    for (std::size_t i = 0; i < count && in.good(); ++i) {
        if (heads[i].hasName) {
            elements[i].name = in.wideString();
        }
        if (heads[i].hasItemId) {
            elements[i].itemId = in.wideString();
        }
        elements[i].properties = readProperties(in, heads[i].properties);
    }
    return elements;
}

}  // namespace

Reply<Maybe<std::vector<ItemPropertyList>>> IOPCBrowse::GetProperties(std::span<const std::string> itemIds, bool values,
                                                                      std::span<const std::uint32_t> ids) const {
    Answer answer = ask(wire::Browse3::GetProperties, "IOPCBrowse::GetProperties", [&](Writer& out) {
        out.u32(static_cast<std::uint32_t>(itemIds.size()));
        writeTexts(out, itemIds);
        out.u32(values ? 1 : 0);
        writeCounted(out, ids);
    });
    Reader& in = answer.in();
    Reply<Maybe<std::vector<ItemPropertyList>>> reply;
    const auto heads = readArray<PropertiesHead>(in, itemIds.size(), propertiesSize, readPropertiesHead);
    if (heads) {
        std::vector<ItemPropertyList>& lists = reply.out.emplace();
        for (const PropertiesHead& head : *heads) {
            lists.push_back(readProperties(in, head));
        }
    }
    reply.result = answer.done();
    return reply;
}

Reply<BrowsePortion> IOPCBrowse::Browse(const BrowseRequest& request) const {
    Answer answer = ask(wire::Browse3::Browse, "IOPCBrowse::Browse", [&](Writer& out) {
        out.wideString(request.itemId);
        out.align(4);
        if (request.continuationPoint) {
            out.pointer();
            out.wideString(*request.continuationPoint);
        } else {
            out.nullPointer();
        }
        out.u32(request.maxElements);
        out.u16(static_cast<std::uint16_t>(request.filter));
        out.align(4);
        out.wideString(request.nameFilter);
        out.align(4);
        out.wideString(request.vendorFilter);
        out.u32(request.allProperties ? 1 : 0);
        out.u32(request.propertyValues ? 1 : 0);
        writeCounted(out, request.propertyIds);
    });
    Reader& in = answer.in();
    Reply<BrowsePortion> reply;
    reply.out.continuationPoint = readText(in);
    reply.out.moreElements = in.u32() != 0;
    reply.out.count = in.u32();
    if (readArrayHead(in, reply.out.count, elementSize) && in.good()) {
        reply.out.elements = readElements(in, reply.out.count);
    }
    reply.result = answer.done();
    return reply;
}

Reply<ReadColumns> IOPCItemIO::Read(std::span<const std::string> itemIds,
                                    std::span<const std::uint32_t> maxAges) const {
    Answer answer = ask(wire::ItemIo::Read, "IOPCItemIO::Read", [&](Writer& out) {
        out.u32(static_cast<std::uint32_t>(itemIds.size()));
        writeTexts(out, itemIds);
        writeNumbers(out, maxAges);
    });
    Reply<ReadColumns> reply;
    reply.out = readColumns(answer.in(), itemIds.size());
    reply.result = answer.done();
    return reply;
}

Reply<Errors> IOPCItemIO::WriteVQT(std::span<const std::string> itemIds, std::span<const ValueToWrite> values) const {
    return errors(wire::ItemIo::WriteVqt, "IOPCItemIO::WriteVQT", itemIds.size(), [&](Writer& out) {
        out.u32(static_cast<std::uint32_t>(itemIds.size()));
        writeTexts(out, itemIds);
        writeVqts(out, values);
    });
}

}  // namespace quelm::opcda::client
