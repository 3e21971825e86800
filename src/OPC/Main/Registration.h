#pragma once

// Registers the server with the machine, so that a client's first connection starts it: systemd socket units that
// listen for it, and the unit of the service itself, which runs with as few rights as it can do its work with.

#include <functional>
#include <string>
#include <string_view>

namespace quelm {

struct Registration {
    std::string destination;  // what goes before the units' folder, for packages; empty: this machine
    std::string program;      // absolute path of the server
    std::function<void(std::string_view)> say;
    std::function<void(std::string_view)> trouble;
};

// For this program, with the destination out of the environment variable QUELM_DESTDIR. say and trouble take one plain
// line each: what was written, and what the operator has to see to.
Registration thisProgramsRegistration(std::function<void(std::string_view)> say,
                                      std::function<void(std::string_view)> trouble);

// Writes the units after the settings as they are now, and starts listening where systemd runs. May be repeated
// whenever the settings have changed. Raises RuntimeError with reason and remedy.
void registerServer(const Registration& registration);
// Stops listening and removes the units, if there are any. Raises RuntimeError.
void unregisterServer(const Registration& registration);

}  // namespace quelm
