#pragma once

// The nested property blob in which younger clients wrap an activation request and get its answer.

#include <cstdint>
#include <span>
#include <vector>

#include "base/HResult.h"
#include "base/Uuid.h"
#include "dcom/ndr/Writer.h"
#include "dcom/orpc/OrpcTypes.h"

namespace quelm::dcom::orpc {

// What a client wants: an instance of a class, or the class object itself, with these interfaces.
struct ActivationRequest {
    Uuid classId;
    std::vector<Uuid> iids;
    bool classObject = false;
};

struct ActivatedInterface {
    Uuid iid;
    HResult result = S_OK;
    ObjectReference reference;  // all zero on failure
};

// More interfaces than this in one request are refused; the figure is the protocol's own.
inline constexpr std::uint32_t maximumInterfaces = 0x8000;

// The answer to an activation: where the objects are called, and what was asked for.
struct ActivationAnswer {
    std::uint64_t oxid = 0;
    Uuid remUnknownIpid;
    std::uint32_t levelHint = 0;
    HResult result = S_OK;
    std::vector<ActivatedInterface> interfaces;
};

// Reads class and interfaces out of a marshalled property blob; properties may come in any order, and those that
// don't matter here are passed over. False when the blob does not hold together.
bool readActivationProperties(std::span<const std::uint8_t> objectReference, ActivationRequest& request);

// Writes the answer's property blob as an interface pointer behind its referent.
void writeActivationProperties(ndr::Writer& out, const ActivationAnswer& answer, const Bindings& objects,
                               const Bindings& resolver);

// Writes the array of interface pointers and those that it points to; both forms of activation have it.
void writeInterfacePointers(ndr::Writer& out, const std::vector<ActivatedInterface>& interfaces,
                            const Bindings& resolver);

}  // namespace quelm::dcom::orpc
