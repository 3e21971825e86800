#pragma once

// Results and faults as failing tests show them: as the wire's numbers.

#include <fmt/format.h>

#include <ostream>

#include "dcom/Fault.h"

namespace quelm {

inline std::ostream& operator<<(std::ostream& out, HResult result) {
    return out << fmt::format("{:08X}", fmt::underlying(result));
}

}  // namespace quelm

namespace quelm::dcom {

inline std::ostream& operator<<(std::ostream& out, Fault fault) {
    return out << fmt::format("{:08X}", fmt::underlying(fault));
}

}  // namespace quelm::dcom
