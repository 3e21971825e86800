#pragma once

// What Prometheus is told, from the server's answer to "status".

#include <string>

#include "OPC/Monitor/ControlLink.h"

namespace quelm::monitor {

// The metrics in Prometheus' text form. status: the answer; nullptr while the server gives none, which leaves quelm_up
// at 0 and the monitor's own version. What an answer lacks is left out.
std::string metricsText(const Json* status);

}  // namespace quelm::monitor
