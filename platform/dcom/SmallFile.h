#pragma once

// Reads a file of settings or keys whole, and what has to be said about it.

#include <sys/stat.h>

#include <string>

namespace quelm::dcom {

struct SmallFile {
    std::string text;
    bool exists = false;
    mode_t mode = 0;
    std::string fault;  // why there is no text; a file that is not there has none
};

// Never raises, waits for nothing, and follows whatever is named to a regular file of at most 1 MiB. The caller wipes
// what is secret, after a fault too.
SmallFile readSmallFile(const std::string& path);

}  // namespace quelm::dcom
