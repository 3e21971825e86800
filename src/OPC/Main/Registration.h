#pragma once

// Registers the server with the machine, so that a client's first connection starts it. The units belong to the
// package; what this machine's settings ask for is added to them: addresses and ports to the sockets, folders to the
// service, which runs with as few rights as it can do its work with. Without the package the units are written too.

#include <functional>
#include <string>
#include <string_view>

namespace quelm {

struct Registration {
    std::string destination;  // what goes before the units' folder, for packages; empty: this machine
    bool onlyFiles = false;   // write, and leave it to others to make systemd follow
    std::string program;      // absolute path of the server
    std::function<void(std::string_view)> say;
    std::function<void(std::string_view)> trouble;
};

// For this program, with the destination out of the environment variable QUELM_DESTDIR; when it is set ("/" for this
// machine), only files are written. say and trouble take one plain
// line each: what was written, and what the operator has to see to.
Registration thisProgramsRegistration(std::function<void(std::string_view)> say,
                                      std::function<void(std::string_view)> trouble);

// Writes what the settings ask for now, and starts listening where systemd runs. May be repeated whenever the settings
// have changed. Raises RuntimeError with reason and remedy, also when nobody listens in the end.
void registerServer(const Registration& registration);
// Stops listening, also after the next boot, and removes what was written. Raises RuntimeError.
void unregisterServer(const Registration& registration);

}  // namespace quelm
