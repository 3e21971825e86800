#pragma once

// Asking another machine for an object of a class, in the two forms in which machines are asked. Parameters and results
// as bytes; whatever an answer holds may be wrong.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/HResult.h"
#include "base/Uuid.h"
#include "dcom/ndr/Writer.h"
#include "dcom/orpc/RemoteCalls.h"

namespace quelm::dcom::orpc {

// IRemoteSCMActivator's RemoteCreateInstance, the younger form, and IActivation's RemoteActivation, the older one.
void writeCreateInstance(ndr::Writer& out, const ObjectCallHeader& header, const Uuid& classId,
                         std::span<const Uuid> iids);
void writeRemoteActivation(ndr::Writer& out, const ObjectCallHeader& header, const Uuid& classId,
                           std::span<const Uuid> iids);

// What was made: where its process is called, and an entry for each interface that was asked for.
struct ActivatedObject {
    struct Entry {
        HResult result = S_OK;
        std::optional<RemoteReference> reference;  // none where the result is a failure
    };

    HResult result = S_OK;  // of the whole; a failure leaves all else empty
    std::uint64_t oxid = 0;
    ResolvedOxid process;
    std::vector<Entry> interfaces;
};
// Nothing for an answer that does not decode, or that claims success without saying where the object is. The number of
// entries is the answer's own.
std::optional<ActivatedObject> parseCreateInstance(std::span<const std::uint8_t> stub);
std::optional<ActivatedObject> parseRemoteActivation(std::span<const std::uint8_t> stub);

}  // namespace quelm::dcom::orpc
