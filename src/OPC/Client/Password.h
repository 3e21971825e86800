#pragma once

// The password of a log-on: out of a file that nobody else can read, the environment, or asked for without echo. Never
// out of the command line, which every user of the machine can see.

#include <exception>
#include <string>

#include "OPC/Client/Options.h"
#include "dcom/ntlm/ServerContext.h"

namespace quelm::opcclient {

// Ctrl-C instead of a password.
class Interruption : public std::exception {};

// The hash of the password of options.user, which is all that a log-on needs; the password itself is wiped. Raises
// UsageError: the file is missing, empty or open to others; there is nobody to ask. Raises
// Interruption.
dcom::ntlm::NtHash passwordHash(const Options& options);

}  // namespace quelm::opcclient
