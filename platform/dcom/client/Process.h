#pragma once

// One process that has objects which handles are held of: where it is called, over which connection, and what is to be
// given back to it. All its objects share one connection and one set of pings.

#include <memory>
#include <optional>
#include <vector>

#include "dcom/client/Core.h"
#include "dcom/client/Line.h"
#include "dcom/outgoing/Pinger.h"

namespace quelm::dcom::client {

class Process : public std::enable_shared_from_this<Process> {
 public:
    // resolver: where its machine is asked for it and told that it is in use.
    Process(Core& core, std::uint64_t oxid, std::vector<outgoing::Address> resolver);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    std::uint64_t oxid() const { return oxid_; }
    // Where it is called, out of the answer that told of it. Throws Trouble(Address).
    void learn(const orpc::ResolvedOxid& resolved);
    // A handle, which holds the references that came with it.
    Interface handle(const Uuid& iid, const orpc::ObjectReference& reference);

    // The results behind their header. Throws Trouble, and std::logic_error once the session has ended.
    std::vector<std::uint8_t> call(const Uuid& iid, const Uuid& ipid, std::uint16_t opnum,
                                   const Interface::Parameters& parameters);
    Interface::Queried query(const Uuid& ipid, const Uuid& iid);
    std::optional<Interface> adopt(std::span<const std::uint8_t> objectReference);

    void letGo(std::uint64_t oid, const orpc::HeldReferences& references);
    bool owesAnything() const { return !releases_.empty(); }
    // Sends what is to be given back. Throws Trouble(Interrupted) alone: a server that does not take it finds out by
    // the pings' end.
    void giveBack(std::chrono::milliseconds limit);
    // The session ends.
    void close();

 private:
    Core& core() const;
    Line& line();
    void resolve();
    std::vector<std::uint8_t> send(const rpc::CallTarget& target, const Line::Stub& stub, const std::string& what);

    Core* core_;  // none: the session has ended
    std::uint64_t oxid_;
    std::vector<outgoing::Address> resolver_;
    std::optional<orpc::ResolvedOxid> resolved_;
    std::unique_ptr<Line> line_;
    outgoing::LogOnTries tries_;
    std::unique_ptr<outgoing::Pinger> pinger_;
    std::vector<orpc::HeldReferences> releases_;
};

}  // namespace quelm::dcom::client
