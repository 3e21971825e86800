#pragma once

#include <functional>
#include <string>

#include "base/RuntimeError.h"

namespace quelm::test {

// The number of the RuntimeError that an action raises; 0 when it raises none.
inline long raisedBy(const std::function<void()>& action) {
    try {
        action();
    } catch (const RuntimeError& error) {
        return error.number();
    }
    return 0;
}

// The same as "number, text"; "none" when it raises none.
inline std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const RuntimeError& error) {
        return std::to_string(error.number()) + ", " + error.description();
    }
    return "none";
}

}  // namespace quelm::test
