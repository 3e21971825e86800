#pragma once

// Carries out one command on a site and says what came of it.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "OPC/Tools/Arguments.h"
#include "OPC/Tools/Json.h"
#include "OPC/Tools/SiteLink.h"

namespace quelm::tools {

enum class ExitCode : std::int32_t { Done = 0, Failed = 1, Usage = 2, SiteTrouble = 3, TimedOut = 4 };

struct Outcome {
    ExitCode code = ExitCode::Done;
    std::vector<std::string> lines;     // for people
    std::vector<std::string> problems;  // for people, why it is not done, beside the I/O server link's messages
    Json fields = Json::object();       // what the lines say, for programs
};

// Reads the site first. Only for commands that need a site.
Outcome carryOut(const Request& request, SiteLink& link);

}  // namespace quelm::tools
