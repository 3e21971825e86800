#include "opcda/wire/OpcServerObject.h"

#include "opcda/wire/OpcGroupObject.h"

namespace quelm::opcda::wire {

OpcServerObject::OpcServerObject(Application& application, OutgoingCalls& outgoing,
                                 std::shared_ptr<ClientBudget> budget)
    : Connectable(outgoing), server_(application, std::move(budget)), interfaces_(*this) {}

HResult OpcServerObject::advise(std::unique_ptr<SinkConnection> connection, std::uint32_t& cookie) {
    return server_.advise(std::make_unique<ShutdownSink>(server_, std::move(connection)), cookie);
}

std::shared_ptr<OpcGroupObject> OpcServerObject::groupObject(const std::shared_ptr<Group>& group) {
    KnownGroup& known = groups_[group->serverHandle()];
    if (auto object = known.object.lock()) {
        return object;
    }
    const auto self = std::static_pointer_cast<OpcServerObject>(shared_from_this());
    auto object = std::make_shared<OpcGroupObject>(self, group, outgoing(), known.connections);
    known.object = object;
    return object;
}

HResult OpcServerObject::writeGroup(dcom::ndr::Writer& out, dcom::orpc::CallContext& context,
                                    const std::shared_ptr<Group>& group, const Uuid& iid, HResult result) {
    if (failed(result)) {
        out.nullPointer();
        return result;
    }
    const HResult written = context.writeInterface(out, groupObject(group), iid);
    return failed(written) ? written : result;
}

HResult OpcServerObject::writeNewGroup(dcom::ndr::Writer& out, dcom::orpc::CallContext& context,
                                       const std::shared_ptr<Group>& group, const Uuid& iid, HResult result) {
    const HResult written = writeGroup(out, context, group, iid, result);
    if (failed(written) && group != nullptr) {
        removeGroup(group->serverHandle(), true);
    }
    return written;
}

HResult OpcServerObject::removeGroup(std::uint32_t serverHandle, bool force) {
    const auto known = groups_.find(serverHandle);
    const bool inUse = known != groups_.end() && !known->second.object.expired();
    if (known != groups_.end()) {
        groups_.erase(known);
    }
    return server_.removeGroup(serverHandle, force, inUse);
}

}  // namespace quelm::opcda::wire
