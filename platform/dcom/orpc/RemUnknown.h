#pragma once

// The one object of every exporter through which clients ask for further interfaces of what they hold, take
// more references and give them back.

#include <cstdint>

#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "dcom/orpc/MethodTable.h"
#include "dcom/orpc/ObjectExporter.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

class RemUnknown {
 public:
    explicit RemUnknown(ObjectExporter& exporter) : exporter_(exporter) {}

    // Carries out one method, parameters behind ORPCTHIS and results behind ORPCTHAT.
    Fault invoke(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);

 private:
    Fault queryInterface(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault queryInterface2(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault addRef(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault release(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    HResult query(const rpc::Call& call, const Uuid& ipid, const Uuid& iid, std::uint32_t count,
                  ObjectReference& reference);

    ObjectExporter& exporter_;

    using Row = MethodRow<Fault (RemUnknown::*)(const rpc::Call&, ndr::Reader&, ndr::Writer&)>;

 public:
    static constexpr std::array methods{
        Row{RemUnknownCall::QueryInterface, "RemQueryInterface", &RemUnknown::queryInterface},
        Row{RemUnknownCall::AddRef, "RemAddRef", &RemUnknown::addRef},
        Row{RemUnknownCall::Release, "RemRelease", &RemUnknown::release},
        Row{RemUnknownCall::QueryInterface2, "RemQueryInterface2", &RemUnknown::queryInterface2},
    };
};

}  // namespace quelm::dcom::orpc
