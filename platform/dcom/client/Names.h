#pragma once

// What a program of one thread asks the system about addresses before it connects.

#include <string>
#include <vector>

namespace quelm::dcom::client {

// The IPv4 addresses of a name, or the address itself; none where it has none. Waits for the name service.
std::vector<std::string> lookUpName(const std::string& host);
// Whether that is a numeric IPv4 address already.
bool isAddress(const std::string& host);
// The address that this machine has on the way to another one; empty where there is no way. Nothing is sent.
std::string ownAddressTowards(const std::string& address);
// The NetBIOS name of this machine, as other ones write it into their logs.
std::string computerName();

}  // namespace quelm::dcom::client
