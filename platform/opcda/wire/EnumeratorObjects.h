#pragma once

// Enumerators handed to clients: texts (item IDs, branches, group names), objects (groups, connection points), a
// group's items, and connections. Each holds what existed when it was made, so that a client leafing through it sees
// one consistent list.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dcom/orpc/MethodTable.h"
#include "dcom/orpc/OrpcTypes.h"
#include "opcda/Callbacks.h"
#include "opcda/Enumerators.h"
#include "opcda/Group.h"
#include "opcda/wire/ConnectionPointObject.h"
#include "opcda/wire/OfferedInterfaces.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidEnumUnknown = "00000100-0000-0000-C000-000000000046"_uuid;
inline constexpr Uuid iidEnumString = "00000101-0000-0000-C000-000000000046"_uuid;
inline constexpr Uuid iidEnumFormats = "00000103-0000-0000-C000-000000000046"_uuid;
inline constexpr Uuid iidEnumOpcItemAttributes = "39C13A55-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr Uuid iidEnumConnectionPoints = "B196B285-BAB4-101A-B69C-00AA00341D07"_uuid;
inline constexpr Uuid iidEnumConnections = "B196B287-BAB4-101A-B69C-00AA00341D07"_uuid;

enum class Enumeration : std::uint16_t { Next = dcom::orpc::firstOpnum, Skip, Reset, Clone };

// Skip, Reset and Clone, which are the same for all of them.
class EnumeratorObject : public dcom::orpc::ComObject, public dcom::orpc::Dispatched<EnumeratorObject> {
 public:
    // Bytes that one takes without its list: itself and the books about it.
    static constexpr std::size_t footprint = 1024;

    dcom::orpc::Interface* queryInterface(const Uuid& iid) override { return iid == iid_ ? this : nullptr; }
    void disconnected() override {}

 protected:
    // memory: so much of the client's budget as the object takes.
    EnumeratorObject(const Uuid& iid, Hold memory) : iid_(iid), memory_(std::move(memory)) {}
    std::size_t memoryLeft() const { return memory_.room(); }

 private:
    // Writes at most wanted elements and how many there were; none, and E_OUTOFMEMORY, when the reply has no room.
    virtual void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) = 0;
    virtual bool skip(std::uint32_t count) = 0;
    virtual void reset() = 0;
    virtual std::shared_ptr<EnumeratorObject> clone(Hold memory) const = 0;
    dcom::Fault nextCall(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault skipCall(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault resetCall(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault cloneCall(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    Uuid iid_;
    Hold memory_;

 public:
    static constexpr std::array methods{
        Row{Enumeration::Next, "Next", &EnumeratorObject::nextCall},
        Row{Enumeration::Skip, "Skip", &EnumeratorObject::skipCall},
        Row{Enumeration::Reset, "Reset", &EnumeratorObject::resetCall},
        Row{Enumeration::Clone, "Clone", &EnumeratorObject::cloneCall},
    };
};

// Enumerators offer the interface of what they hold and no other.
inline constexpr std::array enumeratorRows{
    InterfaceRow{iidEnumString, "IEnumString", methodNames<EnumeratorObject>},
    InterfaceRow{iidEnumUnknown, "IEnumUnknown", methodNames<EnumeratorObject>},
    InterfaceRow{iidEnumOpcItemAttributes, "IEnumOPCItemAttributes", methodNames<EnumeratorObject>},
    InterfaceRow{iidEnumConnectionPoints, "IEnumConnectionPoints", methodNames<EnumeratorObject>},
    InterfaceRow{iidEnumConnections, "IEnumConnections", methodNames<EnumeratorObject>},
    InterfaceRow{iidEnumFormats, "IEnumFORMATETC", methodNames<EnumeratorObject>},
};

template <class Self, class Element>
class ListEnumerator : public EnumeratorObject {
 protected:
    ListEnumerator(const Uuid& iid, Enumerator<Element> list, Hold memory)
        : EnumeratorObject(iid, std::move(memory)), list_(std::move(list)) {}
    Enumerator<Element> list_;

 private:
    bool skip(std::uint32_t count) override { return list_.skip(count); }
    void reset() override { list_.reset(); }
    std::shared_ptr<EnumeratorObject> clone(Hold memory) const override {
        return std::make_shared<Self>(list_, std::move(memory));
    }
};

// IEnumString. Text is std::string_view for names that outlive every client (those of items), else std::string.
template <class Text>
class EnumString final : public ListEnumerator<EnumString<Text>, Text> {
 public:
    explicit EnumString(Enumerator<Text> texts, Hold memory = {});

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

extern template class EnumString<std::string>;
extern template class EnumString<std::string_view>;

// IEnumUnknown and IEnumConnectionPoints: objects, each by the interface elementIid.
template <const Uuid& ownIid, const Uuid& elementIid>
class EnumObjects final
    : public ListEnumerator<EnumObjects<ownIid, elementIid>, std::shared_ptr<dcom::orpc::ComObject>> {
 public:
    explicit EnumObjects(Enumerator<std::shared_ptr<dcom::orpc::ComObject>> objects, Hold memory = {});

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

using EnumUnknown = EnumObjects<iidEnumUnknown, dcom::orpc::iidUnknown>;
using EnumConnectionPoints = EnumObjects<iidEnumConnectionPoints, iidConnectionPoint>;

extern template class EnumObjects<iidEnumUnknown, dcom::orpc::iidUnknown>;
extern template class EnumObjects<iidEnumConnectionPoints, iidConnectionPoint>;

// IEnumOPCItemAttributes.
class EnumOpcItemAttributes final : public ListEnumerator<EnumOpcItemAttributes, ItemAttributes> {
 public:
    explicit EnumOpcItemAttributes(Enumerator<ItemAttributes> items, Hold memory = {});

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

// A client's object that is called back.
struct ConnectionData {
    std::vector<std::uint8_t> reference;  // as the client gave it, but for the references that came with it
    std::uint32_t cookie = 0;
};

// IEnumConnections.
class EnumConnections final : public ListEnumerator<EnumConnections, ConnectionData> {
 public:
    explicit EnumConnections(Enumerator<ConnectionData> connections, Hold memory = {});

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

// IEnumFORMATETC: the streams of a group.
class EnumFormats final : public ListEnumerator<EnumFormats, Stream> {
 public:
    explicit EnumFormats(Enumerator<Stream> streams, Hold memory = {});

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

// Gives the client an enumerator over the list, whose making gave the result; the null pointer when that failed or the
// client's budget has no room. Gives the call's result.
template <class Object, class Element>
HResult writeEnumerator(dcom::ndr::Writer& out, dcom::orpc::CallContext& context, const Uuid& iid, Hold memory,
                        Enumerator<Element> list, HResult result) {
    if (failed(result) || !memory.resize(EnumeratorObject::footprint)) {
        out.nullPointer();
        return failed(result) ? result : E_OUTOFMEMORY;
    }
    const auto object = std::make_shared<Object>(std::move(list), std::move(memory));
    const HResult written = context.writeInterface(out, object, iid);
    return failed(written) ? written : result;
}

}  // namespace quelm::opcda::wire
