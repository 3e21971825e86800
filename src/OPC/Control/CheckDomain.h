#pragma once

// What keeps accounts of a domain out, as far as it shows before the server runs.

#include <string>
#include <vector>

#include "dcom/DcomSettings.h"

namespace quelm::control {

// One line each, with what to do. Asks winbind where the settings name it, and waits for it: up to a minute where a
// controller hangs.
std::vector<std::string> domainProblems(const dcom::DcomSettings& settings);

}  // namespace quelm::control
