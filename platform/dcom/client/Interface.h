#pragma once

// A handle of one interface of an object in a server: calls its methods, asks the object for other interfaces, and lets
// the object go when its last copy ends.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "base/HResult.h"
#include "base/Uuid.h"
#include "dcom/client/Trouble.h"
#include "dcom/ndr/Writer.h"

namespace quelm::dcom::client {

class IRemote;

// Calls wait for their answer by running the session's loop, on which callbacks and timers are served meanwhile. So
// nothing here may be called from within ICallback::called() or another handler of that loop (std::logic_error).
//
// Handles may outlive their session: calls throw std::logic_error then, and nothing else happens.
class Interface {
 public:
    // Writes the parameters of a method; what it writes is aligned as on the wire.
    using Parameters = std::function<void(ndr::Writer&)>;
    struct Queried;

    // For sessions, and for tests that stand a server of their own behind a handle.
    explicit Interface(std::shared_ptr<IRemote> remote) : remote_(std::move(remote)) {}

    const Uuid& iid() const;
    // Where the interface is called, the object that it belongs to, and the process that has it.
    const Uuid& ipid() const;
    std::uint64_t oid() const;
    std::uint64_t oxid() const;

    // Calls the method. Gives the results behind the header of object calls, the final HRESULT included, whatever it
    // is. Throws Trouble, for a fault too: RPC_E_DISCONNECTED (0x80010108) for an object that is gone.
    std::vector<std::uint8_t> call(std::uint16_t opnum, const Parameters& parameters) const;
    // For a method without parameters.
    std::vector<std::uint8_t> call(std::uint16_t opnum) const;

    // Asks the object for another interface. Throws Trouble.
    Queried query(const Uuid& iid) const;

    // A handle of what a reply brought: the contents of a marshalled interface pointer, its two sizes left out. Nothing
    // for an empty one, which is how a null pointer reads. Throws Trouble(Garbage) for a reference that cannot be read,
    // is of another kind than the standard one, or leads to this program. An object of another process is looked for
    // by its first call.
    std::optional<Interface> adopt(std::span<const std::uint8_t> objectReference) const;

 private:
    std::shared_ptr<IRemote> remote_;
};

struct Interface::Queried {
    HResult result = S_OK;
    std::optional<Interface> interface;  // none where the result is a failure
};

// What stands behind a handle. See Interface for what the members do.
class IRemote {
 public:
    virtual ~IRemote() = default;
    virtual const Uuid& iid() const = 0;
    virtual const Uuid& ipid() const = 0;
    virtual std::uint64_t oid() const = 0;
    virtual std::uint64_t oxid() const = 0;
    virtual std::vector<std::uint8_t> call(std::uint16_t opnum, const Interface::Parameters& parameters) = 0;
    virtual Interface::Queried query(const Uuid& iid) = 0;
    virtual std::optional<Interface> adopt(std::span<const std::uint8_t> objectReference) = 0;
};

inline const Uuid& Interface::iid() const {
    return remote_->iid();
}
inline const Uuid& Interface::ipid() const {
    return remote_->ipid();
}
inline std::uint64_t Interface::oid() const {
    return remote_->oid();
}
inline std::uint64_t Interface::oxid() const {
    return remote_->oxid();
}
inline std::vector<std::uint8_t> Interface::call(std::uint16_t opnum, const Parameters& parameters) const {
    return remote_->call(opnum, parameters);
}
inline std::vector<std::uint8_t> Interface::call(std::uint16_t opnum) const {
    return remote_->call(opnum, [](ndr::Writer&) {});
}
inline Interface::Queried Interface::query(const Uuid& iid) const {
    return remote_->query(iid);
}
inline std::optional<Interface> Interface::adopt(std::span<const std::uint8_t> objectReference) const {
    return remote_->adopt(objectReference);
}

}  // namespace quelm::dcom::client
