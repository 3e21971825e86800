#pragma once

// IConnectionPoint of the server object or of a group: takes a client's object, to be called back, and lets go of it.
// It is an object of its own, which keeps the one that it belongs to as long as a client has it.

#include <memory>

#include "opcda/wire/ConnectionPointContainerInterface.h"

namespace quelm::opcda::wire {

inline constexpr Uuid iidConnectionPoint = "B196B286-BAB4-101A-B69C-00AA00341D07"_uuid;

enum class ConnectionPoint : std::uint16_t {
    GetConnectionInterface = dcom::orpc::firstOpnum,
    GetConnectionPointContainer,
    Advise,
    Unadvise,
    EnumConnections,
};

class ConnectionPointObject final : public dcom::orpc::ComObject, public dcom::orpc::Dispatched<ConnectionPointObject> {
 public:
    static constexpr Uuid interfaceId = iidConnectionPoint;
    static constexpr std::string_view interfaceName = "IConnectionPoint";
    using Opnum = ConnectionPoint;
    // Bytes: itself and the books about it.
    static constexpr std::size_t footprint = 1024;

    // memory: so much of the client's budget as the object takes.
    ConnectionPointObject(Connectable& owner, Hold memory)
        : owner_(owner), container_(owner.object().shared_from_this()), memory_(std::move(memory)) {}

    dcom::orpc::Interface* queryInterface(const Uuid& iid) override { return iid == interfaceId ? this : nullptr; }
    void disconnected() override {}

 private:
    dcom::Fault getInterface(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault getContainer(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault adviseCall(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault unadviseCall(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault enumConnections(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    HResult connect(std::span<const std::uint8_t> reference, const dcom::orpc::CallContext& context,
                    std::uint32_t& cookie);

    Connectable& owner_;
    std::shared_ptr<dcom::orpc::ComObject> container_;
    Hold memory_;

 public:
    static constexpr std::array methods{
        Row{Opnum::GetConnectionInterface, "GetConnectionInterface", &ConnectionPointObject::getInterface},
        Row{Opnum::GetConnectionPointContainer, "GetConnectionPointContainer", &ConnectionPointObject::getContainer},
        Row{Opnum::Advise, "Advise", &ConnectionPointObject::adviseCall},
        Row{Opnum::Unadvise, "Unadvise", &ConnectionPointObject::unadviseCall},
        Row{Opnum::EnumConnections, "EnumConnections", &ConnectionPointObject::enumConnections},
    };
};

}  // namespace quelm::opcda::wire
