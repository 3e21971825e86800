#pragma once

// What the program's end tells a script. The numbers are documented and never change.

namespace quelm::opcclient {

enum class ExitCode {
    Good = 0,
    ItemFailed = 1,  // an item failed or is bad, or a case of the check failed
    Usage = 2,       // the command line cannot be carried out as it stands
    NotReached = 3,  // no server there, or it went away
    Refused = 4,     // the log-on or the call was refused
    Interrupted = 130
};

}  // namespace quelm::opcclient
