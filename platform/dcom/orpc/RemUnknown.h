#pragma once

// The one object of every exporter through which clients ask for further interfaces of what they hold, take
// more references and give them back.

#include <cstdint>

#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "dcom/orpc/ObjectExporter.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

class RemUnknown {
 public:
    explicit RemUnknown(ObjectExporter& exporter) : exporter_(exporter) {}

    // Carries out one method, parameters behind ORPCTHIS and results behind ORPCTHAT. Gives 0 or a fault status.
    std::uint32_t invoke(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);

 private:
    std::uint32_t queryInterface(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    std::uint32_t queryInterface2(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    std::uint32_t addRef(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    std::uint32_t release(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    HResult query(const rpc::Call& call, const Uuid& ipid, const Uuid& iid, std::uint32_t count,
                  ObjectReference& reference);

    ObjectExporter& exporter_;
};

}  // namespace quelm::dcom::orpc
