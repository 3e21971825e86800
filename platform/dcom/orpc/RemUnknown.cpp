#include "dcom/orpc/RemUnknown.h"

#include <vector>

namespace quelm::dcom::orpc {

namespace {

constexpr std::size_t referenceChangeSize = 24;

struct ReferenceChange {
    Uuid ipid;
    std::uint64_t count = 0;  // public and private ones together: both keep the object alive alike
};

// An array whose count is stated ahead of it and must be the array's own size.
std::uint32_t statedCount(ndr::Reader& in, std::size_t elementSize) {
    const std::uint16_t stated = in.u16();
    const std::uint32_t count = in.count(elementSize);
    if (count != stated) {
        in.fail();
        return 0;
    }
    return count;
}

std::vector<Uuid> readIids(ndr::Reader& in) {
    std::vector<Uuid> iids(statedCount(in, uuidSize));
    for (Uuid& iid : iids) {
        iid = in.uuid();
    }
    return iids;
}

std::vector<ReferenceChange> readChanges(ndr::Reader& in) {
    std::vector<ReferenceChange> changes(statedCount(in, referenceChangeSize));
    for (ReferenceChange& change : changes) {
        change.ipid = in.uuid();
        change.count = in.u32();
        change.count += in.u32();
    }
    return changes;
}

// The outcome of all results together.
class Overall {
 public:
    void add(HResult result) {
        (failed(result) ? anyFailed_ : anyFound_) = true;
        denied_ |= result == E_ACCESSDENIED;
    }
    HResult result() const {
        if (!anyFailed_) {
            return S_OK;
        }
        return anyFound_ ? S_FALSE : denied_ ? E_ACCESSDENIED : E_NOINTERFACE;
    }

 private:
    bool anyFound_ = false;
    bool anyFailed_ = false;
    bool denied_ = false;
};

}  // namespace

Fault RemUnknown::invoke(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    const auto method = methodOf<methods>(call.opnum);
    return method != nullptr ? (this->*method)(call, in, out) : Fault::OpnumRange;
}

HResult RemUnknown::query(const rpc::Call& call, const Uuid& ipid, const Uuid& iid, std::uint32_t count,
                          ObjectReference& reference) {
    const auto target = exporter_.route(ipid, call.peer, call.account);
    if (target.object == nullptr) {
        reference = {};
        return resultOf(target.access);
    }
    return exporter_.addReference(exporter_.clientOf(call.peer, call.account), target.object, iid, count, reference);
}

// The results come in full even when nothing was found: clients walk the array without looking at the outcome.
Fault RemUnknown::queryInterface(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    const Uuid ipid = in.uuid();
    const std::uint32_t references = in.u32();
    const std::vector<Uuid> iids = readIids(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.pointer();
    out.u32(static_cast<std::uint32_t>(iids.size()));
    Overall overall;
    for (const Uuid& iid : iids) {
        ObjectReference reference;
        const HResult result = query(call, ipid, iid, references, reference);
        overall.add(result);
        out.align(8);
        out.hresult(result);
        out.align(8);
        writeObjectReference(out, reference);
    }
    out.hresult(overall.result());
    return Fault::None;
}

// The younger form, which answers with whole interface pointers.
Fault RemUnknown::queryInterface2(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    const Uuid ipid = in.uuid();
    const std::vector<Uuid> iids = readIids(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    const auto count = static_cast<std::uint32_t>(iids.size());
    std::vector<ObjectReference> references(iids.size());
    Overall overall;
    out.u32(count);
    for (std::size_t i = 0; i < iids.size(); ++i) {
        const HResult result = query(call, ipid, iids[i], referencesPerPointer, references[i]);
        overall.add(result);
        out.hresult(result);
    }
    out.u32(count);
    for (const ObjectReference& reference : references) {
        reference.oid != 0 ? out.pointer() : out.nullPointer();
    }
    const Bindings resolver = exporter_.resolverBindings(call.peer);
    for (std::size_t i = 0; i < iids.size(); ++i) {
        if (references[i].oid != 0) {
            writeMarshalledReference(out, iids[i], references[i], resolver);
        }
    }
    out.hresult(overall.result());
    return Fault::None;
}

Fault RemUnknown::addRef(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    const std::vector<ReferenceChange> changes = readChanges(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    HResult outcome = S_OK;
    out.u32(static_cast<std::uint32_t>(changes.size()));
    for (const ReferenceChange& change : changes) {
        const Access access = exporter_.addReferences(change.ipid, call.peer, call.account, change.count);
        const HResult result = access == Access::Gone ? E_INVALIDARG : resultOf(access);
        out.hresult(result);
        outcome = failed(result) ? result : outcome;
    }
    out.hresult(outcome);
    return Fault::None;
}

// What is gone already is no error: clients give back the same pointer twice while they shut down.
Fault RemUnknown::release(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    const std::vector<ReferenceChange> changes = readChanges(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    HResult outcome = S_OK;
    for (const ReferenceChange& change : changes) {
        if (exporter_.release(change.ipid, call.peer, call.account, change.count) == Access::Denied) {
            outcome = E_ACCESSDENIED;
        }
    }
    exporter_.settle();
    out.hresult(outcome);
    return Fault::None;
}

}  // namespace quelm::dcom::orpc
