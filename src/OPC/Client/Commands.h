#pragma once

// The commands that ask a server once and are done.

#include "OPC/Client/Answer.h"
#include "OPC/Client/Connection.h"

namespace quelm::opcclient {

// What the command of the options has to say. Raises UsageError; throws Trouble, OpcError.
Answer discover(Connection& connection);
Answer status(Connection& connection, const Options& options);
Answer browse(Connection& connection, Screen& screen, const Options& options);
Answer read(Connection& connection, const Options& options);
Answer properties(Connection& connection, const Options& options);
Answer groups(Connection& connection);
Answer bench(Connection& connection, Screen& screen, const Options& options);

}  // namespace quelm::opcclient
