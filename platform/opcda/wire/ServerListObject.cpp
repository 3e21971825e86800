#include "opcda/wire/ServerListObject.h"

namespace quelm::opcda::wire {

std::shared_ptr<dcom::orpc::ComObject> ServerListFactory::create(const dcom::rpc::Peer& peer,
                                                                 const std::string& account, HResult& result) {
    Hold memory = memoryOf(application_.budgets().of(account, peer.host()));
    const bool hasRoom = memory.resize(ServerListObject::footprint);
    result = hasRoom ? S_OK : E_OUTOFMEMORY;
    return hasRoom ? std::make_shared<ServerListObject>(std::move(memory)) : nullptr;
}

}  // namespace quelm::opcda::wire
