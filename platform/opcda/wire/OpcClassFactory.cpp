#include "opcda/wire/OpcClassFactory.h"

#include "opcda/wire/OpcServerObject.h"
#include "slikda/Identity.h"

namespace quelm::opcda::wire {

Uuid OpcClassFactory::classId() const {
    static constexpr Uuid id = Uuid::parse(identity::classId);
    return id;
}

std::shared_ptr<dcom::orpc::ComObject> OpcClassFactory::create(const dcom::rpc::Peer& peer, const std::string& account,
                                                               HResult& result) {
    std::shared_ptr<ClientBudget> budget = application_.budgets().of(account, peer.host());
    if (budget->memory.room() < Server::footprint) {
        result = E_OUTOFMEMORY;
        return nullptr;
    }
    auto object = std::make_shared<OpcServerObject>(application_, outgoing_, std::move(budget));
    const bool isAdmitted = object->server().isAdmitted();
    result = isAdmitted ? S_OK : CO_E_SERVER_STOPPING;
    return isAdmitted ? object : nullptr;
}

std::shared_ptr<void> OpcClassFactory::holdServer() {
    SLIKNetwork& control = application_.control();
    if (!control.clientCreated()) {
        return nullptr;  // the server is ending and admits nobody
    }
    return {&control, [](SLIKNetwork* held) { held->clientGone(); }};
}

}  // namespace quelm::opcda::wire
