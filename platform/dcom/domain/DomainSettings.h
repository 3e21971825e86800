#pragma once

// What an operator has to mend before accounts of the domain can come in, as far as this machine alone can tell.

#include <string>
#include <vector>

#include "dcom/domain/AccessList.h"
#include "dcom/domain/Keytab.h"

namespace quelm::dcom {

// One line each, with what to do. path: of the keytab.
std::vector<std::string> keytabProblems(const std::string& path, const Keytab& keytab);
std::vector<std::string> accessProblems(const AccessList& access);

}  // namespace quelm::dcom
