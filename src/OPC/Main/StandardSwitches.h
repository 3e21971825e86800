#pragma once

// The switches that ask for no server: --help and --version (-h, -v), which every program on this system knows, and
// --nt-hash, with which passwords need not stand in the settings. They are answered before anything else is looked at,
// and only when an argument is exactly that.

#include <optional>
#include <string>
#include <vector>

namespace quelm {

// The exit code when one of them was given; the answer is then on standard output.
std::optional<int> answerStandardSwitch(int argc, char** argv);

// A line for every argument in which there is no switch at all: the server starts all the same, as whoever starts it
// may add text of its own, but a mistyped switch should not pass in silence.
std::vector<std::string> notUnderstood(int argc, char** argv);

}  // namespace quelm
