#pragma once

#include <functional>

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

}  // namespace quelm::test
