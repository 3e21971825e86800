#pragma once

// Items live: a table that renews itself on a terminal, a line for each change elsewhere.

#include "OPC/Client/Connection.h"
#include "OPC/Client/ExitCode.h"

namespace quelm::opcclient {

// Until the options' time is over or the user interrupts it, which is the usual end where no time is given. The code is
// of the last reading of each item. Throws Trouble, OpcError.
ExitCode watch(Connection& connection, Screen& screen, const Options& options);

}  // namespace quelm::opcclient
