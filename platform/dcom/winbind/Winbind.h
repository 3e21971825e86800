#pragma once

// The domain as winbind knows it, on a machine that is joined. Each call waits: some milliseconds, 3 s where the
// domain's controllers are dead, up to winbind's own limit (60 s, as it comes) where one hangs.

#include <memory>
#include <string>

#include "dcom/inquiry/DomainLink.h"

namespace quelm::dcom::winbind {

// nullptr, and the reason, where the library is not installed. Whether winbind runs is seen with each call.
std::unique_ptr<DomainLink> openWinbind(std::string& fault);

}  // namespace quelm::dcom::winbind
