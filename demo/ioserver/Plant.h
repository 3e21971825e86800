#pragma once

// The demo plant in motion: heartbeats, refreshes of all data, measured values that swing, counters that count.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/sql/Sql.h"
#include "base/Date.h"

namespace demo {

enum class Generation { IOS5, IOS6 };

class Plant {
 public:
    // database must outlive the plant. What its tables hold now is what the values swing around. Raises RuntimeError
    // when the database fails, as every operation here does.
    explicit Plant(quelm::ISqlConnection& database);

    // One cycle of the I/O servers, which begins with a write whatever the tables hold. Every operation writes in the
    // caller's transaction.
    void cycle();

    // Puts a value in and leaves the channel alone from then on. A text that is a number becomes one; any other stands
    // in the value XML. False when there is no such channel.
    bool write(const std::string& siteID, const std::string& ioid, const std::string& value);
    // The values were read afresh from the devices: their time stamps say so. False when there is no such channel.
    bool refresh(const std::string& siteID, const std::string& ioid);
    // The same for all channels of the site, and the generation's record of it.
    void refreshAll(const std::string& siteID, Generation generation);

 private:
    // What moves, from where it was when the program started.
    struct Channel {
        std::string siteID;
        std::string ioid;
        double middle;
    };
    struct Parameter {
        std::string siteID;
        std::int64_t pid;
        std::string intervalType;
        double middle;
    };

    void findChannels();
    void findParameters();
    double swung(double middle, std::size_t phase) const;
    void beat(quelm::Date now);
    void completeRefresh(quelm::Date now);
    void hold(std::string_view siteID, std::string_view ioid);

    quelm::ISqlConnection& database_;
    std::vector<Channel> channels_;
    std::vector<Channel> counters_;
    std::vector<Parameter> parameters_;
    quelm::Date lastRefresh_;  // zero date before the first
    long cycles_ = 0;
};

}  // namespace demo
