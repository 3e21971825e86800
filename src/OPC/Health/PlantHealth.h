#pragma once

// What the plant knows of its own health, and how it comes to the network, where it is asked for: the plant notes what
// happens, and what is new crosses as one finished object when the handler has ended, one at a time. Nothing of it is
// made for each item.

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "loop/MessageLoop.h"

namespace quelm::health {

enum class DatabaseState : std::uint8_t { unknown, up, down };

// Times are UTC, FILETIME, 0: never; durations are milliseconds.
struct SiteHealth {
    std::string siteID;
    std::int64_t lastPass = 0;
    double passMilliseconds = 0;
    std::uint64_t passes = 0;
    // Reads of the site's current values, of channels or of parameters: the last one that succeeded, and how many did.
    std::int64_t lastSnapshot = 0;
    double snapshotMilliseconds = 0;
    std::uint64_t snapshots = 0;
    std::uint64_t snapshotsFailed = 0;
    DatabaseState database = DatabaseState::unknown;
    std::string databaseMessage;  // why it is down
};

// One line of the message list.
struct MessageLine {
    std::uint64_t number = 0;  // from 1 on, for the life of the process
    std::int64_t time = 0;
    std::string type;
    std::string text;
};

inline constexpr std::size_t keptMessages = 500;
// Bytes of a line's text; the log has all of it.
inline constexpr std::size_t longestMessage = 4000;

// How long something took, to the tenth of a microsecond; a clock that is set meanwhile costs the fraction only.
class Stopwatch {
 public:
    Stopwatch();
    double milliseconds() const;
    std::int64_t begunAt() const { return begun_; }  // UTC, FILETIME

 private:
    std::int64_t begun_;
    std::uint64_t begunMonotonic_;
};

class PlantHealth {
 public:
    enum class Source : std::uint8_t { channels, parameters };

    // The loops outlive it, and run nothing of it when it is gone.
    PlantHealth(IMessageLoop& plant, IMessageLoop& network) : plant_(plant), network_(network) {}
    PlantHealth(const PlantHealth&) = delete;
    PlantHealth& operator=(const PlantHealth&) = delete;

    // On the plant's thread: what happened just now.
    void siteIsKnown(std::string_view siteID);
    void passDone(std::string_view siteID, double milliseconds);
    void snapshotRead(std::string_view siteID, Source source, double milliseconds);
    void snapshotFailed(std::string_view siteID, Source source, std::string_view why);
    void messageRaised(std::string_view type, std::string_view text);

    // On the plant's thread: as of now. siteNow: nullptr for a site that is not known.
    struct Pass {
        std::int64_t ended = 0;  // UTC, FILETIME; 0: there was none
        double milliseconds = 0;
    };
    Pass lastPass() const;
    std::vector<std::string> siteIDs() const;
    const SiteHealth* siteNow(const std::string& siteID) const;
    // The same: how it is now, in one line for the operator, with so many clients.
    std::string summary(std::int32_t clients) const;

    // On the network's thread: as of the plant's last handler that has ended. Sites by their IDs.
    const std::vector<SiteHealth>& sites() const { return shown_; }
    // The last ones, in their order.
    const std::deque<MessageLine>& messages() const { return messages_; }

 private:
    struct Site {
        SiteHealth health;
        std::string failures[2];  // by source; "": its last read succeeded, or there was none
    };

    Site& site(std::string_view siteID);
    void judge(Site& site);
    void note();
    void send();

    IMessageLoop& plant_;
    IMessageLoop& network_;

    // The plant's.
    std::map<std::string, Site, std::less<>> sites_;
    std::deque<MessageLine> lines_;  // not sent yet
    std::uint64_t lastNumber_ = 0;
    bool isNew_ = false;     // there is something to be sent
    bool underWay_ = false;  // something is on its way to the network

    // The network's.
    std::vector<SiteHealth> shown_;
    std::deque<MessageLine> messages_;
};

}  // namespace quelm::health
