#include "opcda/wire/ServerBoundInterface.h"

#include "opcda/wire/OpcServerObject.h"

namespace quelm::opcda::wire {

Server& ServerBound::server() {
    return object_.server();
}

}  // namespace quelm::opcda::wire
