#pragma once

// The monitor's settings: /etc/quelm/monitor.conf, or where QUELM_MONITOR_CONF says.
//
//   [Listen]  Address = 127.0.0.1 (one numeric address), Port = 9455 (0: any free one), Names = (host names, by commas)
//   [Server]  Control = /run/quelm/control (unless QUELM_CONTROL says another)

#include <string>
#include <string_view>
#include <vector>

namespace quelm::monitor {

struct Settings {
    std::string address = "127.0.0.1";
    int port = 9455;
    std::vector<std::string> names;  // besides numeric addresses and "localhost", what browsers may call this machine
    std::string control = "/run/quelm/control";
};

// text: of the file. problems gets a line for each fault, in words for whoever can mend it; what is damaged costs
// itself only, and its default holds.
Settings settingsFrom(std::string_view text, std::vector<std::string>& problems);
// Where the file is on this machine.
std::string settingsPath();
// A file that is not there leaves the defaults; one that cannot be read leaves them, too, with a line in problems.
Settings readSettings(const std::string& path, std::vector<std::string>& problems);

// Whether a request's Host header names this machine by what no stranger can have pointed at it: a numeric address,
// "localhost" or one of the names of the settings, with a port or without. A page of another host that has its name
// lead here is so kept from reading the plant through its visitor's browser.
bool isOwnHost(std::string_view host, const std::vector<std::string>& names);
bool isNumericAddress(const std::string& text);

}  // namespace quelm::monitor
