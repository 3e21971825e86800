#pragma once

// Answers the questions of client machines about the exporter as a whole: is it alive, where are its objects
// called, and "these objects are still in use". Plain RPC, without the headers of object calls, and for whoever asks:
// machines ask with their own accounts or with none.

#include <cstdint>

#include "dcom/orpc/MethodTable.h"
#include "dcom/orpc/ObjectExporter.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

class Resolver {
 public:
    // The exporter must outlive the resolver.
    explicit Resolver(ObjectExporter& exporter) : exporter_(exporter) {}

    // Carries out one method of IObjectExporter. Whatever names something unknown is answered with a status in the
    // reply, never with a fault.
    Fault invoke(const rpc::Call& call, ndr::Writer& out);

 private:
    enum class Form { Plain, WithVersion };

    Fault resolveOxid(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault simplePing(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault complexPing(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault serverAlive(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault resolveOxid2(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault serverAlive2(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault resolve(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out, Form form);

    ObjectExporter& exporter_;

    using Row = MethodRow<Fault (Resolver::*)(const rpc::Call&, ndr::Reader&, ndr::Writer&)>;

 public:
    static constexpr std::array methods{
        Row{ObjectExporterCall::ResolveOxid, "ResolveOxid", &Resolver::resolveOxid},
        Row{ObjectExporterCall::SimplePing, "SimplePing", &Resolver::simplePing},
        Row{ObjectExporterCall::ComplexPing, "ComplexPing", &Resolver::complexPing},
        Row{ObjectExporterCall::ServerAlive, "ServerAlive", &Resolver::serverAlive},
        Row{ObjectExporterCall::ResolveOxid2, "ResolveOxid2", &Resolver::resolveOxid2},
        Row{ObjectExporterCall::ServerAlive2, "ServerAlive2", &Resolver::serverAlive2},
    };
};

// The level that the client of an activation is told to use for its object calls: the one that it came with,
// but at least the server's own minimum.
std::uint32_t levelHint(const ObjectExporter& exporter, const rpc::Call& call);

}  // namespace quelm::dcom::orpc
