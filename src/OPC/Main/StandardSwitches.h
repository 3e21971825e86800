#pragma once

// The two switches that every program on this system knows: --help and --version. They are answered before anything
// else is looked at, and only when an argument is exactly that.

namespace quelm {

// Whether one of them was given; the answer is then on standard output.
bool answeredStandardSwitch(int argc, char** argv);

}  // namespace quelm
