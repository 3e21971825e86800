#pragma once

// IOPCItemMgt of a group: adding, checking, removing and changing its items.

#include <string>
#include <vector>

#include "DCOM/orpc/ComObject.h"
#include "OPC DA/Group.h"

namespace quelm::opcda::wire {

class ItemMgtInterface final : public dcom::orpc::Interface {
 public:
    explicit ItemMgtInterface(Group& group) : group_(group) {}
    std::uint32_t invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context) override;

 private:
    std::uint32_t addOrValidate(bool add, dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t removeItems(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t setActiveState(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t setClientHandles(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t setDatatypes(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t createEnumerator(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    void readDefinitions(dcom::ndr::Reader& in);
    void readHandles(dcom::ndr::Reader& in);
    template <class Action>
    std::uint32_t answer(dcom::ndr::Reader& in, dcom::ndr::Writer& out, Action action);

    Group& group_;
    std::vector<std::uint32_t> handles_;
    std::vector<std::uint32_t> clientHandles_;
    std::vector<std::string> itemIds_;
    std::vector<ItemDefinition> definitions_;
    std::vector<ItemResult> results_;
    std::vector<HResult> errors_;
};

}  // namespace quelm::opcda::wire
