#pragma once

// The product's system INI file: which sites (DAHS entries) there are, how to reach their databases, and where
// logs go.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "DB Interface Library/sql/SqlTimeouts.h"

namespace quelm {

struct DAHSEntry {
    std::string SiteID;
    std::int32_t DAHSID = 0;
    std::array<std::string, 5> Connections;  // connection strings 1 to 5
};

class ISystemINI {
 public:
    virtual ~ISystemINI() = default;
    // False when the file is missing, unreadable or holds no usable entry; the reasons go to the problem sink.
    virtual bool ReadINI(std::int32_t lngReserved, bool blnReport) = 0;
    // Selects the entry that names this computer, else the one marked as default; False when there is neither.
    virtual bool SelectDAHS(std::int32_t lngReserved, bool blnReport) = 0;
    // The selected entry; raises RuntimeError 91 before a successful selection.
    virtual const DAHSEntry& SelectedDAHS() const = 0;
    // All entries, in file order.
    virtual const std::vector<DAHSEntry>& AllDAHS() const = 0;
    // As the file has it; no separator is added or removed.
    virtual std::string LogFolder() const = 0;
    // Days after which logs are removed, 1 or more; 0: they are kept.
    virtual std::int32_t KeepLogs() const = 0;
    // Of every site's databases; the defaults where the file says nothing usable.
    virtual SqlTimeouts DatabaseTimeouts() const = 0;
};

}  // namespace quelm
