#pragma once

// What the domain's status codes mean to the operator.

#include <cstdint>
#include <string>

#include "dcom/RefusalReason.h"

namespace quelm::dcom::winbind {

struct Status {
    RefusalReason reason;
    std::string detail;
};

// name: the library's own for the code, which is all there is to say of some. Never None.
Status statusOf(std::uint32_t code, const char* name);

}  // namespace quelm::dcom::winbind
