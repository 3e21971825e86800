#pragma once

// Answers the questions of client machines about the exporter as a whole: is it alive, where are its objects
// called, and "these objects are still in use". Plain RPC, without the headers of object calls, and for whoever asks:
// machines ask with their own accounts or with none.

#include <cstdint>

#include "dcom/orpc/ObjectExporter.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

class Resolver {
 public:
    // The exporter must outlive the resolver.
    explicit Resolver(ObjectExporter& exporter) : exporter_(exporter) {}

    // Carries out one method of IObjectExporter. Gives 0 or a fault status; whatever names something unknown is
    // answered with a status in the reply, never with a fault.
    std::uint32_t invoke(const rpc::Call& call, ndr::Writer& out);

 private:
    enum class Form { Plain, WithVersion };

    std::uint32_t resolveOxid(const rpc::Call& call, ndr::Writer& out, Form form);
    std::uint32_t simplePing(const rpc::Call& call, ndr::Writer& out);
    std::uint32_t complexPing(const rpc::Call& call, ndr::Writer& out);
    std::uint32_t serverAlive2(const rpc::Call& call, ndr::Writer& out);

    ObjectExporter& exporter_;
};

// The level that the client of an activation is told to use for its object calls: the one that it came with,
// but at least the server's own minimum.
std::uint32_t levelHint(const ObjectExporter& exporter, const rpc::Call& call);

}  // namespace quelm::dcom::orpc
