#pragma once

// The interfaces of a server object by which clients find items, read what is said of them, and read them without a
// group.

#include "opcda/client/Columns.h"
#include "opcda/client/Stub.h"
#include "opcda/client/Value.h"
#include "opcda/wire/Browse3Interface.h"
#include "opcda/wire/BrowseInterface.h"
#include "opcda/wire/ItemIoInterface.h"
#include "opcda/wire/ItemPropertiesInterface.h"

namespace quelm::opcda::client {

enum class BrowseDirection : std::uint16_t { Up = 1, Down, To };
enum class BrowseType : std::uint16_t { Branch = 1, Leaf, Flat };

class IOPCBrowseServerAddressSpace : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcBrowseServerAddressSpace;
    using Stub::Stub;

    // 1 hierarchical, 2 flat.
    Reply<std::uint16_t> QueryOrganization() const;
    HResult ChangeBrowsePosition(BrowseDirection direction, std::string_view name) const;
    // type VT_EMPTY: all; rights 0: all. Gives an IEnumString.
    Reply<Maybe<Interface>> BrowseOPCItemIDs(BrowseType kind, std::string_view filter, VarType type,
                                             std::uint32_t rights) const;
    Reply<Maybe<std::string>> GetItemID(std::string_view name) const;
    Reply<Maybe<Interface>> BrowseAccessPaths(std::string_view itemId) const;
};

// What QueryAvailableProperties tells: three arrays of one length, each nothing where the server sent none.
struct AvailableProperties {
    std::uint32_t count = 0;
    Maybe<std::vector<std::uint32_t>> ids;
    Maybe<std::vector<std::string>> descriptions;
    Maybe<std::vector<VarType>> types;
};

struct PropertyValues {
    Maybe<std::vector<Value>> values;
    Errors errors;
};

struct PropertyItemIds {
    Maybe<std::vector<Maybe<std::string>>> itemIds;
    Errors errors;
};

class IOPCItemProperties : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcItemProperties;
    using Stub::Stub;

    Reply<AvailableProperties> QueryAvailableProperties(std::string_view itemId) const;
    Reply<PropertyValues> GetItemProperties(std::string_view itemId, std::span<const std::uint32_t> ids) const;
    Reply<PropertyItemIds> LookupItemIDs(std::string_view itemId, std::span<const std::uint32_t> ids) const;
};

struct Property {
    VarType type = VT_EMPTY;
    std::uint32_t id = 0;
    Maybe<std::string> itemId;
    Maybe<std::string> description;
    Value value;
    HResult error{};
};

// Of one item.
struct ItemPropertyList {
    HResult error{};
    Maybe<std::vector<Property>> properties;
};

struct BrowseElement {
    static constexpr std::uint32_t hasChildren = 1;
    static constexpr std::uint32_t isItem = 2;

    Maybe<std::string> name;
    Maybe<std::string> itemId;
    std::uint32_t flags = 0;
    ItemPropertyList properties;
};

enum class BrowseFilter : std::uint16_t { All = 1, Branches, Items };

struct BrowseRequest {
    std::string itemId;                                    // empty: the root
    Maybe<std::string> continuationPoint = std::string();  // nothing: a null pointer
    std::uint32_t maxElements = 0;                         // 0: no limit
    BrowseFilter filter = BrowseFilter::All;
    std::string nameFilter;
    std::string vendorFilter;
    bool allProperties = false;
    bool propertyValues = false;
    std::vector<std::uint32_t> propertyIds;
};

struct BrowsePortion {
    Maybe<std::string> continuationPoint;
    bool moreElements = false;
    std::uint32_t count = 0;
    Maybe<std::vector<BrowseElement>> elements;
};

class IOPCBrowse : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcBrowse;
    using Stub::Stub;

    // No ids: all properties.
    Reply<Maybe<std::vector<ItemPropertyList>>> GetProperties(std::span<const std::string> itemIds, bool values,
                                                              std::span<const std::uint32_t> ids) const;
    Reply<BrowsePortion> Browse(const BrowseRequest& request) const;
};

class IOPCItemIO : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcItemIo;
    using Stub::Stub;

    // Spans of one length.
    Reply<ReadColumns> Read(std::span<const std::string> itemIds, std::span<const std::uint32_t> maxAges) const;
    Reply<Errors> WriteVQT(std::span<const std::string> itemIds, std::span<const ValueToWrite> values) const;
};

}  // namespace quelm::opcda::client
