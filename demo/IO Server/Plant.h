#pragma once

// The demo plant in motion: heartbeats, refreshes of all data, measured values that swing, counters that count.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Database.h"

namespace demo {

enum class Generation { IOS5, IOS6 };

class Plant {
 public:
    // database must outlive the plant. What its tables hold now is what the values swing around.
    explicit Plant(Database& database);

    // One cycle of the I/O servers. Every operation writes in the caller's transaction.
    void cycle();

    // Puts a value in and leaves the channel alone from then on. A text that is a number becomes one; any other stands
    // in the value XML. False when there is no such channel.
    bool write(const std::string& siteID, const std::string& ioid, const std::string& value);
    // The values were read afresh from the devices: their time stamps say so. False when there is no such channel.
    bool refresh(const std::string& siteID, const std::string& ioid);
    // The same for all channels of the site, and the generation's record of it.
    void refreshAll(const std::string& siteID, Generation generation);

 private:
    // A value that moves, from where it was when the program started.
    struct Moving {
        std::string siteID;
        std::string key;  // IOID, or PID
        double middle;
    };

    std::vector<Moving> moving(const std::string& sql);
    std::string swung(const Moving& value, std::size_t phase) const;
    void beat(const std::string& now);
    void completeRefresh(const std::string& now);
    void hold(std::string_view siteID, std::string_view ioid);

    Database& database_;
    std::vector<Moving> channels_;
    std::vector<Moving> counters_;
    std::vector<Moving> parameters_;
    std::string lastRefresh_;
    long cycles_ = 0;
};

}  // namespace demo
