#pragma once

// What went wrong with a server, in words for whoever ran the program, and the exit code for scripts.

#include <string>

#include "OPC/Client/ExitCode.h"
#include "OPC/Client/Options.h"
#include "dcom/client/Trouble.h"
#include "opcda/client/OpcError.h"

namespace quelm::opcclient {

ExitCode exitCodeOf(const dcom::client::Trouble& trouble);
ExitCode exitCodeOf(const opcda::client::OpcError& error);

// What the options of this program can do about it; empty where they can do nothing.
std::string adviceOn(const dcom::client::Trouble& trouble, const Options& options);

}  // namespace quelm::opcclient
