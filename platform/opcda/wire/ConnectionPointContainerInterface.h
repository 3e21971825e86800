#pragma once

// IConnectionPointContainer of the server object and of groups: where a client finds the connection point to which it
// gives its own object, to be called back. Each of them has one.

#include <memory>

#include "budget/ClientBudget.h"
#include "dcom/orpc/MethodTable.h"
#include "opcda/wire/Sinks.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidConnectionPointContainer = "B196B284-BAB4-101A-B69C-00AA00341D07"_uuid;

enum class ConnectionPointContainer : std::uint16_t {
    EnumConnectionPoints = dcom::orpc::firstOpnum,
    FindConnectionPoint,
};

class ConnectionPointObject;

// What clients advise their objects to.
class Connectable {
 public:
    explicit Connectable(OutgoingCalls& outgoing) : outgoing_(outgoing) {}
    virtual ~Connectable() = default;
    Connectable(const Connectable&) = delete;
    Connectable& operator=(const Connectable&) = delete;

    virtual dcom::orpc::ComObject& object() = 0;
    // The interface by which it calls back.
    virtual const Uuid& outgoingInterface() const = 0;
    // Removed: nobody is called any more.
    virtual bool isGone() const = 0;
    virtual std::shared_ptr<ConnectionBook> connections() const = 0;
    // A part of the client's budget, still empty.
    virtual Hold memory() const = 0;
    // As the object model's own.
    virtual HResult advise(std::unique_ptr<SinkConnection> connection, std::uint32_t& cookie) = 0;
    virtual HResult unadvise(std::uint32_t cookie) = 0;

    OutgoingCalls& outgoing() { return outgoing_; }
    // The same one as long as anybody has it; nullptr when the client's budget has no room.
    std::shared_ptr<ConnectionPointObject> connectionPoint();

 private:
    OutgoingCalls& outgoing_;
    std::weak_ptr<ConnectionPointObject> point_;
};

class ConnectionPointContainerInterface final : public dcom::orpc::Dispatched<ConnectionPointContainerInterface> {
 public:
    static constexpr Uuid interfaceId = iidConnectionPointContainer;
    static constexpr std::string_view interfaceName = "IConnectionPointContainer";
    using Opnum = ConnectionPointContainer;

    explicit ConnectionPointContainerInterface(Connectable& owner) : owner_(owner) {}

 private:
    dcom::Fault enumPoints(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault findPoint(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    Connectable& owner_;

 public:
    static constexpr std::array methods{
        Row{Opnum::EnumConnectionPoints, "EnumConnectionPoints", &ConnectionPointContainerInterface::enumPoints},
        Row{Opnum::FindConnectionPoint, "FindConnectionPoint", &ConnectionPointContainerInterface::findPoint},
    };
};

}  // namespace quelm::opcda::wire
