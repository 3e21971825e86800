#pragma once

// What an object must offer so that clients on the network can hold and call it. The layers above derive
// their server objects, groups and enumerators from ComObject; the exporter does the books.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/HResult.h"
#include "base/Uuid.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

class ComObject;

// The reply of a method that answers later. To be used and destroyed on the network's thread; a client that is gone by
// then is answered nothing.
class DeferredReply {
 public:
    // head: what stands before the method's results.
    DeferredReply(rpc::CallTicket ticket, std::vector<std::uint8_t> head)
        : ticket_(std::move(ticket)), head_(std::move(head)) {}

    // Whether anybody still waits for it.
    bool wanted() const { return ticket_.wanted(); }
    // write(ndr::Writer&) writes the results as invoke would have, and gives the same.
    template <class Write>
    void complete(Write&& write) {
        std::vector<std::uint8_t> stub;
        ndr::Writer out(stub);
        out.bytes(head_);
        const Fault fault = write(out);
        ticket_.complete(fault, stub);
    }

 private:
    rpc::CallTicket ticket_;
    std::vector<std::uint8_t> head_;
};

// What a method may need beyond its parameters.
class CallContext {
 public:
    virtual ~CallContext() = default;
    // Writes an [out] interface pointer: referent, length and OBJREF, giving the client public references to the
    // object's interface. The object is exported (again) and kept alive until the client lets go of it or dies.
    // A null object, or one without that interface, writes the null pointer and gives E_NOINTERFACE (else S_OK).
    virtual HResult writeInterface(ndr::Writer& out, const std::shared_ptr<ComObject>& object, const Uuid& iid) = 0;
    virtual const rpc::Peer& peer() const = 0;
    virtual const std::string& account() const = 0;
    // For a method that has to wait for somebody: it returns Fault::Deferred and completes the reply later, or at
    // once. out: where it would have written its results, of which it has written none.
    virtual std::shared_ptr<DeferredReply> defer(const ndr::Writer& out) = 0;
};

// One COM interface of one object: its methods by opnum (3 is the first one after IUnknown).
class Interface {
 public:
    virtual ~Interface() = default;
    // Decodes the parameters after ORPCTHIS, acts, and writes the results after ORPCTHAT, HRESULT included.
    // Returns Fault::None, Fault::Deferred after context.defer(), or the fault for parameters that do not decode
    // (BadStubData) or an opnum that does not exist (OpnumRange). Known methods report their failures as HRESULT with
    // complete out parameters, because clients exist that hang after a fault. May throw; the exporter turns that into
    // a fault.
    virtual Fault invoke(std::uint16_t opnum, ndr::Reader& in, ndr::Writer& out, CallContext& context) = 0;
};

class ComObject : public std::enable_shared_from_this<ComObject> {
 public:
    virtual ~ComObject() = default;
    // The object's implementation of an interface, valid as long as the object; nullptr when it has none.
    // IUnknown is the exporter's own business and never asked for here.
    virtual Interface* queryInterface(const Uuid& iid) = 0;
    // Whether whoever asks may have it, at any level and without a log-on, where the owner allows that at all.
    virtual bool isOpenToAll() const { return false; }
    // The last client reference to any of its interfaces is gone (released, run down or connection lost);
    // the exporter forgets the object right after.
    virtual void disconnected() = 0;
};

// Makes objects of one COM class for clients that ask for it by its class identifier.
class ClassFactory {
 public:
    virtual ~ClassFactory() = default;
    virtual Uuid classId() const = 0;
    // As its objects.
    virtual bool isOpenToAll() const { return false; }
    // A new instance for this client; nullptr with result set to the reason.
    virtual std::shared_ptr<ComObject> create(const rpc::Peer& peer, const std::string& account, HResult& result) = 0;
    // Keeps the server from ending, as an object of this class would, for as long as what it gives exists; nullptr when
    // the server is ending already.
    virtual std::shared_ptr<void> holdServer() = 0;
};

}  // namespace quelm::dcom::orpc
