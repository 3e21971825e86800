#pragma once

// The switches that ask for no server: --help and --version, which every program on this system knows, and --nt-hash,
// with which passwords need not stand in the settings. They are answered before anything else is looked at, and only
// when an argument is exactly that.

#include <optional>

namespace quelm {

// The exit code when one of them was given; the answer is then on standard output.
std::optional<int> answerStandardSwitch(int argc, char** argv);

}  // namespace quelm
