#pragma once

// What a service manager (systemd) and its programs say to each other: the listening sockets that it hands over, the
// news of the program's state, and how serious a line for the journal is. Without one, all of it is left out.

#include <string>
#include <string_view>
#include <vector>

namespace quelm::systemd {

// Under these names the socket units hand their sockets over.
inline constexpr std::string_view activationSocket = "activation";
inline constexpr std::string_view objectSocket = "object";

// Descriptors that listen already; whoever takes them closes them.
struct PassedSockets {
    std::vector<int> activation;
    std::vector<int> object;

    bool any() const { return !activation.empty() || !object.empty(); }
};

// The sockets that this process was handed at its start, once: they and the word of them are then taken out of the
// environment. Raises RuntimeError when they are not those of an OPC server, with all of them closed; a process that
// was started half right would otherwise serve nobody without a word.
PassedSockets takeSockets();

// Tells the service manager ("READY=1", "STATUS=..."; several with a line break between them).
void tell(std::string_view news);

// Whether a service manager waits for such news. It closes the server in the operator's place.
bool supervised();

// syslog's numbers.
enum class Priority : char { error = '3', notice = '5', information = '6' };

// What goes before a line on standard error: "<3>" and the like where the journal reads it, otherwise nothing.
std::string linePrefix(Priority priority);

}  // namespace quelm::systemd
