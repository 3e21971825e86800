#pragma once

// Enumerators handed to clients: texts (item IDs, branches, group names), objects (groups) and a group's items.
// Each holds what existed when it was made, so that a client leafing through it sees one consistent list.

#include <memory>
#include <string>
#include <string_view>

#include "DCOM/orpc/ComObject.h"
#include "OPC DA/Enumerators.h"
#include "OPC DA/Group.h"

namespace quelm::opcda::wire {

// Skip, Reset and Clone, which are the same for all of them.
class EnumeratorObject : public dcom::orpc::ComObject, public dcom::orpc::Interface {
 public:
    dcom::orpc::Interface* queryInterface(const dcom::Uuid& iid) override { return iid == iid_ ? this : nullptr; }
    void disconnected() override {}
    std::uint32_t invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context) override;

 protected:
    explicit EnumeratorObject(const dcom::Uuid& iid) : iid_(iid) {}

 private:
    // Writes at most wanted elements and gives how many there were.
    virtual void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) = 0;
    virtual bool skip(std::uint32_t count) = 0;
    virtual void reset() = 0;
    virtual std::shared_ptr<EnumeratorObject> clone() const = 0;

    dcom::Uuid iid_;
};

template <class Self, class Element>
class ListEnumerator : public EnumeratorObject {
 protected:
    ListEnumerator(const dcom::Uuid& iid, Enumerator<Element> list) : EnumeratorObject(iid), list_(std::move(list)) {}
    Enumerator<Element> list_;

 private:
    bool skip(std::uint32_t count) override { return list_.skip(count); }
    void reset() override { list_.reset(); }
    std::shared_ptr<EnumeratorObject> clone() const override { return std::make_shared<Self>(list_); }
};

// IEnumString. Text is std::string_view for names that outlive every client (those of items), else std::string.
template <class Text>
class EnumString final : public ListEnumerator<EnumString<Text>, Text> {
 public:
    explicit EnumString(Enumerator<Text> texts);

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

extern template class EnumString<std::string>;
extern template class EnumString<std::string_view>;

// IEnumUnknown.
class EnumUnknown final : public ListEnumerator<EnumUnknown, std::shared_ptr<dcom::orpc::ComObject>> {
 public:
    explicit EnumUnknown(Enumerator<std::shared_ptr<dcom::orpc::ComObject>> objects);

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

// IEnumOPCItemAttributes.
class EnumOpcItemAttributes final : public ListEnumerator<EnumOpcItemAttributes, ItemAttributes> {
 public:
    explicit EnumOpcItemAttributes(Enumerator<ItemAttributes> items);

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

}  // namespace quelm::opcda::wire
