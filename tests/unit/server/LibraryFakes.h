#pragma once

// Stand-ins for the libraries that keep the time and the plant's data. They do what the test tells them and write down,
// in one common journal, what was asked of them and in which order.

#include <fmt/format.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Clock Library/IClock.h"
#include "DB Interface Library/IDBIL.h"
#include "Messages/IRaiseMsg.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/TimeSource.h"

namespace quelm::fakes {

using Lines = std::vector<std::string>;
using Failure = std::optional<RuntimeError>;

inline void raiseIf(const Failure& failure) {
    if (failure) {
        throw *failure;
    }
}

struct Journal {
    Lines lines;
    void add(std::string line) { lines.push_back(std::move(line)); }
    Lines take() { return std::exchange(lines, {}); }
};

// Messages as "type text".
struct Messages : Journal, IRaiseMsg {
    void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) override {
        add(fmt::format("{} {}", lngMsgType, strDescription));
    }
};

// ---- clock

struct Interval : IInterval {
    Interval(Journal& j, std::int32_t p, std::string d) : journal(j), period(p), description(std::move(d)) {}
    Journal& journal;
    std::int32_t period;
    std::string description;
    IntervalExpired handler;
    bool enabled = true;

    void OnIntervalExpired(IntervalExpired h) override { handler = std::move(h); }
    std::int32_t Period() const override { return period; }
    void SetIntervalEnabled(bool blnEnabled) override {
        enabled = blnEnabled;
        journal.add(fmt::format("interval '{}': enabled={}", description, blnEnabled));
    }
    void CancelInterval(bool blnNow) override {
        enabled = false;
        journal.add(fmt::format("interval '{}': cancel({})", description, blnNow));
    }
};

struct Clock : IClock {
    explicit Clock(Journal& j) : journal(j) {}
    Journal& journal;
    std::vector<std::weak_ptr<Interval>> intervals;

    std::shared_ptr<IInterval> CreateInterval(std::int32_t lngPeriod, std::int32_t lngOffset,
                                              const Variant& varActionData, std::string_view strDescription,
                                              bool blnEnabled, bool blnOneShot, bool blnAligned,
                                              std::int32_t lngTolerance, std::int32_t lngReserved) override {
        journal.add(fmt::format("clock: {} s at {} '{}' {} {} {} {} {}{}", lngPeriod, lngOffset, strDescription,
                                blnEnabled, blnOneShot, blnAligned, lngTolerance, lngReserved,
                                varActionData.isEmpty() ? "" : " with data"));
        auto interval = std::make_shared<Interval>(journal, lngPeriod, std::string(strDescription));
        intervals.push_back(interval);
        return interval;
    }

    // Lets every living interval of that name expire once; the number of those that did.
    int fire(std::string_view description) {
        int fired = 0;
        for (std::size_t i = 0; i < intervals.size(); ++i) {
            const auto interval = intervals[i].lock();
            if (interval && interval->description == description && interval->enabled && interval->handler) {
                interval->handler(1, Variant{}, Date{}, false);
                ++fired;
            }
        }
        return fired;
    }
};

// ---- database library

// A row of the item definitions; what a test doesn't name is as on most sites.
struct Definition {
    std::string id = "[@7]";
    std::string name = "T";
    std::int32_t dataType = 1;
    Variant nullValue = Variant::null();
    bool downIsValid = true;
    bool useSubstatus = false;
    Variant refreshRate = Variant(std::int32_t{1});
    bool write = false;
    std::int32_t tagType = 1;

    operator OPCDef() const {
        return OPCDef({Variant(name), Variant(id), Variant(tagType), Variant(dataType), Variant(write), nullValue,
                       Variant(downIsValid), Variant(useSubstatus), refreshRate});
    }
};

inline CurrentIORecord record(std::string id, Variant value, std::string xml = {}, Date stamp = {}) {
    return {.IOID = std::move(id), .TStamp = stamp, .NValue = std::move(value), .XValue = xml};
}

struct DBIL : IDBIL, IConfigurationReader, IRealtimeDB {
    explicit DBIL(Journal& j) : journal(j) {}
    Journal& journal;
    std::set<std::string> sitesThatFail;
    int testsThatFail = 0;    // the first so many
    int insertsThatFail = 0;  // likewise
    std::map<std::string, std::shared_ptr<const OPCDefCollection>> definitions;
    std::shared_ptr<const ChannelDefCollection> channelDefs = std::make_shared<ChannelDefCollection>();
    std::shared_ptr<const CurrentIOCollection> snapshot;
    std::vector<PIDDefinition> pidDefinitions;
    std::vector<ParameterValue> parameterValues;
    Failure testFailure, definitionsFailure, channelDefsFailure, readFailure, insertFailure, terminateFailure;
    int inserted = 0;
    int reads = 0;
    int channelDefLoads = 0;

    void setSnapshot(std::vector<CurrentIORecord> records) { snapshot = CurrentIOCollection::Make(std::move(records)); }
    void setChannels(const std::vector<std::pair<std::int32_t, std::int32_t>>& typesByID) {
        auto made = std::make_shared<ChannelDefCollection>();
        for (const auto& [id, type] : typesByID) {
            made->Add(ChannelDef{id, fmt::format("Channel {}", id), type});
        }
        channelDefs = std::move(made);
    }
    void setDefinitions(const std::string& site, std::vector<OPCDef> defs) {
        definitions[site] = std::make_shared<const OPCDefCollection>(std::move(defs));
    }

    bool Initialize(std::string_view strExecutableName) override {
        journal.add(fmt::format("dbil: initialize {}", strExecutableName));
        return false;
    }
    bool SetupSite(std::string_view strSiteID, std::string_view c1, std::string_view c2, std::string_view c3,
                   std::string_view c4, std::string_view c5, bool blnUse, bool blnReserved) override {
        journal.add(
            fmt::format("dbil: set up {} {},{},{},{},{} {} {}", strSiteID, c1, c2, c3, c4, c5, blnUse, blnReserved));
        return sitesThatFail.count(std::string(strSiteID)) == 0;
    }
    bool TestConnections(std::string_view strSiteID, bool b1, bool b2, bool b3, bool b4, bool b5,
                         bool blnReport) override {
        journal.add(fmt::format("dbil: test '{}' {} {} {} {} {} {}", strSiteID, b1, b2, b3, b4, b5, blnReport));
        raiseIf(testFailure);
        return testsThatFail-- <= 0;
    }
    IConfigurationReader& ConfigurationReader() override { return *this; }
    IRealtimeDB& RealtimeDB() override { return *this; }
    void Terminate() override {
        journal.add("dbil: terminate");
        raiseIf(terminateFailure);
    }

    std::shared_ptr<const OPCDefCollection> LoadOPCDefs(std::string_view strSiteID) override {
        raiseIf(definitionsFailure);
        return definitions[std::string(strSiteID)];
    }
    std::shared_ptr<const ChannelDefCollection> LoadChannelNames(std::string_view) override {
        return channelDefsFailure ? nullptr : channelDefs;
    }
    std::shared_ptr<const ChannelDefCollection> LoadChannelDefs(std::string_view) override {
        ++channelDefLoads;
        raiseIf(channelDefsFailure);
        return channelDefs;
    }
    std::vector<PIDDefinition> LoadPIDDefinitions(std::string_view, std::int32_t) override {
        raiseIf(definitionsFailure);
        return pidDefinitions;
    }
    SiteSettings LoadSiteSettings(std::string_view, std::int32_t) override { return {3}; }

    std::shared_ptr<const CurrentIOCollection> ReadCurrentIO(std::string_view, bool) override {
        ++reads;
        raiseIf(readFailure);
        return snapshot;
    }
    std::optional<MessageRecord> GetMessageRecord(std::string_view, std::string_view) override { return {}; }
    bool InsertMessage(std::string& strMsgID, std::string_view strSiteID, std::string_view strMsgType,
                       std::string_view strMsgData, std::string_view strUnused1, std::string_view strUnused2,
                       std::string_view strDescription) override {
        journal.add(fmt::format("insert '{}' {} {} {} '{}' '{}' '{}'", strMsgID, strSiteID, strMsgType, strMsgData,
                                strUnused1, strUnused2, strDescription));
        raiseIf(insertFailure);
        if (insertsThatFail-- > 0) {
            return false;
        }
        strMsgID = fmt::format("M{}", ++inserted);
        return true;
    }
    void ReadParameterValues(std::string_view, std::vector<ParameterValue>& out) override {
        ++reads;
        out = parameterValues;
        raiseIf(readFailure);
    }
};

// The world around an object under test: the time, the libraries, and what is said.
struct World {
    ManualTimeSource time{makeDate(2026, 11, 16, 8, 0, 0)};
    ScopedTimeSource inForce{time};
    Journal journal;
    Messages messages;
    std::shared_ptr<Clock> clock = std::make_shared<Clock>(journal);
    std::shared_ptr<DBIL> dbil = std::make_shared<DBIL>(journal);
};

}  // namespace quelm::fakes
