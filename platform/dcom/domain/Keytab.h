#pragma once

// Which names a keytab holds, and how strong their keys are: for what the server says of itself to clients and for a
// word to the operator. The keys themselves are the library's business.

#include <cstdint>
#include <string>
#include <vector>

namespace quelm::dcom {

struct Keytab {
    struct Entry {
        std::string principal;  // "host/opc.plant.example"
        std::string realm;      // "PLANT.EXAMPLE"
        std::uint16_t encryption = 0;
    };
    std::vector<Entry> entries;
    std::string fault;  // why it cannot be used; empty when it can

    // "host/opc.plant.example": what clients are told to ask tickets for, with a full name where there is one; empty
    // when there is no such entry.
    std::string hostPrincipal() const;
};

// Encryption that no domain should use any more, and that is not taken here.
bool isOldEncryption(std::uint16_t encryption);

// Never raises.
Keytab readKeytab(const std::string& path);
// The contents of a file, which are wiped.
Keytab parseKeytab(std::string& contents);

}  // namespace quelm::dcom
