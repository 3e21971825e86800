#pragma once

// The conformance check, as a command.

#include "OPC/Client/Connection.h"
#include "OPC/Client/ExitCode.h"

namespace quelm::opcclient {

// The cases of the options with what they ask and expect; needs no server.
void listCases(Screen& screen, const Options& options);

// Runs them. Throws Trouble where the server is not reached, goes away for good, or the user interrupts the check.
ExitCode runCheck(Connection& connection, AsioLoop& loop, Screen& screen, const Options& options);

}  // namespace quelm::opcclient
