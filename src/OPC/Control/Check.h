#pragma once

// What a start of the server would stumble over, found without starting it: both settings files, the databases and what
// is defined in them, ports and the log folder. The server's own classes look, so that the words are those of its log.

#include <cstddef>
#include <string>
#include <vector>

namespace quelm::control {

struct Finding {
    std::string area;  // "Quelm.ini", "dcom.conf", "network", "log", or a site's ID
    std::string text;  // what is wrong, and what to do about it
};

struct CheckedSite {
    std::string siteID;
    bool isReached = false;        // both databases answer
    std::size_t definitions = 0;   // of items
    std::size_t items = 0;         // that clients would see
    std::size_t fromChannels = 0;  // records of I/O channels that are there to be read
};

struct CheckResult {
    std::vector<Finding> problems;
    std::vector<Finding> notes;  // worth knowing, and maybe as it should be
    std::vector<CheckedSite> sites;
};

// Reads, connects and tests; changes nothing. Takes, for each database that does not answer, its time limit and a
// second. Paths of the two settings files. Never raises but for want of memory.
CheckResult check(const std::string& systemIni, const std::string& dcomConf);

}  // namespace quelm::control
