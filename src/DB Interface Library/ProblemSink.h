#pragma once

// Where the libraries put the reason of a failure that their interface can only answer with False or nothing.
// The program's main function decides what becomes of the lines (it writes them to standard error).

#include <functional>
#include <string_view>

namespace quelm {

// One line of plain words, without line break and without passwords. Must not throw.
using ProblemSink = std::function<void(std::string_view strProblem)>;

}  // namespace quelm
